/*
 * zkernel.h - the exported interface of the zkernel imaging kernel.
 *
 * This is the only header an application includes. It compiles as C99 and as
 * C++. Every function returns a signed 32-bit status (ST_OK on success, a
 * negative ST_ code on failure) unless its comment says otherwise. Nothing in
 * the library throws or aborts; allocation failure is ST_NO_MEMORY.
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
#define ST_OK 1
#define ST_NO_MEMORY (-1)
#define ST_INVALID_BITMAP (-2)
#define ST_FILE_SEEK (-4)
#define ST_FILE_WRITE (-5)
#define ST_FILE_READ (-7)
#define ST_BAD_POSITION (-11)
#define ST_BAD_PARAM (-13)
#define ST_BAD_BPP (-27)
#define ST_NO_DISPATCH (-30)
#define ST_TEMP_FILE (-295)
#define ST_BAD_STRUCT_SIZE (-789)
#define ST_NO_BITMAP (-814)
#define ST_SIGNED_DATA (-1360)
#define ST_TOO_LARGE (-1370)

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
Z_EXPORT int32_t Z_API Z_InitBitmap(BitmapHandle* bitmap, int32_t structSize, int32_t width, int32_t height,
                                    int32_t bitsPerPixel);
/* Initialises, allocates (memoryType as Z_AllocateBitmap), sets the palette
 * (bitsPerPixel 0: 8-bit gray; palette given: copied; else the fixed one),
 * order and view perspective (0 means VP_TOP_LEFT), and with TYPE_USER and a
 * non-null data pointer attaches dataSize bytes of caller memory. */
Z_EXPORT int32_t Z_API Z_CreateBitmap(BitmapHandle* bitmap, int32_t structSize, uint32_t memoryType, int32_t width,
                                      int32_t height, int32_t bitsPerPixel, uint32_t order, const RGBQUAD* palette,
                                      uint32_t viewPerspective, void* data, size_t dataSize);
/* Attaches (or, with null, detaches) caller memory of a TYPE_USER bitmap. */
Z_EXPORT int32_t Z_API Z_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, size_t dataSize);

/* Per-thread defaults. Setters of resolution return the previous value. */
Z_EXPORT int32_t Z_API Z_GetDefaultXResolution(void);
Z_EXPORT int32_t Z_API Z_GetDefaultYResolution(void);
Z_EXPORT int32_t Z_API Z_SetDefaultXResolution(int32_t value);
Z_EXPORT int32_t Z_API Z_SetDefaultYResolution(int32_t value);
Z_EXPORT int32_t Z_API Z_DefaultDithering(uint32_t method); /* 0..8 */
Z_EXPORT uint32_t Z_API Z_GetDefaultDithering(void);
Z_EXPORT int32_t Z_API Z_SetDefaultMemoryType(uint32_t type); /* TYPE_CONV or TYPE_DISK */
Z_EXPORT int32_t Z_API Z_GetDefaultMemoryType(uint32_t* type);

/* ---------------------------------------------------------------------------
 * Storage and memory model
 * ------------------------------------------------------------------------- */
Z_EXPORT int32_t Z_API Z_AllocateBitmap(BitmapHandle* bitmap, uint32_t memoryType);
Z_EXPORT void Z_API Z_FreeBitmap(BitmapHandle* bitmap);
/* Lock / unlock global storage; nothing for other kinds. */
Z_EXPORT void Z_API Z_AccessBitmap(BitmapHandle* bitmap);
Z_EXPORT void Z_API Z_ReleaseBitmap(BitmapHandle* bitmap);
/* Returns 1 when already locked (and does nothing), else 0 after locking. */
Z_EXPORT int32_t Z_API Z_LockBitmap(BitmapHandle* bitmap);
/* Releases only when wasLocked is 0. */
Z_EXPORT void Z_API Z_UnlockBitmap(BitmapHandle* bitmap, int32_t wasLocked);
/* Stores argument k when bit k-1 of mask is set. */
Z_EXPORT int32_t Z_API Z_SetMemoryThresholds(int32_t reserve, int32_t maxConv, int32_t tileSize, int32_t maxMemTiles,
                                             int32_t tileViews, uint32_t mask);
