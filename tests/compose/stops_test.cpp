// What a stop by the status callback (or the copy-status callback, for
// copies) leaves, for every operation that
// reports progress, at the first call (0 %), a middle one and the last:
// the operations that build a result (copies, turns, colour resolution,
// gray scale, alpha) leave the caller's bitmap as it was and no result; a
// flip or mirror keeps the rows exchanged so far (checked against a model
// in the flip tests) and here only changes no more than the whole pass.
#include <cstring>
#include <functional>
#include <vector>

#include "../storage/kinds.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::rows_of;

struct Stop {
    int calls = 0;
    int at = -1;  // the call that stops; -1: none
};

int32_t Z_API stop_at(int32_t, void* user) {
    auto* s = static_cast<Stop*>(user);
    return s->calls++ == s->at ? -777 : ST_OK;
}

}  // namespace

TEST(Stops, EveryReportingOperationAtTheFirstMiddleAndLastCall) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    BitmapHandle scratch;
    const struct {
        const char* name;
        zktest::Kind kind;
        int32_t bits;
        std::function<int32_t(BitmapHandle&)> run;
        bool keeps_rows;  // the rows done so far stay done
    } ops[] = {
        {"copy", zktest::Kind::TiledDisk, 24,
         [&](BitmapHandle& b) {
             const int32_t r = Z_CopyBitmap(&scratch, &b, Z_BITMAPHANDLE_SIZE);
             if (r == ST_OK) Z_FreeBitmap(&scratch);
             return r;
         },
         false},
        {"quarter turn", zktest::Kind::Disk, 8, [](BitmapHandle& b) { return Z_RotateBitmap90(&b, 1); }, false},
        {"square turn in tiles", zktest::Kind::TiledDisk, 8, [](BitmapHandle& b) { return Z_RotateBitmap90(&b, 0); },
         false},
        {"colour resolution in place", zktest::Kind::Conventional, 24,
         [](BitmapHandle& b) {
             return Z_ColorResBitmap(&b, &b, Z_BITMAPHANDLE_SIZE, 8, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_FLOYD),
                                     nullptr, nullptr, 0, nullptr, nullptr);
         },
         false},
        {"gray scale", zktest::Kind::Disk, 24, [](BitmapHandle& b) { return Z_GrayScaleBitmap(&b, 8); }, false},
        {"alpha onto 24 bits", zktest::Kind::Conventional, 24,
         [&](BitmapHandle& b) {
             BitmapHandle a = zktest::described(b.Width, b.Height, 8);
             Z_AllocateBitmap(&a, TYPE_CONV);
             Z_CreateBitmapGrayPalette(&a);
             const int32_t r = Z_SetBitmapAlpha(&b, &a);
             Z_FreeBitmap(&a);
             return r;
         },
         false},
        {"flip", zktest::Kind::Disk, 4, [](BitmapHandle& b) { return Z_FlipBitmap(&b); }, true},
        {"mirror", zktest::Kind::TiledDisk, 24, [](BitmapHandle& b) { return Z_ReverseBitmap(&b); }, true},
    };
    for (const auto& op : ops) {
        SCOPED_TRACE(op.name);
        // How many calls a whole run makes.
        Stop count;
        {
            BitmapHandle b;
            Bytes caller;
            zktest::make_bitmap(op.kind, 32, 32, op.bits, b, caller, 4);
            ASSERT_EQ(Z_SetStatusCallBack(stop_at, &count, nullptr, nullptr), ST_OK);
            ASSERT_EQ(Z_SetCopyStatusCallBack(stop_at, &count, nullptr, nullptr), ST_OK);
            ASSERT_EQ(op.run(b), ST_OK);
            Z_FreeBitmap(&b);
        }
        ASSERT_GE(count.calls, 2) << "reports 0 and more";
        for (int at : {0, count.calls / 2, count.calls - 1}) {
            SCOPED_TRACE(::testing::Message() << "stop at call " << at << " of " << count.calls);
            BitmapHandle b;
            Bytes caller;
            zktest::make_bitmap(op.kind, 32, 32, op.bits, b, caller, 4);
            for (uint32_t y = 0; y < 32; ++y)
                ASSERT_GE(Z_PutBitmapRow(&b, zktest::random_bytes(b.BytesPerLine, y * 3 + 1).data(), y, b.BytesPerLine),
                          0);
            const std::vector<Bytes> rows = rows_of(b);
            const BitmapHandle before = b;
            Stop stop;
            stop.at = at;
            Z_SetStatusCallBack(stop_at, &stop, nullptr, nullptr);
            Z_SetCopyStatusCallBack(stop_at, &stop, nullptr, nullptr);
            EXPECT_EQ(op.run(b), -777);
            EXPECT_EQ(stop.calls, at + 1) << "no call after the stop";
            EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0) << "the record";
            if (!op.keeps_rows || at == 0) {
                EXPECT_EQ(rows_of(b), rows) << "the pixels";
            }
            Z_FreeBitmap(&b);
        }
    }
    Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    Z_SetCopyStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(dir.files().empty()) << "nothing left behind";
}
