// Colour resolution against the pieces it is made of (the dithering engine
// on the same rows, row conversion), in every storage kind, with progress,
// stops, bad input and injected failures leaving the caller's record as it
// was.
#include <algorithm>
#include <cstring>
#include <vector>

#include "../storage/kinds.h"
#include "reduce/dither.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::Kind;
using zktest::rows_of;

// A 24-bit source with gradients and noise (or only `colours` distinct
// colours when that is not 0).
void fill_photo(BitmapHandle& b, uint32_t seed, int colours = 0) {
    for (uint32_t y = 0; y < static_cast<uint32_t>(b.Height); ++y) {
        Bytes row = zktest::random_bytes(b.BytesPerLine, seed + y);
        for (int x = 0; x < b.Width && b.BitsPerPixel == 24; ++x) {
            uint8_t* p = row.data() + 3 * x;
            if (colours) {
                const int c = (x * 7 + static_cast<int>(y) * 3) % colours;
                p[0] = static_cast<uint8_t>(c * 40), p[1] = static_cast<uint8_t>(255 - c * 9), p[2] = 77;
            } else {
                p[0] = static_cast<uint8_t>(x * 255 / b.Width + p[0] % 16);
                p[1] = static_cast<uint8_t>(y * 255 / b.Height);
                p[2] = static_cast<uint8_t>((x + y) * 5 + p[2] % 8);
            }
        }
        ASSERT_EQ(Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
    }
}

// The pixels of a palettized result as the engine dithers the source rows.
std::vector<Bytes> dithered(BitmapHandle& src, uint32_t method, const RGBQUAD* palette, uint32_t colors, int32_t bits) {
    BitmapHandle state = zktest::described(src.Width, 1, src.BitsPerPixel);
    state.Order = src.Order;
    state.DitherMethod = method;
    EXPECT_EQ(Z_StartDitheringExt(&state, palette, colors, static_cast<uint32_t>(bits), nullptr), ST_OK);
    std::vector<Bytes> out;
    const uint32_t bpl = static_cast<uint32_t>(((src.Width * bits + 31) / 32) * 4);
    for (const Bytes& row : rows_of(src)) {
        out.emplace_back(bpl, 0);
        EXPECT_EQ(Z_DitherLine(&state, row.data(), out.back().data()), ST_OK);
    }
    Z_StopDithering(&state);
    return out;
}

// Pixel bytes of a row (padding left out).
Bytes pixels(const Bytes& row, int32_t width, int32_t bits) {
    const size_t n = (size_t(width) * bits + 7) / 8;
    Bytes p(row.begin(), row.begin() + static_cast<long>(n));
    // The last byte's own bits: the high ones below 8 bits per pixel, the
    // low nibble of a 12-bit pair's middle byte.
    if (const int rest = (width * bits) % 8) p.back() &= static_cast<uint8_t>(bits == 12 ? 0x0F : 0xFF << (8 - rest));
    return p;
}

std::vector<int> recorded;
int32_t Z_API record_progress(int32_t percent, void* stop_at) {
    recorded.push_back(percent);
    return stop_at && percent == *static_cast<int*>(stop_at) ? -999 : ST_OK;
}

}  // namespace

