// The zk tool seen from outside: files made here with libpng and libtiff go
// through the built zk, and what it writes is decoded again with libpng and
// libtiff, independent of the tool's own readers and writers.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>
#include <zlib.h>

#include <dirent.h>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

enum Kind { Gray, Palette, Rgb, Rgba };

// A decoded image: rows exactly as the file stores them (packed samples,
// 16-bit samples in the decoder's byte order), the palette as 8-bit colours.
struct Image {
    uint32_t width = 0, height = 0;
    int bits = 8;  // per sample
    Kind kind = Gray;
    std::vector<std::array<uint8_t, 3>> palette;
    std::vector<std::vector<uint8_t>> rows;
    uint16_t orientation = 1;
    bool tiled = false, big = false, min_is_white = false;

    int channels() const { return kind == Rgb ? 3 : kind == Rgba ? 4 : 1; }
    size_t row_bytes() const { return (static_cast<size_t>(width) * bits * channels() + 7) / 8; }
};

std::string tmp_dir() {
    const char* base = std::getenv("ZK_TEST_TMP");
    std::string dir = std::string(base && *base ? base : "/tmp") + "/zk_cli";
    ::mkdir(base && *base ? base : "/tmp", 0777);
    ::mkdir(dir.c_str(), 0777);
    return dir;
}

std::string path(const std::string& name) { return tmp_dir() + "/" + name; }

bool exists(const std::string& p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0;
}

// Temporary files zk left beside `out` (".NAME.zk-XXXXXX").
int leftovers(const std::string& out) {
    const auto slash = out.rfind('/');
    const std::string dir = out.substr(0, slash), prefix = "." + out.substr(slash + 1) + ".zk-";
    int n = 0;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) ++n;
        ::closedir(d);
    }
    return n;
}

struct Outcome {
    int status = -1;  // wait status
    std::string err;
    bool exited() const { return WIFEXITED(status) && WEXITSTATUS(status) != 86; }
    int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
};

// Runs the built zk with args; a sanitizer report exits 86, which counts as
// a crash like a signal does.
Outcome zk(const std::vector<std::string>& args) {
    Outcome r;
    // Tests of this program run in parallel processes: one file each.
    const std::string err_path = path("stderr_" + std::to_string(::getpid()) + ".txt");
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::FILE* err = std::freopen(err_path.c_str(), "w", stderr);
        std::FILE* out = std::freopen("/dev/null", "w", stdout);
        (void)err;
        (void)out;
        ::setenv("ASAN_OPTIONS", "exitcode=86", 1);
        ::setenv("UBSAN_OPTIONS", "halt_on_error=1:exitcode=86", 1);
        std::vector<char*> argv{const_cast<char*>(ZK_TOOL_PATH)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(ZK_TOOL_PATH, argv.data());
        ::_exit(127);
    }
    ::waitpid(pid, &r.status, 0);
    std::ifstream in(err_path);
    std::stringstream text;
    text << in.rdbuf();
    r.err = text.str();
    std::remove(err_path.c_str());
    return r;
}

// ---- PNG through libpng -----------------------------------------------------

bool png_write_all(png_structp png, png_infop info, std::FILE* f, const Image& im) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, f);
    const int type = im.kind == Gray      ? PNG_COLOR_TYPE_GRAY
                     : im.kind == Palette ? PNG_COLOR_TYPE_PALETTE
                     : im.kind == Rgb     ? PNG_COLOR_TYPE_RGB
                                          : PNG_COLOR_TYPE_RGB_ALPHA;
    png_set_IHDR(png, info, im.width, im.height, im.bits, type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    std::vector<png_color> plte;
    for (const auto& c : im.palette) plte.push_back(png_color{c[0], c[1], c[2]});
    if (im.kind == Palette) png_set_PLTE(png, info, plte.data(), static_cast<int>(plte.size()));
    png_write_info(png, info);
    for (const auto& row : im.rows) png_write_row(png, const_cast<png_bytep>(row.data()));
    png_write_end(png, info);
    return true;
}

