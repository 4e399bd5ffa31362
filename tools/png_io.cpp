// PNG files through libpng, a row at a time. libpng reports errors by
// longjmp, so every libpng call runs inside a small function that holds no
// object with a destructor and turns the jump into a false result.
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include "image_io.h"
#include "progress.h"

namespace zk_tool {
namespace {

struct PngError {
    char message[256] = "";
};

void on_error(png_structp png, png_const_charp message) {
    auto* error = static_cast<PngError*>(png_get_error_ptr(png));
    std::snprintf(error->message, sizeof error->message, "%s", message);
    png_longjmp(png, 1);
}

void on_warning(png_structp, png_const_charp) {}

bool read_header(png_structp png, png_infop info, std::FILE* file, int* passes) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_read_info(png, info);
    const int type = png_get_color_type(png, info);
    const int depth = png_get_bit_depth(png, info);
    if (type == PNG_COLOR_TYPE_GRAY_ALPHA) png_set_gray_to_rgb(png);
    if (depth == 16) png_set_swap(png);
    *passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    return true;
}

bool png_row_in(png_structp png, png_bytep row) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_row(png, row, nullptr);
    return true;
}

bool read_end(png_structp png) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_end(png, nullptr);
    return true;
}

class PngReader : public RowReader {
public:
    explicit PngReader(const std::string& path) : path_(path) {
        try {
            open();
        } catch (...) {
            close();
            throw;
        }
    }
    ~PngReader() override { close(); }

private:
    void close() {
        if (png_) png_destroy_read_struct(&png_, info_ ? &info_ : nullptr, nullptr);
        png_ = nullptr;
        info_ = nullptr;
        if (file_) std::fclose(file_);
        file_ = nullptr;
    }
    void open() {
        const std::string& path = path_;
        file_ = std::fopen(path.c_str(), "rb");
        if (!file_)
            throw Failure(ST_FILE_READ, "cannot open '" + path + "': " + std::strerror(errno),
                          "check the name and that the file is readable");
        png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, &error_, on_error, on_warning);
        if (png_) info_ = png_create_info_struct(png_);
        if (!png_ || !info_) throw Failure(ST_NO_MEMORY, "starting the PNG reader", "free some memory");
        if (!read_header(png_, info_, file_, &passes_)) fail("its header");
        png_uint_32 w = 0, h = 0;
        int depth = 0, type = 0, interlace = 0;
        png_get_IHDR(png_, info_, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
        desc_.width = static_cast<int32_t>(w);
        desc_.height = static_cast<int32_t>(h);
        const char* kind = "";
        switch (type) {
            case PNG_COLOR_TYPE_GRAY:
                kind = "gray";
                desc_.bits = depth;
                if (depth == 16)
                    desc_.order = CO_GRAY;
                else
                    desc_.palette = gray_ramp(depth);
                break;
            case PNG_COLOR_TYPE_PALETTE: {
                kind = "palette";
                desc_.bits = depth;
                png_colorp entries = nullptr;
                int count = 0;
                png_get_PLTE(png_, info_, &entries, &count);
                for (int i = 0; i < count && i < (1 << depth); ++i)
                    desc_.palette.push_back(RGBQUAD{entries[i].blue, entries[i].green, entries[i].red, 0});
                if (desc_.palette.empty()) desc_.palette = gray_ramp(depth);
                break;
            }
            case PNG_COLOR_TYPE_RGB:
                kind = "RGB";
                desc_.bits = depth * 3;
                break;
            case PNG_COLOR_TYPE_RGB_ALPHA:
                kind = "RGBA";
                desc_.bits = depth * 4;
                break;
            case PNG_COLOR_TYPE_GRAY_ALPHA:
                kind = "gray + alpha, read as RGBA";
                desc_.bits = depth * 4;
                break;
            default: throw Failure(ST_BAD_BPP, "'" + path + "' has an unknown PNG colour type", "");
        }
        png_uint_32 rx = 0, ry = 0;
        int unit = 0;
        if (png_get_pHYs(png_, info_, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER) {
            desc_.xres = static_cast<int32_t>(rx * 0.0254 + 0.5);
            desc_.yres = static_cast<int32_t>(ry * 0.0254 + 0.5);
        }
        desc_.details = "PNG, " + std::to_string(depth) + "-bit " + kind + (interlace ? ", interlaced" : "");
        if (png_get_rowbytes(png_, info_) != desc_.row_bytes())
            throw Failure(ST_BAD_BPP, "'" + path + "' has a PNG layout zk does not read", "");
    }

public:
    void read_row(uint8_t* row) override {
        if (passes_ > 1)
            throw Failure(ST_BAD_PARAM, "'" + path_ + "' is an interlaced PNG, which cannot be read a row at a time",
                          "convert it first: zk convert IN.png OUT.png");
        if (!png_row_in(png_, row)) fail("row " + std::to_string(row_));
        if (++row_ == desc_.height) finish();
    }
    bool needs_bitmap() const override { return passes_ > 1; }
    void read_into(BitmapHandle* bitmap, Progress* progress) override {
        if (passes_ <= 1) return RowReader::read_into(bitmap, progress);
        std::vector<uint8_t> row(bitmap->BytesPerLine, 0);
        for (int pass = 0; pass < passes_; ++pass) {
            for (int32_t r = 0; r < desc_.height; ++r) {
                const auto rr = static_cast<uint32_t>(r);
                const int32_t got = Z_GetBitmapRow(bitmap, row.data(), rr, bitmap->BytesPerLine);
                if (got < 0) check(got, "reading back row " + std::to_string(r));
                if (!png_row_in(png_, row.data())) fail("pass " + std::to_string(pass + 1));
                const int32_t put = Z_PutBitmapRow(bitmap, row.data(), rr, bitmap->BytesPerLine);
                if (put < 0) check(put, "storing row " + std::to_string(r));
                if (progress)
                    progress->rows(static_cast<uint64_t>(pass) * desc_.height + r + 1,
                                   static_cast<uint64_t>(passes_) * desc_.height);
            }
        }
        finish();
    }

private:
    void finish() {
        if (!read_end(png_)) fail("its end");
    }
    [[noreturn]] void fail(const std::string& where) {
        throw Failure(ST_FILE_READ, "'" + path_ + "' is damaged or truncated (" + where + "): " + error_.message,
                      "the file cannot be read; get an intact copy");
    }

    std::string path_;
    std::FILE* file_ = nullptr;
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
    PngError error_;
    int passes_ = 1;
    int32_t row_ = 0;
};

bool write_header(png_structp png, png_infop info, std::FILE* file, const ImageDesc& d, int depth, int type,
                  const png_color* palette, int count) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(d.width), static_cast<png_uint_32>(d.height), depth, type,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (type == PNG_COLOR_TYPE_PALETTE) png_set_PLTE(png, info, palette, count);
    if (d.xres > 0 && d.yres > 0)
        png_set_pHYs(png, info, static_cast<png_uint_32>(d.xres / 0.0254 + 0.5),
                     static_cast<png_uint_32>(d.yres / 0.0254 + 0.5), PNG_RESOLUTION_METER);
    png_write_info(png, info);
    if (depth == 16) png_set_swap(png);
    return true;
}

