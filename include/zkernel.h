/*
 * zkernel.h - the exported interface of the zkernel imaging kernel.
 *
 * This is the only header an application includes. It compiles as C99 and as
 * C++. Every function returns a signed 32-bit status (ST_OK on success, a
 * negative ST_ code on failure) unless its comment says otherwise. Nothing in
 * the library throws or aborts; allocation failure is ST_NO_MEMORY.
 *
 * Ownership: the caller owns every BitmapHandle record (the library never
 * allocates one for the caller); the library owns what an allocated record
 * points to (storage, Palette, Region, Overlays, LUT, ValueMap) and frees it
 * in Z_FreeBitmap. A record is "described" when filled by Z_InitBitmap
 * without storage, and "allocated" while BF_ALLOCATED is set. Functions that
 * fill a destination record overwrite it without freeing what it held, so
 * pass one that holds nothing. Blocks handed to the caller are freed with the
 * function their comment names.
 *
 * Units: widths, heights, columns and rectangles are in pixels, rows are
 * stored row indices (ViewPerspective is not applied), byte counts and sizes
 * are bytes, resolutions are dots per inch.
 *
 * Status values, flag bits and the BitmapHandle layout are ABI: they are never
 * renumbered or reordered.
 */
#ifndef ZKERNEL_H
#define ZKERNEL_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(_WIN32)
#include <windows.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Calling convention and export marking
 * ------------------------------------------------------------------------- */
#if defined(_WIN32) && !defined(_WIN64)
#define Z_API __stdcall
#define Z_CDECL __cdecl
#else
#define Z_API
#define Z_CDECL
#endif

#if defined(ZK_BUILDING_LIBRARY)
#if defined(_WIN32)
#define Z_EXPORT __declspec(dllexport)
#else
#define Z_EXPORT __attribute__((visibility("default")))
#endif
#elif defined(_WIN32) && !defined(ZK_STATIC)
#define Z_EXPORT __declspec(dllimport)
#else
#define Z_EXPORT
#endif

/* ---------------------------------------------------------------------------
 * Status codes (one table for the whole library)
 * ------------------------------------------------------------------------- */
#define ST_OK 1                   /* success */
#define ST_NO_MEMORY (-1)         /* an allocation failed; also row access to a record without storage */
#define ST_INVALID_BITMAP (-2)    /* no record, or the record has no storage (BF_ALLOCATED clear) */
#define ST_FILE_SEEK (-4)         /* a seek in a disk-backed bitmap's file did not reach the offset */
#define ST_FILE_WRITE (-5)        /* writing a disk-backed bitmap's file failed, or a row copy stopped short */
#define ST_FILE_READ (-7)         /* reading a disk-backed bitmap's file failed */
#define ST_BAD_POSITION (-11)     /* a position outside the bitmap; also allocating a bitmap of Size 0 */
#define ST_BAD_PARAM (-13)        /* invalid argument: null pointer, value out of range, wrong storage kind */
#define ST_BAD_BPP (-27)          /* bits per pixel not supported by the operation */
#define ST_NO_DISPATCH (-30)      /* no region hook table is installed */
#define ST_TEMP_FILE (-295)       /* a temporary file for disk or tiled storage could not be created */
#define ST_BAD_STRUCT_SIZE (-789) /* StructSize or a structSize argument is not Z_BITMAPHANDLE_SIZE */
#define ST_NO_BITMAP (-814)       /* a required bitmap record is missing */
#define ST_SIGNED_DATA (-1360)    /* the operation refuses a bitmap with BF_SIGNED set */
/* ST_TOO_LARGE: image dimensions whose row length, size, tile or file size do
 * not fit the record's fields, size_t on this target, or a 31-bit count;
 * refused before anything is allocated. */
#define ST_TOO_LARGE (-1370) /* dimensions whose sizes do not fit */

/* ---------------------------------------------------------------------------
 * Version of this header: major.minor.patch, and as one number
 * major * 10000 + minor * 100 + patch. Z_GetVersion() returns the value the
 * library was built with, so a caller can check that the library it loaded
 * matches the header it was compiled against.
 * ------------------------------------------------------------------------- */
#define ZK_VERSION_MAJOR 0
#define ZK_VERSION_MINOR 1
#define ZK_VERSION_PATCH 0
#define ZK_VERSION (ZK_VERSION_MAJOR * 10000 + ZK_VERSION_MINOR * 100 + ZK_VERSION_PATCH)

/* ---------------------------------------------------------------------------
 * BitmapHandle flags (Flags field)
 * ------------------------------------------------------------------------- */
#define BF_ALLOCATED 0x1u
#define BF_MEMORY 0x2u
#define BF_DISK 0x4u
#define BF_LOCKED 0x10u
#define BF_PLAYBACK1 0x40u
#define BF_PLAYBACK2 0x80u
#define BF_COMPRESSED 0x100u
#define BF_SIGNED 0x200u
#define BF_USER_DATA 0x400u
#define BF_LUT_USED 0x800u
#define BF_GLOBAL 0x1000u
#define BF_TILED 0x4000u
#define BF_SUPERCOMPRESSED 0x8000u
/* Bits cleared at the start of every allocation. */
#define BF_STORAGE_MASK 0xD517u

/* Memory types: argument of Z_AllocateBitmap / Z_CreateBitmap, result of
 * Z_GetBitmapMemoryInfo, value of the thread's default memory type. */
#define TYPE_CONV 1u
#define TYPE_USER 2u
#define TYPE_TILED 4u
#define TYPE_NOTILE 8u /* with TYPE_CONV: never tile */
#define TYPE_DISK 128u
#define TYPE_MEMORY_ONLY 256u /* never fall back to disk */
#define TYPE_COMPRESSED 512u
#define TYPE_SUPERCOMPRESSED 1024u

/* Colour orders. */
#define CO_RGB 0u
#define CO_BGR 1u
#define CO_GRAY 2u
#define CO_ALT_BGR 5u

/* View perspectives (numbered as the TIFF Orientation tag). */
#define VP_TOP_LEFT 1u
#define VP_TOP_RIGHT 2u
#define VP_BOTTOM_RIGHT 3u
#define VP_BOTTOM_LEFT 4u
#define VP_LEFT_TOP 5u
#define VP_RIGHT_TOP 6u
#define VP_RIGHT_BOTTOM 7u
#define VP_LEFT_BOTTOM 8u

/* Dither methods. */
#define DITHER_NONE 0u
#define DITHER_FLOYD 1u
#define DITHER_STUCKI 2u
#define DITHER_BURKES 3u
#define DITHER_SIERRA 4u
#define DITHER_STEVENSON_ARCE 5u
#define DITHER_JARVIS 6u
#define DITHER_ORDERED 7u
#define DITHER_CLUSTERED 8u

/* Duplication flags of Z_DupBitmapNewDim / Z_FreeDuplicateBitmap. */
#define DUP_ALLOCATE 1u
#define DUP_PALETTE 2u
#define DUP_REGION 4u
#define DUP_OVERLAYS 8u

/* Conversion flags of Z_ConvertBufferExt. */
#define CVT_SRC_GRAY 0x1u
#define CVT_DST_GRAY 0x2u
#define CVT_SRC_RANGE 0x4u
#define CVT_DST_RANGE 0x8u
#define CVT_OPAQUE_ALPHA 0x10u

/* Gray classification of palettes and bitmaps. */
#define GRAY_NO 0
#define GRAY_ORDERED 1
#define GRAY_ORDERED_INVERSE 2
#define GRAY_NOT_ORDERED 3

/* Open flags of the I/O routines (conventional low-level values). */
#define Z_O_RDONLY 0x0
#define Z_O_WRONLY 0x1
#define Z_O_RDWR 0x2
#define Z_O_CREAT 0x100
#define Z_O_TRUNC 0x200
/* Permission flags: share reading / writing with others. */
#define Z_S_IREAD 0x100
#define Z_S_IWRITE 0x80
/* Z_OsCreat mode bits. */
#define Z_CREAT_READONLY_ATTR 0x1
#define Z_CREAT_HIDDEN_ATTR 0x2
#define Z_CREAT_SYSTEM_ATTR 0x4
#define Z_CREAT_DELETE_ON_CLOSE 0x100

/* Longest temporary directory, in wide characters including the terminator. */
#define Z_MAX_PATH 260

/* ---------------------------------------------------------------------------
 * Shared records
 * ------------------------------------------------------------------------- */
#if !defined(_WIN32)
typedef struct tagRGBQUAD {
    uint8_t rgbBlue;
    uint8_t rgbGreen;
    uint8_t rgbRed;
    uint8_t rgbReserved;
} RGBQUAD;

typedef struct tagRECT {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
} RECT;

typedef struct tagPOINT {
    int32_t x;
    int32_t y;
} POINT;

typedef uint32_t COLORREF; /* 0x00BBGGRR */

/* A palette handle: the library's own palette object where there is no GDI.
 * Released with Z_DeletePalette. */
typedef struct Z_PaletteObject* HPALETTE;
#endif

/* File handle of the I/O routines; -1 means none. */
typedef intptr_t Z_FILE;
#define Z_INVALID_FILE ((Z_FILE)-1)

/*
 * The bitmap record. Forty fields in this order, then a reserved tail word
 * that brings the record to its declared size. Pointer and handle fields are
 * pointer-sized; Size and CurRowOffset are size_t; every other field is a
 * 32-bit integer. On a 32-bit target the record is 164 bytes with field k at
 * offset 4*(k-1). Always pass Z_BITMAPHANDLE_SIZE as the structSize argument.
 */
typedef struct BitmapHandle {
    uint32_t StructSize;      /*  1 */
    void* DataHandle;         /*  2 mapping, global block or file handle */
    uint8_t* Data;            /*  3 row 0 while addressable; tile table when tiled */
    int32_t Width;            /*  4 */
    int32_t Height;           /*  5 */
    int32_t BitsPerPixel;     /*  6 */
    uint32_t BytesPerLine;    /*  7 */
    size_t CurRowOffset;      /*  8 row cursor: byte offset of CurRow */
    uint32_t CurRow;          /*  9 row cursor: last row reached */
    uint32_t Flags;           /* 10 BF_ bits */
    uint32_t ColorCount;      /* 11 */
    RGBQUAD* Palette;         /* 12 owned; freed with Z_OsFree */
    uint32_t ViewPerspective; /* 13 VP_ value */
    uint32_t Order;           /* 14 CO_ value */
    size_t Size;              /* 15 BytesPerLine * Height */
    uint32_t Reserved16;      /* 16 */
    uint32_t DitherMethod;    /* 17 */
    void* Region;             /* 18 region record (ZarnRgn) */
    int32_t XResolution;      /* 19 */
    int32_t YResolution;      /* 20 */
    uint32_t PlaybackParm0;   /* 21 */
    uint32_t PlaybackParm1;   /* 22 */
    uint32_t PlaybackParm2;   /* 23 */
    uint32_t PlaybackColor1;  /* 24 */
    uint32_t PlaybackColor2;  /* 25 */
    uint32_t PlaybackParm5;   /* 26 */
    uint32_t LowBit;          /* 27 */
    uint32_t HighBit;         /* 28 */
    RGBQUAD* LUT;             /* 29 owned; freed with Z_OsFree */
    uint32_t LUTLength;       /* 30 */
    uint32_t DataOffset;      /* 31 */
    uint32_t MinVal;          /* 32 */
    uint32_t MaxVal;          /* 33 */
    uint32_t PaintLowBit;     /* 34 */
    uint32_t PaintHighBit;    /* 35 */
    uint32_t Percent;         /* 36 */
    void* DitherData;         /* 37 dithering state */
    uint32_t Reserved38;      /* 38 */
    uint8_t* ValueMap;        /* 39 256-byte table; freed with Z_OsFree */
    void* Overlays;           /* 40 overlay table */
    uint32_t Reserved41;      /* tail word: forty fields make 160 bytes, the record is 164 */
} BitmapHandle;

#define Z_BITMAPHANDLE_SIZE ((int)sizeof(BitmapHandle))

/* The record layout on 32-bit targets, proved at compile time (C99 has no
 * static assertion, so a negative array size stands in for it). */
#if UINTPTR_MAX == 0xFFFFFFFFu
typedef char Z_BitmapHandleIs164Bytes[(sizeof(BitmapHandle) == 164) ? 1 : -1];
typedef char Z_BitmapHandleSizeAt56[(offsetof(BitmapHandle, Size) == 56) ? 1 : -1];
typedef char Z_BitmapHandleOverlaysAt156[(offsetof(BitmapHandle, Overlays) == 156) ? 1 : -1];
#endif

/* ---------------------------------------------------------------------------
 * Callback types
 * ------------------------------------------------------------------------- */
/* Progress: called with 0 first, then whenever the whole percentage changes.
 * Any result other than ST_OK stops the operation and becomes its status. */
typedef int32_t(Z_API* STATUSCALLBACK)(int32_t percent, void* userData);
/* Progress of row copies (Z_CopyBitmapData and relatives); same contract. */
typedef int32_t(Z_API* COPYSTATUSCALLBACK)(int32_t percent, void* userData);
/* Font substitution, for the vector companion library: fills `substitute`
 * (Z_MAX_PATH wide characters) for `faceName`; returns ST_OK when it did. */
typedef int32_t(Z_API* SUBSTITUTEFONTCALLBACK)(const wchar_t* faceName, wchar_t* substitute, void* userData);

/* The five swappable I/O routines. Each gets the user data installed with it
 * as its last argument. */
typedef Z_FILE(Z_API* Z_OPENPROC)(const wchar_t* name, int32_t openFlags, int32_t permFlags, void* userData);
typedef int32_t(Z_API* Z_READPROC)(Z_FILE file, void* buffer, uint32_t count, void* userData);
typedef int32_t(Z_API* Z_WRITEPROC)(Z_FILE file, const void* buffer, uint32_t count, void* userData);
typedef int64_t(Z_API* Z_SEEKPROC)(Z_FILE file, int64_t offset, int32_t origin, void* userData);
typedef int32_t(Z_API* Z_CLOSEPROC)(Z_FILE file, void* userData);

/* ---------------------------------------------------------------------------
 * Region hook table (installed by a companion region library)
 * ------------------------------------------------------------------------- */
#define Z_DISPATCH_ENTRIES 20