void write_png(const std::string& p, const Image& im) {
    std::FILE* f = std::fopen(p.c_str(), "wb");
    ASSERT_TRUE(f);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    const bool ok = png_write_all(png, info, f, im);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    ASSERT_TRUE(ok) << p;
}

bool png_read_all(png_structp png, png_infop info, std::FILE* f, Image& im) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, f);
    png_read_info(png, info);
    int depth = 0, type = 0;
    png_get_IHDR(png, info, &im.width, &im.height, &depth, &type, nullptr, nullptr, nullptr);
    im.bits = depth;
    im.kind = type == PNG_COLOR_TYPE_GRAY      ? Gray
              : type == PNG_COLOR_TYPE_PALETTE ? Palette
              : type == PNG_COLOR_TYPE_RGB     ? Rgb
                                               : Rgba;
    png_colorp plte = nullptr;
    int count = 0;
    if (type == PNG_COLOR_TYPE_PALETTE && png_get_PLTE(png, info, &plte, &count))
        for (int i = 0; i < count; ++i) im.palette.push_back({plte[i].red, plte[i].green, plte[i].blue});
    im.rows.assign(im.height, std::vector<uint8_t>(png_get_rowbytes(png, info)));
    for (auto& row : im.rows) png_read_row(png, row.data(), nullptr);
    png_read_end(png, nullptr);
    return true;
}

Image read_png(const std::string& p) {
    Image im;
    std::FILE* f = std::fopen(p.c_str(), "rb");
    EXPECT_TRUE(f) << p;
    if (!f) return im;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    EXPECT_TRUE(png_read_all(png, info, f, im)) << p;
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return im;
}

// ---- TIFF through libtiff ---------------------------------------------------

void write_tiff(const std::string& p, const Image& im, uint16_t compression = COMPRESSION_LZW, uint32_t tile = 0) {
    TIFF* t = TIFFOpen(p.c_str(), im.big ? "w8" : "w");
    ASSERT_TRUE(t);
    const uint16_t spp = static_cast<uint16_t>(im.channels());
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, im.width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, im.height);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(im.bits));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(t, TIFFTAG_ORIENTATION, im.orientation);
    const uint16_t photometric = im.kind == Palette ? PHOTOMETRIC_PALETTE
                                 : im.kind == Gray ? (im.min_is_white ? PHOTOMETRIC_MINISWHITE : PHOTOMETRIC_MINISBLACK)
                                                   : PHOTOMETRIC_RGB;
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photometric);
    if (im.kind == Rgba) {
        const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    std::vector<uint16_t> map[3];
    if (im.kind == Palette) {
        for (int k = 0; k < 3; ++k) {
            map[k].assign(1u << im.bits, 0);
            for (size_t i = 0; i < im.palette.size(); ++i) map[k][i] = static_cast<uint16_t>(im.palette[i][k] * 257);
        }
        TIFFSetField(t, TIFFTAG_COLORMAP, map[0].data(), map[1].data(), map[2].data());
    }
    if (tile) {
        TIFFSetField(t, TIFFTAG_TILEWIDTH, tile);
        TIFFSetField(t, TIFFTAG_TILELENGTH, tile);
        const size_t bits = static_cast<size_t>(im.bits) * spp, tile_row = (tile * bits + 7) / 8;
        std::vector<uint8_t> buf(tile_row * tile);
        for (uint32_t y = 0; y < im.height; y += tile)
            for (uint32_t x = 0; x < im.width; x += tile) {
                std::fill(buf.begin(), buf.end(), 0);
                for (uint32_t r = 0; r < tile && y + r < im.height; ++r) {
                    const size_t off = x * bits / 8, n = std::min(tile_row, im.row_bytes() - off);
                    std::memcpy(buf.data() + r * tile_row, im.rows[y + r].data() + off, n);
                }
                ASSERT_GE(TIFFWriteTile(t, buf.data(), x, y, 0, 0), 0);
            }
    } else {
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 7u);
        for (uint32_t y = 0; y < im.height; ++y) {
            std::vector<uint8_t> row = im.rows[y];
            ASSERT_GE(TIFFWriteScanline(t, row.data(), y, 0), 0);
        }
    }
    TIFFClose(t);
}

