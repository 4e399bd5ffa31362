// Sizes that wrap 32 bits, rows outside disk storage, a file-size limit in
// the way of disk storage, and temporary files in the face of a kill.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "kinds.h"

namespace {

using zktest::Kind;

// Independent model of the stored row: whole 32-bit words holding the bits.
uint64_t model_row(uint64_t width, uint64_t bits) { return (width * bits + 31) / 32 * 4; }

TEST(Limits, DimensionsAreRefusedExactlyWhenTheirSizesDoNotFit) {
    const bool wide = sizeof(size_t) == 8;
    struct Case {
        int32_t width, height, bpp, status;
    };
    const Case cases[] = {
        // width * bpp wraps 32 bits: these fit and must get their true sizes
        {178956971, 2, 24, ST_OK},
        {134217729, 1, 32, ST_OK},
        {536870913, 1, 8, ST_OK},
        {1073741825, 1, 4, ST_OK},
        {536870911, 1, 32, ST_OK},  // the longest row there is
        {536870911, 2, 32, wide ? ST_OK : ST_TOO_LARGE},
        {65536, 65536, 32, wide ? ST_OK : ST_TOO_LARGE},
        {536870912, 1, 32, ST_TOO_LARGE},  // one word past the longest row
        {268435457, 1, 64, ST_TOO_LARGE},
        {INT32_MAX, INT32_MAX, 1, wide ? ST_OK : ST_TOO_LARGE},  // 576 PB fit the record, if no machine
        {INT32_MAX, INT32_MAX, 64, ST_TOO_LARGE},
        {INT32_MAX, 1, 7, ST_OK},
        {INT32_MAX, 1, 8, ST_TOO_LARGE},
        {-1, 5, 8, ST_BAD_PARAM},
        {5, -1, 8, ST_BAD_PARAM},
        {INT32_MIN, INT32_MIN, 24, ST_BAD_PARAM},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.width << " x " << c.height << " at " << c.bpp);
        BitmapHandle b;
        ASSERT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, c.width, c.height, c.bpp), c.status);
        if (c.status == ST_OK) {
            EXPECT_EQ(b.BytesPerLine, model_row(static_cast<uint64_t>(c.width), static_cast<uint64_t>(c.bpp)));
            EXPECT_EQ(uint64_t{b.Size}, uint64_t{b.BytesPerLine} * static_cast<uint64_t>(c.height));
        } else {
            EXPECT_EQ(b.Size, 0u);
            EXPECT_EQ(b.Width, 0);
            // Nothing is created from a refused description, in any kind.
            zktest::PrivateTempDir dir;
            for (uint32_t type : {TYPE_CONV, TYPE_TILED, TYPE_DISK}) {
                BitmapHandle created;
                EXPECT_EQ(Z_CreateBitmap(&created, Z_BITMAPHANDLE_SIZE, type, c.width, c.height, c.bpp, CO_BGR, nullptr,
                                         0, nullptr, 0),
                          c.status);
                EXPECT_EQ(created.Flags & BF_ALLOCATED, 0u);
            }
            EXPECT_TRUE(dir.files().empty());
        }
    }
    // A record edited after Z_InitBitmap to hold more pixels than its sizes
    // cannot be allocated.
    BitmapHandle edited = zktest::described(100, 10, 24);
    edited.Width = 1000;
    EXPECT_EQ(Z_AllocateBitmap(&edited, TYPE_CONV), ST_BAD_PARAM);
    edited.Height = -2;
    EXPECT_EQ(Z_AllocateBitmap(&edited, TYPE_CONV), ST_BAD_POSITION);
    EXPECT_EQ(edited.Flags & BF_ALLOCATED, 0u);
}

TEST(Limits, ColumnsPastFourGigabitsAreAddressedWhereTheyLie) {
    // 536,870,913 pixels at 8 bits once had a 4-byte row; a copy from column
    // 500,000,000 then read half a gigabyte past the storage.
    zktest::ThresholdGuard guard;
    BitmapHandle big;
    ASSERT_EQ(
        Z_CreateBitmap(&big, Z_BITMAPHANDLE_SIZE, TYPE_MEMORY_ONLY, 536870913, 1, 8, CO_RGB, nullptr, 0, nullptr, 0),
        ST_OK);
    const std::vector<uint8_t> pixels = zktest::random_bytes(16, 7);
    ASSERT_EQ(Z_PutBitmapRowCol(&big, pixels.data(), 0, 500000000, 16), 16);
    ASSERT_EQ(Z_PutBitmapRowCol(&big, pixels.data(), 0, 536870913 - 16, 16), 16);
    EXPECT_EQ(Z_PutBitmapRowCol(&big, pixels.data(), 0, 536870913, 16), ST_BAD_PARAM);
    for (int32_t left : {500000000, 536870913 - 16}) {
        BitmapHandle part;
        ASSERT_EQ(Z_CopyBitmapRect(&part, &big, Z_BITMAPHANDLE_SIZE, left, 0, 16, 1), ST_OK);
        std::vector<uint8_t> got(16);
        EXPECT_EQ(Z_GetBitmapRow(&part, got.data(), 0, 16), 16);
        EXPECT_EQ(got, pixels);
        Z_FreeBitmap(&part);
    }
    Z_FreeBitmap(&big);
}