/* A generic table slot; cast to the entry's own type before calling. */
typedef void(Z_API* Z_DISPATCHPROC)(void);
typedef struct Z_DISDISPATCH {
    Z_DISPATCHPROC Entry[Z_DISPATCH_ENTRIES]; /* Entry[0] is entry 1 */
} Z_DISDISPATCH;

/* Entry 1 (row mirror done) and entry 19 (row order done). */
typedef int32_t(Z_API* Z_RGNBITMAPPROC)(BitmapHandle* bitmap);
/* Entry 2: copy the region of src to dst. */
typedef int32_t(Z_API* Z_RGNCOPYPROC)(BitmapHandle* dst, BitmapHandle* src, uint32_t word1, uint32_t word2);
/* Entry 4: region kind. */
typedef int32_t(Z_API* Z_RGNKINDPROC)(BitmapHandle* bitmap, int32_t* answer);
/* Entry 5: span of a row; span[0] start, span[1] length. */
typedef int32_t(Z_API* Z_RGNROWSPANPROC)(BitmapHandle* bitmap, int32_t row, int32_t* span, int32_t* answer);
/* Entry 6: bitmap resized. */
typedef int32_t(Z_API* Z_RGNSIZEPROC)(BitmapHandle* bitmap, int32_t width, int32_t height);
/* Entry 8: region bounds. */
typedef int32_t(Z_API* Z_RGNBOUNDSPROC)(BitmapHandle* bitmap, uint32_t word, RECT* rect, int32_t clip);
/* Entry 13: bitmap turned; angle in hundredths of a degree. */
typedef int32_t(Z_API* Z_RGNROTATEPROC)(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t angle);
/* Entry 17: is (column, row) inside; 0 refuses. */
typedef int32_t(Z_API* Z_RGNPTPROC)(BitmapHandle* bitmap, int32_t column, int32_t row);

/* The region record owned by a bitmap through Region. The kernel reads and
 * releases only the fields below; the rest belongs to the region library.
 * The record and both element arrays are blocks from Z_OsAlloc. The two
 * graphic objects are GDI objects on Windows and blocks from Z_Malloc
 * elsewhere. */
typedef struct ZarnRgn {
    RECT Bounds;
    uint32_t Count1;
    void* Elements1;
    uint32_t Count2;
    void* Elements2;
    void* Object1;
    void* Object2;
} ZarnRgn;

/* Buffer redirection record of Z_StartRedirectToBuffer. */
typedef struct Z_REDIRECTBUFFER {
    uint8_t* Buffer;
    size_t Size;     /* bytes allocated */
    size_t End;      /* end of data */
    size_t Position; /* current position */
    uint32_t Flags;  /* 1 may grow; 4 input only; low bits 3: shrink on close */
    Z_OPENPROC SavedOpen;
    Z_READPROC SavedRead;
    Z_WRITEPROC SavedWrite;
    Z_SEEKPROC SavedSeek;
    Z_CLOSEPROC SavedClose;
    void* SavedUser[5];
} Z_REDIRECTBUFFER;

#define Z_REDIRECT_GROW 0x1u
#define Z_REDIRECT_SHRINK 0x3u
#define Z_REDIRECT_INPUT 0x4u
/* The pseudo file handle of a buffer redirection. */
#define Z_REDIRECT_HANDLE 5

/* A bitmap list: a handle of a movable block holding the list header. */
typedef void* BitmapList;

/* ---------------------------------------------------------------------------
 * Bitmap record and initialisation
 * ------------------------------------------------------------------------- */
/* Describes an image in *bitmap without allocating storage. The record is
 * zeroed (what it held is not freed), then: Width, Height, BitsPerPixel,
 * BytesPerLine (rows padded to 4 bytes), Size = BytesPerLine * height,
 * ColorCount 2^bitsPerPixel up to 8 bits (else 0), Order CO_RGB up to 8 bits,
 * CO_GRAY at 12, else CO_BGR, ViewPerspective VP_BOTTOM_LEFT, the thread's
 * dither method and resolutions (150 when not positive), the full gray window
 * and Percent 100. width and height in pixels (0 allowed); bitsPerPixel 1..8,
 * 12, 16, 24, 32, 48 or 64. width = height = bitsPerPixel = 0 leaves a zeroed
 * record with StructSize set. ST_OK; ST_BAD_PARAM (null record: nothing
 * written; negative dimension), ST_BAD_STRUCT_SIZE (nothing written),
 * ST_BAD_BPP, ST_TOO_LARGE. Nothing is allocated, so nothing needs freeing. */
Z_EXPORT int32_t Z_API Z_InitBitmap(BitmapHandle* bitmap, int32_t structSize, int32_t width, int32_t height,
                                    int32_t bitsPerPixel);
/* Z_InitBitmap, then Z_AllocateBitmap(bitmap, memoryType), then a palette up
 * to 8 bits: bitsPerPixel 0 means 8 bits with a gray ramp; else a copy of
 * `palette` (ColorCount entries) when given; else the depth's fixed palette.
 * Above 8 bits Order = order (CO_ALT_BGR is allowed at 24 and 48 bits only,
 * else ST_BAD_BPP before anything is allocated). viewPerspective 1..8, 0
 * meaning VP_TOP_LEFT. With TYPE_USER and a non-null data, data (dataSize
 * bytes, which must equal Size) becomes the pixel memory; it stays the
 * caller's. ST_OK: free the bitmap with Z_FreeBitmap. A failure in the
 * initialisation, the allocation or the palette leaves no storage; a
 * view perspective above 8, or caller memory of the wrong size, gives
 * ST_BAD_PARAM with the storage still allocated: free it with Z_FreeBitmap. */
Z_EXPORT int32_t Z_API Z_CreateBitmap(BitmapHandle* bitmap, int32_t structSize, uint32_t memoryType, int32_t width,
                                      int32_t height, int32_t bitsPerPixel, uint32_t order, const RGBQUAD* palette,
                                      uint32_t viewPerspective, void* data, size_t dataSize);
/* Attaches caller memory to an allocated TYPE_USER bitmap (BF_ALLOCATED and
 * BF_USER_DATA set, BF_GLOBAL clear): Data = data, which must hold
 * dataSize == Size bytes; null detaches. The memory stays the caller's
 * (Z_FreeBitmap does not free it) and must outlive its use by the bitmap.
 * ST_OK; ST_BAD_PARAM (null record, another storage kind, size other than
 * Size); ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, size_t dataSize);

/* Per-thread defaults: each thread has its own, set to the initial values on
 * its first call. */
/* Returns the calling thread's default horizontal resolution in dots per
 * inch (150 at first). */
Z_EXPORT int32_t Z_API Z_GetDefaultXResolution(void);
/* Returns the calling thread's default vertical resolution in dots per inch
 * (150 at first). */
Z_EXPORT int32_t Z_API Z_GetDefaultYResolution(void);
/* Sets the thread's default horizontal resolution (dots per inch; new records
 * take 150 while it is 0 or negative). Returns the previous value; never
 * fails. */
Z_EXPORT int32_t Z_API Z_SetDefaultXResolution(int32_t value);
/* Sets the thread's default vertical resolution (dots per inch; new records
 * take 150 while it is 0 or negative). Returns the previous value; never
 * fails. */
Z_EXPORT int32_t Z_API Z_SetDefaultYResolution(int32_t value);
/* Sets the thread's default dither method, which new records take:
 * DITHER_NONE..DITHER_CLUSTERED (0..8). ST_OK; ST_BAD_PARAM above 8 (the
 * default stays). */
Z_EXPORT int32_t Z_API Z_DefaultDithering(uint32_t method);
/* Returns the thread's default dither method (DITHER_ORDERED at first). */
Z_EXPORT uint32_t Z_API Z_GetDefaultDithering(void);
/* Sets the thread's default memory type: TYPE_CONV or TYPE_DISK. ST_OK;
 * ST_BAD_PARAM for any other value (the default stays). */
Z_EXPORT int32_t Z_API Z_SetDefaultMemoryType(uint32_t type);
/* Stores the thread's default memory type (TYPE_CONV at first) in *type.
 * ST_OK; ST_BAD_PARAM for a null pointer. */
Z_EXPORT int32_t Z_API Z_GetDefaultMemoryType(uint32_t* type);

/* ---------------------------------------------------------------------------
 * Storage and memory model
 * ------------------------------------------------------------------------- */
/* Allocates pixel storage for a described record (Size > 0) and its
 * 256-byte ValueMap (the identity). memoryType: TYPE_CONV (memory; tiles when
 * the thresholds of Z_SetMemoryThresholds say so or memory runs short; a
 * temporary disk file last), TYPE_TILED (tiles when Size exceeds the tile
 * size, else as TYPE_CONV), TYPE_NOTILE or TYPE_NOTILE | TYPE_CONV (never
 * tiles), TYPE_DISK (a delete-on-close temporary file), TYPE_MEMORY_ONLY
 * (memory or tiles, never disk), TYPE_USER (caller memory, attached with
 * Z_SetBitmapDataPointer); the compressed types need a row store installed
 * (ST_BAD_PARAM without one).
 * Storage the record already holds is not freed: call Z_FreeBitmap first.
 * ST_OK: the record owns the storage until Z_FreeBitmap. Failures:
 * ST_BAD_PARAM (null record, type not accepted, BytesPerLine or Size too
 * small for Width x Height), ST_BAD_STRUCT_SIZE, ST_BAD_POSITION (Size 0 or
 * a negative dimension), ST_BAD_BPP, ST_TOO_LARGE, ST_NO_MEMORY,
 * ST_TEMP_FILE, ST_FILE_WRITE; then BF_ALLOCATED is clear and nothing stays
 * allocated. */
Z_EXPORT int32_t Z_API Z_AllocateBitmap(BitmapHandle* bitmap, uint32_t memoryType);
/* Frees what the record owns: Region (Z_DeleteZarnRgn), Palette, Overlays,
 * and for an allocated record its storage (temporary files are removed;
 * caller memory of TYPE_USER stays the caller's), LUT and ValueMap. The
 * record keeps its geometry, resolution and view perspective and is
 * described again (BF_ALLOCATED clear); it may be allocated again. A null
 * record or a wrong StructSize is ignored. No result. */
Z_EXPORT void Z_API Z_FreeBitmap(BitmapHandle* bitmap);
/* Locks global storage (BF_GLOBAL): Data becomes valid and BF_LOCKED is set.
 * Nothing for other storage kinds, whose Data is always valid (conventional,
 * caller memory) or does not address pixels (tiled, disk, compressed: use
 * row access). No result; a lock that fails leaves Data as it was. */
Z_EXPORT void Z_API Z_AccessBitmap(BitmapHandle* bitmap);
/* Unlocks locked global storage: Data becomes null and BF_LOCKED is cleared.
 * Nothing for other kinds. No result. */
Z_EXPORT void Z_API Z_ReleaseBitmap(BitmapHandle* bitmap);
/* Returns 1 when BF_LOCKED is already set (and does nothing), else locks as
 * Z_AccessBitmap does and returns 0. Pass the result to Z_UnlockBitmap. */
Z_EXPORT int32_t Z_API Z_LockBitmap(BitmapHandle* bitmap);
/* Unlocks as Z_ReleaseBitmap does only when wasLocked (the result of the
 * matching Z_LockBitmap) is 0, so nested pairs leave the outer lock. No
 * result. */
Z_EXPORT void Z_API Z_UnlockBitmap(BitmapHandle* bitmap, int32_t wasLocked);
/* Sets the calling thread's memory thresholds, which steer Z_AllocateBitmap.
 * Argument k is stored only when bit k-1 of mask is set (1 reserve,
 * 2 maxConv, 4 tileSize, 8 maxMemTiles, 16 tileViews). A negative value means
 * a percentage (-100..-1):
 *   reserve     bytes of memory to leave free, or that percentage of total
 *               physical + page-file memory (initially 0);
 *   maxConv     largest conventional block in bytes, or that percentage of
 *               available physical + page-file memory (initially 0x7FFFFFFF);
 *   tileSize    bytes above which a bitmap is tiled, and the target size of
 *               one tile; 0 means 16 MiB (initially 0; no percentage);
 *   maxMemTiles most tiles kept in memory, or that percentage of the tile
 *               count (initially -100: all);
 *   tileViews   most disk tiles mapped at once, or a percentage (initially 1).
 * ST_OK; ST_BAD_PARAM for a value below -100 (below 0 for tileSize), which
 * stops the call with the earlier arguments already stored. */
Z_EXPORT int32_t Z_API Z_SetMemoryThresholds(int32_t reserve, int32_t maxConv, int32_t tileSize, int32_t maxMemTiles,
                                             int32_t tileViews, uint32_t mask);
/* Reads the calling thread's five memory thresholds (units as in
 * Z_SetMemoryThresholds, negative values being percentages); null pointers
 * are skipped. Always ST_OK. */
Z_EXPORT int32_t Z_API Z_GetMemoryThresholds(int32_t* reserve, int32_t* maxConv, int32_t* tileSize,
                                             int32_t* maxMemTiles, int32_t* tileViews);
/* Reports an allocated bitmap's storage kind in *memoryType: TYPE_CONV
 * (memory of any non-tiled kind), TYPE_TILED, TYPE_DISK, TYPE_COMPRESSED or
 * TYPE_SUPERCOMPRESSED. For tiled storage the other non-null outputs get the
 * bytes of one tile, the tile count, the tiles kept in memory, the most disk
 * tiles mapped at once and the disk tiles mapped now; for run-length storage
 * (TYPE_COMPRESSED) tileSize gets the bytes its heap reserves and tileCount
 * the bytes its rows take; for other kinds they are left as they are. ST_OK; ST_INVALID_BITMAP (null record or no
 * storage), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (null memoryType). */
Z_EXPORT int32_t Z_API Z_GetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t* memoryType, uint32_t* tileSize,
                                             uint32_t* tileCount, uint32_t* memTiles, uint32_t* maxMapped,
                                             uint32_t* mappedCount);
/* Changes an allocated bitmap's storage; only the arguments whose mask bit is
 * set are used (1 memoryType, 2 tileSize in bytes, 4 tileCount, 8 memTiles,
 * 16 maxMapped, 32 mappedCount). Another memoryType, or another tile size
 * for a tiled bitmap, rebuilds the storage in that kind with the pixels
 * copied (TYPE_TILED for a bitmap not larger than the tile size gives
 * conventional storage); otherwise a tiled bitmap moves tiles between memory
 * and disk and changes its mapping limits in place (counts clamped to the
 * tile count), and other kinds are left alone. The record keeps its address,
 * palette, region, overlays and gray parameters. ST_OK; ST_NO_BITMAP (null
 * record), ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (no storage), ST_NO_MEMORY,
 * ST_TEMP_FILE, ST_FILE_READ, ST_FILE_WRITE, or a copy-status callback's
 * stop; on failure the bitmap keeps its storage and pixels. */
