// The dithering engine against an independent model written from its rules:
// whole-image error sums divided once per pixel (truncated toward zero),
// current-line weights, discarded margins; the fixed formulas; match-table
// cells seeded with the palette's own colours (lowest position first) and
// filled by the nearest selectable entry to the cell's colour with the low
// three bits cleared.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <vector>

#include "reduce/dither.h"
#include "test_support.h"
#include "zkernel.h"

namespace {

using Rgb = std::array<int, 3>;

struct ModelTap {
    int dy, dx, w;
};
struct ModelKernel {
    int div;
    std::vector<ModelTap> taps;
};

// Kernels by method, as rows of weights (x-3..x+3) per line: 0 current.
ModelKernel model_kernel(uint32_t method) {
    struct Rows {
        int div;
        int w[4][7];
    };
    static const Rows k[] = {
        {16, {{0, 0, 0, 0, 7, 0, 0}, {0, 0, 3, 5, 1, 0, 0}}},
        {42, {{0, 0, 0, 0, 8, 4, 0}, {0, 2, 4, 8, 4, 2, 0}, {0, 1, 2, 4, 2, 1, 0}}},
        {32, {{0, 0, 0, 0, 8, 4, 0}, {0, 2, 4, 8, 4, 2, 0}}},
        {32, {{0, 0, 0, 0, 5, 3, 0}, {0, 2, 4, 5, 4, 2, 0}, {0, 0, 2, 3, 2, 0, 0}}},
        {200, {{0, 0, 0, 0, 0, 32, 0}, {12, 0, 26, 0, 30, 0, 16}, {0, 12, 0, 26, 0, 12, 0}, {5, 0, 12, 0, 12, 0, 5}}},
        {48, {{0, 0, 0, 0, 7, 5, 0}, {0, 3, 5, 7, 5, 3, 0}, {0, 1, 3, 5, 3, 1, 0}}},
    };
    const Rows& r = k[method - 1];
    ModelKernel m{r.div, {}};
    for (int dy = 0; dy < 4; ++dy)
        for (int dx = -3; dx <= 3; ++dx)
            if (r.w[dy][dx + 3]) m.taps.push_back({dy, dx, r.w[dy][dx + 3]});
    return m;
}

const uint8_t kOrdered[2][8][8] = {
    {{0, 128, 32, 160, 8, 136, 40, 168},
     {192, 64, 224, 96, 200, 72, 232, 104},
     {48, 176, 16, 144, 56, 184, 24, 152},
     {236, 112, 208, 80, 244, 120, 216, 88},
     {12, 140, 44, 172, 4, 132, 36, 164},
     {204, 76, 232, 108, 196, 68, 228, 100},
     {60, 188, 28, 156, 52, 180, 20, 148},
     {248, 124, 220, 92, 240, 116, 212, 84}},
    {{112, 40, 72, 104, 144, 176, 208, 136},
     {88, 8, 16, 48, 192, 232, 240, 168},
     {56, 24, 0, 80, 160, 224, 248, 200},
     {96, 64, 32, 120, 128, 216, 184, 152},
     {148, 180, 212, 140, 116, 44, 76, 108},
     {196, 236, 244, 172, 92, 12, 20, 52},
     {164, 228, 252, 204, 60, 28, 4, 84},
     {132, 220, 188, 156, 100, 68, 36, 124}},
};

int gray(const Rgb& c) { return (5 * c[1] + 2 * c[0] + c[2] + 4) >> 3; }
int floor_div(int a, int b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// Colour to index for one palette choice. `kind` 0 is a match table;
// otherwise the number of colours of the fixed palette (2..256) or 216 for
// the cube.
struct ModelLookup {
    int kind = 0;
    std::vector<RGBQUAD> palette;
    std::map<int, int> cells;  // cell -> palette index
    std::vector<RGBQUAD> selectable;
    std::vector<int> selectable_index;

    void prepare() {
        for (size_t i = 0; i < palette.size(); ++i)
            if ((palette[i].rgbReserved & 3) == 0) {
                selectable.push_back(palette[i]);
                selectable_index.push_back(static_cast<int>(i));
            }
        for (size_t p = 0; p < selectable.size(); ++p)
            cells.emplace(cell(selectable[p].rgbRed, selectable[p].rgbGreen, selectable[p].rgbBlue),
                          selectable_index[p]);
    }
    static int cell(int r, int g, int b) { return (r >> 3) * 1024 + (g >> 3) * 32 + (b >> 3); }
    int operator()(const Rgb& c) {
        const int r = c[0], g = c[1], b = c[2];
        switch (kind) {
            case 2: return gray(c) >= 128 ? 1 : 0;
            case 4: return gray(c) / 64;
            case 8: return (r >= 128) * 4 + (g >= 128) * 2 + (b >= 128);
            case 16: {
                const int i = (b >= 128) * 4 + (g >= 128) * 2 + (r >= 128);
                return i ? i + 8 : 0;
            }
            case 32: return r / 64 * 8 + g / 64 * 2 + b / 128;
            case 64: return r / 64 * 16 + g / 64 * 4 + b / 64;
            case 128: return r / 64 * 32 + g / 32 * 4 + b / 64;
            case 256: return r / 32 * 32 + g / 32 * 4 + b / 64;
            case 216: return r / 51 * 36 + g / 51 * 6 + b / 51;
        }
        auto [it, fresh] = cells.emplace(cell(r, g, b), 0);
        if (fresh) {
            const uint32_t p = Z_FindPaletteIndex(selectable.data(), static_cast<uint32_t>(selectable.size()), r & 0xF8,
                                                  g & 0xF8, b & 0xF8);
            it->second = selectable_index[p];
        }
        return it->second;
    }
    // Palette bits of an ordered offset for the fixed kinds.
    int own_bits() const {
        if (kind == 216) return 6;
        int bits = 0;
        while ((1 << bits) < kind) ++bits;
        return bits;
    }
};

// The model of a whole image: colours in, indices out.
std::vector<int> model_dither(const std::vector<Rgb>& image, int width, int height, uint32_t method, ModelLookup& find,
                              int dest_bits) {
    std::vector<int> out(image.size());
    if (method >= 1 && method <= 6) {
        const ModelKernel k = model_kernel(method);
        std::vector<std::array<long, 3>> sum(image.size(), {0, 0, 0});
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const size_t at = size_t(y) * width + x;
                Rgb v;
                for (int c = 0; c < 3; ++c)
                    v[c] = std::clamp(image[at][c] + static_cast<int>(sum[at][c] / k.div), 0, 255);  // C++ truncates
                const int index = find(v);
                out[at] = index;
                // Entries past the palette's count have no colour (zero).
                const RGBQUAD d = index < static_cast<int>(find.palette.size()) ? find.palette[index] : RGBQUAD{};
                const Rgb e{v[0] - d.rgbRed, v[1] - d.rgbGreen, v[2] - d.rgbBlue};
                for (const ModelTap& t : k.taps) {
                    const int tx = x + t.dx, ty = y + t.dy;
                    if (tx < 0 || tx >= width || ty >= height) continue;
                    for (int c = 0; c < 3; ++c) sum[size_t(ty) * width + tx][c] += long{t.w} * e[c];
                }
            }
        return out;
    }
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t at = size_t(y) * width + x;
            const Rgb& c = image[at];
            if (method == 0) {
                out[at] = find(c);
                continue;
            }
            const int m = kOrdered[method == DITHER_CLUSTERED][y % 8][x % 8];
            if (find.kind == 2) {
                out[at] = gray(c) > m;
            } else if (find.kind == 16) {
                const int i = (m < c[2]) * 4 + (m < c[1]) * 2 + (c[0] > m);
                out[at] = i ? i + 8 : 0;
            } else {
                const int k = find.kind ? find.own_bits() : dest_bits;
                const int d = floor_div(m, k) - floor_div(128, k);
                out[at] =
                    find(Rgb{std::clamp(c[0] + d, 0, 255), std::clamp(c[1] + d, 0, 255), std::clamp(c[2] + d, 0, 255)});
            }
        }
    return out;
}