TEST(Limits, ConvertSizeHoldsTheWholeRowOrFails) {
    struct Case {
        int32_t w1;
        uint32_t b1;
        int32_t w2;
        uint32_t b2;
        int32_t want;
    };
    const Case cases[] = {
        {178956971, 32, 178956971, 32, 715827884},
        {100000000, 64, 100000000, 64, 800000000},
        {100, 1, 100, 24, 300},
        {536870911, 32, 1, 1, 0x7FFFFFFC},
        {268435456, 64, 1, 1, ST_TOO_LARGE},
        {1, 1, INT32_MAX, 64, ST_TOO_LARGE},
        {1, 0xFFFFFFFFu, 1, 1, 536870912},
        {-1, 8, 1, 8, ST_BAD_PARAM},
        {1, 8, -5, 8, ST_BAD_PARAM},
    };
    for (const Case& c : cases) EXPECT_EQ(Z_CalcConvertSize(c.w1, c.b1, c.w2, c.b2), c.want) << c.w1 << " " << c.b1;
    // Random widths and depths against the model: the size or a failure,
    // never a short buffer.
    std::mt19937 rng(11);
    for (int i = 0; i < 20000; ++i) {
        const int32_t w1 = static_cast<int32_t>(rng() >> 1), w2 = static_cast<int32_t>(rng() >> (1 + i % 31));
        const uint32_t b1 = rng() % 65, b2 = rng() % 65;
        const uint64_t s = b1 ? b1 : 8, d = b2 ? b2 : 8;
        const uint64_t need = std::max({model_row(w1, s), model_row(w2, s), model_row(w2, d)});
        const int32_t got = Z_CalcConvertSize(w1, b1, w2, b2);
        const int64_t want = need > 0x7FFFFFFCu ? int64_t{ST_TOO_LARGE} : static_cast<int64_t>(need);
        ASSERT_EQ(got, want) << w1 << " " << b1 << " " << w2 << " " << b2;
    }
}

// Length of the file behind a disk bitmap.
int64_t disk_length(const BitmapHandle& b) {
    return ::lseek(static_cast<int>(reinterpret_cast<intptr_t>(b.DataHandle)), 0, SEEK_END);
}

TEST(Limits, RowsOutsideTheBitmapAreRefusedInEveryKind) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    for (Kind kind : zktest::kAllKinds) {
        SCOPED_TRACE(zktest::kind_name(kind));
        BitmapHandle b;
        std::vector<uint8_t> caller;
        zktest::make_bitmap(kind, 37, 9, 24, b, caller);
        const uint32_t bpl = b.BytesPerLine;
        std::vector<uint8_t> row(2 * bpl + 8, 0x5A);
        struct Access {
            uint32_t row, column, bytes;
        };
        const Access refused[] = {{9, 0, bpl}, {0xFFFFFFFFu, 0, bpl}, {0x80000000u, 0, 1}, {8, 0, bpl + 1},
                                  {8, 37, 4},  {0, 0xFFFFFFFFu, 1}};
        for (const Access& a : refused) {
            SCOPED_TRACE(::testing::Message() << "row " << a.row << " column " << a.column << " bytes " << a.bytes);
            EXPECT_EQ(Z_PutBitmapRowCol(&b, row.data(), a.row, a.column, a.bytes), ST_BAD_PARAM);
            EXPECT_EQ(Z_GetBitmapRowCol(&b, row.data(), a.row, a.column, a.bytes), ST_BAD_PARAM);
        }
        // A segment list with one segment past the row writes none of them.
        const uint32_t segments[] = {0, 4, 30, 38};
        EXPECT_EQ(Z_PutBitmapRowSegments(&b, row.data(), 3, 0, segments, 4), ST_BAD_PARAM);
        std::vector<uint8_t> kept(bpl, 0xFF);
        EXPECT_EQ(Z_GetBitmapRow(&b, kept.data(), 3, bpl), static_cast<int32_t>(bpl));
        EXPECT_EQ(kept, std::vector<uint8_t>(bpl, 0));
        EXPECT_EQ(Z_PutBitmapRow(&b, row.data(), 8, bpl), static_cast<int32_t>(bpl));
        if (kind == Kind::Disk) {
            EXPECT_EQ(disk_length(b), static_cast<int64_t>(b.Size) + 1);
        }
        Z_FreeBitmap(&b);
    }
    EXPECT_TRUE(dir.files().empty());
}

