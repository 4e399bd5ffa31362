// TIFF files through libtiff, a row (or a row of tiles) at a time: 1-bit;
// 2-, 4- and 8-bit gray and palette; 16-bit gray; 8- and 16-bit RGB with or
// without alpha; strips and tiles; classic and BigTIFF. The Orientation tag
// is the bitmap's ViewPerspective.
#include <tiffio.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "image_io.h"
#include "progress.h"

namespace zk_tool {
namespace {

thread_local std::string tiff_message;

void on_error(const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    tiff_message = std::string(module ? module : "") + (module ? ": " : "") + text;
}

void install_handlers() {
    TIFFSetErrorHandler(on_error);
    TIFFSetWarningHandler(nullptr);
}

class TiffReader : public RowReader {
public:
    explicit TiffReader(const std::string& path) : path_(path) {
        install_handlers();
        tiff_message.clear();
        // "m": read with read(2), not a mapping of the whole file, whose
        // pages would count in the resident set of a large image.
        tif_ = TIFFOpen(path.c_str(), "rm");
        if (!tif_) fail("its header");
        try {
            describe_file();
        } catch (...) {
            TIFFClose(tif_);
            tif_ = nullptr;
            throw;
        }
    }
    ~TiffReader() override {
        if (tif_) TIFFClose(tif_);
    }