Z_EXPORT int32_t Z_API Z_GetMemoryThresholds(int32_t* reserve, int32_t* maxConv, int32_t* tileSize,
                                             int32_t* maxMemTiles, int32_t* tileViews);
Z_EXPORT int32_t Z_API Z_GetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t* memoryType, uint32_t* tileSize,
                                             uint32_t* tileCount, uint32_t* memTiles, uint32_t* maxMapped,
                                             uint32_t* mappedCount);
/* mask: 1 type, 2 tileSize, 4 tileCount, 8 memTiles, 16 maxMapped,
 * 32 mappedCount. */
Z_EXPORT int32_t Z_API Z_SetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t memoryType, uint32_t tileSize,
                                             uint32_t tileCount, uint32_t memTiles, uint32_t maxMapped,
                                             uint32_t mappedCount, uint32_t mask);

/* ---------------------------------------------------------------------------
 * Copying, trimming and duplicating
 * ------------------------------------------------------------------------- */
Z_EXPORT int32_t Z_API Z_CopyBitmapHandle(BitmapHandle* dst, const BitmapHandle* src, int32_t structSize);
Z_EXPORT int32_t Z_API Z_DupBitmapNewDim(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t width,
                                         int32_t height, int32_t bitsPerPixel, uint32_t flags);
Z_EXPORT int32_t Z_API Z_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t flags);
Z_EXPORT int32_t Z_API Z_CopyBitmap(BitmapHandle* dst, BitmapHandle* src, int32_t structSize);
Z_EXPORT int32_t Z_API Z_CopyBitmap2(BitmapHandle* dst, BitmapHandle* src, uint32_t memoryType, int32_t structSize);
Z_EXPORT int32_t Z_API Z_CopyBitmapRect(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                        int32_t top, uint32_t width, uint32_t height);
Z_EXPORT int32_t Z_API Z_CopyBitmapRect2(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                         int32_t top, uint32_t width, uint32_t height, uint32_t memoryType);
Z_EXPORT int32_t Z_API Z_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height);
Z_EXPORT int32_t Z_API Z_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t height);
/* Bytes a buffer needs to hold one row before and after a conversion. */
Z_EXPORT int32_t Z_API Z_CalcConvertSize(int32_t width, uint32_t bitsPerPixel, int32_t width2, uint32_t bitsPerPixel2);
Z_EXPORT int32_t Z_API Z_CopyBitmapData(BitmapHandle* dst, BitmapHandle* src);
/* Copies PlaybackParm0..2 and 5, the two playback flags, and the two playback
 * colours. */
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
 * significant part. Null outputs are skipped. A window with high < low gives
 * ST_BAD_PARAM. */
Z_EXPORT int32_t Z_API Z_GetGrayParams(const BitmapHandle* bitmap, uint32_t* lowBit, uint32_t* highBit,
                                       uint32_t* bitCount, uint32_t* mask, uint32_t* shift);
/* Copies LowBit, HighBit, MinVal, MaxVal, PaintLowBit, PaintHighBit, the
 * BF_LUT_USED bit, LUTLength and a fresh copy of the LUT (Z_OsAlloc of
 * LUTLength entries; null when the source has none) into dst. The LUT dst
 * held before is freed unless it is the source's own. On ST_NO_MEMORY dst is
 * unchanged. */
Z_EXPORT int32_t Z_API Z_CopyGrayParams(BitmapHandle* dst, const BitmapHandle* src);
/* Frees LUT and ValueMap (Z_OsFree), clears both pointers, LUTLength and
 * BF_LUT_USED. Z_FreeBitmap calls it. */
Z_EXPORT int32_t Z_API Z_FreeGrayParams(BitmapHandle* bitmap);

/* ---------------------------------------------------------------------------
 * File and redirected I/O
 * ------------------------------------------------------------------------- */