Image read_tiff(const std::string& p) {
    Image im;
    TIFF* t = TIFFOpen(p.c_str(), "r");
    EXPECT_TRUE(t) << p;
    if (!t) return im;
    uint16_t bps = 1, spp = 1, photometric = 0;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &im.width);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &im.height);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(t, TIFFTAG_ORIENTATION, &im.orientation);
    TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric);
    im.bits = bps;
    im.min_is_white = photometric == PHOTOMETRIC_MINISWHITE;
    im.kind = photometric == PHOTOMETRIC_PALETTE ? Palette : spp == 3 ? Rgb : spp == 4 ? Rgba : Gray;
    uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
    if (im.kind == Palette && TIFFGetField(t, TIFFTAG_COLORMAP, &r, &g, &b))
        for (uint32_t i = 0; i < (1u << bps); ++i)
            im.palette.push_back(
                {static_cast<uint8_t>(r[i] >> 8), static_cast<uint8_t>(g[i] >> 8), static_cast<uint8_t>(b[i] >> 8)});
    im.tiled = TIFFIsTiled(t);
    im.big = TIFFIsBigTIFF(t);
    im.rows.assign(im.height, std::vector<uint8_t>(im.row_bytes()));
    if (!im.tiled) {
        for (uint32_t y = 0; y < im.height; ++y) EXPECT_GE(TIFFReadScanline(t, im.rows[y].data(), y, 0), 0);
    } else {
        uint32_t tw = 0, th = 0;
        TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw);
        TIFFGetField(t, TIFFTAG_TILELENGTH, &th);
        std::vector<uint8_t> buf(TIFFTileSize(t));
        const size_t bits = static_cast<size_t>(bps) * spp, tile_row = (tw * bits + 7) / 8;
        for (uint32_t y = 0; y < im.height; y += th)
            for (uint32_t x = 0; x < im.width; x += tw) {
                EXPECT_GE(TIFFReadTile(t, buf.data(), x, y, 0, 0), 0);
                for (uint32_t k = 0; k < th && y + k < im.height; ++k) {
                    const size_t off = x * bits / 8, n = std::min(tile_row, im.row_bytes() - off);
                    std::memcpy(im.rows[y + k].data() + off, buf.data() + k * tile_row, n);
                }
            }
    }
    TIFFClose(t);
    return im;
}

// A random image; packed rows end in zero bits, indices stay inside the palette.
Image random_image(Kind kind, int bits, uint32_t w, uint32_t h, size_t colors, unsigned seed) {
    Image im;
    im.width = w;
    im.height = h;
    im.bits = bits;
    im.kind = kind;
    std::mt19937 rng(seed);
    if (kind == Palette)
        for (size_t i = 0; i < colors; ++i)
            im.palette.push_back(
                {static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng())});
    im.rows.assign(h, std::vector<uint8_t>(im.row_bytes(), 0));
    for (auto& row : im.rows) {
        if (bits >= 8 && kind != Palette) {
            for (auto& byte : row) byte = static_cast<uint8_t>(rng());
        } else {
            for (uint32_t x = 0; x < w; ++x) {
                const unsigned v = kind == Palette ? rng() % colors : rng() % (1u << bits);
                row[x * bits / 8] |= static_cast<uint8_t>(v << (8 - bits - x * bits % 8));
            }
        }
    }
    return im;
}

// ---- Round trips ------------------------------------------------------------

struct RoundTrip {
    const char* name;
    bool tiff;
    Kind kind;
    int bits;
    size_t colors;         // palette entries
    const char* option;    // zk convert option, "" for none
    uint32_t in_tile = 0;  // input written in tiles of this side
    bool big = false;      // input and output BigTIFF
    bool min_is_white = false;
};