Z_EXPORT int32_t Z_API Z_SetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t memoryType, uint32_t tileSize,
                                             uint32_t tileCount, uint32_t memTiles, uint32_t maxMapped,
                                             uint32_t mappedCount, uint32_t mask);

/* ---------------------------------------------------------------------------
 * Copying, trimming and duplicating
 * ------------------------------------------------------------------------- */
/* Copies the whole record *src over *dst byte for byte (dst's StructSize is
 * set). The copy shares every pointer and handle of src: it is a second
 * description of the same storage, so free only one of the two. What dst
 * held is not freed. ST_OK, also when dst or src is null (nothing copied);
 * ST_BAD_STRUCT_SIZE when structSize or src's StructSize is wrong. */
Z_EXPORT int32_t Z_API Z_CopyBitmapHandle(BitmapHandle* dst, const BitmapHandle* src, int32_t structSize);
/* Fills *dst (overwritten, not freed) as a bitmap of width x height pixels at
 * bitsPerPixel with src's view perspective, resolutions, order, storage-kind
 * and BF_SIGNED bits, ColorCount and playback words. flags (DUP_ bits):
 * DUP_ALLOCATE allocates storage of src's kind (and, for a CO_GRAY src of the
 * same depth, copies its gray parameters and LUT); DUP_PALETTE, DUP_REGION
 * (through the region-copy hook; none installed: no region), DUP_OVERLAYS
 * copy those into dst, and without the bit dst shares src's pointer. Release
 * dst with Z_FreeDuplicateBitmap(dst, the same flags), or Z_FreeBitmap when
 * all four bits were given. ST_OK; ST_INVALID_BITMAP (null record, src
 * without storage), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (dst == src, negative
 * dimension), ST_BAD_BPP, ST_TOO_LARGE, ST_NO_MEMORY, a storage or
 * region-hook failure; on failure dst holds nothing and src keeps all. */
Z_EXPORT int32_t Z_API Z_DupBitmapNewDim(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t width,
                                         int32_t height, int32_t bitsPerPixel, uint32_t flags);
/* Releases a duplicate made by Z_DupBitmapNewDim with these flags: the
 * pointers it only shares (Palette without DUP_PALETTE, Region without
 * DUP_REGION, Overlays without DUP_OVERLAYS) are cleared first, so the source
 * keeps them; then with DUP_ALLOCATE the bitmap is freed (Z_FreeBitmap), and
 * without it the owned palette, region and overlays are freed. ST_OK;
 * ST_BAD_PARAM for a null record. */
Z_EXPORT int32_t Z_API Z_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t flags);
/* Makes *dst (overwritten, not freed) an independent copy of src: storage of
 * src's kind, palette, region (through the region-copy hook), overlays, gray
 * parameters and pixels. Reports progress to the copy-status callback.
 * ST_OK (also at once when dst == src): free dst with Z_FreeBitmap.
 * ST_BAD_PARAM (null record, src without storage), ST_BAD_STRUCT_SIZE,
 * ST_NO_MEMORY, ST_TEMP_FILE, ST_FILE_WRITE (a row transfer stopped short), a
 * region-hook failure or the callback's stop; on failure dst holds nothing. */
Z_EXPORT int32_t Z_API Z_CopyBitmap(BitmapHandle* dst, BitmapHandle* src, int32_t structSize);
/* Z_CopyBitmap with dst's storage allocated as memoryType (as for
 * Z_AllocateBitmap) instead of src's kind. Results and ownership as
 * Z_CopyBitmap; a memoryType that is not accepted gives ST_BAD_PARAM. */
Z_EXPORT int32_t Z_API Z_CopyBitmap2(BitmapHandle* dst, BitmapHandle* src, uint32_t memoryType, int32_t structSize);
/* Copies the rectangle of width x height pixels at (left, top) of src (it
 * must lie inside src and hold a pixel) into *dst, overwritten and not freed,
 * as an independent bitmap of src's kind with copies of its palette, region
 * and overlays; free it with Z_FreeBitmap. A null dst, or dst == src, crops
 * src in place: only on success is src's old storage (with its palette,
 * region and overlays) freed and replaced, the record keeping its address.
 * Reports progress to the copy-status callback. ST_OK; ST_BAD_PARAM (null src,
 * src without storage, rectangle outside), ST_BAD_STRUCT_SIZE, ST_NO_MEMORY,
 * ST_FILE_WRITE, a region-hook failure or the callback's stop; on failure dst
 * holds nothing and src is unchanged. */
Z_EXPORT int32_t Z_API Z_CopyBitmapRect(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                        int32_t top, uint32_t width, uint32_t height);
/* Z_CopyBitmapRect with the result's storage allocated as memoryType (as for
 * Z_AllocateBitmap). Results and ownership as Z_CopyBitmapRect. */
Z_EXPORT int32_t Z_API Z_CopyBitmapRect2(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                         int32_t top, uint32_t width, uint32_t height, uint32_t memoryType);
/* Crops an allocated bitmap in place to the rectangle of width x height
 * pixels at (left, top) intersected with the bitmap (the far edges are
 * left + width and top + height; a negative left or top then becomes 0), as
 * Z_CopyBitmapRect(NULL, bitmap, ...) does. ST_OK; ST_BAD_PARAM (null record,
 * no storage, nothing left of the rectangle), ST_BAD_STRUCT_SIZE, or a
 * failure of the copy, which leaves the bitmap unchanged. */
Z_EXPORT int32_t Z_API Z_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height);
/* Changes an allocated bitmap's Height in place to height rows (>= 1): rows
 * below the new height are dropped, added rows are zero; conventional, global,
 * disk, tiled and run-length storage. Size follows and the row cursor is
 * reset. ST_OK (also for the same height); ST_INVALID_BITMAP (null record, no
 * storage), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (height < 1, caller memory, a
 * locked bitmap), ST_TOO_LARGE, ST_NO_MEMORY, ST_TEMP_FILE; on
 * failure the bitmap keeps its height and rows. */
Z_EXPORT int32_t Z_API Z_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t height);

/* Run-length storage (Z_AllocateBitmap with TYPE_COMPRESSED at 1 bit per
 * pixel): each row is kept as its runs (the form of Z_CompressRow) in a heap
 * that grows in 256 KiB steps; row access expands and compresses rows. */
/* Copies row `row` of a 1-bit bitmap as runs (a 32-bit count N, then N
 * 16-bit run lengths, 0-run first) into buffer, which holds `bytes` bytes:
 * the stored runs of run-length storage, the row compressed here for any
 * other kind. Returns the bytes written (4 + 2N); ST_BAD_PARAM (null
 * pointer, or the runs need more than `bytes`), ST_BAD_STRUCT_SIZE,
 * ST_INVALID_BITMAP (no storage), ST_BAD_BPP (not 1 bit), ST_BAD_POSITION
 * (no such row), ST_NO_MEMORY or a row-access status. */
Z_EXPORT int32_t Z_API Z_GetBitmapRowCompressed(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t bytes);
/* Replaces row `row` of a 1-bit bitmap by the runs at `runs`, of which at
 * most `bytes` bytes are read; the runs must add up to exactly Width pixels.
 * Run-length storage keeps them as they are; other kinds get the pixels
 * (the padding after them is kept). Returns the bytes of the runs used;
 * ST_BAD_PARAM (null pointer; runs past `bytes`, short of or past Width:
 * the row is unchanged), ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP, ST_BAD_BPP,
 * ST_BAD_POSITION, ST_NO_MEMORY (the heap could not grow: the row is
 * unchanged) or a row-access status. */
Z_EXPORT int32_t Z_API Z_PutBitmapRowCompressed(BitmapHandle* bitmap, const uint8_t* runs, uint32_t row,
                                                uint32_t bytes);
/* Moves a 1-bit bitmap into run-length storage (compressed not 0) or out of
 * it into packed storage chosen by the thresholds, as
 * Z_SetBitmapMemoryInfo does; nothing to do is ST_OK. ST_INVALID_BITMAP,
 * ST_BAD_STRUCT_SIZE, ST_BAD_BPP (not 1 bit), or the failure of the move,
 * which leaves the bitmap as it was. */
Z_EXPORT int32_t Z_API Z_ChangeBitmapCompression(BitmapHandle* bitmap, int32_t compressed);
/* Z_ChangeBitmapCompression to the other of packed and run-length storage. */
Z_EXPORT int32_t Z_API Z_ToggleBitmapCompression(BitmapHandle* bitmap);
/* Grows the heap of a run-length bitmap so that at least `bytes` more bytes
 * of rows fit without growing again (whole 256 KiB steps). ST_OK;
 * ST_INVALID_BITMAP (null), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (not run-length
 * storage), ST_NO_MEMORY (the heap is as it was). */
Z_EXPORT int32_t Z_API Z_GrowBitmapHeap(BitmapHandle* bitmap, uint32_t bytes);
/* Moves the rows of a run-length bitmap together and gives back the heap
 * space rewritten and dropped rows left, keeping whole 256 KiB steps.
 * Results as Z_GrowBitmapHeap. */
Z_EXPORT int32_t Z_API Z_TrimBitmapHeap(BitmapHandle* bitmap);
/* Bytes a buffer needs to hold one row before and after a conversion in
 * place: the largest padded row (multiple of 4 bytes) of width pixels at
 * bitsPerPixel and of width2 pixels at bitsPerPixel and at bitsPerPixel2
 * (a depth of 0 counts as 8). Returns that byte count; ST_BAD_PARAM for a
 * negative width, ST_TOO_LARGE when a row does not fit a 31-bit count. */
Z_EXPORT int32_t Z_API Z_CalcConvertSize(int32_t width, uint32_t bitsPerPixel, int32_t width2, uint32_t bitsPerPixel2);
/* Copies every pixel row of src into dst; both allocated, in any storage
 * kinds, with the same Width, Height and BitsPerPixel. Reports progress to
 * the copy-status callback. ST_OK (also when dst == src); ST_BAD_PARAM (null
 * record, other geometry), ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (no
 * storage), ST_NO_MEMORY, ST_FILE_WRITE (a row transfer stopped short) or the
 * callback's stop, with the rows copied so far kept. */
Z_EXPORT int32_t Z_API Z_CopyBitmapData(BitmapHandle* dst, BitmapHandle* src);
/* Copies PlaybackParm0..2 and 5, the two playback flags and the two playback
 * colours (as stored) from src to dst. ST_OK; ST_BAD_PARAM (null record),
 * ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_CopyPlaybackParms(BitmapHandle* dst, BitmapHandle* src);

/* Gray parameters of deep gray bitmaps: the significant bit window
 * LowBit..HighBit of a pixel value, the value range MinVal..MaxVal, the paint
 * window, and the display lookup table LUT (LUTLength 4-byte entries, in
 * force while BF_LUT_USED is set). Every call checks a null record first
 * (ST_BAD_PARAM), then StructSize (ST_BAD_STRUCT_SIZE). */
/* Sets LowBit = PaintLowBit = 0, HighBit = PaintHighBit = BitsPerPixel - 1,
 * MinVal = 0 and MaxVal = (1 << BitsPerPixel) - 1 (0xFFFFFFFF from 32 bits
 * on). A depth outside 1..64 gives ST_BAD_BPP. LUT is left alone. */
Z_EXPORT int32_t Z_API Z_InitGrayParams(BitmapHandle* bitmap);
/* Reads the bit window: low = LowBit (0 when negative as a signed value),
 * high = HighBit (BitsPerPixel - 1 when negative as a signed value),
 * bitCount = min(high - low + 1, BitsPerPixel), mask = 2^bitCount - 1,
 * shift = high - bitCount + 1, so that (value >> shift) & mask is the
 * significant part. Null outputs are skipped. ST_OK; a window with
 * high < low, or without a significant bit, gives ST_BAD_PARAM. */
Z_EXPORT int32_t Z_API Z_GetGrayParams(const BitmapHandle* bitmap, uint32_t* lowBit, uint32_t* highBit,
                                       uint32_t* bitCount, uint32_t* mask, uint32_t* shift);
/* Copies LowBit, HighBit, MinVal, MaxVal, PaintLowBit, PaintHighBit, the
 * BF_LUT_USED bit, LUTLength and a fresh copy of the LUT (Z_OsAlloc of
 * LUTLength entries; null when the source has none) into dst. The LUT dst
 * held before is freed unless it is the source's own. On ST_NO_MEMORY dst is
 * unchanged. */
Z_EXPORT int32_t Z_API Z_CopyGrayParams(BitmapHandle* dst, const BitmapHandle* src);
/* Frees LUT and ValueMap (Z_OsFree), clears both pointers, LUTLength and
 * BF_LUT_USED. Z_FreeBitmap calls it. ST_OK, or a check's failure. */
Z_EXPORT int32_t Z_API Z_FreeGrayParams(BitmapHandle* bitmap);

/* ---------------------------------------------------------------------------
 * File and redirected I/O
 * ------------------------------------------------------------------------- */
/* The library's own open routine (the default of the thread's table). name
 * is a wide path; openFlags: access Z_O_RDONLY, Z_O_WRONLY or Z_O_RDWR, plus
 * Z_O_CREAT (create, replacing a file) or Z_O_TRUNC (empty an existing
 * file); without either the file must exist. permFlags: Z_S_IREAD shares
 * reading with others, with Z_S_IWRITE also writing. userData is ignored.
 * Returns the handle (close it with Z_OsClose), or Z_INVALID_FILE. */
Z_EXPORT Z_FILE Z_API Z_OsOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags, void* userData);
/* Reads up to count bytes (at most 2^31 - 1 per call) into buffer. Returns
 * the bytes read (0 at the end of the file), or -1. userData is ignored. */
Z_EXPORT int32_t Z_API Z_OsRead(Z_FILE file, void* buffer, uint32_t count, void* userData);
/* Writes up to count bytes (at most 2^31 - 1 per call) from buffer. Returns
 * the bytes written, or -1. userData is ignored. */
Z_EXPORT int32_t Z_API Z_OsWrite(Z_FILE file, const void* buffer, uint32_t count, void* userData);
/* Moves the file position by offset bytes from origin (0 start, 1 current,
 * 2 end). Returns the new position, or -1. userData is ignored. */