// A photograph-like image: gradients, a disc and noise.
std::vector<Rgb> test_image(int w, int h, uint32_t seed) {
    const std::vector<uint8_t> noise = zktest::random_bytes(size_t(w) * h * 3, seed);
    std::vector<Rgb> img(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y) * w + x;
            const bool disc = (x - w / 2) * (x - w / 2) + (y - h / 2) * (y - h / 2) < w * h / 8;
            img[i] = {std::clamp(x * 255 / std::max(1, w - 1) + noise[3 * i] % 31 - 15, 0, 255),
                      disc ? 40 + noise[3 * i + 1] % 20 : y * 255 / std::max(1, h - 1),
                      std::clamp(((x + y) * 97) % 256 + noise[3 * i + 2] % 9 - 4, 0, 255)};
        }
    return img;
}

// A 37-entry palette with two reserved entries (one of them an exact image
// colour), two entries sharing one cell, white and black.
std::vector<RGBQUAD> custom_palette() {
    std::vector<RGBQUAD> p;
    for (int i = 0; i < 35; ++i)
        p.push_back(RGBQUAD{static_cast<uint8_t>(i * 53 % 256), static_cast<uint8_t>(i * 101 % 256),
                            static_cast<uint8_t>(i * 29 % 256), 0});
    p[3] = {0, 0, 0, 0};
    p[4] = {255, 255, 255, 0};
    p[5] = {12, 200, 100, Z_PAL_RESERVED};
    p[6] = {13, 201, 101, 0};  // same cell as entry 7, lower position
    p[7] = {14, 202, 102, 0};
    p[8] = {128, 128, 128, Z_PAL_FILL};
    p.push_back({1, 2, 250, 0});
    p.push_back({250, 2, 1, 0});
    return p;
}