const RoundTrip kRoundTrips[] = {
    {"png_gray1", false, Gray, 1, 0, ""},
    {"png_gray2", false, Gray, 2, 0, ""},
    {"png_gray4", false, Gray, 4, 0, ""},
    {"png_pal2", false, Palette, 2, 4, ""},
    {"png_pal4", false, Palette, 4, 16, ""},
    {"png_pal8", false, Palette, 8, 256, ""},
    {"png_pal8_short", false, Palette, 8, 100, ""},
    {"png_gray8", false, Gray, 8, 0, ""},
    {"png_gray16", false, Gray, 16, 0, ""},
    {"png_rgb24", false, Rgb, 8, 0, ""},
    {"png_rgb48", false, Rgb, 16, 0, ""},
    {"png_rgba32", false, Rgba, 8, 0, ""},
    {"png_rgba64", false, Rgba, 16, 0, ""},
    {"tiff_gray1", true, Gray, 1, 0, ""},
    {"tiff_white1", true, Gray, 1, 0, "", 0, false, true},
    {"tiff_pal2", true, Palette, 2, 4, ""},
    {"tiff_pal4", true, Palette, 4, 16, ""},
    {"tiff_pal8", true, Palette, 8, 256, ""},
    {"tiff_gray8", true, Gray, 8, 0, ""},
    {"tiff_gray16", true, Gray, 16, 0, ""},
    {"tiff_rgb24", true, Rgb, 8, 0, ""},
    {"tiff_rgb48", true, Rgb, 16, 0, ""},
    {"tiff_rgba32", true, Rgba, 8, 0, ""},
    {"tiff_rgba64", true, Rgba, 16, 0, ""},
    {"tiff_tiles_gray1", true, Gray, 1, 0, "--tile=16", 32},
    {"tiff_tiles_pal4", true, Palette, 4, 16, "--tile=32", 16},
    {"tiff_tiles_rgb24", true, Rgb, 8, 0, "--tile=16", 16},
    {"tiff_tiles_rgba64", true, Rgba, 16, 0, "--tile=48", 32},
    {"bigtiff_pal8", true, Palette, 8, 256, "--bigtiff", 0, true},
    {"bigtiff_tiles_rgb48", true, Rgb, 16, 0, "--bigtiff", 16, true},
};

class ZkRoundTrip : public testing::TestWithParam<RoundTrip> {};

TEST_P(ZkRoundTrip, PixelsAndPaletteComeBackUnchanged) {
    const RoundTrip& c = GetParam();
    const std::string ext = c.tiff ? ".tif" : ".png";
    const std::string in = path(std::string(c.name) + "_in" + ext), out = path(std::string(c.name) + "_out" + ext);
    Image im = random_image(c.kind, c.bits, 37, 23, c.colors, 7);
    im.big = c.big;
    im.min_is_white = c.min_is_white;
    if (c.tiff)
        write_tiff(in, im, COMPRESSION_LZW, c.in_tile);
    else
        write_png(in, im);
    std::remove(out.c_str());
    std::vector<std::string> args{"convert", in, out};
    if (*c.option) args.insert(args.begin() + 1, c.option);
    const Outcome r = zk(args);
    ASSERT_EQ(r.code(), 0) << r.err;
    const Image got = c.tiff ? read_tiff(out) : read_png(out);
    const Image sent = c.tiff ? read_tiff(in) : read_png(in);
    EXPECT_EQ(got.width, sent.width);
    EXPECT_EQ(got.height, sent.height);
    EXPECT_EQ(got.bits, sent.bits);
    EXPECT_EQ(got.kind, sent.kind);
    EXPECT_EQ(got.min_is_white, sent.min_is_white);
    // A palette may gain unused entries, never change the used ones.
    ASSERT_GE(got.palette.size(), sent.palette.size());
    for (size_t i = 0; i < sent.palette.size(); ++i) EXPECT_EQ(got.palette[i], sent.palette[i]) << "entry " << i;
    EXPECT_EQ(got.rows, sent.rows);
    EXPECT_EQ(got.rows, im.rows);
    if (c.tiff) {
        EXPECT_EQ(got.tiled, std::string(c.option).rfind("--tile", 0) == 0);
        EXPECT_EQ(got.big, c.big);
    }
    // Through the other format and back: the same pixels.
    const std::string other = path(std::string(c.name) + "_other" + (c.tiff ? ".png" : ".tif"));
    const std::string back = path(std::string(c.name) + "_back" + ext);
    ASSERT_EQ(zk({"convert", out, other}).code(), 0);
    ASSERT_EQ(zk({"convert", other, back}).code(), 0);
    const Image again = c.tiff ? read_tiff(back) : read_png(back);
    if (!c.min_is_white && c.kind != Palette) {
        EXPECT_EQ(again.rows, im.rows);
    }
    EXPECT_EQ(again.kind, sent.kind);
}