    void read_row(uint8_t* row) override {
        const size_t bytes = desc_.row_bytes();
        if (!tiled_) {
            tiff_message.clear();
            if (TIFFReadScanline(tif_, buffer_.data(), static_cast<uint32_t>(row_), 0) < 0)
                fail("row " + std::to_string(row_));
        } else {
            const uint32_t in_tile = static_cast<uint32_t>(row_) % tile_h_;
            if (in_tile == 0) read_tile_row();
            std::memcpy(buffer_.data(), tile_rows_.data() + static_cast<size_t>(in_tile) * bytes, bytes);
        }
        std::memcpy(row, buffer_.data(), bytes);
        ++row_;
    }

private:
    void describe_file() {
        uint32_t w = 0, h = 0;
        uint16_t bps = 1, spp = 1, photometric = 0, planar = PLANARCONFIG_CONTIG, format = SAMPLEFORMAT_UINT;
        uint16_t orientation = ORIENTATION_TOPLEFT, compression = COMPRESSION_NONE;
        TIFFGetField(tif_, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif_, TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_PLANARCONFIG, &planar);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_SAMPLEFORMAT, &format);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_ORIENTATION, &orientation);
        TIFFGetFieldDefaulted(tif_, TIFFTAG_COMPRESSION, &compression);
        if (!TIFFGetField(tif_, TIFFTAG_PHOTOMETRIC, &photometric))
            photometric = spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
        if (w == 0 || h == 0 || w > 0x7FFFFFFFu || h > 0x7FFFFFFFu)
            throw Failure(
                ST_BAD_PARAM,
                "'" + path_ + "' gives impossible dimensions " + std::to_string(w) + " x " + std::to_string(h),
                "the file is damaged");
        desc_.width = static_cast<int32_t>(w);
        desc_.height = static_cast<int32_t>(h);
        desc_.perspective = orientation >= 1 && orientation <= 8 ? orientation : VP_TOP_LEFT;
        if (format != SAMPLEFORMAT_UINT) unsupported("samples that are not unsigned integers");
        if (planar != PLANARCONFIG_CONTIG && spp > 1) unsupported("separate colour planes");
        std::string kind;
        if ((photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE) && spp == 1) {
            const bool white = photometric == PHOTOMETRIC_MINISWHITE;
            if (bps == 1 || bps == 2 || bps == 4 || bps == 8) {
                desc_.bits = bps;
                desc_.palette = gray_ramp(bps);
                if (white)
                    for (auto& q : desc_.palette) q.rgbRed = q.rgbGreen = q.rgbBlue = 255 - q.rgbRed;
            } else if (bps == 16 && !white) {
                desc_.bits = 16;
                desc_.order = CO_GRAY;
            } else {
                unsupported(std::to_string(bps) + "-bit " + (white ? "white-is-zero " : "") + "gray");
            }
            kind = std::to_string(bps) + "-bit gray" + (white ? " (white is zero)" : "");
        } else if (photometric == PHOTOMETRIC_PALETTE && spp == 1) {
            if (bps != 1 && bps != 2 && bps != 4 && bps != 8) unsupported(std::to_string(bps) + "-bit palette");
            uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
            if (!TIFFGetField(tif_, TIFFTAG_COLORMAP, &r, &g, &b)) fail("its colour map");
            desc_.bits = bps;
            for (uint32_t i = 0; i < (1u << bps); ++i)
                desc_.palette.push_back(RGBQUAD{static_cast<uint8_t>(b[i] >> 8), static_cast<uint8_t>(g[i] >> 8),
                                                static_cast<uint8_t>(r[i] >> 8), 0});
            kind = std::to_string(bps) + "-bit palette";
        } else if (photometric == PHOTOMETRIC_RGB && (spp == 3 || spp == 4) && (bps == 8 || bps == 16)) {
            desc_.bits = bps * spp;
            kind = std::to_string(bps * spp) + "-bit RGB" + (spp == 4 ? "A" : "");
        } else {
            unsupported("photometric " + std::to_string(photometric) + " with " + std::to_string(spp) + " samples of " +
                        std::to_string(bps) + " bits");
        }
        float xr = 0, yr = 0;
        uint16_t unit = RESUNIT_INCH;
        TIFFGetFieldDefaulted(tif_, TIFFTAG_RESOLUTIONUNIT, &unit);
        if (TIFFGetField(tif_, TIFFTAG_XRESOLUTION, &xr) && TIFFGetField(tif_, TIFFTAG_YRESOLUTION, &yr) && xr > 0 &&
            yr > 0 && xr < 1e6 && yr < 1e6) {
            const float scale = unit == RESUNIT_CENTIMETER ? 2.54f : 1.0f;
            desc_.xres = static_cast<int32_t>(xr * scale + 0.5f);
            desc_.yres = static_cast<int32_t>(yr * scale + 0.5f);
        }
        tiled_ = TIFFIsTiled(tif_) != 0;
        const size_t bytes = desc_.row_bytes();
        if (tiled_) {
            TIFFGetField(tif_, TIFFTAG_TILEWIDTH, &tile_w_);
            TIFFGetField(tif_, TIFFTAG_TILELENGTH, &tile_h_);
            if (tile_w_ == 0 || tile_h_ == 0 || tile_h_ > 65536 || tile_w_ > 65536 ||
                static_cast<uint64_t>(TIFFTileSize64(tif_)) !=
                    (static_cast<uint64_t>(tile_w_) * desc_.bits + 7) / 8 * tile_h_)
                fail("its tile layout");
            tile_.resize(static_cast<size_t>(TIFFTileSize64(tif_)));
            tile_rows_.resize(bytes * tile_h_);
            kind += ", tiles " + std::to_string(tile_w_) + " x " + std::to_string(tile_h_);
        } else {
            if (static_cast<uint64_t>(TIFFScanlineSize64(tif_)) != bytes) fail("its row size");
            kind += ", strips";
        }
        buffer_.resize(bytes);
        const char* method = compression == COMPRESSION_NONE  ? "uncompressed"
                             : compression == COMPRESSION_LZW ? "LZW"
                             : compression == COMPRESSION_ADOBE_DEFLATE || compression == COMPRESSION_DEFLATE
                                 ? "deflate"
                             : compression == COMPRESSION_PACKBITS  ? "PackBits"
                             : compression == COMPRESSION_CCITTFAX4 ? "CCITT G4"
                                                                    : "compressed";
        desc_.details = std::string(TIFFIsBigTIFF(tif_) ? "BigTIFF" : "TIFF") + ", " + kind + ", " + method +
                        ", orientation " + std::to_string(orientation);
    }

    void read_tile_row() {
        const size_t bytes = desc_.row_bytes();
        const size_t tile_row = (static_cast<size_t>(tile_w_) * desc_.bits + 7) / 8;
        for (uint32_t x = 0; x < static_cast<uint32_t>(desc_.width); x += tile_w_) {
            tiff_message.clear();
            if (TIFFReadTile(tif_, tile_.data(), x, static_cast<uint32_t>(row_), 0, 0) < 0)
                fail("the tile at column " + std::to_string(x) + ", row " + std::to_string(row_));
            const size_t offset = static_cast<size_t>(x) * desc_.bits / 8;
            const size_t n = std::min(tile_row, bytes - offset);
            for (uint32_t r = 0; r < tile_h_; ++r)
                std::memcpy(tile_rows_.data() + r * bytes + offset, tile_.data() + r * tile_row, n);
        }
    }

    [[noreturn]] void fail(const std::string& where) {
        throw Failure(ST_FILE_READ, "'" + path_ + "' is damaged or truncated (" + where + "): " + tiff_message,
                      "the file cannot be read; get an intact copy");
    }
    [[noreturn]] void unsupported(const std::string& what) {
        throw Failure(ST_BAD_BPP, "'" + path_ + "' holds " + what + ", which zk does not read",
                      "zk reads 1-bit, 2/4/8-bit gray or palette, 16-bit gray and 8/16-bit RGB(A) TIFF");
    }