// Dithers image rows of `bpp` bits (raw bytes per row) through the engine.
struct Engine {
    BitmapHandle b;
    std::vector<uint8_t> out;
    uint32_t out_stride;
    Engine(int w, int bpp, uint32_t order, uint32_t method) {
        b = zktest::described(w, 1, bpp);
        b.Order = order;
        b.DitherMethod = method;
    }
    ~Engine() { Z_StopDithering(&b); }
    std::vector<int> run(const std::vector<std::vector<uint8_t>>& rows, int dest_bits) {
        const int w = b.Width;
        out_stride = static_cast<uint32_t>((w * dest_bits + 7) / 8 + 1);
        out.assign(out_stride * rows.size(), 0xA5);
        std::vector<int> indices;
        for (size_t y = 0; y < rows.size(); ++y) {
            uint8_t* row = out.data() + y * out_stride;
            EXPECT_EQ(Z_DitherLine(&b, rows[y].data(), row), ST_OK);
            for (int x = 0; x < w; ++x) {
                const int bit = x * dest_bits;
                const int v =
                    ((row[bit / 8] << 8 | row[bit / 8 + 1]) >> (16 - bit % 8 - dest_bits)) & ((1 << dest_bits) - 1);
                indices.push_back(v);
            }
            // Bits past the last index are kept.
            const int used = w * dest_bits;
            for (int bit = used; bit < static_cast<int>(out_stride) * 8; ++bit)
                EXPECT_EQ((row[bit / 8] >> (7 - bit % 8)) & 1, (0xA5 >> (7 - bit % 8)) & 1) << "bit " << bit;
        }
        return indices;
    }
};

std::vector<std::vector<uint8_t>> bgr_rows(const std::vector<Rgb>& img, int w, int h) {
    std::vector<std::vector<uint8_t>> rows(h, std::vector<uint8_t>(size_t(w) * 3));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) rows[y][3 * x + c] = static_cast<uint8_t>(img[size_t(y) * w + x][2 - c]);
    return rows;
}