Z_EXPORT int64_t Z_API Z_OsSeek(Z_FILE file, int64_t offset, int32_t origin, void* userData);
/* Closes the file (a delete-on-close file is removed). Returns 0, or -1.
 * userData is ignored. */
Z_EXPORT int32_t Z_API Z_OsClose(Z_FILE file, void* userData);
/* Creates a file (replacing one of that name) shared for reading and
 * writing, open for reading and writing; mode bits: Z_CREAT_READONLY_ATTR,
 * Z_CREAT_HIDDEN_ATTR (which also opens it for reading only),
 * Z_CREAT_SYSTEM_ATTR, Z_CREAT_DELETE_ON_CLOSE (removed when closed). Returns
 * the handle (close it with Z_OsClose), or Z_INVALID_FILE. */
Z_EXPORT Z_FILE Z_API Z_OsCreat(const wchar_t* name, int32_t mode);
/* Deletes the named file. ST_OK; ST_BAD_PARAM (null name), ST_NO_MEMORY,
 * ST_FILE_WRITE (it could not be deleted). */
Z_EXPORT int32_t Z_API Z_OsDelete(const wchar_t* name);
/* Fills buffer (Z_MAX_PATH wide characters) with a new unique file name, with
 * the prefix "ZK", in the thread's temporary directory. The file is created
 * empty to hold the name: the caller removes it (Z_OsDelete) or replaces it
 * (Z_OsCreat). ST_OK; ST_BAD_PARAM (null buffer), ST_TEMP_FILE (no name could
 * be made, or it would not fit), ST_NO_MEMORY. */
Z_EXPORT int32_t Z_API Z_OsGetTempName(wchar_t* buffer);
/* Sets the calling thread's temporary directory, where disk and tiled
 * storage and Z_OsGetTempName put their files (a separator is appended when
 * missing; the directory is not checked). It starts as the system's
 * temporary path. ST_OK; ST_BAD_PARAM (null or empty, or longer than
 * Z_MAX_PATH - 1 characters with the separator). */
Z_EXPORT int32_t Z_API Z_SetTempDirectory(const wchar_t* directory);
/* Copies the calling thread's temporary directory, ending in a separator,
 * into buffer (Z_MAX_PATH wide characters, cut to fit). ST_OK; ST_BAD_PARAM
 * (null buffer), ST_NO_MEMORY. */
Z_EXPORT int32_t Z_API Z_GetTempDirectory(wchar_t* buffer);

/* The thread's current I/O routines, called with the user data installed
 * with each; codecs and disk storage do their file I/O through them. */
/* Calls the thread's open routine: a handle, or Z_INVALID_FILE. */
Z_EXPORT Z_FILE Z_API Z_RedirectedOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags);
/* Calls the thread's read routine: bytes read, or -1. */
Z_EXPORT int32_t Z_API Z_RedirectedRead(Z_FILE file, void* buffer, uint32_t count);
/* Calls the thread's write routine: bytes written, or -1. */
Z_EXPORT int32_t Z_API Z_RedirectedWrite(Z_FILE file, const void* buffer, uint32_t count);
/* Calls the thread's seek routine (origin 0 start, 1 current, 2 end): the
 * new position, or -1. */
Z_EXPORT int64_t Z_API Z_RedirectedSeek(Z_FILE file, int64_t offset, int32_t origin);
/* Calls the thread's close routine: 0, or -1. */
Z_EXPORT int32_t Z_API Z_RedirectedClose(Z_FILE file);

/* Installs the calling thread's five I/O routines, each given userData as
 * its last argument; a null routine restores the library's own (Z_OsOpen and
 * the rest). Z_RedirectIO(NULL, NULL, NULL, NULL, NULL, NULL) restores all.
 * Always ST_OK. */
Z_EXPORT int32_t Z_API Z_RedirectIO(Z_OPENPROC open, Z_READPROC read, Z_WRITEPROC write, Z_SEEKPROC seek,
                                    Z_CLOSEPROC close, void* userData);
/* Exchanges the calling thread's routines and user data, for chaining: for
 * each non-null pointer the current value is handed back through it; a
 * routine passed in replaces the current one unless it is null, a user-data
 * word passed in always replaces the current one. Always ST_OK. */
Z_EXPORT int32_t Z_API Z_FilterIO(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                  Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                  void** userSeek, void** userClose);
/* Reads the calling thread's five routines and user data words into the
 * non-null pointers, changing nothing. Always ST_OK. */
Z_EXPORT int32_t Z_API Z_GetFilterIOData(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                         Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                         void** userSeek, void** userClose);
/* Redirects the calling thread's I/O routines into the memory buffer of
 * size bytes (null: none yet); the pseudo file handle Z_REDIRECT_HANDLE goes
 * to *handle when handle is not null. flags: Z_REDIRECT_GROW (writes grow the
 * buffer in 32 KiB steps), Z_REDIRECT_INPUT (the buffer holds size bytes of
 * data; writes fail), Z_REDIRECT_SHRINK (closing shrinks it to the data). A
 * buffer that may grow or shrink is resized with Z_Realloc, so it must come
 * from Z_Malloc (or be null), and its address may change. The end of data
 * never passes the buffer's size. *record receives a record the library
 * allocated; end the redirection with Z_StopRedirectToBuffer on the same
 * thread, which frees it (nested redirections end in reverse order). ST_OK;
 * ST_BAD_PARAM (null record pointer), ST_NO_MEMORY. */
Z_EXPORT int32_t Z_API Z_StartRedirectToBuffer(Z_REDIRECTBUFFER** record, Z_FILE* handle, uint32_t flags, void* buffer,
                                               size_t size);
/* Ends a redirection: restores the routines saved by Z_StartRedirectToBuffer,
 * hands back the buffer's current address through *buffer and the bytes of
 * data through *dataSize (each when not null), and frees the record. The
 * buffer is the caller's: one the library allocated or resized is released
 * with Z_Free, so pass a buffer pointer whenever that may have happened.
 * ST_OK; ST_BAD_PARAM (null record). */
Z_EXPORT int32_t Z_API Z_StopRedirectToBuffer(Z_REDIRECTBUFFER* record, void** buffer, size_t* dataSize);

/* ---------------------------------------------------------------------------
 * Per-thread state, callbacks, thread slots and memory
 * ------------------------------------------------------------------------- */
#define Z_TLS_SLOTS 1024
#define Z_TLS_OUT_OF_INDEXES 0xFFFFFFFFu
/* Thread slots for the caller's own per-thread values: slot numbers are
 * shared by the process, each thread has its own value in each slot. */
/* Hands out a free slot number (0..Z_TLS_SLOTS - 1), or Z_TLS_OUT_OF_INDEXES
 * when all are in use. Release it with Z_TlsFree. */
Z_EXPORT uint32_t Z_API Z_TlsAlloc(void);
/* Returns a slot: 1 when it was in use and is now free, else 0. Values
 * stored in it are not freed. */
Z_EXPORT int32_t Z_API Z_TlsFree(uint32_t slot);
/* Stores the calling thread's value of a slot (the library never frees it).
 * Returns 1, or 0 for a slot never handed out. */
Z_EXPORT int32_t Z_API Z_TlsSetValue(uint32_t slot, void* value);
/* Returns the calling thread's value of a slot: null when never set or for a
 * slot number out of range. */
Z_EXPORT void* Z_API Z_TlsGetValue(uint32_t slot);

/* Installs the calling thread's progress callback for long operations (null
 * removes it), called with userData; the previous callback and user data go
 * to the non-null out pointers first. Always ST_OK. */
Z_EXPORT int32_t Z_API Z_SetStatusCallBack(STATUSCALLBACK callback, void* userData, STATUSCALLBACK* previous,
                                           void** previousUserData);
/* Returns the calling thread's progress callback (null when none) and its
 * user data through userData when not null. */
Z_EXPORT STATUSCALLBACK Z_API Z_GetStatusCallBack(void** userData);
/* Installs the calling thread's callback for row copies (Z_CopyBitmap,
 * Z_CopyBitmapData, the rectangle copies, storage rebuilds); null removes it.
 * The previous callback and user data go to the non-null out pointers first.
 * Always ST_OK. */
Z_EXPORT int32_t Z_API Z_SetCopyStatusCallBack(COPYSTATUSCALLBACK callback, void* userData,
                                               COPYSTATUSCALLBACK* previous, void** previousUserData);
/* Returns the calling thread's copy-status callback (null when none) and its
 * user data through userData when not null. */
Z_EXPORT COPYSTATUSCALLBACK Z_API Z_GetCopyStatusCallBack(void** userData);
/* Stores the calling thread's font-substitution callback and its user data
 * for the vector companion library (this library never calls it). Always
 * ST_OK. */
Z_EXPORT int32_t Z_API Z_VecSetSubstituteFontCallback(SUBSTITUTEFONTCALLBACK callback, void* userData);
/* Returns the calling thread's font-substitution callback (null when none)
 * and its user data through userData when not null. */
Z_EXPORT SUBSTITUTEFONTCALLBACK Z_API Z_VecGetSubstituteFontCallback(void** userData);

/* Runtime heap: blocks the library hands out with Z_Free as their release
 * (redirection buffers, for one). */
/* Allocates size bytes (0 gives a minimal block), not zeroed. Returns the
 * block, to be freed with Z_Free, or null. */
Z_EXPORT void* Z_API Z_Malloc(size_t size);
/* Allocates count * size zeroed bytes. Returns the block, to be freed with
 * Z_Free, or null (also when the product overflows). */
Z_EXPORT void* Z_API Z_Calloc(size_t count, size_t size);
/* Resizes a block of Z_Malloc or Z_Calloc to size bytes (null allocates).
 * Returns the block's new address, or null with the old block untouched and
 * still the caller's to free with Z_Free. */
Z_EXPORT void* Z_API Z_Realloc(void* pointer, size_t size);
/* Frees a block of Z_Malloc, Z_Calloc or Z_Realloc; null is ignored. */
Z_EXPORT void Z_API Z_Free(void* pointer);
/* Movable blocks, returned locked: the form of every block a bitmap owns
 * (Palette, LUT, ValueMap, region record) and of the palettes the library
 * hands out. */
/* Allocates a movable block of size bytes, not zeroed, returned locked.
 * Returns its address, to be freed with Z_OsFree, or null. */
Z_EXPORT void* Z_API Z_OsAlloc(size_t size);
/* Z_OsAlloc, zero-filled when zeroFlag is not 0. Free with Z_OsFree. */
Z_EXPORT void* Z_API Z_OsAllocInit(size_t size, int32_t zeroFlag);
/* Resizes a block of the Z_OsAlloc family to size bytes (null allocates).
 * Returns the block's new address, or null with the old block untouched and
 * still to be freed with Z_OsFree. */
Z_EXPORT void* Z_API Z_OsReAlloc(void* pointer, size_t size);
/* Z_OsReAlloc, the growth zero-filled when zeroFlag is not 0. */
Z_EXPORT void* Z_API Z_OsReAllocInit(void* pointer, size_t size, int32_t zeroFlag);
/* Unlocks and frees a block of the Z_OsAlloc family; null is ignored. */
Z_EXPORT void Z_API Z_OsFree(void* pointer);
/* The Dump forms take a source position for leak reports, which this build
 * ignores; each is the call of its name without "Dump", with the same result
 * and release. */
/* Z_Malloc(size). */
Z_EXPORT void* Z_API Z_MallocDump(size_t size, const char* file, int32_t line);
/* Z_Calloc(count, size). */
Z_EXPORT void* Z_API Z_CallocDump(size_t count, size_t size, const char* file, int32_t line);
/* Z_Realloc(pointer, size). */
Z_EXPORT void* Z_API Z_ReallocDump(void* pointer, size_t size, const char* file, int32_t line);
/* Z_Free(pointer). */
Z_EXPORT void Z_API Z_FreeDump(void* pointer, const char* file, int32_t line);
/* Z_OsAlloc(size). */
Z_EXPORT void* Z_API Z_OsAllocDump(size_t size, const char* file, int32_t line);
/* Z_OsAllocInit(size, zeroFlag). */
Z_EXPORT void* Z_API Z_OsAllocInitDump(size_t size, int32_t zeroFlag, const char* file, int32_t line);
/* Z_OsReAlloc(pointer, size). */
Z_EXPORT void* Z_API Z_OsReAllocDump(void* pointer, size_t size, const char* file, int32_t line);
/* Z_OsReAllocInit(pointer, size, zeroFlag). */
Z_EXPORT void* Z_API Z_OsReAllocInitDump(void* pointer, size_t size, int32_t zeroFlag, const char* file, int32_t line);
/* Z_OsFree(pointer). */
Z_EXPORT void Z_API Z_OsFreeDump(void* pointer, const char* file, int32_t line);
/* Would print the leak report under title; this build keeps none, so it
 * does nothing. */
Z_EXPORT void Z_API Z_DumpMemoryReport(const char* title);

/* Runtime wrappers, so that callers share the library's runtime state. */
/* The runtime's setlocale(category, locale): the locale's name, owned by the
 * runtime (not to be freed), or null. */
Z_EXPORT char* Z_API Z_Setlocale(int32_t category, const char* locale);
/* The runtime's strtok(string, delimiters), with its one hidden position
 * shared with the library: the next token inside string, or null (also for
 * null delimiters). */
Z_EXPORT char* Z_API Z_Strtok(char* string, const char* delimiters);
/* The runtime's strtod(string, end): the value read. A null string gives 0.0
 * and *end = null. */
Z_EXPORT double Z_API Z_Strtod(const char* string, char** end);

/* ---------------------------------------------------------------------------
 * Region hook table
 * ------------------------------------------------------------------------- */
/* Installs the region hook table for the whole process (not per thread): the
 * Z_DISPATCH_ENTRIES entries are copied, so *table need not outlive the
 * call, but the functions must stay callable. ST_OK; ST_BAD_PARAM for a null
 * table (nothing changes). */
Z_EXPORT int32_t Z_API Z_SetDisDispatch(const Z_DISDISPATCH* table);
/* Copies the installed hook table into *table. ST_OK; ST_BAD_PARAM (null
 * table), ST_NO_DISPATCH (no table installed: entry 1 is null). */