Z_EXPORT Z_FILE Z_API Z_OsOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags, void* userData);
Z_EXPORT int32_t Z_API Z_OsRead(Z_FILE file, void* buffer, uint32_t count, void* userData);
Z_EXPORT int32_t Z_API Z_OsWrite(Z_FILE file, const void* buffer, uint32_t count, void* userData);
Z_EXPORT int64_t Z_API Z_OsSeek(Z_FILE file, int64_t offset, int32_t origin, void* userData);
Z_EXPORT int32_t Z_API Z_OsClose(Z_FILE file, void* userData);
Z_EXPORT Z_FILE Z_API Z_OsCreat(const wchar_t* name, int32_t mode);
Z_EXPORT int32_t Z_API Z_OsDelete(const wchar_t* name);
/* Fills buffer (Z_MAX_PATH wide characters) with a new unique file name in
 * the thread's temporary directory. */
Z_EXPORT int32_t Z_API Z_OsGetTempName(wchar_t* buffer);
Z_EXPORT int32_t Z_API Z_SetTempDirectory(const wchar_t* directory);
/* Copies the thread's temporary directory into buffer (Z_MAX_PATH). */
Z_EXPORT int32_t Z_API Z_GetTempDirectory(wchar_t* buffer);

Z_EXPORT Z_FILE Z_API Z_RedirectedOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags);
Z_EXPORT int32_t Z_API Z_RedirectedRead(Z_FILE file, void* buffer, uint32_t count);
Z_EXPORT int32_t Z_API Z_RedirectedWrite(Z_FILE file, const void* buffer, uint32_t count);
Z_EXPORT int64_t Z_API Z_RedirectedSeek(Z_FILE file, int64_t offset, int32_t origin);
Z_EXPORT int32_t Z_API Z_RedirectedClose(Z_FILE file);

Z_EXPORT int32_t Z_API Z_RedirectIO(Z_OPENPROC open, Z_READPROC read, Z_WRITEPROC write, Z_SEEKPROC seek,
                                    Z_CLOSEPROC close, void* userData);
Z_EXPORT int32_t Z_API Z_FilterIO(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                  Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                  void** userSeek, void** userClose);
Z_EXPORT int32_t Z_API Z_GetFilterIOData(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                         Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                         void** userSeek, void** userClose);
/* Redirects the thread's routines into a memory buffer (handle 5). A buffer
 * that may grow or shrink is resized with Z_Realloc, so it must come from
 * Z_Malloc (or be null); the one handed back by Z_StopRedirectToBuffer is the
 * caller's to release with Z_Free. The end of data never passes the buffer's
 * size. */
Z_EXPORT int32_t Z_API Z_StartRedirectToBuffer(Z_REDIRECTBUFFER** record, Z_FILE* handle, uint32_t flags, void* buffer,
                                               size_t size);
Z_EXPORT int32_t Z_API Z_StopRedirectToBuffer(Z_REDIRECTBUFFER* record, void** buffer, size_t* dataSize);

/* ---------------------------------------------------------------------------
 * Per-thread state, callbacks, thread slots and memory
 * ------------------------------------------------------------------------- */
#define Z_TLS_SLOTS 1024
#define Z_TLS_OUT_OF_INDEXES 0xFFFFFFFFu
Z_EXPORT uint32_t Z_API Z_TlsAlloc(void);
Z_EXPORT int32_t Z_API Z_TlsFree(uint32_t slot);
Z_EXPORT int32_t Z_API Z_TlsSetValue(uint32_t slot, void* value);
Z_EXPORT void* Z_API Z_TlsGetValue(uint32_t slot);

Z_EXPORT int32_t Z_API Z_SetStatusCallBack(STATUSCALLBACK callback, void* userData, STATUSCALLBACK* previous,
                                           void** previousUserData);
Z_EXPORT STATUSCALLBACK Z_API Z_GetStatusCallBack(void** userData);
Z_EXPORT int32_t Z_API Z_SetCopyStatusCallBack(COPYSTATUSCALLBACK callback, void* userData,
                                               COPYSTATUSCALLBACK* previous, void** previousUserData);
Z_EXPORT COPYSTATUSCALLBACK Z_API Z_GetCopyStatusCallBack(void** userData);
Z_EXPORT int32_t Z_API Z_VecSetSubstituteFontCallback(SUBSTITUTEFONTCALLBACK callback, void* userData);
Z_EXPORT SUBSTITUTEFONTCALLBACK Z_API Z_VecGetSubstituteFontCallback(void** userData);

