// Image files as streams of rows in a bitmap's own layout, so that a file of
// any size moves between disk and a bitmap (or another file) a row at a time.
#pragma once

#include <zkernel.h>

#include <memory>
#include <string>
#include <vector>

#include "zk.h"

namespace zk_tool {

class Progress;

enum class Format { Png, Tiff };

// What a file holds, in the library's terms.
struct ImageDesc {
    int32_t width = 0, height = 0;  // stored pixels and rows
    int32_t bits = 0;               // 1, 2, 4, 8 (palette indices), 16 (CO_GRAY), 24, 32, 48, 64
    uint32_t order = CO_RGB;        // CO_RGB above 8 bits except 16 (CO_GRAY)
    std::vector<RGBQUAD> palette;   // entries of a palettized image (at most 2^bits)
    uint32_t perspective = VP_TOP_LEFT;
    int32_t xres = 0, yres = 0;  // dots per inch, 0 when unknown
    std::string details;         // file-specific description for `zk info`

    // Bytes of one stored row, packed without padding.
    size_t row_bytes() const { return (static_cast<size_t>(width) * bits + 7) / 8; }
};

// Reads rows top to bottom in storage order (row 0 first).
class RowReader {
public:
    virtual ~RowReader() = default;
    const ImageDesc& desc() const { return desc_; }
    // Fills row_bytes() bytes; throws Failure on a damaged file.
    virtual void read_row(uint8_t* row) = 0;
    // True when rows must be written into an existing bitmap in several
    // passes (an interlaced PNG): load() then uses read_into().
    virtual bool needs_bitmap() const { return false; }
    virtual void read_into(BitmapHandle* bitmap, Progress* progress);

protected:
    ImageDesc desc_;
};

// Writes rows top to bottom in storage order.
class RowWriter {
public:
    virtual ~RowWriter() = default;
    // Takes row_bytes() bytes of a row in the layout of the ImageDesc given
    // to open_writer().
    virtual void write_row(const uint8_t* row) = 0;
    // Flushes and closes the file; throws Failure.
    virtual void finish() = 0;
};

// Options for writing files.
struct SaveOptions {
    std::string compression;  // TIFF: none, lzw, deflate, packbits ("" = lzw)
    int32_t tile = 0;         // TIFF: tile side (multiple of 16), 0 = strips
    bool bigtiff = false;     // TIFF: always BigTIFF
};

// The format a path's extension names (.png, .tif, .tiff); UsageError else.
Format format_for_output(const std::string& path);

// Opens a file for reading, its format found from its first bytes.
std::unique_ptr<RowReader> open_reader(const std::string& path);
// Opens `file` for writing rows of desc (a layout the format cannot hold is
// refused with ST_BAD_BPP; call writable_desc() first to convert).
std::unique_ptr<RowWriter> open_writer(OutputFile& file, Format format, const ImageDesc& desc,
                                       const SaveOptions& options);

// Reads a whole image file into bitmap (released first), allocated as the
// memory thresholds say (memory, tiles or disk), a row at a time.
ImageDesc load_image(const std::string& path, Bitmap& bitmap, Progress* progress);
// Writes bitmap to path (temporary name, then rename). A PNG gets the
// displayed picture: a bitmap stored in another perspective is written
// through a converted copy. Layouts a format cannot hold are converted a row
// at a time (12-bit gray to 16-bit, 555 to 24-bit, BGR orders to RGB).
void save_image(BitmapHandle* bitmap, const std::string& path, const SaveOptions& options, Progress* progress);

// The description of a bitmap as it will be written.
ImageDesc describe(const BitmapHandle* bitmap);
// True when entries are the gray ramp of 2^bits levels.
bool is_gray_ramp(const std::vector<RGBQUAD>& palette, int32_t bits);
// The gray ramp of 2^bits levels.
std::vector<RGBQUAD> gray_ramp(int32_t bits);

// Spreads `width` packed indices of `bits` (1..8) bits into one byte each.
void unpack_indices(const uint8_t* row, int32_t width, int32_t bits, uint8_t* out);

// Format-specific openers (png_io.cpp, tiff_io.cpp).
std::unique_ptr<RowReader> open_png_reader(const std::string& path);
std::unique_ptr<RowWriter> open_png_writer(OutputFile& file, const ImageDesc& desc);
std::unique_ptr<RowReader> open_tiff_reader(const std::string& path);
std::unique_ptr<RowWriter> open_tiff_writer(OutputFile& file, const ImageDesc& desc, const SaveOptions& options);

}  // namespace zk_tool