Z_EXPORT int32_t Z_API Z_GetDisDispatch(Z_DISDISPATCH* table);
/* Initialise-once, called when the library is loaded: clears the table only
 * when none was installed, then marks it installed. Returns the installed
 * flag's previous value (0 or 1). __cdecl on 32-bit Windows. */
Z_EXPORT int32_t Z_CDECL Z_ResetDisDispatch(void);
/* Frees a region record: its two element arrays (Z_OsFree), its two graphic
 * objects (GDI objects on Windows, Z_Free blocks elsewhere) and the record
 * itself (Z_OsFree). Z_FreeBitmap calls it for a bitmap's Region; a caller
 * that calls it clears the Region pointer. ST_OK; ST_BAD_PARAM for null. */
Z_EXPORT int32_t Z_API Z_DeleteZarnRgn(ZarnRgn* region);
/* Tells the region hooks that the bitmap is now width x height pixels (entry
 * 6), so its region follows. Returns the hook's result, or ST_OK when no
 * such hook is installed. */
Z_EXPORT int32_t Z_API Z_KrnSizeBitmapRgn(BitmapHandle* bitmap, int32_t width, int32_t height);

/* ---------------------------------------------------------------------------
 * Row access: results are bytes moved, or a negative status
 * ------------------------------------------------------------------------- */
/* Row access in every storage kind. Rows are stored row indices (0 is the
 * first stored row; ViewPerspective is not applied) and bytes are moved in
 * the bitmap's own pixel format; a span may run on into the following rows.
 * Failures: ST_BAD_PARAM (null record or buffer, a span that leaves the
 * storage, more than 2^31 - 1 bytes), ST_BAD_STRUCT_SIZE, ST_NO_MEMORY (a
 * record without storage), ST_FILE_SEEK, ST_FILE_READ, ST_FILE_WRITE (disk);
 * the compressed kinds answer through their row store. */
/* Reads `bytes` bytes from the start of row `row` into buffer. Returns the
 * bytes read, or a failure. */
Z_EXPORT int32_t Z_API Z_GetBitmapRow(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t bytes);
/* Writes `bytes` bytes from buffer to the start of row `row`. Returns the
 * bytes written, or a failure. */
Z_EXPORT int32_t Z_API Z_PutBitmapRow(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t bytes);
/* Reads `bytes` bytes of row `row` from the byte that holds pixel `column`
 * on (below 8 bits per pixel the byte is shared with the pixels before it).
 * Returns the bytes read, or a failure. */
Z_EXPORT int32_t Z_API Z_GetBitmapRowCol(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t column,
                                         uint32_t bytes);
/* Writes `bytes` bytes to row `row` from the byte that holds pixel `column`
 * on (whole bytes: below 8 bits per pixel the pixels before the column in
 * that byte are overwritten too). Returns the bytes written, or a failure. */
Z_EXPORT int32_t Z_API Z_PutBitmapRowCol(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t column,
                                         uint32_t bytes);
/* Writes spans of one row: segments holds count values read as pairs
 * (start, end), pixels start..end-1 of buffer going to columns
 * xOffset + start..xOffset + end - 1; pixels outside the spans keep their
 * values (at 2 bits per pixel a span starting at the third pixel of a byte
 * also leaves that byte's fourth pixel). Empty spans and an odd last value
 * are skipped. Returns the bytes touched; ST_BAD_PARAM (null argument, a
 * span past the row's end), or a row-access failure. */
Z_EXPORT int32_t Z_API Z_PutBitmapRowSegments(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row,
                                              uint32_t xOffset, const uint32_t* segments, uint32_t count);

/* ---------------------------------------------------------------------------
 * Run-length rows (1 bit per pixel)
 * ------------------------------------------------------------------------- */
/* A run-length row is a uint32_t count N followed by N uint16_t run words
 * (host byte order, no alignment): the lengths in pixels of alternating runs
 * of 0-pixels and 1-pixels, the first a 0-run (0 when the row starts with a
 * 1-pixel). A run longer than 65535 is split into words of at most 65535
 * with a 0 word (an empty run of the other colour) between them. Rows of an
 * image follow one another directly, each 4 + 2N bytes long. Packed rows are
 * 1 bit per pixel, most significant bit first, a set bit being a 1-pixel; a
 * packed image's rows are ((width + 31) >> 3) & ~3 bytes apart. A row of
 * `width` pixels compresses to at most 4 + 2 * (width + 1) bytes. The caller
 * sizes every buffer; nothing is checked against a capacity, and source and
 * destination must not overlap. */
/* Expands `count` pixels of the run-length row `runs`, from pixel `first` of
 * the row on, into buffer's (count + 7) / 8 bytes, which are cleared first
 * (so bits past the count in the last byte are 0). Reads none of the row's
 * words past its count; pixels past the row's last run stay 0. Returns
 * ST_OK; ST_BAD_PARAM for a null row or buffer. */
Z_EXPORT int32_t Z_API Z_ExpandRow(const uint8_t* runs, uint8_t* buffer, uint32_t first, uint32_t count);
/* Expands `rows` consecutive run-length rows from `runs` into the packed
 * image `image`, each row whole: `width` pixels into (width + 7) / 8 bytes of
 * its packed row (the padding bytes after them are left as they were).
 * Returns ST_OK, also for 0 rows (nothing is touched); ST_BAD_PARAM for a
 * null pointer. */
Z_EXPORT int32_t Z_API Z_ExpandRows(const uint8_t* runs, uint8_t* image, uint32_t width, uint32_t rows);
/* Compresses `count` pixels of buffer starting at bit `bitOffset` of its
 * first byte (only the low three bits of bitOffset count) into the
 * run-length row `runs`. Reads (bitOffset % 8 + count + 7) / 8 bytes and
 * never modifies buffer. Returns the pixel count; ST_BAD_PARAM for a null
 * pointer or a count above 2^31 - 1. */
Z_EXPORT int32_t Z_API Z_CompressRow(uint8_t* runs, const uint8_t* buffer, uint32_t bitOffset, uint32_t count);
/* Compresses the `rows` packed rows of `image`, `width` pixels each, into
 * consecutive run-length rows at `runs`. Returns ST_OK, also for 0 rows
 * (nothing is touched); ST_BAD_PARAM for a null pointer or a width above
 * 2^31 - 1. */
Z_EXPORT int32_t Z_API Z_CompressRows(uint8_t* runs, const uint8_t* image, uint32_t width, uint32_t rows);
/* Writes each of `rows` consecutive run-length rows of `source` with its
 * pixels in reverse order to `dest`, the rows in their order. A mirrored row
 * is at most 2 bytes longer than its source: the leading 0 word of a row that
 * starts with a 1-pixel is dropped, and one is added when the row ends with
 * a 1-run (its count is even). Returns ST_OK (also for 0 rows); ST_BAD_PARAM
 * for a null pointer. */
Z_EXPORT int32_t Z_API Z_MirrorCompressedBuffer(const uint8_t* source, uint8_t* dest, uint32_t rows);
/* Writes the `rows` consecutive run-length rows of `source` to `dest` in
 * reverse order, each row unchanged: dest takes as many bytes as source.
 * Returns ST_OK (also for 0 rows); ST_BAD_PARAM for a null pointer. */
Z_EXPORT int32_t Z_API Z_FlipCompressedBuffer(const uint8_t* source, uint8_t* dest, uint32_t rows);

/* ---------------------------------------------------------------------------
 * Buffer conversion (in place; the buffer holds the larger row)
 * ------------------------------------------------------------------------- */
/* Converts width pixels (>= 1) in buffer in place from srcBits in srcOrder to
 * dstBits in dstOrder. Depths: 0 (8-bit gray), 1..8 (palette indices), 12,
 * 16, 24, 32, 48, 64; orders CO_RGB, CO_BGR, CO_GRAY, CO_ALT_BGR as each
 * depth allows. Palettes of palettized depths (256 entries for an 8-bit
 * source; null as described at Z_ConvertBufferExt). buffer must hold
 * Z_CalcConvertSize(width, srcBits, width, dstBits) bytes. It is
 * Z_ConvertBufferExt with CVT_SRC_GRAY / CVT_DST_GRAY taken from the orders
 * and no bit range. ST_OK; ST_BAD_PARAM (null buffer, width < 1, a depth or
 * order not accepted) with the buffer untouched. Nothing is allocated. */
Z_EXPORT int32_t Z_API Z_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, uint32_t dstBits,
                                       int32_t srcOrder, uint32_t dstOrder, const RGBQUAD* srcPalette,
                                       const RGBQUAD* dstPalette);
/* Z_ConvertBuffer with flags (CVT_ bits; CVT_OPAQUE_ALPHA writes opaque alpha
 * to 32- and 64-bit destinations, else 0). lowBit and highBit give the gray
 * bit range with CVT_SRC_RANGE or CVT_DST_RANGE (-1: unset). For 12- and
 * 16-bit gray sources srcPalette is the LUT, indexed by the sample restricted
 * to its range (capped at the source bits). Refusals are ST_BAD_PARAM and
 * leave the buffer untouched. Choices where the format rules leave room:
 *  - Deep gray (12/16-bit CO_GRAY) sources without a LUT keep up to 16
 *    significant bits for 48/64-bit and 12/16-bit gray destinations: the
 *    sample of nb bits is rescaled to the destination width, narrowing by
 *    shifting and widening by floor(v * (2^to - 1) / (2^nb - 1)) (so 16 -> 16
 *    and 12 -> 16 -> 12 are lossless). Other destinations get the 8-bit
 *    level: top 8 bits, or floor(v * 255 / mask) for narrower ranges.
 *  - Gray sources reach colour destinations as (level, level, level); with
 *    a LUT as the LUT entry's colour (widened by 257 for 16-bit channels),
 *    and 12/16-bit gray destinations then take that colour's gray level.
 *  - Deep gray to palette indices: the nearest entry to the 8-bit level (or
 *    the LUT colour), as for any colour.
 *  - A null destination palette of a palettized destination is the fixed
 *    palette of that depth, also when the source is palettized; a null
 *    source palette reads index i as gray level i.
 *  - Source orders: 16 bits CO_RGB/CO_BGR/CO_GRAY, 24 and 48 bits
 *    CO_RGB/CO_BGR/CO_ALT_BGR, 32 and 64 bits CO_RGB/CO_BGR; depth 0 and
 *    palettized depths take any of the four orders. Destination orders per
 *    depth are the same, for every source depth.
 *  - 48-bit CO_ALT_BGR is the 24-bit CO_ALT_BGR pixel widened by 257: the
 *    transforms run on the 8-bit (high-byte) channels. Only 24- and 48-bit
 *    destinations are in the second space; to any other depth a CO_ALT_BGR
 *    source is turned back to CO_BGR first.
 *  - A bit range that leaves no significant bit or reaches past bit 31 is
 *    refused. */
Z_EXPORT int32_t Z_API Z_ConvertBufferExt(uint8_t* buffer, int32_t width, int32_t srcBits, uint32_t dstBits,
                                          int32_t srcOrder, uint32_t dstOrder, const RGBQUAD* srcPalette,
                                          const RGBQUAD* dstPalette, int32_t flags, uint32_t lowBit, uint32_t highBit);

/* ---------------------------------------------------------------------------
 * Palettes
 * ------------------------------------------------------------------------- */
/* Copies entries first.. of the bitmap's palette into entries: n =
 * min(first + count, ColorCount) - first of them. Returns n; 0 when bitmap,
 * entries or Palette is null or first >= ColorCount. StructSize is not
 * checked. */
Z_EXPORT uint32_t Z_API Z_GetBitmapPaletteEntries(const BitmapHandle* bitmap, uint32_t first, uint32_t count,
                                                  RGBQUAD* entries);
/* Z_GetBitmapPaletteEntries as a status: ST_OK only when exactly count
 * entries were copied; ST_INVALID_BITMAP (null bitmap), ST_BAD_STRUCT_SIZE,
 * ST_BAD_PARAM (count 0, more than 8 bits per pixel, fewer entries). */
Z_EXPORT int32_t Z_API Z_GetBitmapColors(const BitmapHandle* bitmap, uint32_t first, uint32_t count, RGBQUAD* entries);
/* Writes count entries at index first of an allocated bitmap's palette
 * (first + count <= ColorCount, up to 8 bits per pixel). A missing palette
 * is made first (ColorCount zeroed entries, owned by the bitmap). ST_OK
 * (nothing written for count <= 0); ST_INVALID_BITMAP (null bitmap, no
 * storage), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (range, depth, null entries),
 * ST_NO_MEMORY. */
Z_EXPORT int32_t Z_API Z_PutBitmapColors(BitmapHandle* bitmap, int32_t first, int32_t count, const RGBQUAD* entries);
/* Returns a new block (Z_OsAlloc) holding a copy of count entries, 1..256;
 * the caller frees it with Z_OsFree, or stores it in a bitmap's Palette,
 * which then owns it. Null for null entries, count 0 or above 256, or no
 * memory. */
Z_EXPORT RGBQUAD* Z_API Z_CreateNewPalette(const RGBQUAD* entries, uint32_t count);
/* Frees the bitmap's palette, then with non-null entries gives it a copy of
 * count of them (ColorCount = count). Returns 1 on success (also for null
 * entries: no palette, ColorCount kept); 0 for a null bitmap, or when the
 * copy was not made (count 0 or above 256, no memory), the bitmap then
 * having no palette. StructSize is not checked. */
Z_EXPORT int32_t Z_API Z_SetBitmapNewPalette(BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count);
/* Replaces dst's palette (freed) with a copy of src's and its ColorCount; a
 * src without palette leaves dst with none and ColorCount 0. Returns 1
 * (ST_OK) on success, also when dst == src (nothing changes); 0 when the
 * copy could not be allocated (dst then has no palette); ST_BAD_PARAM (null
 * record), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_CopyBitmapPalette(BitmapHandle* dst, const BitmapHandle* src);
/* Replaces the bitmap's palette with a copy of the palette object's entries
 * (2..256 of them; ColorCount follows). The object stays the caller's. ST_OK;
 * ST_INVALID_BITMAP (null bitmap), ST_BAD_STRUCT_SIZE, ST_BAD_PARAM (null
 * object, size outside 2..256; the old palette is kept), ST_NO_MEMORY (the
 * old palette is already freed: Palette is null). */
Z_EXPORT int32_t Z_API Z_SetBitmapPalette(BitmapHandle* bitmap, HPALETTE palette);
/* Returns a new palette object holding the bitmap's palette, to be released
 * with Z_DeletePalette; null for a null bitmap, a wrong StructSize, no
 * palette, ColorCount 0 or above 256, or no memory. */