struct PaletteCase {
    const char* name;
    int kind;    // ModelLookup::kind
    int colors;  // passed to the start
    bool given;  // the palette is passed (else null)
    bool user;   // through a user match table
    int dest_bits;
};

}  // namespace

// Every method with every kind of palette matches the model pixel for pixel,
// on rows of one, a few and many pixels.
TEST(Dither, EveryMethodAndLookupMatchesTheModel) {
    const std::vector<RGBQUAD> custom = custom_palette();
    const PaletteCase cases[] = {
        {"fixed 2", 2, 2, false, false, 1},
        {"fixed 4 of 3", 4, 3, false, false, 2},
        {"fixed 8", 8, 8, true, false, 3},
        {"fixed 16", 16, 16, false, false, 4},
        {"fixed 32", 32, 20, false, false, 5},
        {"fixed 64", 64, 64, true, false, 6},
        {"fixed 128", 128, 100, false, false, 7},
        {"fixed 256", 256, 256, true, false, 8},
        {"cube", 216, 256, true, false, 8},
        {"custom", 0, 37, true, false, 6},
        {"custom, user table", 0, 37, true, true, 8},
        {"fixed 16 in a user table", 0, 16, false, true, 4},
    };
    for (const PaletteCase& pc : cases)
        for (uint32_t method = 0; method <= DITHER_CLUSTERED; ++method)
            for (const auto& [w, h] : {std::pair{1, 5}, std::pair{3, 4}, std::pair{41, 13}}) {
                SCOPED_TRACE(::testing::Message() << pc.name << ", method " << method << ", " << w << " x " << h);
                std::vector<RGBQUAD> palette;
                if (pc.kind == 0 && pc.given)
                    palette = custom;
                else if (pc.kind == 216)
                    palette.assign(zk::reduce::cube_palette(), zk::reduce::cube_palette() + 256);
                else
                    palette.assign(
                        Z_IntGetFixedPalette(static_cast<int32_t>(zk::reduce::index_bits(pc.colors))),
                        Z_IntGetFixedPalette(static_cast<int32_t>(zk::reduce::index_bits(pc.colors))) + pc.colors);
                ModelLookup find;
                find.kind = pc.kind;
                find.palette = palette;
                find.prepare();
                const auto img = test_image(w, h, 7 + method);
                Engine e(w, 24, CO_BGR, method);
                std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS, 0);
                ASSERT_EQ(
                    Z_StartDitheringExt(&e.b, pc.given ? palette.data() : nullptr, static_cast<uint32_t>(pc.colors),
                                        static_cast<uint32_t>(pc.dest_bits), pc.user ? table.data() : nullptr),
                    ST_OK);
                // A palette equal to a fixed one or the cube never takes a table.
                const zk::reduce::Lookup kind = zk::reduce::testing::lookup_of(e.b);
                EXPECT_EQ(kind == zk::reduce::Lookup::OwnedTable, pc.kind == 0 && !pc.user);
                EXPECT_EQ(kind == zk::reduce::Lookup::Cube, pc.kind == 216);
                const std::vector<int> got = e.run(bgr_rows(img, w, h), pc.dest_bits);
                std::vector<int> want = model_dither(img, w, h, method, find, pc.dest_bits);
                for (int& v : want) v &= (1 << pc.dest_bits) - 1;
                ASSERT_EQ(got, want);
                for (size_t i = 0; pc.kind == 0 && i < got.size(); ++i)
                    ASSERT_EQ(palette[static_cast<size_t>(got[i])].rgbReserved & 3, 0) << "a reserved entry chosen";
            }
}

