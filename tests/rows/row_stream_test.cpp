// Row streams in every storage kind, and results that replace a bitmap only
// when they are complete.
#include "rows/row_stream.h"

#include <cstring>

#include "../storage/kinds.h"

namespace {

using zktest::Kind;
namespace rw = zk::rows;

TEST(RowStream, WritesAndReadsEveryRowInEveryKind) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    for (Kind kind : zktest::kAllKinds) {
        SCOPED_TRACE(zktest::kind_name(kind));
        BitmapHandle b;
        std::vector<uint8_t> caller;
        zktest::make_bitmap(kind, 29, 11, 24, b, caller);
        const uint32_t bpl = b.BytesPerLine;
        const std::vector<uint8_t> pixels = zktest::random_bytes(size_t{bpl} * 11, 5);
        b.CurRow = 3;
        b.CurRowOffset = 3 * bpl;
        const uint32_t flags = b.Flags;
        {
            rw::RowStream out(b);
            for (uint32_t row : {4u, 0u, 10u, 1u, 2u, 3u, 5u, 6u, 7u, 8u, 9u}) {
                uint8_t* p = out.write(row);
                ASSERT_NE(p, nullptr);
                std::memcpy(p, &pixels[row * bpl], bpl);
                ASSERT_EQ(out.commit(), ST_OK);
            }
            EXPECT_EQ(out.write(11), nullptr);
            EXPECT_EQ(out.status(), ST_BAD_PARAM);
        }
        EXPECT_EQ(b.Flags, flags);  // global storage locked as before
        EXPECT_EQ(b.CurRow, 3u);
        EXPECT_EQ(b.CurRowOffset, size_t{3} * bpl);
        std::vector<uint8_t> got(bpl);
        rw::RowStream in(b);
        for (uint32_t row = 11; row-- > 0;) {
            ASSERT_EQ(Z_GetBitmapRow(&b, got.data(), row, bpl), static_cast<int32_t>(bpl));
            EXPECT_EQ(0, std::memcmp(got.data(), &pixels[row * bpl], bpl)) << row;
            const uint8_t* p = in.read(row);
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(0, std::memcmp(p, &pixels[row * bpl], bpl)) << row;
        }
        // A filled row holds the stored bytes.
        uint8_t* p = in.write(6, true);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(0, std::memcmp(p, &pixels[6 * bpl], bpl));
        EXPECT_EQ(in.read(0xFFFFFFFFu), nullptr);
        Z_FreeBitmap(&b);
    }
    EXPECT_TRUE(dir.files().empty());
}

// Bytes of every row, read through row access.
std::vector<uint8_t> all_rows(BitmapHandle& b) {
    std::vector<uint8_t> out(size_t{b.BytesPerLine} * static_cast<uint32_t>(b.Height));
    for (int32_t r = 0; r < b.Height; ++r)
        EXPECT_EQ(Z_GetBitmapRow(&b, &out[size_t{b.BytesPerLine} * r], r, b.BytesPerLine),
                  static_cast<int32_t>(b.BytesPerLine));
    return out;
}

TEST(Replacement, CallerKeepsItsBitmapUntilTheResultIsComplete) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    for (Kind kind : {Kind::Conventional, Kind::TiledDisk, Kind::Disk}) {
        SCOPED_TRACE(zktest::kind_name(kind));
        BitmapHandle b;
        std::vector<uint8_t> caller;
        zktest::make_bitmap(kind, 13, 9, 8, b, caller);
        const std::vector<uint8_t> pixels = zktest::random_bytes(size_t{b.BytesPerLine} * 9, 9);
        for (int32_t r = 0; r < 9; ++r) Z_PutBitmapRow(&b, &pixels[size_t{b.BytesPerLine} * r], r, b.BytesPerLine);
        BitmapHandle before;
        std::memcpy(&before, &b, sizeof b);
        // Failing at every allocation, mapping and file call, or abandoned
        // when complete: the caller's record and pixels stay as they were.
        zktest::sweep_faults(
            {zk::platform::FaultKind::Allocation, zk::platform::FaultKind::Mapping, zk::platform::FaultKind::File}, 200,
            [&](zk::platform::FaultKind fault, int n) {
                rw::Replacement result;
                const int32_t r = zktest::under_fault(fault, n, [&] { return result.build_like(b, 9, 13, 8); });
                EXPECT_EQ(0, std::memcmp(&before, &b, sizeof b));
                return r == ST_OK;
            });
        EXPECT_EQ(all_rows(b), pixels);
        // Committed: the caller's record holds the result at its own address.
        rw::Replacement result;
        ASSERT_EQ(result.build_like(b, 9, 13, 8), ST_OK);
        {
            rw::RowStream out(result.result());
            for (uint32_t row = 0; row < 13; ++row) {
                uint8_t* p = out.write(row);
                ASSERT_NE(p, nullptr);
                std::memset(p, static_cast<int>(row), out.bytes_per_line());
                ASSERT_EQ(out.commit(), ST_OK);
            }
        }
        result.commit(b);
        EXPECT_EQ(b.Width, 9);
        EXPECT_EQ(b.Height, 13);
        const std::vector<uint8_t> now = all_rows(b);
        for (size_t i = 0; i < now.size(); ++i) ASSERT_EQ(now[i], i / b.BytesPerLine) << i;
        Z_FreeBitmap(&b);
    }
    EXPECT_TRUE(dir.files().empty());
}

}  // namespace