Z_EXPORT HPALETTE Z_API Z_DupBitmapPalette(const BitmapHandle* bitmap);
/* Returns a new palette object holding count entries, 1..256 (reserved bytes
 * kept), to be released with Z_DeletePalette; null for null entries, count 0
 * or above 256, or no memory. */
Z_EXPORT HPALETTE Z_API Z_CreatePalette(const RGBQUAD* entries, uint32_t count);
/* Returns a new palette object with the same entries, to be released with
 * Z_DeletePalette; null for a null or empty palette, or no memory. */
Z_EXPORT HPALETTE Z_API Z_DupPalette(HPALETTE palette);
/* Returns the number of entries of a palette object; 0 for null. */
Z_EXPORT uint32_t Z_API Z_GetPaletteSize(HPALETTE palette);
/* Copies min(count, size - first) entries from index first of a palette
 * object into entries. Returns the number copied; 0 for a null argument or
 * first at or past the size. */
Z_EXPORT uint32_t Z_API Z_GetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count, RGBQUAD* entries);
/* Writes min(count, size - first) entries at index first of a palette object
 * (its size does not change). Returns the number written; 0 for a null
 * argument or first at or past the size. */
Z_EXPORT uint32_t Z_API Z_SetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count, const RGBQUAD* entries);
/* Releases a palette object from Z_CreatePalette, Z_DupPalette,
 * Z_DupBitmapPalette or Z_CreateSystemPalette (DeleteObject on Windows).
 * Returns 1, or 0 for null. */
Z_EXPORT int32_t Z_API Z_DeletePalette(HPALETTE palette);
/* Returns the display's palette as a new palette object, to be released with
 * Z_DeletePalette, or null where the display has none (always without GDI). */
Z_EXPORT HPALETTE Z_API Z_CreateSystemPalette(void);
/* Nearest palette entry by Euclidean distance in RGB (colour is 0x00BBGGRR),
 * the first entry winning a tie; 0xFFFFFFFF when the bitmap has no palette of
 * 1..256 entries, 0 for a null bitmap. */
Z_EXPORT uint32_t Z_API Z_GetNearestPaletteIndex(const BitmapHandle* bitmap, COLORREF colour);
/* The index of the entry nearest to (red, green, blue), channels 0..255, by
 * the library's rule: white looks at the last entry, then the first; black
 * at the first, then the last; otherwise the smallest squared RGB distance,
 * the first exact entry ending the search, a tie going to a later entry
 * only when it has the target's channel order. 0 for null entries,
 * 0xFFFFFFFF for count 0. */
Z_EXPORT uint32_t Z_API Z_FindPaletteIndex(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green,
                                           uint32_t blue);
/* Returns a new block (Z_OsAlloc) with the fixed palette of bits 1..8
 * (2^bits entries; 0 gives the 2-entry one); the caller frees it with
 * Z_OsFree. Null above 8 bits or without memory. */
Z_EXPORT RGBQUAD* Z_API Z_CreateFixedPalette(uint32_t bits);
/* Copies the fixed palette of bits 1..8 (2^bits entries) into entries; bits
 * 0 writes the 256-level gray ramp. ST_OK; ST_BAD_PARAM (null entries, bits
 * above 8). */
Z_EXPORT int32_t Z_API Z_GetFixedPalette(RGBQUAD* entries, uint32_t bits);
/* Returns the library's constant fixed palette of bits 1..8 (2^bits
 * entries): not a copy, never to be written or freed. Null for other bits. */
Z_EXPORT const RGBQUAD* Z_API Z_IntGetFixedPalette(int32_t bits);
/* Gives the bitmap a new fixed palette chosen by ColorCount (not the depth):
 * 2, 8, 16, 32, 64, 128 and 256 take the table of that many entries; 4 takes
 * black, white, black, (85, 85, 85). ColorCount is kept. The Palette
 * pointer is overwritten, not freed, since a duplicate may share its source's
 * block: a caller whose bitmap owns its palette frees it first (Z_OsFree).
 * ST_OK; ST_BAD_PARAM (null bitmap), 0 for any other ColorCount,
 * ST_NO_MEMORY; in both the bitmap is unchanged. */
Z_EXPORT int32_t Z_API Z_CreateBitmapFixedPalette(BitmapHandle* bitmap);
/* Returns a new block (Z_OsAlloc) with a gray ramp of 2^b entries, b = bits
 * modulo 32 (bits 0 means 8): entry i is floor(i * 255 / (2^b - 1)) in all
 * three channels. For palettes and for the LUTs of deep gray bitmaps (12
 * bits: 4096 entries). The caller frees it with Z_OsFree. Null when b is 0
 * (bits 32, 64, ...) or without memory. */
Z_EXPORT RGBQUAD* Z_API Z_CreateGrayPalette(int32_t bits);
/* Gives a bitmap of 1..8 bits per pixel a new gray-ramp palette of
 * 2^BitsPerPixel entries and sets ColorCount. The Palette pointer is
 * overwritten, not freed, since a duplicate may share its source's block: a
 * caller whose bitmap owns its palette frees it first (Z_OsFree). ST_OK;
 * ST_BAD_PARAM (null bitmap), ST_BAD_BPP (other depths), ST_NO_MEMORY (then
 * Palette is null and ColorCount already set). */
Z_EXPORT int32_t Z_API Z_CreateBitmapGrayPalette(BitmapHandle* bitmap);
/* Classifies count entries: GRAY_NO when some entry is not gray (channels
 * differ); GRAY_ORDERED for the ramp 0, s, 2s, ... and GRAY_ORDERED_INVERSE
 * for 255, 255 - s, ..., with s = floor(255 / (count - 1)) and 8-bit
 * wrapping; else GRAY_NOT_ORDERED. Below 2 entries entry 0 decides (0
 * ordered, 255 inverse, else not ordered; it is read even for count 0).
 * ST_BAD_PARAM for null entries. */
Z_EXPORT int32_t Z_API Z_IsGrayScalePalette(const RGBQUAD* entries, uint32_t count);
/* Classifies a bitmap as Z_IsGrayScalePalette does. Not CO_GRAY: its palette
 * (GRAY_NO above 8 bits, with no palette or with fewer entries than
 * ColorCount). CO_GRAY: GRAY_ORDERED without a LUT in force; else GRAY_NO
 * when an entry of the significant range is not gray, then the entry of the
 * lowest sample decides (0 ordered, 255 inverse, else not ordered).
 * ST_BAD_PARAM (null bitmap), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_IsGrayScaleBitmap(const BitmapHandle* bitmap);
/* Returns 1 when the first min(count, ColorCount, 256) entries of the
 * bitmap's palette equal entries in red, green and blue (the reserved byte
 * is ignored), also when the bitmap has no palette; 0 at a difference, for a
 * null bitmap, or for null entries against a palette. */
Z_EXPORT int32_t Z_API Z_CompareBitmapToPalette(const BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count);

/* ---------------------------------------------------------------------------
 * Colour reduction: the dithering engine, user match tables, optimized
 * palettes and colour resolution
 * ------------------------------------------------------------------------- */
/* The reserved byte of a destination palette entry: Z_PAL_RESERVED or
 * Z_PAL_FILL (either bit) keeps the nearest-colour search of dithering from
 * ever choosing the entry. The optimized-palette generator fills exactly the
 * entries whose reserved byte has Z_PAL_FILL without Z_PAL_RESERVED, and
 * clears the byte of each entry it fills. */
#define Z_PAL_RESERVED 0x01u
#define Z_PAL_FILL 0x02u

/* Cells of a match table: 32,768 (5 bits per channel, cell =
 * (R >> 3) * 1024 + (G >> 3) * 32 + (B >> 3)); a cell holds 0 (unknown) or
 * 1 + the position of an entry among the palette's selectable entries
 * (those without Z_PAL_RESERVED or Z_PAL_FILL, in index order). */
#define Z_MATCH_TABLE_CELLS 32768u

/* Starts dithering rows of bitmap into indices for a palette of `colors`
 * entries (1..256): Z_StartDitheringExt with the index width the count needs
 * (1-2 colours: 1 bit, 3-4: 2, 5-8: 3, 9-16: 4, 17-32: 5, 33-64: 6,
 * 65-128: 7, 129-256: 8) and no user match table. */
Z_EXPORT int32_t Z_API Z_StartDithering(BitmapHandle* bitmap, const RGBQUAD* palette, uint32_t colors);
/* Starts a dithering sequence on bitmap with the method in its DitherMethod
 * (DITHER_NONE..DITHER_CLUSTERED): the state (error rows, a copy of both
 * palettes, the match table) is hung on the record's DitherData until
 * Z_StopDithering. palette holds `colors` entries (1..256), or is null for
 * the fixed palette of the count's range (2, 4, 8, ... 256 entries). A
 * palette equal byte for byte to that fixed palette, or for 129..256 colours
 * to the 6 x 6 x 6 cube palette, is served by arithmetic; any other palette
 * by a match table: userMatchTable (Z_MATCH_TABLE_CELLS cells, filled in
 * place and kept by the caller) or else one owned by the state. Entries
 * with Z_PAL_RESERVED or Z_PAL_FILL are never chosen by the search.
 * bitsPerPixel is the width of each index written (1..8; other values write
 * nothing). The source row layout is the bitmap's depth (1..8, 12, 16, 24,
 * 32, 48, 64) and colour order; palettized rows are read through a copy of
 * the bitmap's palette taken now. ST_OK; ST_BAD_PARAM (null bitmap, an
 * unsupported depth, colors 0 or above 256, DitherMethod above 8, a palette
 * whose every entry is reserved, a bitmap that already has a dithering
 * state: stop it first), ST_BAD_STRUCT_SIZE, ST_NO_MEMORY (nothing kept).
 * A failed start leaves DitherData as it was. */
Z_EXPORT int32_t Z_API Z_StartDitheringExt(BitmapHandle* bitmap, const RGBQUAD* palette, uint32_t colors,
                                           uint32_t bitsPerPixel, uint32_t* userMatchTable);
/* Dithers the next row: Width pixels of sourceRow (the bitmap's layout; it
 * is not modified) become Width indices in destRow, packed from the most
 * significant bit; the bits of destRow past them are kept. Rows must come
 * top to bottom in storage order, each once: error and the ordered matrix
 * row carry from each call to the next. ST_OK; ST_BAD_PARAM (null argument,
 * no dithering state), ST_BAD_STRUCT_SIZE, ST_SIGNED_DATA (BF_SIGNED set;
 * nothing written). */
Z_EXPORT int32_t Z_API Z_DitherLine(BitmapHandle* bitmap, const uint8_t* sourceRow, uint8_t* destRow);
/* Ends the sequence: frees the state and what it owns and clears DitherData.
 * ST_OK (also when there is no state); ST_BAD_PARAM (null bitmap),
 * ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_StopDithering(BitmapHandle* bitmap);
/* Returns a new match table (Z_MATCH_TABLE_CELLS 32-bit cells, a Z_OsAlloc
 * block the caller frees with Z_OsFree) for `colors` entries (1..256) of
 * palette, every cell answered: the palette's own colours in their cells
 * (the lowest position wins a shared cell), every other cell the nearest
 * selectable entry to the cell's colour with the low 3 bits of each channel
 * cleared. Null for a null palette, a count outside 1..256, a palette with
 * no selectable entry, or when memory runs out. */
Z_EXPORT uint32_t* Z_API Z_CreateUserMatchTable(const RGBQUAD* palette, uint32_t colors);
/* Installs table (or null) as the calling thread's user match table, which
 * Z_ColorResBitmap with CRF_USER_MATCH_TABLE dithers through; the caller
 * keeps owning it. Returns the previous table. */
Z_EXPORT uint32_t* Z_API Z_SetUserMatchTable(uint32_t* table);
/* Returns the calling thread's user match table, or null. */
Z_EXPORT uint32_t* Z_API Z_GetUserMatchTable(void);

/* Chooses colours for a palette from a bitmap's pixels. palette holds
 * `count` entries (1..256); the entries whose reserved byte has Z_PAL_FILL
 * without Z_PAL_RESERVED are filled (their byte cleared) and the others are
 * kept and taken into account. When the bitmap has a palette of no more
 * colours than there are entries to fill, those colours are used; else when
 * it has no more distinct colours, those; both are exact (*exact = 1).
 * Otherwise colours are quantised from a histogram of 5 bits per channel
 * (variance-minimising splits refined by k-means) and *exact = 0. Filled
 * entries are used in index order; entries left over keep Z_PAL_FILL. With a
 * non-null matchTable (Z_MATCH_TABLE_CELLS cells) every cell is answered for
 * the finished palette, as Z_CreateUserMatchTable would. *colorsUsed gets
 * the number of entries filled. colorsUsed, exact may be null. Reads the
 * bitmap in any storage kind, a row at a time. ST_OK; ST_BAD_PARAM (null
 * bitmap or palette, count outside 1..256, no entry to fill),
 * ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (no storage), ST_SIGNED_DATA,
 * ST_NO_MEMORY, or a row-access failure. */
Z_EXPORT int32_t Z_API Z_CreateOptimizedPalette(BitmapHandle* bitmap, RGBQUAD* palette, uint32_t count,
                                                uint32_t* colorsUsed, int32_t* exact, uint32_t* matchTable);
/* Z_CreateOptimizedPalette over every bitmap of a list at once: one palette
 * for all their pixels. ST_BAD_PARAM also for an empty list. */
Z_EXPORT int32_t Z_API Z_CreateBitmapListOptPal(BitmapList list, RGBQUAD* palette, uint32_t count, uint32_t* colorsUsed,
                                                int32_t* exact, uint32_t* matchTable);

/* flags of Z_ColorResBitmap. Palette selection for destinations of 8 bits
 * or fewer (flags & 0x2FF without 0x04 and 0x80): CRF_FIXED_PALETTE the
 * fixed palette of the depth (with CRF_CUBE_PALETTE at 8 bits the 6 x 6 x 6
 * cube); CRF_CUBE_PALETTE alone the cube (8 bits only); CRF_USER_PALETTE
 * the caller's palette or palette handle as it is (with or without
 * CRF_USER_MATCH_TABLE); 0, CRF_OPTIMIZED_PALETTE, CRF_PRESET_PALETTE and
 * their combinations with CRF_NO_MATCH_TABLE an optimized palette. */