// Every source depth and colour order decodes as conversion to 24-bit BGR
// does, and then dithers as that row would.
TEST(Dither, EverySourceDepthAndOrderDecodesLikeConversion) {
    struct Source {
        int bpp;
        uint32_t order;
        uint32_t low, high;  // gray bit range
        bool lut;
    };
    const Source sources[] = {
        {1, CO_BGR, ~0u, ~0u, false},      {2, CO_RGB, ~0u, ~0u, false},      {3, CO_BGR, ~0u, ~0u, false},
        {4, CO_BGR, ~0u, ~0u, false},      {5, CO_BGR, ~0u, ~0u, false},      {6, CO_BGR, ~0u, ~0u, false},
        {7, CO_BGR, ~0u, ~0u, false},      {8, CO_BGR, ~0u, ~0u, false},      {8, CO_GRAY, ~0u, ~0u, false},
        {12, CO_GRAY, ~0u, ~0u, false},    {12, CO_GRAY, 2, 7, false},        {12, CO_GRAY, 1, 10, true},
        {16, CO_GRAY, ~0u, ~0u, false},    {16, CO_GRAY, 3, 8, false},        {16, CO_GRAY, 0, 11, true},
        {16, CO_BGR, ~0u, ~0u, false},     {16, CO_RGB, ~0u, ~0u, false},     {24, CO_BGR, ~0u, ~0u, false},
        {24, CO_RGB, ~0u, ~0u, false},     {24, CO_ALT_BGR, ~0u, ~0u, false}, {32, CO_BGR, ~0u, ~0u, false},
        {32, CO_RGB, ~0u, ~0u, false},     {48, CO_BGR, ~0u, ~0u, false},     {48, CO_RGB, ~0u, ~0u, false},
        {48, CO_ALT_BGR, ~0u, ~0u, false}, {64, CO_BGR, ~0u, ~0u, false},     {64, CO_RGB, ~0u, ~0u, false},
    };
    const int w = 29, h = 6;
    const std::vector<RGBQUAD> custom = custom_palette();
    std::vector<RGBQUAD> lut(65536);
    for (size_t i = 0; i < lut.size(); ++i)
        lut[i] = {static_cast<uint8_t>(i * 7), static_cast<uint8_t>(255 - i % 256), static_cast<uint8_t>(i >> 4), 0};
    for (const Source& s : sources)
        for (uint32_t method : {DITHER_NONE, DITHER_FLOYD, DITHER_ORDERED}) {
            SCOPED_TRACE(::testing::Message() << s.bpp << " bits, order " << s.order << ", range " << int(s.low) << ".."
                                              << int(s.high) << (s.lut ? ", LUT" : "") << ", method " << method);
            Engine e(w, s.bpp, s.order, method);
            std::vector<RGBQUAD> src_palette(256);
            for (int i = 0; i < 256; ++i)
                src_palette[i] = {static_cast<uint8_t>(i * 3), static_cast<uint8_t>(i * 5), static_cast<uint8_t>(i), 0};
            if (s.bpp <= 8) {
                e.b.ColorCount = 1u << s.bpp;
                e.b.Palette = Z_CreateNewPalette(src_palette.data(), e.b.ColorCount);
            }
            e.b.LowBit = s.low;
            e.b.HighBit = s.high;
            if (s.lut) {
                e.b.LUT = lut.data();
                e.b.LUTLength = 1u << s.bpp;
                e.b.Flags |= BF_LUT_USED;
            }
            ASSERT_EQ(Z_StartDitheringExt(&e.b, custom.data(), 37, 8, nullptr), ST_OK);
            if (s.bpp <= 8) Z_SetBitmapNewPalette(&e.b, nullptr, 0);  // rows use the copy taken at the start
            e.b.LUT = nullptr;
            // Random rows; the model decodes them with Z_ConvertBufferExt.
            std::vector<std::vector<uint8_t>> rows;
            std::vector<Rgb> img;
            const size_t bytes = (size_t(w) * s.bpp + 7) / 8;
            for (int y = 0; y < h; ++y) {
                rows.push_back(zktest::random_bytes(bytes + 8, 100 + y + s.bpp));
                std::vector<uint8_t> conv(size_t(w) * 8 + 16);
                std::memcpy(conv.data(), rows.back().data(), bytes);
                const bool gray = s.order == CO_GRAY && s.bpp > 8;
                const int32_t flags = (gray ? CVT_SRC_GRAY : 0) | (gray && s.low != ~0u ? CVT_SRC_RANGE : 0);
                ASSERT_EQ(Z_ConvertBufferExt(conv.data(), w, s.bpp == 8 && s.order == CO_GRAY ? 8 : s.bpp, 24,
                                             s.bpp <= 8 ? static_cast<int32_t>(CO_BGR) : static_cast<int32_t>(s.order),
                                             CO_BGR, s.bpp <= 8 ? src_palette.data() : (s.lut ? lut.data() : nullptr),
                                             nullptr, flags, s.low, s.high),
                          ST_OK);
                for (int x = 0; x < w; ++x) img.push_back({conv[3 * x + 2], conv[3 * x + 1], conv[3 * x]});
            }
            ModelLookup find;
            find.palette = custom;
            find.prepare();
            EXPECT_EQ(e.run(rows, 8), model_dither(img, w, h, method, find, 8));
            Z_FreeBitmap(&e.b);
        }
}

