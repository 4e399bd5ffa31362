#include "image_io.h"

#include <cstdio>
#include <cstring>

#include "progress.h"

namespace zk_tool {

void RowReader::read_into(BitmapHandle* bitmap, Progress* progress) {
    std::vector<uint8_t> row(bitmap->BytesPerLine, 0);
    for (int32_t r = 0; r < desc_.height; ++r) {
        read_row(row.data());
        const int32_t put = Z_PutBitmapRow(bitmap, row.data(), static_cast<uint32_t>(r), bitmap->BytesPerLine);
        if (put < 0) check(put, "storing row " + std::to_string(r) + " of the image");
        if (progress) progress->rows(r + 1, desc_.height);
    }
}

Format format_for_output(const std::string& path) {
    const auto dot = path.rfind('.');
    const std::string ext = dot == std::string::npos ? "" : lower(path.substr(dot));
    if (ext == ".png") return Format::Png;
    if (ext == ".tif" || ext == ".tiff") return Format::Tiff;
    throw UsageError("cannot tell the format of '" + path + "' from its name: use .png, .tif or .tiff");
}

std::unique_ptr<RowReader> open_reader(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        throw Failure(ST_FILE_READ, "cannot open '" + path + "': " + std::strerror(errno),
                      "check the name and that the file is readable");
    unsigned char magic[8] = {};
    const size_t got = std::fread(magic, 1, sizeof magic, f);
    std::fclose(f);
    static const unsigned char png_magic[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (got == 8 && std::memcmp(magic, png_magic, 8) == 0) return open_png_reader(path);
    if (got >= 4 && ((magic[0] == 'I' && magic[1] == 'I') || (magic[0] == 'M' && magic[1] == 'M')))
        return open_tiff_reader(path);
    throw Failure(ST_FILE_READ,
                  "'" + path + "' is neither a PNG nor a TIFF file" + (got < 8 ? " (it is too short)" : ""),
                  "zk reads PNG and TIFF files");
}

std::unique_ptr<RowWriter> open_writer(OutputFile& file, Format format, const ImageDesc& desc,
                                       const SaveOptions& options) {
    if (format == Format::Png) return open_png_writer(file, desc);
    return open_tiff_writer(file, desc, options);
}

std::vector<RGBQUAD> gray_ramp(int32_t bits) {
    const uint32_t n = 1u << bits;
    std::vector<RGBQUAD> ramp(n);
    for (uint32_t i = 0; i < n; ++i) {
        const auto v = static_cast<uint8_t>(i * 255 / (n - 1));
        ramp[i] = RGBQUAD{v, v, v, 0};
    }
    return ramp;
}

bool is_gray_ramp(const std::vector<RGBQUAD>& palette, int32_t bits) {
    if (bits < 1 || bits > 8 || palette.size() != (1u << bits)) return false;
    const auto ramp = gray_ramp(bits);
    for (size_t i = 0; i < ramp.size(); ++i)
        if (palette[i].rgbRed != ramp[i].rgbRed || palette[i].rgbGreen != ramp[i].rgbRed ||
            palette[i].rgbBlue != ramp[i].rgbRed)
            return false;
    return true;
}

ImageDesc load_image(const std::string& path, Bitmap& bitmap, Progress* progress) {
    auto reader = open_reader(path);
    const ImageDesc& d = reader->desc();
    bitmap.reset();
    std::vector<RGBQUAD> palette;
    if (d.bits <= 8) {
        palette = d.palette;
        palette.resize(1u << d.bits, RGBQUAD{0, 0, 0, 0});
    }
    const int32_t st = Z_CreateBitmap(bitmap.get(), Z_BITMAPHANDLE_SIZE, TYPE_CONV, d.width, d.height, d.bits, d.order,
                                      palette.empty() ? nullptr : palette.data(), d.perspective, nullptr, 0);
    if (st != ST_OK) {
        bitmap.reset();
        check(st, "making a " + std::to_string(d.width) + " x " + std::to_string(d.height) + " bitmap of " +
                      std::to_string(d.bits) + " bits per pixel for '" + path + "'");
    }
    if (d.bits <= 8 && d.palette.size() < palette.size() && !d.palette.empty())
        Z_SetBitmapNewPalette(bitmap.get(), d.palette.data(), static_cast<uint32_t>(d.palette.size()));
    if (d.xres > 0) bitmap->XResolution = d.xres;
    if (d.yres > 0) bitmap->YResolution = d.yres;
    if (progress) progress->step("reading");
    reader->read_into(bitmap.get(), progress);
    return d;
}

ImageDesc describe(const BitmapHandle* bitmap) {
    ImageDesc d;
    d.width = bitmap->Width;
    d.height = bitmap->Height;
    d.perspective = bitmap->ViewPerspective;
    d.xres = bitmap->XResolution;
    d.yres = bitmap->YResolution;
    const int32_t b = bitmap->BitsPerPixel;
    if (b <= 8) {
        d.bits = b;
        d.order = CO_RGB;
        if (bitmap->Palette && bitmap->ColorCount > 0)
            d.palette.assign(bitmap->Palette, bitmap->Palette + std::min<uint32_t>(bitmap->ColorCount, 1u << b));
        else
            d.palette = gray_ramp(b);
    } else if (b == 12 || (b == 16 && bitmap->Order == CO_GRAY)) {
        d.bits = 16;
        d.order = CO_GRAY;
    } else if (b == 16) {
        d.bits = 24;
    } else {
        d.bits = b;
    }
    return d;
}

void unpack_indices(const uint8_t* row, int32_t width, int32_t bits, uint8_t* out) {
    const unsigned mask = (1u << bits) - 1;
    for (int32_t x = 0; x < width; ++x) {
        const size_t bit = static_cast<size_t>(x) * bits;
        const size_t last = (static_cast<size_t>(width) * bits - 1) / 8;
        const unsigned pair = (row[bit / 8] << 8) | (bit / 8 + 1 <= last ? row[bit / 8 + 1] : 0);
        out[x] = static_cast<uint8_t>((pair >> (16 - bits - bit % 8)) & mask);
    }
}

namespace {

// Turns a stored row of bitmap (in buffer, which holds 8 bytes per pixel)
// into the layout describe() gives.
void normalize_row(const BitmapHandle* bitmap, uint8_t* buffer) {
    const int32_t b = bitmap->BitsPerPixel;
    const int32_t w = bitmap->Width;
    const uint32_t order = bitmap->Order;
    if (b == 12) {
        check(Z_ConvertBufferExt(buffer, w, 12, 16, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_GRAY | CVT_DST_GRAY, 0,
                                 0),
              "widening 12-bit gray samples to 16 bits");
    } else if (b == 16 && order != CO_GRAY) {
        check(Z_ConvertBufferExt(buffer, w, 16, 24, static_cast<int32_t>(order), CO_RGB, nullptr, nullptr, 0, 0, 0),
              "widening 16-bit colour to 24 bits");
    } else if (b >= 24 && order == CO_ALT_BGR) {
        check(Z_ConvertBufferExt(buffer, w, b, static_cast<uint32_t>(b), CO_ALT_BGR, CO_RGB, nullptr, nullptr, 0, 0, 0),
              "converting the second colour space to RGB");
    } else if (b >= 24 && order == CO_BGR) {
        const int channel = b >= 48 ? 2 : 1;
        const int pixel = b / 8;
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = buffer + static_cast<size_t>(x) * pixel;
            for (int k = 0; k < channel; ++k) std::swap(p[k], p[2 * channel + k]);
        }
    }
}

}  // namespace

void save_image(BitmapHandle* bitmap, const std::string& path, const SaveOptions& options, Progress* progress) {
    const Format format = format_for_output(path);
    Bitmap turned;
    if (format == Format::Png && bitmap->ViewPerspective != VP_TOP_LEFT) {
        // PNG has no orientation: write the picture as displayed.
        if (progress) progress->step("orienting");
        check(Z_ChangeBitmapViewPerspective(turned.get(), bitmap, Z_BITMAPHANDLE_SIZE, VP_TOP_LEFT),
              "turning the image upright for PNG", "pass --temp-dir with more free space, or write a TIFF");
        bitmap = turned.get();
    }
    const ImageDesc d = describe(bitmap);
    OutputFile out(path);
    auto writer = open_writer(out, format, d, options);
    std::vector<uint8_t> row(static_cast<size_t>(bitmap->Width) * 8 + bitmap->BytesPerLine + 16, 0);
    if (progress) progress->step("writing");
    for (int32_t r = 0; r < bitmap->Height; ++r) {
        const int32_t got = Z_GetBitmapRow(bitmap, row.data(), static_cast<uint32_t>(r), bitmap->BytesPerLine);
        if (got < 0) check(got, "reading row " + std::to_string(r) + " of the bitmap");
        normalize_row(bitmap, row.data());
        writer->write_row(row.data());
        if (progress) progress->rows(r + 1, bitmap->Height);
    }
    writer->finish();
    out.commit();
}

}  // namespace zk_tool