#define CRF_FIXED_PALETTE 0x01u
#define CRF_OPTIMIZED_PALETTE 0x02u
#define CRF_BYTE_ORDER_BGR 0x04u /* destination above 8 bits: CO_BGR */
#define CRF_PRESET_PALETTE 0x08u /* optimized: black at entry 0 and white at the last entry, kept */
#define CRF_USER_PALETTE 0x10u
#define CRF_USER_MATCH_TABLE 0x20u /* dither through the thread's user match table */
#define CRF_CUBE_PALETTE 0x40u
#define CRF_BYTE_ORDER_GRAY 0x80u /* destination above 8 bits: CO_GRAY (with 0x04: gray below 24 bits) */
#define CRF_NO_MATCH_TABLE 0x200u /* optimized: the generator builds no match table */
#define CRF_BYTE_ORDER_ALT 0x800u /* destination above 8 bits: CO_ALT_BGR */
#define CRF_DITHER(method) (((uint32_t)(method)&0xFFu) << 16)
/* Called after each converted row with the destination record, the row
 * (its pixels in the destination's layout), 1 and userData; a result other
 * than ST_OK stops the conversion and is returned. */
typedef int32_t(Z_API* COLORRESCALLBACK)(BitmapHandle* bitmap, uint8_t* row, uint32_t rows, void* userData);
/* Converts src to bitsPerPixel (1..8, 12, 16, 24, 32, 48, 64) into dst:
 * null (rows go only to callback), another record (initialised and
 * allocated here in src's memory kind; its old contents are overwritten,
 * not freed) or src itself (replaced on success; the old storage is freed).
 * Destinations of 8 bits or fewer get the palette flags select, with
 * `colors` entries (0: 2^bitsPerPixel; more is reduced to it; an optimized
 * palette that holds every source colour exactly keeps only the entries it
 * used); palette and paletteHandle (at most one) give the caller's entries. Rows are dithered
 * with the method in CRF_DITHER(flags) when the palette is smaller than the
 * source's colours, else converted. Deeper destinations take the order of
 * CRF_BYTE_ORDER_* (none: CO_RGB); 12 bits are always gray. The status
 * callback sees 0, then each whole percentage; any other result stops the
 * conversion. On every failure dst is freed of what was made here and src
 * (also as dst) is left as it was, byte for byte. ST_OK; ST_BAD_STRUCT_SIZE,
 * ST_SIGNED_DATA (signed data without BF_LUT_USED), ST_BAD_PARAM (null or
 * unallocated src, both palettes, a bad depth, selector or order flags,
 * CRF_CUBE_PALETTE below 8 bits), ST_BAD_BPP (gray above 23 bits,
 * CO_ALT_BGR above 47 bits), ST_NO_MEMORY, or a storage or callback status. */
Z_EXPORT int32_t Z_API Z_ColorResBitmap(BitmapHandle* src, BitmapHandle* dst, uint32_t structSize, int32_t bitsPerPixel,
                                        uint32_t flags, const RGBQUAD* palette, HPALETTE paletteHandle, uint32_t colors,
                                        COLORRESCALLBACK callback, void* userData);
/* Z_ColorResBitmapListExt(list, ..., 0, 0): every bitmap of the list. */
Z_EXPORT int32_t Z_API Z_ColorResBitmapList(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                            const RGBQUAD* palette, HPALETTE paletteHandle, uint32_t colors);
/* Converts `count` bitmaps of the list from index `first` (count 0: to the
 * end) as Z_ColorResBitmap does in place, with one palette for all: an
 * optimized selector builds it once from all of them
 * (Z_CreateBitmapListOptPal). Each result is stored back in its slot. A
 * failure stops the loop: the bitmaps before it are converted, the rest
 * unchanged. ST_OK; ST_BAD_PARAM (null list, first past the end), or the
 * first failure of Z_ColorResBitmap. */
Z_EXPORT int32_t Z_API Z_ColorResBitmapListExt(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                               const RGBQUAD* palette, HPALETTE paletteHandle, uint32_t colors,
                                               uint32_t first, uint32_t count);
/* Replaces bitmap by its gray levels, (2R + 5G + B + 4) >> 3 of each pixel's
 * colour (a palettized pixel's palette colour; a 12- or 16-bit gray pixel's
 * significant bits, or its BF_LUT_USED lookup-table colour): bitsPerPixel 8
 * gives 8-bit pixels holding the level and the 256-level gray ramp as the
 * palette, 12 or 16 gives CO_GRAY samples with fresh gray parameters.
 * Rows are converted, never dithered, in the bitmap's own storage kind; the
 * status callback sees 0 and each whole percentage, another result stops it.
 * A bitmap that already holds gray levels at that depth (8 bits with the
 * 256-level ramp, or CO_GRAY at 12 or 16 bits) is left as it is. On every
 * failure the record and pixels are as they were. ST_OK; ST_BAD_PARAM (null
 * or unallocated bitmap), ST_BAD_STRUCT_SIZE, ST_BAD_BPP (bitsPerPixel not
 * 8, 12 or 16), ST_SIGNED_DATA (signed samples without BF_LUT_USED: their
 * levels are not defined without the table), ST_NO_MEMORY or a storage
 * status. */
Z_EXPORT int32_t Z_API Z_GrayScaleBitmap(BitmapHandle* bitmap, int32_t bitsPerPixel);
/* Extracts the alpha of src into *dst (an uninitialised record, structSize
 * Z_BITMAPHANDLE_SIZE): a new bitmap of src's width, height and perspective,
 * 8 bits with the 256-level gray ramp (16 bits CO_GRAY for a 64-bit src),
 * on disk when src is, else in memory by the thresholds; free it with
 * Z_FreeBitmap. Alpha is byte 3 of a 32-bit pixel, word 3 of a 64-bit pixel,
 * 255 or 0 by bit 15 of a 5-5-5 pixel; other pixels (16-bit gray included)
 * give 0. ST_OK; ST_BAD_PARAM (null record, src without storage),
 * ST_BAD_STRUCT_SIZE, ST_SIGNED_DATA, ST_NO_MEMORY, or a storage status; on
 * failure dst holds nothing. */
Z_EXPORT int32_t Z_API Z_GetBitmapAlpha(BitmapHandle* src, BitmapHandle* dst, uint32_t structSize);
/* Writes alpha (a gray bitmap: 1, 8 or 16 bits) into the alpha of bitmap.
 * A bitmap whose pixels have no alpha is first converted to 32 bits (64
 * from 48), blue first unless it is CO_RGB colour, alpha 0. The alpha is
 * used as it stands when its depth suits the pixels (1 or 8 bits for 5-5-5,
 * 8 for 32, 16 for 64), it is an ordered gray ramp and lies in the bitmap's
 * perspective; otherwise a copy is turned to the bitmap's perspective and
 * to gray levels (Z_GrayScaleBitmap) first, so an inverted ramp gives the
 * alpha it shows. 5-5-5 pixels get bit 15 where the alpha is at least 128
 * (or its 1-bit pixel is set). Pixels past the alpha's width or height keep
 * their alpha. The result replaces the bitmap only when complete: on every
 * failure the bitmap is as it was. ST_OK; ST_BAD_PARAM (null record or
 * without storage), ST_BAD_STRUCT_SIZE, ST_SIGNED_DATA (signed bitmap),
 * ST_NO_MEMORY, or a conversion or storage status. */
Z_EXPORT int32_t Z_API Z_SetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alpha);

/* ---------------------------------------------------------------------------
 * Bitmap lists
 * ------------------------------------------------------------------------- */
#define Z_LIST_APPEND 0xFFFFFFFFu
/* A list holds bitmap records by value and owns what they describe. Every
 * call gives ST_BAD_PARAM for a null list handle. */
/* Makes a new, empty list in *list (null until it succeeds); release it with
 * Z_DestroyBitmapList. ST_OK; ST_BAD_PARAM (null pointer), ST_NO_MEMORY. */
Z_EXPORT int32_t Z_API Z_CreateBitmapList(BitmapList* list);
/* Frees every bitmap the list holds (Z_FreeBitmap), then the list; the
 * handle is invalid afterwards. ST_OK; ST_BAD_PARAM. */
Z_EXPORT int32_t Z_API Z_DestroyBitmapList(BitmapList list);
/* Stores the number of records in *count. ST_OK; ST_BAD_PARAM (null count). */
Z_EXPORT int32_t Z_API Z_GetBitmapListCount(BitmapList list, uint32_t* count);
/* Copies the record *item into the list at index (any index at or past the
 * end, such as Z_LIST_APPEND, appends; later records move up). This hands
 * the bitmap to the list: its storage, palette, region, overlays and gray
 * tables now belong to the list, which frees them. The caller's record is
 * left as it was, a stale second description: do not Z_FreeBitmap it or use
 * its pixels; discard it or refill it (Z_InitBitmap). Take the bitmap back
 * with Z_RemoveBitmapListItem. ST_OK; ST_BAD_PARAM (null item),
 * ST_BAD_STRUCT_SIZE, ST_NO_MEMORY (the list is unchanged and the bitmap
 * still the caller's). */
Z_EXPORT int32_t Z_API Z_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item);
/* Takes the record at index out of the list (later records move down). With
 * a non-null item it is copied to *item (overwritten, not freed) and the
 * caller owns the bitmap again (Z_FreeBitmap). With a null item it is
 * dropped without being freed: use Z_DeleteBitmapListItems to free. ST_OK;
 * ST_BAD_PARAM (index past the end), ST_BAD_STRUCT_SIZE (the slot was
 * cleared by Z_SetBitmapListItem; the list is unchanged). */
Z_EXPORT int32_t Z_API Z_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item);
/* Removes min(count, records - index) records at index and frees each
 * (Z_FreeBitmap). ST_OK; ST_BAD_PARAM (index past the end, count 0);
 * ST_BAD_STRUCT_SIZE at a cleared slot, which stops the loop with the
 * records before it already freed. */
Z_EXPORT int32_t Z_API Z_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count);
/* Copies the record at index to *item (overwritten, not freed); the list
 * keeps the bitmap, so the copy only shares its storage: do not free it,
 * and use it only while the list holds the bitmap unchanged. ST_OK;
 * ST_BAD_PARAM (index past the end, null item), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item, int32_t structSize);
/* Copies *item over the record at index, handing that bitmap to the list as
 * Z_InsertBitmapListItem does. The bitmap that was there is not freed: take
 * it out first (Z_GetBitmapListItem, then Z_FreeBitmap) or it leaks. A null
 * item clears the slot. ST_OK; ST_BAD_PARAM (index past the end),
 * ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item);
/* Makes *newList a new list of independent copies (Z_CopyBitmap) of
 * min(count, records - index) records from index (empty when index is past
 * the end); the source is unchanged. Release it with Z_DestroyBitmapList.
 * ST_OK; ST_BAD_PARAM (null newList); a failed copy frees every copy made and
 * the new list, leaves *newList null and is returned. */
Z_EXPORT int32_t Z_API Z_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);
/* Moves min(count, records - index) records from index into a new list
 * *newList, which owns them from then on (no pixels are copied); the source
 * closes the gap. Release it with Z_DestroyBitmapList. ST_OK; ST_BAD_PARAM
 * (null newList, index past the end, count 0), ST_NO_MEMORY (the source is
 * unchanged, *newList null). */
Z_EXPORT int32_t Z_API Z_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);

/* ---------------------------------------------------------------------------
 * Status names and version
 * ------------------------------------------------------------------------- */
/* A static string "ST_NAME: meaning" for every ST_ code above, and "unknown
 * status" for any other value. Never null; the caller frees nothing. */
Z_EXPORT const char* Z_API Z_StatusName(int32_t status);
/* ZK_VERSION as the library was built (compare with the header's ZK_VERSION
 * to detect a library of another release). */
Z_EXPORT int32_t Z_API Z_GetVersion(void);

/* ---------------------------------------------------------------------------
 * Geometry: streaming resize, trigonometry
 * ------------------------------------------------------------------------- */
/* A streaming resize in progress, from Z_StartResize to Z_StopResize. */
typedef struct Z_ResizeState* ResizeHandle;

/* Starts resizing an oldWidth x oldHeight image (pixels and rows, both above
 * 0) to newWidth x newHeight. A new size of 0 in one dimension is derived from
 * the other, keeping the aspect ratio (rounded to nearest). A negative size,
 * both new sizes 0 or a derived size that is not above 0 gives ST_BAD_PARAM;
 * a refused allocation ST_NO_MEMORY; *handle is then NULL. On ST_OK *handle
 * is a new state that the caller releases with Z_StopResize. */
Z_EXPORT int32_t Z_API Z_StartResize(int32_t oldWidth, int32_t oldHeight, int32_t newWidth, int32_t newHeight,
                                     ResizeHandle* handle);
/* Takes source row `row` (0..oldHeight-1; rows may come in any order), whose
 * packed pixels (bitsPerPixel 1-8, 12, 16, 24, 32, 48 or 64; no row padding)
 * are in buffer, and scales it to the new width in place: destination pixel j
 * is source pixel floor(j * oldWidth / newWidth). buffer must hold a row of
 * the larger width. Returns how many destination rows this row stands for,
 * floor((row+1) * newHeight / oldHeight) - floor(row * newHeight / oldHeight)
 * (0 leaves buffer untouched: drop the row), and stores it in *copies and the
 * new width in *newWidth. Unchanged sizes return 1 with buffer untouched.
 * ST_BAD_PARAM for a null pointer or a row out of range, ST_BAD_BPP for
 * another depth, ST_TOO_LARGE for a row above 0x7FFFFFFC bytes; the state is
 * then unchanged. */
Z_EXPORT int32_t Z_API Z_Resize(uint8_t* buffer, int32_t row, int32_t bitsPerPixel, int32_t* newWidth, int32_t* copies,
                                ResizeHandle handle);
/* Frees the state of Z_StartResize. ST_BAD_PARAM for NULL. */
Z_EXPORT int32_t Z_API Z_StopResize(ResizeHandle handle);