// Every cell of a user match table holds the seeded or nearest entry; the
// fixed formulas hold over every 5-bit cell colour.
TEST(Dither, MatchTablesAndFixedFormulasOverEveryCell) {
    const std::vector<RGBQUAD> custom = custom_palette();
    uint32_t* table = Z_CreateUserMatchTable(custom.data(), 37);
    ASSERT_NE(table, nullptr);
    ModelLookup find;
    find.palette = custom;
    find.prepare();
    std::vector<Rgb> cells;
    for (int c = 0; c < 32768; ++c) cells.push_back({(c >> 10) << 3, (c >> 5 & 31) << 3, (c & 31) << 3});
    for (int c = 0; c < 32768; ++c) {
        const uint32_t at = table[c];
        ASSERT_TRUE(at >= 1 && at <= find.selectable.size()) << c;
        ASSERT_EQ(find.selectable_index[at - 1], find(cells[c])) << "cell " << c;
    }
    Z_OsFree(table);
    // Fixed formulas, cube included, on every cell colour plus 5 in each
    // channel, without dithering.
    for (const int kind : {2, 4, 8, 16, 32, 64, 128, 256, 216}) {
        ModelLookup fixed;
        fixed.kind = kind;
        std::vector<Rgb> img = cells;
        for (Rgb& c : img)
            for (int& v : c) v += 5;
        Engine e(32768, 24, CO_BGR, DITHER_NONE);
        const uint32_t colors = kind == 216 ? 256 : static_cast<uint32_t>(kind);
        ASSERT_EQ(Z_StartDithering(&e.b, kind == 216 ? zk::reduce::cube_palette() : nullptr, colors), ST_OK);
        const int bits = static_cast<int>(zk::reduce::index_bits(colors));
        std::vector<int> want = model_dither(img, 32768, 1, DITHER_NONE, fixed, bits);
        EXPECT_EQ(e.run(bgr_rows(img, 32768, 1), bits), want) << kind;
    }
}