bool png_row_out(png_structp png, png_bytep row) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_write_row(png, row);
    return true;
}

bool write_end(png_structp png, png_infop info) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_write_end(png, info);
    return true;
}

class PngWriter : public RowWriter {
public:
    PngWriter(OutputFile& out, const ImageDesc& d) : out_(out), desc_(d) {
        try {
            open();
        } catch (...) {
            close();
            throw;
        }
    }
    ~PngWriter() override { close(); }

private:
    void close() {
        if (png_) png_destroy_write_struct(&png_, info_ ? &info_ : nullptr);
        png_ = nullptr;
        info_ = nullptr;
        if (file_) std::fclose(file_);
        file_ = nullptr;
    }
    void open() {
        const ImageDesc& d = desc_;
        OutputFile& out = out_;
        int depth = 8, type = PNG_COLOR_TYPE_RGB;
        std::vector<png_color> palette;
        switch (d.bits) {
            case 1:
            case 2:
            case 3:
            case 4:
            case 5:
            case 6:
            case 7:
            case 8:
                // 3, 5, 6 and 7-bit indices are written as 8-bit ones.
                depth = (d.bits == 1 || d.bits == 2 || d.bits == 4) ? d.bits : 8;
                if (is_gray_ramp(d.palette, d.bits) && depth == d.bits) {
                    type = PNG_COLOR_TYPE_GRAY;
                } else {
                    type = PNG_COLOR_TYPE_PALETTE;
                    for (const RGBQUAD& q : d.palette) palette.push_back(png_color{q.rgbRed, q.rgbGreen, q.rgbBlue});
                }
                break;
            case 16:
                depth = 16;
                type = PNG_COLOR_TYPE_GRAY;
                break;
            case 24: break;
            case 32: type = PNG_COLOR_TYPE_RGB_ALPHA; break;
            case 48: depth = 16; break;
            case 64:
                depth = 16;
                type = PNG_COLOR_TYPE_RGB_ALPHA;
                break;
            default:
                throw Failure(ST_BAD_BPP, std::to_string(d.bits) + "-bit images cannot be written as PNG",
                              "convert to another depth with --depth");
        }
        unpack_ = depth != d.bits && d.bits < 8;
        if (unpack_) wide_.resize(static_cast<size_t>(d.width));
        file_ = std::fopen(out.temp_path().c_str(), "wb");
        if (!file_)
            throw Failure(ST_FILE_WRITE, "cannot write '" + out.temp_path() + "': " + std::strerror(errno),
                          "check that the output directory is writable");
        png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error_, on_error, on_warning);
        if (png_) info_ = png_create_info_struct(png_);
        if (!png_ || !info_) throw Failure(ST_NO_MEMORY, "starting the PNG writer", "free some memory");
        if (!write_header(png_, info_, file_, d, depth, type, palette.data(), static_cast<int>(palette.size()))) fail();
    }

public:
    void write_row(const uint8_t* row) override {
        png_bytep data = const_cast<png_bytep>(row);
        if (unpack_) {
            unpack_indices(row, desc_.width, desc_.bits, wide_.data());
            data = wide_.data();
        }
        if (!png_row_out(png_, data)) fail();
    }
    void finish() override {
        if (!write_end(png_, info_)) fail();
        const bool bad = std::ferror(file_) != 0;
        const bool closed = std::fclose(file_) == 0;
        file_ = nullptr;
        if (bad || !closed)
            throw Failure(ST_FILE_WRITE, "writing '" + out_.path() + "' failed",
                          "check the free space of the output directory");
    }

private:
    [[noreturn]] void fail() {
        throw Failure(ST_FILE_WRITE, "writing '" + out_.path() + "' failed: " + error_.message,
                      "check the free space of the output directory");
    }
    OutputFile& out_;
    ImageDesc desc_;
    std::FILE* file_ = nullptr;
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
    PngError error_;
    bool unpack_ = false;
    std::vector<uint8_t> wide_;
};

}  // namespace

std::unique_ptr<RowReader> open_png_reader(const std::string& path) { return std::make_unique<PngReader>(path); }

std::unique_ptr<RowWriter> open_png_writer(OutputFile& file, const ImageDesc& desc) {
    return std::make_unique<PngWriter>(file, desc);
}

}  // namespace zk_tool