INSTANTIATE_TEST_SUITE_P(Depths, ZkRoundTrip, testing::ValuesIn(kRoundTrips),
                         [](const testing::TestParamInfo<RoundTrip>& p) { return std::string(p.param.name); });

// ---- Alpha -------------------------------------------------------------------

// Splits interleaved samples of `size` bytes: sample k of every pixel of n.
std::vector<std::vector<uint8_t>> channel(const Image& im, int k) {
    const int size = im.bits / 8, n = im.channels();
    std::vector<std::vector<uint8_t>> out;
    for (const auto& row : im.rows) {
        out.emplace_back();
        for (uint32_t x = 0; x < im.width; ++x)
            for (int b = 0; b < size; ++b) out.back().push_back(row[(x * n + k) * size + b]);
    }
    return out;
}

TEST(ZkAlpha, SetThenExtractGivesTheAlphaBack) {
    for (int bits : {8, 16}) {
        for (const char* ext : {".png", ".tif"}) {
            SCOPED_TRACE(std::to_string(bits) + "-bit samples, " + ext);
            const Image rgb = random_image(Rgb, bits, 29, 17, 0, 11), mask = random_image(Gray, bits, 29, 17, 0, 12);
            const std::string in = path(std::string("alpha_rgb") + ext), a = path(std::string("alpha_mask") + ext);
            const std::string with = path(std::string("alpha_rgba") + ext),
                              back = path(std::string("alpha_back") + ext);
            if (*ext == '.' && ext[1] == 'p') {
                write_png(in, rgb);
                write_png(a, mask);
            } else {
                write_tiff(in, rgb);
                write_tiff(a, mask);
            }
            const auto read = [ext](const std::string& p) { return ext[1] == 'p' ? read_png(p) : read_tiff(p); };
            ASSERT_EQ(zk({"alpha", "set", in, a, with}).code(), 0);
            const Image rgba = read(with);
            ASSERT_EQ(rgba.kind, Rgba);
            ASSERT_EQ(rgba.bits, bits);
            const Image sent = read(in), sent_mask = read(a);
            for (int k = 0; k < 3; ++k) EXPECT_EQ(channel(rgba, k), channel(sent, k)) << "colour " << k;
            EXPECT_EQ(channel(rgba, 3), sent_mask.rows);
            ASSERT_EQ(zk({"alpha", "extract", with, back}).code(), 0);
            const Image got = read(back);
            EXPECT_EQ(got.kind, Gray);
            EXPECT_EQ(got.bits, bits);
            EXPECT_EQ(got.rows, sent_mask.rows);
        }
    }
    // Extracting from an image without alpha gives zeros; a wrong call fails.
    const std::string in = path("alpha_rgb.png"), out = path("alpha_zero.png");
    write_png(in, random_image(Rgb, 8, 9, 5, 0, 13));
    ASSERT_EQ(zk({"alpha", "extract", in, out}).code(), 0);
    EXPECT_EQ(read_png(out).rows, std::vector<std::vector<uint8_t>>(5, std::vector<uint8_t>(9, 0)));
    EXPECT_EQ(zk({"alpha", "remove", in, out}).code(), 2);
    EXPECT_EQ(zk({"alpha", "set", in, out}).code(), 2);
}

// ---- Orientation ------------------------------------------------------------