// What the start accepts and refuses, and what it leaves.
TEST(Dither, StartStopAndBadInput) {
    BitmapHandle b = zktest::described(8, 2, 24);
    const std::vector<RGBQUAD> custom = custom_palette();
    std::vector<RGBQUAD> reserved(custom);
    for (RGBQUAD& e : reserved) e.rgbReserved = Z_PAL_RESERVED;
    uint8_t src[64] = {}, dst[64] = {};
    struct Refusal {
        const char* what;
        int32_t status;
        int32_t (*call)(BitmapHandle&, const std::vector<RGBQUAD>&, const std::vector<RGBQUAD>&);
    };
    const Refusal refusals[] = {
        {"null bitmap", ST_BAD_PARAM,
         [](BitmapHandle&, auto&, auto&) { return Z_StartDithering(nullptr, nullptr, 16); }},
        {"record size", ST_BAD_STRUCT_SIZE,
         [](BitmapHandle& b, auto&, auto&) {
             BitmapHandle c = b;
             c.StructSize = 160;
             return Z_StartDithering(&c, nullptr, 16);
         }},
        {"0 colours", ST_BAD_PARAM, [](BitmapHandle& b, auto&, auto&) { return Z_StartDithering(&b, nullptr, 0); }},
        {"257 colours", ST_BAD_PARAM,
         [](BitmapHandle& b, auto&, auto&) { return Z_StartDitheringExt(&b, nullptr, 257, 8, nullptr); }},
        {"method 9", ST_BAD_PARAM,
         [](BitmapHandle& b, auto&, auto&) {
             BitmapHandle c = b;
             c.DitherMethod = 9;
             return Z_StartDithering(&c, nullptr, 16);
         }},
        {"depth 9", ST_BAD_PARAM,
         [](BitmapHandle& b, auto&, auto&) {
             BitmapHandle c = b;
             c.BitsPerPixel = 9;
             return Z_StartDithering(&c, nullptr, 16);
         }},
        {"every entry reserved", ST_BAD_PARAM,
         [](BitmapHandle& b, auto&, auto& r) { return Z_StartDithering(&b, r.data(), 37); }},
    };
    for (const Refusal& r : refusals) {
        EXPECT_EQ(r.call(b, custom, reserved), r.status) << r.what;
        EXPECT_EQ(b.DitherData, nullptr) << r.what;
    }
    EXPECT_EQ(Z_DitherLine(&b, src, dst), ST_BAD_PARAM) << "no state";
    EXPECT_EQ(Z_StopDithering(&b), ST_OK) << "no state";
    ASSERT_EQ(Z_StartDithering(&b, custom.data(), 37), ST_OK);
    void* state = b.DitherData;
    EXPECT_EQ(Z_StartDithering(&b, nullptr, 16), ST_BAD_PARAM) << "a second start";
    EXPECT_EQ(b.DitherData, state);
    EXPECT_EQ(Z_DitherLine(&b, nullptr, dst), ST_BAD_PARAM);
    EXPECT_EQ(Z_DitherLine(&b, src, nullptr), ST_BAD_PARAM);
    b.Flags |= BF_SIGNED;
    std::memset(dst, 0x5A, sizeof dst);
    EXPECT_EQ(Z_DitherLine(&b, src, dst), ST_SIGNED_DATA);
    EXPECT_TRUE(std::all_of(dst, dst + sizeof dst, [](uint8_t v) { return v == 0x5A; })) << "nothing written";
    b.Flags &= ~BF_SIGNED;
    EXPECT_EQ(Z_StopDithering(&b), ST_OK);
    EXPECT_EQ(b.DitherData, nullptr);
    // An index width outside 1..8 writes nothing.
    ASSERT_EQ(Z_StartDitheringExt(&b, nullptr, 16, 0, nullptr), ST_OK);
    EXPECT_EQ(Z_DitherLine(&b, src, dst), ST_OK);
    EXPECT_TRUE(std::all_of(dst, dst + sizeof dst, [](uint8_t v) { return v == 0x5A; }));
    EXPECT_EQ(Z_StopDithering(&b), ST_OK);
    // Every allocation of a start refused in turn leaves no state and no leak.
    b.DitherMethod = DITHER_STEVENSON_ARCE;
    zktest::sweep_faults({zk::platform::FaultKind::Allocation}, 20, [&](zk::platform::FaultKind kind, int n) {
        const int32_t status = zktest::under_fault(kind, n, [&] { return Z_StartDithering(&b, custom.data(), 37); });
        if (status == ST_OK) return Z_StopDithering(&b) == ST_OK;
        EXPECT_EQ(status, ST_NO_MEMORY);
        EXPECT_EQ(b.DitherData, nullptr);
        return false;
    });
    // User match tables and the thread's slot.
    EXPECT_EQ(Z_CreateUserMatchTable(reserved.data(), 37), nullptr);
    EXPECT_EQ(Z_CreateUserMatchTable(custom.data(), 0), nullptr);
    uint32_t cells[1] = {};
    EXPECT_EQ(Z_SetUserMatchTable(cells), nullptr);
    EXPECT_EQ(Z_GetUserMatchTable(), cells);
    EXPECT_EQ(Z_SetUserMatchTable(nullptr), cells);
}