// Every selector and order against the engine or row conversion of the same
// rows, in every storage kind, into a new record.
TEST(ColorRes, SelectorsAndOrdersInEveryKind) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    std::vector<RGBQUAD> custom(37);
    for (int i = 0; i < 37; ++i)
        custom[i] = {static_cast<uint8_t>(i * 53), static_cast<uint8_t>(i * 101), static_cast<uint8_t>(i * 29), 0};
    struct Case {
        int32_t bits;
        uint32_t flags;
        const RGBQUAD* palette;  // the palette the engine is given (dithered cases)
        uint32_t colors;
        uint32_t order;  // converted cases: the destination order
    };
    const Case cases[] = {
        {8, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_FLOYD), nullptr, 256, 0},
        {4, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_ORDERED), nullptr, 16, 0},
        {1, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_STUCKI), nullptr, 2, 0},
        {8, CRF_CUBE_PALETTE | CRF_DITHER(DITHER_JARVIS), zk::reduce::cube_palette(), 256, 0},
        {6, CRF_USER_PALETTE | CRF_DITHER(DITHER_SIERRA), custom.data(), 37, 0},
        {32, 0, nullptr, 0, CO_RGB},
        {24, CRF_BYTE_ORDER_BGR, nullptr, 0, CO_BGR},
        {16, CRF_BYTE_ORDER_GRAY, nullptr, 0, CO_GRAY},
        {48, CRF_BYTE_ORDER_GRAY | CRF_BYTE_ORDER_BGR, nullptr, 0, CO_BGR},
        {24, CRF_BYTE_ORDER_ALT, nullptr, 0, CO_ALT_BGR},
        {12, CRF_FIXED_PALETTE | CRF_BYTE_ORDER_ALT, nullptr, 0, CO_GRAY},  // 12 bits: always gray
    };
    for (Kind kind : zktest::kAllKinds)
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message()
                         << zktest::kind_name(kind) << ", " << c.bits << " bits, flags " << std::hex << c.flags);
            BitmapHandle src, dst;
            Bytes caller;
            zktest::make_bitmap(kind, 23, 9, 24, src, caller);
            fill_photo(src, 5);
            const std::vector<Bytes> source = rows_of(src);
            ASSERT_EQ(Z_ColorResBitmap(&src, &dst, Z_BITMAPHANDLE_SIZE, c.bits, c.flags,
                                       c.bits <= 8 ? c.palette : nullptr, nullptr, c.colors, nullptr, nullptr),
                      ST_OK);
            EXPECT_EQ(rows_of(src), source) << "the source is read only";
            ASSERT_EQ(dst.BitsPerPixel, c.bits);
            uint32_t src_type = 0, dst_type = 0;
            Z_GetBitmapMemoryInfo(&src, &src_type, nullptr, nullptr, nullptr, nullptr, nullptr);
            Z_GetBitmapMemoryInfo(&dst, &dst_type, nullptr, nullptr, nullptr, nullptr, nullptr);
            EXPECT_EQ(dst_type == TYPE_DISK, src_type == TYPE_DISK) << "disk sources give disk results";
            const std::vector<Bytes> got = rows_of(dst);
            if (c.bits <= 8) {
                const RGBQUAD* want_palette = c.palette ? c.palette : Z_IntGetFixedPalette(c.bits);
                ASSERT_EQ(dst.ColorCount, c.colors);
                EXPECT_EQ(std::memcmp(dst.Palette, want_palette, c.colors * 4), 0);
                const auto want = dithered(src, c.flags >> 16, c.palette, c.colors, c.bits);
                for (size_t y = 0; y < got.size(); ++y)
                    EXPECT_EQ(pixels(got[y], 23, c.bits), pixels(want[y], 23, c.bits)) << "row " << y;
            } else {
                EXPECT_EQ(dst.Order, c.order);
                for (size_t y = 0; y < got.size(); ++y) {
                    Bytes buf = source[y];
                    buf.resize(23 * 8);
                    const int32_t gray = c.order == CO_GRAY ? CVT_DST_GRAY : 0;
                    ASSERT_EQ(Z_ConvertBufferExt(buf.data(), 23, 24, static_cast<uint32_t>(c.bits), CO_BGR, c.order,
                                                 nullptr, nullptr, gray, ~0u, ~0u),
                              ST_OK);
                    EXPECT_EQ(pixels(got[y], 23, c.bits), pixels(buf, 23, c.bits)) << "row " << y;
                }
            }
            Z_FreeBitmap(&dst);
            Z_FreeBitmap(&src);
        }
    EXPECT_TRUE(dir.files().empty());
}