    std::string path_;
    TIFF* tif_ = nullptr;
    bool tiled_ = false;
    uint32_t tile_w_ = 0, tile_h_ = 0;
    int32_t row_ = 0;
    std::vector<uint8_t> buffer_, tile_, tile_rows_;
};

class TiffWriter : public RowWriter {
public:
    TiffWriter(OutputFile& out, const ImageDesc& d, const SaveOptions& options) : out_(out), desc_(d) {
        install_handlers();
        uint16_t bps = 8, spp = 1, photometric = PHOTOMETRIC_MINISBLACK;
        std::vector<uint16_t> map[3];
        switch (d.bits) {
            case 1:
            case 2:
            case 3:
            case 4:
            case 5:
            case 6:
            case 7:
            case 8: {
                unpack_ = d.bits != 1 && d.bits != 2 && d.bits != 4 && d.bits != 8;
                bps = unpack_ ? 8 : static_cast<uint16_t>(d.bits);
                std::vector<RGBQUAD> inverse = gray_ramp(d.bits);
                for (auto& q : inverse) q.rgbRed = q.rgbGreen = q.rgbBlue = 255 - q.rgbRed;
                const bool same = d.palette.size() == inverse.size();
                if (!unpack_ && is_gray_ramp(d.palette, d.bits)) {
                    photometric = PHOTOMETRIC_MINISBLACK;
                } else if (!unpack_ && same &&
                           std::equal(d.palette.begin(), d.palette.end(), inverse.begin(), [](auto a, auto b) {
                               return a.rgbRed == b.rgbRed && a.rgbGreen == b.rgbGreen && a.rgbBlue == b.rgbBlue;
                           })) {
                    photometric = PHOTOMETRIC_MINISWHITE;
                } else {
                    photometric = PHOTOMETRIC_PALETTE;
                    for (auto& m : map) m.assign(1u << bps, 0);
                    for (size_t i = 0; i < d.palette.size() && i < map[0].size(); ++i) {
                        map[0][i] = static_cast<uint16_t>(d.palette[i].rgbRed * 257);
                        map[1][i] = static_cast<uint16_t>(d.palette[i].rgbGreen * 257);
                        map[2][i] = static_cast<uint16_t>(d.palette[i].rgbBlue * 257);
                    }
                }
                break;
            }
            case 16: bps = 16; break;
            case 24:
                spp = 3;
                photometric = PHOTOMETRIC_RGB;
                break;
            case 32:
                spp = 4;
                photometric = PHOTOMETRIC_RGB;
                break;
            case 48:
                bps = 16;
                spp = 3;
                photometric = PHOTOMETRIC_RGB;
                break;
            case 64:
                bps = 16;
                spp = 4;
                photometric = PHOTOMETRIC_RGB;
                break;
            default:
                throw Failure(ST_BAD_BPP, std::to_string(d.bits) + "-bit images cannot be written as TIFF",
                              "convert to another depth with --depth");
        }
        const std::string c = lower(options.compression);
        uint16_t compression = COMPRESSION_LZW;
        if (c == "none")
            compression = COMPRESSION_NONE;
        else if (c == "deflate" || c == "zip")
            compression = COMPRESSION_ADOBE_DEFLATE;
        else if (c == "packbits")
            compression = COMPRESSION_PACKBITS;
        else if (!c.empty() && c != "lzw")
            throw UsageError("unknown TIFF compression '" + options.compression + "' (none, lzw, deflate, packbits)");
        if (options.tile != 0 && (options.tile < 0 || options.tile % 16 != 0 || options.tile > 4096))
            throw UsageError("--tile must be a multiple of 16 up to 4096");
        file_bits_ = static_cast<size_t>(bps) * spp;
        file_row_ = (static_cast<size_t>(d.width) * file_bits_ + 7) / 8;
        const bool big = options.bigtiff || static_cast<double>(file_row_) * d.height > 3.5e9;
        tiff_message.clear();
        tif_ = TIFFOpen(out.temp_path().c_str(), big ? "w8" : "w");
        if (!tif_) fail();
        TIFFSetField(tif_, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(d.width));
        TIFFSetField(tif_, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(d.height));
        TIFFSetField(tif_, TIFFTAG_BITSPERSAMPLE, bps);
        TIFFSetField(tif_, TIFFTAG_SAMPLESPERPIXEL, spp);
        TIFFSetField(tif_, TIFFTAG_PHOTOMETRIC, photometric);
        TIFFSetField(tif_, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tif_, TIFFTAG_COMPRESSION, compression);
        TIFFSetField(tif_, TIFFTAG_ORIENTATION,
                     static_cast<uint16_t>(d.perspective >= 1 && d.perspective <= 8 ? d.perspective : 1));
        if (photometric == PHOTOMETRIC_PALETTE)
            TIFFSetField(tif_, TIFFTAG_COLORMAP, map[0].data(), map[1].data(), map[2].data());
        if (spp == 4) {
            const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
            TIFFSetField(tif_, TIFFTAG_EXTRASAMPLES, 1, &extra);
        }
        if (d.xres > 0 && d.yres > 0) {
            TIFFSetField(tif_, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
            TIFFSetField(tif_, TIFFTAG_XRESOLUTION, static_cast<float>(d.xres));
            TIFFSetField(tif_, TIFFTAG_YRESOLUTION, static_cast<float>(d.yres));
        }
        if (options.tile > 0) {
            tile_ = static_cast<uint32_t>(options.tile);
            TIFFSetField(tif_, TIFFTAG_TILEWIDTH, tile_);
            TIFFSetField(tif_, TIFFTAG_TILELENGTH, tile_);
            tile_rows_.assign(file_row_ * tile_, 0);
            tile_buf_.assign((static_cast<size_t>(tile_) * bps * spp + 7) / 8 * tile_, 0);
        } else {
            TIFFSetField(tif_, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif_, 0));
        }
        wide_.resize(file_row_);
    }
    ~TiffWriter() override {
        if (tif_) TIFFClose(tif_);
    }