// Where TIFF Orientation o displays the stored pixel (row r, column c) of a
// w x h image: the 0th row and column are at the sides the tag names.
std::pair<uint32_t, uint32_t> displayed_at(uint16_t o, uint32_t r, uint32_t c, uint32_t w, uint32_t h) {
    switch (o) {
        case 1: return {c, r};                  // row 0 top, column 0 left
        case 2: return {w - 1 - c, r};          // top, right
        case 3: return {w - 1 - c, h - 1 - r};  // bottom, right
        case 4: return {c, h - 1 - r};          // bottom, left
        case 5: return {r, c};                  // row 0 left, column 0 top
        case 6: return {h - 1 - r, c};          // right, top
        case 7: return {h - 1 - r, w - 1 - c};  // right, bottom
        default: return {r, w - 1 - c};         // left, bottom
    }
}

// The picture an 8-bit gray image with its orientation tag shows.
Image displayed(const Image& s) {
    Image d = s;
    d.orientation = 1;
    if (s.orientation >= 5) std::swap(d.width, d.height);
    d.rows.assign(d.height, std::vector<uint8_t>(d.width));
    for (uint32_t r = 0; r < s.height; ++r)
        for (uint32_t c = 0; c < s.width; ++c) {
            const auto [x, y] = displayed_at(s.orientation, r, c, s.width, s.height);
            d.rows[y][x] = s.rows[r][c];
        }
    return d;
}

TEST(ZkOrient, ApplyStoresWhatEachOrientationDisplays) {
    for (uint16_t o = 1; o <= 8; ++o) {
        SCOPED_TRACE("orientation " + std::to_string(o));
        Image im = random_image(Gray, 8, 5, 3, 0, o);
        for (uint32_t i = 0; i < 15; ++i) im.rows[i / 5][i % 5] = static_cast<uint8_t>(10 * i + 1);  // all distinct
        im.orientation = o;
        const std::string in = path("orient_in.tif"), out = path("orient_out.tif"), png = path("orient_out.png");
        write_tiff(in, im, COMPRESSION_NONE);
        ASSERT_EQ(zk({"orient", "--apply", in, out}).code(), 0);
        const Image want = displayed(im), got = read_tiff(out);
        EXPECT_EQ(got.orientation, 1);
        EXPECT_EQ(got.width, want.width);
        EXPECT_EQ(got.rows, want.rows);
        // A PNG has no orientation: it gets the displayed picture.
        ASSERT_EQ(zk({"convert", in, png}).code(), 0);
        EXPECT_EQ(read_png(png).rows, want.rows);
        // --to keeps the picture and stores it under another tag.
        const std::string to = path("orient_to.tif");
        for (uint16_t t = 1; t <= 8; ++t) {
            ASSERT_EQ(zk({"orient", "--to", std::to_string(t), in, to}).code(), 0);
            const Image moved = read_tiff(to);
            EXPECT_EQ(moved.orientation, t);
            EXPECT_EQ(displayed(moved).rows, want.rows) << "to " << t;
        }
    }
}

// ---- Damaged files and bad command lines ------------------------------------

std::vector<uint8_t> file_bytes(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put_file(const std::string& p, const std::vector<uint8_t>& bytes) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void put_be32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int k = 0; k < 4; ++k) b[at + k] = static_cast<uint8_t>(v >> (24 - 8 * k));
}

// Rewrites the CRC of the PNG chunk starting at `at` (its length field).
void fix_crc(std::vector<uint8_t>& b, size_t at) {
    const uint32_t len = (b[at] << 24) | (b[at + 1] << 16) | (b[at + 2] << 8) | b[at + 3];
    put_be32(b, at + 8 + len, static_cast<uint32_t>(crc32(0, b.data() + at + 4, len + 4)));
}

// Offset of the first value of TIFF tag `tag` in a little-endian classic
// TIFF's first directory.
size_t tiff_tag_value(const std::vector<uint8_t>& b, uint16_t tag) {
    const uint32_t ifd = b[4] | (b[5] << 8) | (b[6] << 16) | (b[7] << 24);
    const uint16_t n = static_cast<uint16_t>(b[ifd] | (b[ifd + 1] << 8));
    for (uint16_t i = 0; i < n; ++i) {
        const size_t e = ifd + 2 + 12u * i;
        if ((b[e] | (b[e + 1] << 8)) == tag) return e + 8;
    }
    ADD_FAILURE() << "no tag " << tag;
    return 0;
}