// Few colours give an exact optimized palette and converted rows; the result
// replaces the source record itself; a null destination only feeds the row
// callback.
TEST(ColorRes, ExactOptimizedPaletteInPlaceAndCallbackOnly) {
    BitmapHandle src = zktest::described(31, 12, 24);
    ASSERT_EQ(Z_AllocateBitmap(&src, TYPE_CONV), ST_OK);
    fill_photo(src, 9, 11);
    const std::vector<Bytes> source = rows_of(src);
    struct Count {
        int rows = 0;
    } count;
    const auto callback = [](BitmapHandle* b, uint8_t*, uint32_t n, void* user) -> int32_t {
        static_cast<Count*>(user)->rows += static_cast<int>(n);
        return b && b->BitsPerPixel == 8 ? ST_OK : ST_BAD_PARAM;
    };
    ASSERT_EQ(Z_ColorResBitmap(&src, nullptr, Z_BITMAPHANDLE_SIZE, 8, CRF_DITHER(DITHER_FLOYD), nullptr, nullptr, 0,
                               callback, &count),
              ST_OK);
    EXPECT_EQ(count.rows, 12);
    EXPECT_EQ(src.BitsPerPixel, 24);
    ASSERT_EQ(Z_ColorResBitmap(&src, &src, Z_BITMAPHANDLE_SIZE, 8, CRF_DITHER(DITHER_FLOYD), nullptr, nullptr, 0,
                               nullptr, nullptr),
              ST_OK);
    ASSERT_EQ(src.BitsPerPixel, 8);
    EXPECT_EQ(src.ColorCount, 11u) << "the count follows the colours used";
    // Every pixel has its own colour exactly: no dithering error anywhere.
    const std::vector<Bytes> got = rows_of(src);
    for (size_t y = 0; y < got.size(); ++y)
        for (int x = 0; x < 31; ++x) {
            const RGBQUAD& e = src.Palette[got[y][x]];
            EXPECT_EQ((std::array<int, 3>{e.rgbBlue, e.rgbGreen, e.rgbRed}),
                      (std::array<int, 3>{source[y][3 * x], source[y][3 * x + 1], source[y][3 * x + 2]}));
        }
    Z_FreeBitmap(&src);
}

// Progress: 0 first, then each whole percentage once; a stop at the first,
// a middle and the last call returns the callback's status and leaves the
// record as it was.
TEST(ColorRes, ProgressAndStops) {
    for (int height : {1, 3, 100, 1000}) {
        BitmapHandle src = zktest::described(5, height, 24);
        ASSERT_EQ(Z_AllocateBitmap(&src, TYPE_CONV), ST_OK);
        fill_photo(src, 1);
        std::vector<int> want{0};
        for (int y = 1; y <= height; ++y)
            if (y * 100 / height != want.back()) want.push_back(y * 100 / height);
        recorded.clear();
        Z_SetStatusCallBack(record_progress, nullptr, nullptr, nullptr);
        BitmapHandle dst;
        ASSERT_EQ(Z_ColorResBitmap(&src, &dst, Z_BITMAPHANDLE_SIZE, 8, CRF_FIXED_PALETTE, nullptr, nullptr, 0, nullptr,
                                   nullptr),
                  ST_OK);
        EXPECT_EQ(recorded, want) << "height " << height;
        Z_FreeBitmap(&dst);
        for (int stop : {0, 50, 100}) {
            if (std::find(want.begin(), want.end(), stop) == want.end()) continue;
            BitmapHandle before = src;
            Z_SetStatusCallBack(record_progress, &stop, nullptr, nullptr);
            EXPECT_EQ(Z_ColorResBitmap(&src, &src, Z_BITMAPHANDLE_SIZE, 4, CRF_FIXED_PALETTE, nullptr, nullptr, 0,
                                       nullptr, nullptr),
                      -999);
            EXPECT_EQ(std::memcmp(&before, &src, sizeof src), 0) << "stop at " << stop;
        }
        Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
        Z_FreeBitmap(&src);
    }
}

