// Whole-bitmap conversion against row access plus in-place conversion, in
// every storage kind, and under injected failures.
#include "color/convert_bitmap.h"

#include <cstring>

#include "../storage/kinds.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::Kind;
using zktest::rows_of;

void fill_random(BitmapHandle& b, uint32_t seed) {
    for (uint32_t y = 0; y < static_cast<uint32_t>(b.Height); ++y) {
        const Bytes row = zktest::random_bytes(b.BytesPerLine, seed + y);
        ASSERT_EQ(Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
    }
}

TEST(ConvertBitmap, EqualsRowAccessAndInPlaceConversionInEveryKind) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    struct Pair {
        int32_t src_bits, dst_bits;
        uint32_t src_order, dst_order;
    } pairs[] = {{24, 24, CO_BGR, CO_RGB}, {24, 32, CO_BGR, CO_BGR}, {32, 24, CO_RGB, CO_BGR},
                 {24, 4, CO_BGR, CO_BGR},  {1, 24, CO_BGR, CO_RGB},  {12, 16, CO_GRAY, CO_GRAY}};
    for (Kind kind : zktest::kAllKinds)
        for (const Pair& p : pairs) {
            SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << " " << p.src_bits << " -> " << p.dst_bits);
            constexpr int32_t kWidth = 29, kHeight = 7;
            BitmapHandle src, dst;
            Bytes src_caller, dst_caller;
            zktest::make_bitmap(kind, kWidth, kHeight, p.src_bits, src, src_caller);
            zktest::make_bitmap(kind, kWidth, kHeight, p.dst_bits, dst, dst_caller);
            fill_random(src, 100);
            fill_random(dst, 200);
            const std::vector<Bytes> before = rows_of(dst), source = rows_of(src);

            zk::ConvertRequest rq;
            rq.src_order = static_cast<int32_t>(p.src_order);
            rq.dst_order = p.dst_order;
            rq.flags = (p.src_order == CO_GRAY ? CVT_SRC_GRAY : 0) | (p.dst_order == CO_GRAY ? CVT_DST_GRAY : 0);
            ASSERT_EQ(zk::convert_bitmap_rows(src, dst, rq), ST_OK);
            EXPECT_EQ(rows_of(src), source);

            const std::vector<Bytes> got = rows_of(dst);
            const uint32_t dst_bits = p.dst_bits == 8 && p.dst_order == CO_GRAY ? 0 : static_cast<uint32_t>(p.dst_bits);
            const size_t size = static_cast<size_t>(Z_CalcConvertSize(kWidth, p.src_bits, kWidth, dst_bits));
            const uint64_t bits = uint64_t{kWidth} * static_cast<uint32_t>(p.dst_bits);
            for (size_t y = 0; y < got.size(); ++y) {
                Bytes buf = source[y];
                buf.resize(std::max(size, buf.size()));
                ASSERT_EQ(
                    Z_ConvertBufferExt(buf.data(), kWidth, p.src_bits, dst_bits, rq.src_order, rq.dst_order, nullptr,
                                       nullptr, static_cast<int32_t>(rq.flags), 0xFFFFFFFFu, 0xFFFFFFFFu),
                    ST_OK);
                // The converted pixels; the bits after them as they were.
                Bytes want = before[y];
                std::memcpy(want.data(), buf.data(), bits / 8);
                if (bits % 8) {
                    const auto keep = static_cast<uint8_t>(0xFFu >> (bits % 8));
                    want[bits / 8] = static_cast<uint8_t>((buf[bits / 8] & ~keep) | (before[y][bits / 8] & keep));
                }
                EXPECT_EQ(got[y], want) << "row " << y;
            }
            Z_FreeBitmap(&src);
            Z_FreeBitmap(&dst);
        }
    EXPECT_TRUE(dir.files().empty());
}

TEST(ConvertBitmap, RefusalsAndFailuresWriteNothingOrStop) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    BitmapHandle src, dst, other;
    Bytes unused;
    zktest::make_bitmap(Kind::Disk, 40, 9, 24, src, unused);
    zktest::make_bitmap(Kind::Disk, 40, 9, 8, dst, unused);
    zktest::make_bitmap(Kind::Conventional, 40, 8, 8, other, unused);
    fill_random(src, 1);
    fill_random(dst, 2);
    const std::vector<Bytes> before = rows_of(dst);
    zk::ConvertRequest rq;
    rq.dst_order = 7;  // no such order
    EXPECT_EQ(zk::convert_bitmap_rows(src, dst, rq), ST_BAD_PARAM);
    rq.dst_order = CO_BGR;
    EXPECT_EQ(zk::convert_bitmap_rows(src, other, rq), ST_BAD_PARAM);  // other height
    EXPECT_EQ(zk::convert_bitmap_rows(src, src, rq), ST_INVALID_BITMAP);
    EXPECT_EQ(rows_of(dst), before);
    // Every allocation and file call failing in turn gives a status, never a
    // crash or a leak, until the conversion gets past all of them.
    zktest::sweep_faults(
        {zk::platform::FaultKind::Allocation, zk::platform::FaultKind::File}, 200,
        [&](zk::platform::FaultKind fault, int n) {
            const int32_t r = zktest::under_fault(fault, n, [&] { return zk::convert_bitmap_rows(src, dst, rq); });
            EXPECT_TRUE(r == ST_OK || r == ST_NO_MEMORY || r == ST_FILE_SEEK || r == ST_FILE_READ || r == ST_FILE_WRITE)
                << r;
            return r == ST_OK;
        });
    Z_FreeBitmap(&src);
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&other);
    EXPECT_TRUE(dir.files().empty());
}

}  // namespace