TEST(ZkDamagedFiles, EveryRunFailsCleanly) {
    // A picture with smooth areas so that the compressed data is short.
    Image im = random_image(Rgb, 8, 64, 48, 0, 3);
    for (uint32_t y = 0; y < im.height; ++y)
        for (size_t i = 0; i < im.row_bytes(); ++i) im.rows[y][i] = static_cast<uint8_t>(i * 3 + y * 5);
    const std::string png = path("valid.png"), strips = path("valid.tif"), tiles = path("valid_tiles.tif");
    write_png(png, im);
    write_tiff(strips, im, COMPRESSION_ADOBE_DEFLATE);
    write_tiff(tiles, im, COMPRESSION_LZW, 16);
    ASSERT_EQ(zk({"convert", png, path("ok.png")}).code(), 0);
    ASSERT_EQ(zk({"convert", strips, path("ok.tif")}).code(), 0);
    ASSERT_EQ(zk({"convert", tiles, path("ok.tif")}).code(), 0);

    std::vector<std::pair<std::string, std::vector<uint8_t>>> corpus;
    for (const std::string& source : {png, strips, tiles}) {
        const std::vector<uint8_t> b = file_bytes(source);
        const std::string tag = source == png ? "png" : source == strips ? "tiff" : "tiles";
        for (size_t cut : {size_t{0}, size_t{4}, size_t{8}, size_t{16}, size_t{40}, b.size() / 3, b.size() / 2,
                           b.size() - 40, b.size() - 1})
            if (cut < b.size())
                corpus.emplace_back(tag + " cut at " + std::to_string(cut), std::vector(b.begin(), b.begin() + cut));
        for (size_t at : {size_t{0}, size_t{1}, size_t{2}, size_t{3}}) {
            auto d = b;
            d[at] ^= 0x55;
            corpus.emplace_back(tag + " header byte " + std::to_string(at) + " flipped", d);
        }
    }
    const std::vector<uint8_t> p = file_bytes(png);
    {
        auto d = p;  // IHDR: a damaged CRC, then a colour type and a depth PNG does not have
        d[20] ^= 0x01;
        corpus.emplace_back("png IHDR height flipped", d);
        d = p;
        d[25] = 5;
        fix_crc(d, 8);
        corpus.emplace_back("png colour type 5", d);
        d = p;
        d[24] = 3;
        fix_crc(d, 8);
        corpus.emplace_back("png depth 3", d);
        for (uint32_t w : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu, 5000000u, 100000u}) {
            d = p;
            put_be32(d, 16, w);
            put_be32(d, 20, w == 100000u ? 100000u : 48u);
            fix_crc(d, 8);
            corpus.emplace_back("png dimensions " + std::to_string(w), d);
        }
        for (size_t at : {p.size() / 3, p.size() / 2, p.size() * 2 / 3}) {  // inside IDAT
            d = p;
            d[at] ^= 0xA5;
            corpus.emplace_back("png data byte " + std::to_string(at) + " flipped", d);
        }
    }
    for (const std::string& source : {strips, tiles}) {
        const std::vector<uint8_t> t = file_bytes(source);
        const std::string tag = source == strips ? "tiff" : "tiles";
        const bool tiled = source == tiles;
        auto d = t;
        put_be32(d, 4, 0x7FFFFFF0u);  // the directory beyond the end
        corpus.emplace_back(tag + " directory offset", d);
        for (uint32_t w : {0u, 0x7FFFFFFFu, 1000000u}) {
            d = t;
            const size_t v = tiff_tag_value(d, TIFFTAG_IMAGEWIDTH);
            for (int k = 0; k < 4; ++k) d[v + k] = static_cast<uint8_t>(w >> (8 * k));
            const size_t h = tiff_tag_value(d, TIFFTAG_IMAGELENGTH);
            for (int k = 0; k < 4; ++k) d[h + k] = static_cast<uint8_t>(w >> (8 * k));
            corpus.emplace_back(tag + " dimensions " + std::to_string(w), d);
        }
        d = t;
        d[tiff_tag_value(d, TIFFTAG_PHOTOMETRIC)] = 99;
        corpus.emplace_back(tag + " photometric 99", d);
        // The first strip or tile: its offset past the end, then its data
        // overwritten. Overwritten LZW or deflate data has no checksum that
        // libtiff checks, so it may decode to other pixels: that run only
        // must not crash, and must write a whole image if it succeeds.
        const size_t offsets = tiff_tag_value(t, tiled ? TIFFTAG_TILEOFFSETS : TIFFTAG_STRIPOFFSETS);
        const uint32_t array = t[offsets] | (t[offsets + 1] << 8) | (t[offsets + 2] << 16) | (t[offsets + 3] << 24);
        d = t;
        for (int k = 0; k < 4; ++k) d[array + k] = static_cast<uint8_t>(0x7FFFFF00u >> (8 * k));
        corpus.emplace_back(tag + " data offset", d);
        d = t;
        const uint32_t at = t[array] | (t[array + 1] << 8) | (t[array + 2] << 16) | (t[array + 3] << 24);
        for (uint32_t k = 0; k < 48; ++k) d[at + 4 + k] = 0xFF;
        corpus.emplace_back("?" + tag + " compressed data", d);
    }

    const std::string out_png = path("damaged_out.png"), out_tif = path("damaged_out.tif");
    int n = 0;
    for (const auto& [name, bytes] : corpus) {
        SCOPED_TRACE(name);
        const std::string in = path("damaged_in.bin");
        put_file(in, bytes);
        for (const std::string& out : {out_png, out_tif}) {
            std::remove(out.c_str());
            const Outcome r = zk({"--memory-limit=16M", "--temp-dir=" + tmp_dir(), "convert", in, out});
            EXPECT_TRUE(r.exited()) << "crashed: status " << r.status << "\n" << r.err;
            if (name[0] == '?' && r.code() == 0) {
                const Image got = out == out_png ? read_png(out) : read_tiff(out);
                EXPECT_EQ(got.width, im.width);
                EXPECT_EQ(got.rows.size(), im.height);
                continue;
            }
            EXPECT_NE(r.code(), 0) << "accepted";
            EXPECT_NE(r.err.find("zk"), std::string::npos) << r.err;
            EXPECT_NE(r.err.find("status: ST_"), std::string::npos) << r.err;
            EXPECT_FALSE(exists(out));
            EXPECT_EQ(leftovers(out), 0);
            ++n;
        }
    }
    EXPECT_GT(n, 60);
}