TEST(Limits, DiskHeightChangeSetsTheFileToTheNewSize) {
    zktest::PrivateTempDir dir;
    BitmapHandle b = zktest::described(30, 20, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_DISK), ST_OK);
    for (int32_t height : {7, 31, 1}) {
        ASSERT_EQ(Z_ChangeBitmapHeight(&b, height), ST_OK);
        EXPECT_EQ(disk_length(b), int64_t{b.BytesPerLine} * height);
        EXPECT_EQ(uint64_t{b.Size}, uint64_t{b.BytesPerLine} * static_cast<uint32_t>(height));
    }
    Z_FreeBitmap(&b);
}

// Lowers the process's file-size limit for the object's lifetime. Growing a
// file past it must give a status: the limit's signal would end the test.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit lower = saved_;
        lower.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lower);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved_); }

private:
    rlimit saved_{};
};

TEST(Limits, FileSizeLimitGivesAStatusAndLeavesNothingBehind) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    const int32_t limit = 1 << 20;
    FileSizeLimit scope(limit);
    // Memory too tight to retry with smaller tiles, so that tiles of 2 MiB
    // meet the 1 MiB limit and the fall-back to disk storage does too.
    const zk::platform::MemoryStatus tight{};
    zk::platform::override_memory_status(&tight);
    ASSERT_EQ(Z_SetMemoryThresholds(0, 0, 2 << 20, 0, 1, 4 | 8 | 16), ST_OK);
    for (uint32_t type : {TYPE_DISK, TYPE_TILED}) {
        SCOPED_TRACE(type);
        BitmapHandle b = zktest::described(1024, 4096, 8);  // 4 MiB
        EXPECT_EQ(Z_AllocateBitmap(&b, type), ST_FILE_WRITE);
        EXPECT_EQ(b.Flags & BF_ALLOCATED, 0u);
        EXPECT_TRUE(dir.files().empty());
    }
    // A disk bitmap that fits, then grows past the limit: refused, rows kept.
    BitmapHandle b = zktest::described(1024, 256, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_DISK), ST_OK);
    const std::vector<uint8_t> last = zktest::random_bytes(1024, 3);
    ASSERT_EQ(Z_PutBitmapRow(&b, last.data(), 255, 1024), 1024);
    EXPECT_EQ(Z_ChangeBitmapHeight(&b, 4096), ST_NO_MEMORY);
    EXPECT_EQ(b.Height, 256);
    EXPECT_EQ(disk_length(b), int64_t{b.BytesPerLine} * 256 + 1);
    std::vector<uint8_t> got(1024);
    EXPECT_EQ(Z_GetBitmapRow(&b, got.data(), 255, 1024), 1024);
    EXPECT_EQ(got, last);
    // The library's own file routines stop at the limit too.
    const Z_FILE f = static_cast<Z_FILE>(reinterpret_cast<intptr_t>(b.DataHandle));
    EXPECT_EQ(Z_OsSeek(f, limit, 0, nullptr), limit);
    EXPECT_EQ(Z_OsWrite(f, got.data(), 16, nullptr), -1);
    Z_FreeBitmap(&b);
    EXPECT_TRUE(dir.files().empty());
}

TEST(Limits, KilledDuringTiledAllocationLeavesNoTemporaryFile) {
    zktest::PrivateTempDir dir;
    for (int attempt = 0; attempt < 12; ++attempt) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Allocate and free disk tiles until killed.
            Z_SetTempDirectory(std::wstring(dir.path().begin(), dir.path().end()).c_str());
            Z_SetMemoryThresholds(0, 0, 4096, 0, 1, 4 | 8 | 16);
            for (;;) {
                BitmapHandle b = zktest::described(256, 256, 8);
                if (Z_AllocateBitmap(&b, TYPE_TILED) == ST_OK) Z_FreeBitmap(&b);
            }
        }
        usleep(2000 + 3000 * attempt);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_TRUE(dir.files().empty()) << "attempt " << attempt << ": " << dir.files().front();
    }
    // Temporary names for callers carry 64 random bits.
    wchar_t name[Z_MAX_PATH];
    ASSERT_EQ(Z_OsGetTempName(name), ST_OK);
    const std::wstring n(name);
    EXPECT_EQ(n.size(), dir.path().size() + (dir.path().back() == '/' ? 0 : 1) + 2 + 16 + 4);
    Z_OsDelete(name);
}

}  // namespace