/* Scales a packed row (depths as Z_Resize) by nearest neighbour: writes count
 * pixels to dst. Pixel j copies the src pixel reached after j steps from pixel
 * `start`; a step moves `step` pixels and adds `remainder` to an accumulator
 * that starts at `accumulator`, and when that reaches `denominator` it loses
 * denominator and the position moves one pixel more (start 0, accumulator 0,
 * step n / m, remainder n % m, denominator m give pixel floor(j * n / m)).
 * With enlarge non-zero the position moves on the accumulator alone (step is
 * ignored) except at 48 and 64 bits. At 1, 2, 3, 5, 6, 7 and 12 bits the
 * first `bytes` bytes of dst are cleared first, so src and dst must not
 * overlap there. Does nothing for a null row, another depth, a negative
 * count, bytes, start or step, a denominator below 1, a remainder or
 * accumulator outside 0..denominator-1, or a position past 2^31 - 1. */
Z_EXPORT void Z_API Z_GetResizedScanLine(int32_t bitsPerPixel, int32_t bytes, int32_t start, int32_t step,
                                         int32_t accumulator, int32_t remainder, const uint8_t* src, uint8_t* dst,
                                         int32_t count, int32_t denominator, int32_t enlarge);
/* The same pixels as Z_GetResizedScanLine, safe with dst == src: with enlarge
 * non-zero dst is filled from its last pixel back (enlarging in place);
 * otherwise forwards, each pixel written into its own bits without clearing
 * (shrinking in place). bytes is not used. */
Z_EXPORT void Z_API Z_ReverseGetResizedScanLine(int32_t bitsPerPixel, int32_t bytes, int32_t start, int32_t step,
                                                int32_t accumulator, int32_t remainder, const uint8_t* src,
                                                uint8_t* dst, int32_t count, int32_t denominator, int32_t enlarge);

/* 16384 * sin(angle), angle in hundredths of a degree (a clockwise turn),
 * from a table of round(16384 * sin) per hundredth of 0-90 degrees. Angles
 * outside 0..36000 are taken modulo 36000. */
Z_EXPORT int32_t Z_API Z_SinValue(int32_t angle);
/* 16384 * cos(angle), from the same table and with the same angles. */
Z_EXPORT int32_t Z_API Z_CosValue(int32_t angle);
/* Floor of the square root of n, exact for every 32-bit n. */
Z_EXPORT uint32_t Z_API Z_SQRT(uint32_t n);

/* ---------------------------------------------------------------------------
 * Geometry: right-angle rotation
 * ------------------------------------------------------------------------- */
/* Z_RotateBitmap flag: give the bitmap the turned size (quarter turns). */
#define ROTATE_RESIZE 1u

/* Turns the displayed image a quarter turn, clockwise when clockwise is
 * non-zero, else counter-clockwise, in any storage kind and depth. The stored
 * rows turn the other way for the mirrored perspectives (VP_TOP_RIGHT,
 * VP_BOTTOM_LEFT, VP_LEFT_TOP, VP_RIGHT_BOTTOM). The result is built beside
 * the bitmap as Z_DupBitmapNewDim builds a duplicate (disk storage for disk,
 * memory kinds by the thresholds) and the rotate hook (entry 13) is called
 * with it, the old Width and Height and 9000 or -9000; only when both
 * succeed does it replace the old storage in the same record (Width and
 * Height exchanged, ViewPerspective, palette and resolutions kept). A square
 * bitmap in conventional or global memory or in tiled storage whose side is
 * a multiple of 16 turns in its own storage instead (the record unchanged,
 * no new storage; tiled storage holds about 80 MiB of its pixels in memory
 * meanwhile; the rotate hook is called with it turned, and a failing hook
 * has it turned back). Failures leave the record and pixels as they were:
 * ST_NO_BITMAP (null), ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (no storage,
 * or a record whose sizes do not hold its pixels), ST_BAD_BPP, ST_NO_MEMORY,
 * row-access and temporary-file failures, the rotate hook's failure, or the
 * status callback's result other than ST_OK (called with 0, then as the
 * work proceeds, ending with 100). */
Z_EXPORT int32_t Z_API Z_RotateBitmap90(BitmapHandle* bitmap, int32_t clockwise);
/* Turns a packed width x height image in src a quarter turn into dst
 * (clockwise when clockwise is non-zero): dst holds height x width pixels in
 * rows of ((height * bitsPerPixel + 31) / 8 & ~3) bytes; src rows are
 * ((width * bitsPerPixel + 31) / 8 & ~3) bytes. Only the pixel bits of dst
 * are written (at 1 and 4 bits per pixel also the rest of each row's last
 * pixel byte, as 0); the buffers must not overlap. ST_OK (also for a width
 * or height of 0); ST_BAD_PARAM (null buffer, negative size), ST_BAD_BPP
 * (depth other than 1-8, 12, 16, 24, 32, 48, 64), ST_TOO_LARGE, ST_NO_MEMORY
 * (its working blocks, a few hundred KiB). */
Z_EXPORT int32_t Z_API Z_RotateBuffer90(const uint8_t* src, uint8_t* dst, int32_t clockwise, int32_t width,
                                        int32_t height, int32_t bitsPerPixel);
/* Turns a packed width x height image a half turn from src into dst (rows as
 * Z_RotateBuffer90's src): dst row height-1-r is src row r with its pixels
 * in reverse order, its bytes past the pixels copied from src row r. src ==
 * dst turns in place; other overlaps are not allowed. ST_OK (also for a
 * width or height of 0); ST_BAD_PARAM, ST_BAD_BPP, ST_TOO_LARGE,
 * ST_NO_MEMORY (the row kept aside when turning in place). */
Z_EXPORT int32_t Z_API Z_RotateBuffer180(const uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                                         int32_t bitsPerPixel);
/* Turns the displayed image clockwise by angle hundredths of a degree
 * (negative: counter-clockwise). Only whole quarter turns are done here:
 * angles that are multiples of 36000 return ST_OK and change nothing; 9000
 * and 27000 (modulo 36000, so -9000 is 27000) are Z_RotateBitmap90 with its
 * results; 18000 builds the half-turned bitmap beside the old one and
 * replaces it (same size and record; rotate hook called with the old Width
 * and Height and 18000). A quarter turn of a bitmap that is not square needs
 * ROTATE_RESIZE in flags (the turned size); fillColor is not used by right
 * angles. Any other angle, or a quarter turn of a non-square bitmap without
 * ROTATE_RESIZE, gives ST_BAD_PARAM with nothing changed (turning by other
 * angles is not provided). Record checks and failures as Z_RotateBitmap90. */
Z_EXPORT int32_t Z_API Z_RotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fillColor);

/* ---------------------------------------------------------------------------
 * Geometry: flip, mirror and view perspective
 * ------------------------------------------------------------------------- */
/* Flips the displayed image top-to-bottom by moving pixels: the stored row
 * order is reversed (each stored row is mirrored instead for the transposed
 * perspectives 5-8), then the flip hook (entry 19; entry 1 for a row mirror)
 * is called and its result returned. Overlays taking part move to the
 * mirrored top and are flipped too. Progress is reported through the status
 * callback. ST_OK; ST_BAD_PARAM (null record or no storage),
 * ST_BAD_STRUCT_SIZE (record or overlay table), ST_INVALID_BITMAP (sizes that
 * do not hold the pixels), ST_NO_MEMORY, row-access failures, a hook's or the
 * callback's result. On a failure (storage, memory, a refusing hook) the
 * bitmap, its pixels and its overlays are as they were; a stop by the
 * status callback returns its result with the rows exchanged so far left
 * exchanged (the perspective and the overlays unchanged). */
Z_EXPORT int32_t Z_API Z_FlipBitmap(BitmapHandle* bitmap);
/* Mirrors the displayed image left-to-right by moving pixels: every stored
 * row is mirrored (the stored row order is reversed instead for the
 * transposed perspectives), then the mirror hook (entry 1; entry 19 for a
 * row-order reversal). Overlays taking part move to left = displayed width -
 * overlay Width - left and are mirrored too. ST_OK; ST_BAD_PARAM (null
 * record), ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (no storage), and the other
 * failures of Z_FlipBitmap, again leaving everything as it was; a stop by
 * the status callback keeps the rows mirrored so far. */
Z_EXPORT int32_t Z_API Z_ReverseBitmap(BitmapHandle* bitmap);
/* Flips the displayed image by changing only ViewPerspective (1<->4, 2<->3,
 * 5<->8, 6<->7); a value outside 1-8 is left as it is. ST_OK; ST_BAD_PARAM
 * (null record), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_FlipBitmapViewPerspective(BitmapHandle* bitmap);
/* Z_FlipBitmapViewPerspective without the record-size check; ST_INVALID_BITMAP
 * for a null record. */
Z_EXPORT int32_t Z_API Z_IntFlipBitmapViewPerspective(BitmapHandle* bitmap);
/* Mirrors the displayed image by changing only ViewPerspective (1<->2, 3<->4,
 * 5<->6, 7<->8); a value outside 1-8 is left as it is. ST_OK; ST_BAD_PARAM
 * (null record), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_ReverseBitmapViewPerspective(BitmapHandle* bitmap);
/* Z_ReverseBitmapViewPerspective without the record-size check;
 * ST_INVALID_BITMAP for a null record. */
Z_EXPORT int32_t Z_API Z_IntReverseBitmapViewPerspective(BitmapHandle* bitmap);
/* Turns the displayed image clockwise by angle whole degrees (negative:
 * counter-clockwise) by changing only ViewPerspective, one step of
 * 1->6->3->8->1 and 2->7->4->5->2 per quarter turn. An angle that is a
 * multiple of 360 changes nothing. A value outside 1-8 becomes -13 (as an
 * unsigned value) and the result is still ST_OK. ST_BAD_PARAM (null record,
 * angle not a multiple of 90), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_RotateBitmapViewPerspective(BitmapHandle* bitmap, int32_t angle);
/* Z_RotateBitmapViewPerspective without the record-size check. */
Z_EXPORT int32_t Z_API Z_IntRotateBitmapViewPerspective(BitmapHandle* bitmap, int32_t angle);
/* How pixel data stored in perspective `from` becomes data stored in `to`
 * (both VP_ values 1-8): *flip = 1 when the stored row order is first
 * reversed, then *angle (degrees: 0, 90, 180 or 270) is the clockwise turn of
 * the stored data. The pair 2 -> 8 gives flip 1 and -90 (4294967206), a
 * counter-clockwise quarter turn. ST_OK; ST_BAD_PARAM for a null pointer or
 * a value outside 1-8 (outputs untouched). */
Z_EXPORT int32_t Z_API Z_GetChangeViewPerspectiveParams(int32_t from, int32_t to, uint32_t* flip, uint32_t* angle);
/* Converts the pixel data of src to perspective `to`, keeping the displayed
 * picture. With dst null or equal to src, src is converted in place (a
 * transposing change gives it the turned Width and Height, the record keeping
 * its address); otherwise dst (structSize Z_BITMAPHANDLE_SIZE) receives a
 * converted copy with its own storage of src's kind, palette, region and
 * overlays, freed with Z_FreeBitmap. ST_OK; ST_BAD_PARAM (null src, no
 * storage, a value outside 1-8), ST_BAD_STRUCT_SIZE, ST_NO_MEMORY, row-access,
 * turn and hook failures. On failure src is as it was and dst holds
 * nothing. */
Z_EXPORT int32_t Z_API Z_ChangeBitmapViewPerspective(BitmapHandle* dst, BitmapHandle* src, int32_t structSize,
                                                     int32_t to);
/* Z_ChangeBitmapViewPerspective without its record checks: dst (when not null
 * and not src) is made with Z_DupBitmapNewDim(dst, src, structSize, ...,
 * dupFlags) and taken apart with Z_FreeDuplicateBitmap(dst, dupFlags) on
 * failure. ST_BAD_PARAM for a null src; ST_INVALID_BITMAP for src without
 * storage (in place). The status callback is off while it works. */
Z_EXPORT int32_t Z_API Z_IntChangeBitmapViewPerspective(BitmapHandle* dst, BitmapHandle* src, int32_t structSize,
                                                        int32_t to, uint32_t dupFlags);
/* Maps *rect (right and bottom exclusive) of data stored width x height
 * pixels in perspective `from` to where it lies once the data is stored in
 * perspective `to`. Only turns of 90, 180 and 270 are applied, so the pair
 * 2 -> 8 is only flipped. A value outside 1-8 leaves the rectangle alone.
 * ST_OK; ST_BAD_PARAM for a null rect. */
Z_EXPORT int32_t Z_API Z_ChangeRectViewPerspective(int32_t from, int32_t width, int32_t height, int32_t to, RECT* rect);
/* Maps the stored pixel (*x, *y) of bitmap to its place when the bitmap is
 * stored in perspective `to` (as Z_ChangeRectViewPerspective does, per
 * pixel). ST_OK (also unchanged for the bitmap's own perspective);
 * ST_BAD_PARAM (null pointer, a value outside 1-8), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_PointFromBitmap(BitmapHandle* bitmap, int32_t to, int32_t* x, int32_t* y);
/* Maps the pixel (*x, *y) of the bitmap stored in perspective `from` to
 * stored coordinates. The size of the data in `from` is the bitmap's
 * displayed width and height, exchanged only when `from` is 6 or 8 (not for
 * 5 or 7). ST_OK; ST_BAD_PARAM (null pointer, a value outside 1-8),
 * ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_PointToBitmap(BitmapHandle* bitmap, int32_t from, int32_t* x, int32_t* y);
/* Z_ChangeRectViewPerspective from the bitmap's perspective and stored size
 * to `to`. ST_OK; ST_BAD_PARAM (null pointer), ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_RectFromBitmap(BitmapHandle* bitmap, int32_t to, RECT* rect);
/* Z_ChangeRectViewPerspective from `from` to the bitmap's perspective, with
 * the size of Z_PointToBitmap. ST_OK; ST_BAD_PARAM (null pointer),
 * ST_BAD_STRUCT_SIZE. */
Z_EXPORT int32_t Z_API Z_RectToBitmap(BitmapHandle* bitmap, int32_t from, RECT* rect);
/* Mirrors the first width pixels of a packed row in place (pixel i changes
 * place with pixel width-1-i) at 1-8, 12, 16, 24, 32, 48 or 64 bits per pixel;
 * any other depth leaves the row alone. The row needs (width * bitsPerPixel +
 * 7) / 8 bytes. At 1, 2 and 4 bits the rest of the last pixel byte becomes 0;
 * elsewhere it is kept. ST_OK; ST_BAD_PARAM for a null buffer. */
Z_EXPORT int32_t Z_API Z_MirrorLine(uint8_t* buffer, uint32_t width, int32_t bitsPerPixel);

#ifdef __cplusplus
}
#endif

#endif /* ZKERNEL_H */