// Refusals, each with its status and the record unchanged; injected failures
// in place on disk tiles leave the record and pixels as they were.
TEST(ColorRes, BadInputAndFaultsLeaveTheSource) {
    constexpr uint32_t kSize = Z_BITMAPHANDLE_SIZE;
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    BitmapHandle src, dst;
    Bytes caller;
    zktest::make_bitmap(Kind::TiledDisk, 19, 11, 24, src, caller);
    fill_photo(src, 3);
    std::vector<Bytes> source = rows_of(src);
    BitmapHandle before = src;
    RGBQUAD pal[4] = {};
    const HPALETTE handle = Z_CreatePalette(pal, 4);
    struct Refusal {
        const char* what;
        int32_t status;
        int32_t bits;
        uint32_t flags, size;
        const RGBQUAD* palette;
        HPALETTE handle;
    };
    const Refusal refusals[] = {
        {"record size", ST_BAD_STRUCT_SIZE, 8, 1, kSize - 4, nullptr, nullptr},
        {"both palettes", ST_BAD_PARAM, 8, 0x10, kSize, pal, handle},
        {"depth 9", ST_BAD_PARAM, 9, 1, kSize, nullptr, nullptr},
        {"selector 0x11", ST_BAD_PARAM, 8, 0x11, kSize, nullptr, nullptr},
        {"cube at 4 bits", ST_BAD_PARAM, 4, 0x40, kSize, nullptr, nullptr},
        {"caller's palette missing", ST_BAD_PARAM, 8, 0x10, kSize, nullptr, nullptr},
        {"order flags 0x880", ST_BAD_PARAM, 24, 0x880, kSize, nullptr, nullptr},
        {"gray at 24 bits", ST_BAD_BPP, 24, 0x80, kSize, nullptr, nullptr},
        {"second space at 64 bits", ST_BAD_BPP, 64, 0x800, kSize, nullptr, nullptr},
        {"every entry reserved", ST_BAD_PARAM, 2, 0x10 | CRF_DITHER(1), kSize, nullptr, nullptr},
        {"dither method 9", ST_BAD_PARAM, 8, 0x01 | CRF_DITHER(9), kSize, nullptr, nullptr},
    };
    RGBQUAD reserved[4] = {{0, 0, 0, Z_PAL_RESERVED}, {1, 1, 1, Z_PAL_FILL}, {2, 2, 2, 3}, {3, 3, 3, 1}};
    for (const Refusal& r : refusals) {
        const RGBQUAD* p = std::strcmp(r.what, "every entry reserved") == 0 ? reserved : r.palette;
        EXPECT_EQ(Z_ColorResBitmap(&src, &src, r.size, r.bits, r.flags, p, r.handle, 4, nullptr, nullptr), r.status)
            << r.what;
        EXPECT_EQ(std::memcmp(&before, &src, sizeof src), 0) << r.what;
    }
    EXPECT_EQ(Z_ColorResBitmap(nullptr, &dst, kSize, 8, 1, nullptr, nullptr, 0, nullptr, nullptr), ST_BAD_PARAM);
    BitmapHandle signed_src = src;
    signed_src.Flags |= BF_SIGNED;
    EXPECT_EQ(Z_ColorResBitmap(&signed_src, &dst, kSize, 8, 1, nullptr, nullptr, 0, nullptr, nullptr), ST_SIGNED_DATA);
    Z_DeletePalette(handle);

    using zk::platform::FaultKind;
    zktest::sweep_faults({FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 400, [&](FaultKind kind, int n) {
        const int32_t status = zktest::under_fault(kind, n, [&] {
            return Z_ColorResBitmap(&src, &src, Z_BITMAPHANDLE_SIZE, 8, CRF_DITHER(DITHER_FLOYD), nullptr, nullptr, 0,
                                    nullptr, nullptr);
        });
        if (status == ST_OK) {
            // The next kind starts from a fresh 24-bit source.
            EXPECT_EQ(src.BitsPerPixel, 8);
            Z_FreeBitmap(&src);
            zktest::make_bitmap(Kind::TiledDisk, 19, 11, 24, src, caller);
            fill_photo(src, 3);
            before = src;
            return true;
        }
        EXPECT_EQ(std::memcmp(&before, &src, sizeof src), 0);
        EXPECT_EQ(rows_of(src), source);
        return false;
    });
    Z_FreeBitmap(&src);
    EXPECT_TRUE(dir.files().empty());
}