/* Runtime heap. */
Z_EXPORT void* Z_API Z_Malloc(size_t size);
Z_EXPORT void* Z_API Z_Calloc(size_t count, size_t size);
Z_EXPORT void* Z_API Z_Realloc(void* pointer, size_t size);
Z_EXPORT void Z_API Z_Free(void* pointer);
/* Movable blocks, returned locked. Z_OsFree accepts null. */
Z_EXPORT void* Z_API Z_OsAlloc(size_t size);
Z_EXPORT void* Z_API Z_OsAllocInit(size_t size, int32_t zeroFlag);
Z_EXPORT void* Z_API Z_OsReAlloc(void* pointer, size_t size);
Z_EXPORT void* Z_API Z_OsReAllocInit(void* pointer, size_t size, int32_t zeroFlag);
Z_EXPORT void Z_API Z_OsFree(void* pointer);
/* The same with a source position for leak reports (ignored). */
Z_EXPORT void* Z_API Z_MallocDump(size_t size, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_CallocDump(size_t count, size_t size, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_ReallocDump(void* pointer, size_t size, const char* file, int32_t line);
Z_EXPORT void Z_API Z_FreeDump(void* pointer, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_OsAllocDump(size_t size, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_OsAllocInitDump(size_t size, int32_t zeroFlag, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_OsReAllocDump(void* pointer, size_t size, const char* file, int32_t line);
Z_EXPORT void* Z_API Z_OsReAllocInitDump(void* pointer, size_t size, int32_t zeroFlag, const char* file, int32_t line);
Z_EXPORT void Z_API Z_OsFreeDump(void* pointer, const char* file, int32_t line);
Z_EXPORT void Z_API Z_DumpMemoryReport(const char* title);

/* Runtime wrappers sharing the library's runtime state. */
Z_EXPORT char* Z_API Z_Setlocale(int32_t category, const char* locale);
Z_EXPORT char* Z_API Z_Strtok(char* string, const char* delimiters);
Z_EXPORT double Z_API Z_Strtod(const char* string, char** end);

/* ---------------------------------------------------------------------------
 * Region hook table
 * ------------------------------------------------------------------------- */
Z_EXPORT int32_t Z_API Z_SetDisDispatch(const Z_DISDISPATCH* table);
Z_EXPORT int32_t Z_API Z_GetDisDispatch(Z_DISDISPATCH* table);
/* Initialise-once: clears the table only when none was installed; returns
 * the installed flag's previous value. */
Z_EXPORT int32_t Z_CDECL Z_ResetDisDispatch(void);
Z_EXPORT int32_t Z_API Z_DeleteZarnRgn(ZarnRgn* region);
Z_EXPORT int32_t Z_API Z_KrnSizeBitmapRgn(BitmapHandle* bitmap, int32_t width, int32_t height);

/* ---------------------------------------------------------------------------
 * Row access: results are bytes moved, or a negative status
 * ------------------------------------------------------------------------- */
Z_EXPORT int32_t Z_API Z_GetBitmapRow(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t bytes);
Z_EXPORT int32_t Z_API Z_PutBitmapRow(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t bytes);
Z_EXPORT int32_t Z_API Z_GetBitmapRowCol(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t column,
                                         uint32_t bytes);
Z_EXPORT int32_t Z_API Z_PutBitmapRowCol(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t column,
                                         uint32_t bytes);
/* segments: count values read as (start, end) pixel spans of buffer. */
Z_EXPORT int32_t Z_API Z_PutBitmapRowSegments(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row,
                                              uint32_t xOffset, const uint32_t* segments, uint32_t count);

/* ---------------------------------------------------------------------------
 * Buffer conversion (in place; the buffer holds the larger row)
 * ------------------------------------------------------------------------- */
Z_EXPORT int32_t Z_API Z_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, uint32_t dstBits,
                                       int32_t srcOrder, uint32_t dstOrder, const RGBQUAD* srcPalette,
                                       const RGBQUAD* dstPalette);
/* Z_ConvertBufferExt: flags are CVT_ bits; lowBit and highBit give the gray
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
Z_EXPORT uint32_t Z_API Z_GetBitmapPaletteEntries(const BitmapHandle* bitmap, uint32_t first, uint32_t count,
                                                  RGBQUAD* entries);
Z_EXPORT int32_t Z_API Z_GetBitmapColors(const BitmapHandle* bitmap, uint32_t first, uint32_t count, RGBQUAD* entries);
Z_EXPORT int32_t Z_API Z_PutBitmapColors(BitmapHandle* bitmap, int32_t first, int32_t count, const RGBQUAD* entries);
Z_EXPORT RGBQUAD* Z_API Z_CreateNewPalette(const RGBQUAD* entries, uint32_t count);
Z_EXPORT int32_t Z_API Z_SetBitmapNewPalette(BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count);
Z_EXPORT int32_t Z_API Z_CopyBitmapPalette(BitmapHandle* dst, const BitmapHandle* src);
Z_EXPORT int32_t Z_API Z_SetBitmapPalette(BitmapHandle* bitmap, HPALETTE palette);
Z_EXPORT HPALETTE Z_API Z_DupBitmapPalette(const BitmapHandle* bitmap);
Z_EXPORT HPALETTE Z_API Z_CreatePalette(const RGBQUAD* entries, uint32_t count);
Z_EXPORT HPALETTE Z_API Z_DupPalette(HPALETTE palette);
Z_EXPORT uint32_t Z_API Z_GetPaletteSize(HPALETTE palette);
Z_EXPORT uint32_t Z_API Z_GetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count, RGBQUAD* entries);
Z_EXPORT uint32_t Z_API Z_SetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count, const RGBQUAD* entries);
Z_EXPORT int32_t Z_API Z_DeletePalette(HPALETTE palette);
Z_EXPORT HPALETTE Z_API Z_CreateSystemPalette(void);
/* Nearest palette entry by Euclidean distance in RGB (colour is 0x00BBGGRR),
 * the first entry winning a tie; 0xFFFFFFFF when the bitmap has no palette of
 * 1..256 entries, 0 for a null bitmap. */
Z_EXPORT uint32_t Z_API Z_GetNearestPaletteIndex(const BitmapHandle* bitmap, COLORREF colour);
Z_EXPORT uint32_t Z_API Z_FindPaletteIndex(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green,
                                           uint32_t blue);
Z_EXPORT RGBQUAD* Z_API Z_CreateFixedPalette(uint32_t bits);
Z_EXPORT int32_t Z_API Z_GetFixedPalette(RGBQUAD* entries, uint32_t bits);
Z_EXPORT const RGBQUAD* Z_API Z_IntGetFixedPalette(int32_t bits);
Z_EXPORT int32_t Z_API Z_CreateBitmapFixedPalette(BitmapHandle* bitmap);
Z_EXPORT RGBQUAD* Z_API Z_CreateGrayPalette(int32_t bits);
Z_EXPORT int32_t Z_API Z_CreateBitmapGrayPalette(BitmapHandle* bitmap);
Z_EXPORT int32_t Z_API Z_IsGrayScalePalette(const RGBQUAD* entries, uint32_t count);
Z_EXPORT int32_t Z_API Z_IsGrayScaleBitmap(const BitmapHandle* bitmap);
Z_EXPORT int32_t Z_API Z_CompareBitmapToPalette(const BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count);

/* ---------------------------------------------------------------------------
 * Bitmap lists
 * ------------------------------------------------------------------------- */
#define Z_LIST_APPEND 0xFFFFFFFFu
Z_EXPORT int32_t Z_API Z_CreateBitmapList(BitmapList* list);
Z_EXPORT int32_t Z_API Z_DestroyBitmapList(BitmapList list);
Z_EXPORT int32_t Z_API Z_GetBitmapListCount(BitmapList list, uint32_t* count);
Z_EXPORT int32_t Z_API Z_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item);
Z_EXPORT int32_t Z_API Z_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item);
Z_EXPORT int32_t Z_API Z_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count);
Z_EXPORT int32_t Z_API Z_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item, int32_t structSize);
Z_EXPORT int32_t Z_API Z_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item);
Z_EXPORT int32_t Z_API Z_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);
Z_EXPORT int32_t Z_API Z_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif /* ZKERNEL_H */