    void write_row(const uint8_t* row) override {
        const uint8_t* data = row;
        if (unpack_) {
            unpack_indices(row, desc_.width, desc_.bits, wide_.data());
            data = wide_.data();
        }
        if (tile_ == 0) {
            std::memcpy(wide_.data(), data, file_row_);  // libtiff may change the row it is given
            tiff_message.clear();
            if (TIFFWriteScanline(tif_, wide_.data(), static_cast<uint32_t>(row_), 0) < 0) fail();
        } else {
            std::memcpy(tile_rows_.data() + (row_ % tile_) * file_row_, data, file_row_);
            if (row_ % tile_ == tile_ - 1 || row_ == desc_.height - 1) write_tile_row();
        }
        ++row_;
    }

    void finish() override {
        tiff_message.clear();
        if (!TIFFWriteDirectory(tif_)) fail();
        TIFFClose(tif_);
        tif_ = nullptr;
        if (!tiff_message.empty()) fail();
    }

private:
    void write_tile_row() {
        const uint32_t top = static_cast<uint32_t>(row_) / tile_ * tile_;
        const size_t tile_row = tile_buf_.size() / tile_;
        const uint32_t rows = static_cast<uint32_t>(row_) - top + 1;
        for (uint32_t x = 0; x < static_cast<uint32_t>(desc_.width); x += tile_) {
            const size_t offset = static_cast<size_t>(x) * file_bits_ / 8;
            const size_t n = std::min(tile_row, file_row_ - offset);
            std::fill(tile_buf_.begin(), tile_buf_.end(), 0);
            for (uint32_t r = 0; r < rows; ++r)
                std::memcpy(tile_buf_.data() + r * tile_row, tile_rows_.data() + r * file_row_ + offset, n);
            tiff_message.clear();
            if (TIFFWriteTile(tif_, tile_buf_.data(), x, top, 0, 0) < 0) fail();
        }
    }
    [[noreturn]] void fail() {
        throw Failure(ST_FILE_WRITE, "writing '" + out_.path() + "' failed: " + tiff_message,
                      "check the free space of the output directory");
    }

    OutputFile& out_;
    ImageDesc desc_;
    TIFF* tif_ = nullptr;
    bool unpack_ = false;
    uint32_t tile_ = 0;
    size_t file_row_ = 0, file_bits_ = 0;
    int32_t row_ = 0;
    std::vector<uint8_t> wide_, tile_rows_, tile_buf_;
};

}  // namespace

std::unique_ptr<RowReader> open_tiff_reader(const std::string& path) { return std::make_unique<TiffReader>(path); }

std::unique_ptr<RowWriter> open_tiff_writer(OutputFile& file, const ImageDesc& desc, const SaveOptions& options) {
    return std::make_unique<TiffWriter>(file, desc, options);
}

}  // namespace zk_tool