TEST(ZkDamagedFiles, MissingFilesAndBadCommandLinesFail) {
    const std::string in = path("cli_in.png"), out = path("cli_out.png");
    write_png(in, random_image(Rgb, 8, 8, 8, 0, 1));
    const std::vector<std::vector<std::string>> lines = {
        {"convert", "--bogus", in, out},
        {"--nope", "info", in},
        {"frobnicate", in, out},
        {"rotate", "45", in, out},
        {"convert", "--depth", "9", in, out},
        {"convert", "--depth", in, out},
        {"convert", "--dither", "sideways", in, out},
        {"convert", in},
        {"convert", in, path("cli_out.jpg")},
        {"convert", "--tile", "17", in, path("cli_out.tif")},
        {"convert", path("missing.png"), out},
        {"convert", in, path("no_such_dir/out.png")},
        {"--temp-dir", path("no_such_dir"), "convert", in, out},
        {"--memory-limit", "lots", "convert", in, out},
        {"orient", in, out},
        {"orient", "--to", "9", in, out},
    };
    for (const auto& args : lines) {
        std::string joined;
        for (const auto& a : args) joined += a + " ";
        SCOPED_TRACE(joined);
        std::remove(out.c_str());
        const Outcome r = zk(args);
        EXPECT_TRUE(r.exited()) << r.status;
        EXPECT_NE(r.code(), 0);
        EXPECT_NE(r.err.find("zk"), std::string::npos) << r.err;
        EXPECT_FALSE(exists(out));
    }
}

}  // namespace
