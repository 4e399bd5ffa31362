// Bitmap lists: order, ownership (records by value; storage handed over on
// insert and back on remove), bounds, and failure at every allocation.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "test_support.h"

namespace {

using zk::platform::FaultKind;

// An allocated 8-bit bitmap whose first pixel and width tell it apart.
BitmapHandle tagged(int tag) {
    BitmapHandle b = zktest::described(4 + tag, 3, 8);
    EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
    if (b.Data) b.Data[0] = static_cast<uint8_t>(tag);
    EXPECT_EQ(Z_CreateBitmapFixedPalette(&b), ST_OK);
    return b;
}

int tag_of(const BitmapHandle& b) { return b.Width - 4; }

// The tags of the list, read through Z_GetBitmapListItem; the first pixel
// must agree with the width.
std::vector<int> tags(BitmapList list) {
    uint32_t n = 0;
    EXPECT_EQ(Z_GetBitmapListCount(list, &n), ST_OK);
    std::vector<int> out;
    for (uint32_t i = 0; i < n; ++i) {
        BitmapHandle b;
        EXPECT_EQ(Z_GetBitmapListItem(list, i, &b, Z_BITMAPHANDLE_SIZE), ST_OK);
        out.push_back(tag_of(b));
        uint8_t row[64] = {};
        EXPECT_EQ(Z_GetBitmapRow(&b, row, 0, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
        EXPECT_EQ(row[0], tag_of(b));
    }
    return out;
}

// The list header as the list keeps it (count, array).
struct Header {
    uint32_t count;
    BitmapHandle* items;
};
Header header(BitmapList list) {
    auto* h = static_cast<Header*>(zk::platform::block_lock(list));
    Header copy = *h;
    zk::platform::block_unlock(list);
    return copy;
}

BitmapList make_list(const std::vector<int>& tags_in) {
    BitmapList list = nullptr;
    EXPECT_EQ(Z_CreateBitmapList(&list), ST_OK);
    for (int t : tags_in) {
        BitmapHandle b = tagged(t);
        EXPECT_EQ(Z_InsertBitmapListItem(list, Z_LIST_APPEND, &b), ST_OK);
    }
    return list;
}

TEST(BitmapList, BadArgumentsGiveTheirStatus) {
    BitmapList list = make_list({1, 2});
    BitmapHandle b = zktest::described(2, 2, 8);
    BitmapHandle wrong = b;
    wrong.StructSize = 163;
    uint32_t count = 0;
    BitmapList out = reinterpret_cast<BitmapList>(1);
    struct Case {
        const char* what;
        int32_t got;
        int32_t want;
    } cases[] = {
        {"create null", Z_CreateBitmapList(nullptr), ST_BAD_PARAM},
        {"destroy null", Z_DestroyBitmapList(nullptr), ST_BAD_PARAM},
        {"count null list", Z_GetBitmapListCount(nullptr, &count), ST_BAD_PARAM},
        {"count null out", Z_GetBitmapListCount(list, nullptr), ST_BAD_PARAM},
        {"insert null list", Z_InsertBitmapListItem(nullptr, 0, &b), ST_BAD_PARAM},
        {"insert null item", Z_InsertBitmapListItem(list, 0, nullptr), ST_BAD_PARAM},
        {"insert size", Z_InsertBitmapListItem(list, 0, &wrong), ST_BAD_STRUCT_SIZE},
        {"remove past end", Z_RemoveBitmapListItem(list, 2, &b), ST_BAD_PARAM},
        {"delete past end", Z_DeleteBitmapListItems(list, 2, 1), ST_BAD_PARAM},
        {"delete none", Z_DeleteBitmapListItems(list, 0, 0), ST_BAD_PARAM},
        {"get past end", Z_GetBitmapListItem(list, 2, &b, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {"get null", Z_GetBitmapListItem(list, 0, nullptr, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {"get size 163", Z_GetBitmapListItem(list, 0, &b, Z_BITMAPHANDLE_SIZE - 1), ST_BAD_STRUCT_SIZE},
        {"set past end", Z_SetBitmapListItem(list, 2, &b), ST_BAD_PARAM},
        {"set size", Z_SetBitmapListItem(list, 0, &wrong), ST_BAD_STRUCT_SIZE},
        {"copy null result", Z_CopyBitmapListItems(nullptr, list, 0, 1), ST_BAD_PARAM},
        {"copy null list", Z_CopyBitmapListItems(&out, nullptr, 0, 1), ST_BAD_PARAM},
        {"move null result", Z_MoveBitmapListItems(nullptr, list, 0, 1), ST_BAD_PARAM},
        {"move past end", Z_MoveBitmapListItems(&out, list, 2, 1), ST_BAD_PARAM},
        {"move none", Z_MoveBitmapListItems(&out, list, 0, 0), ST_BAD_PARAM},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(tags(list), (std::vector<int>{1, 2})) << "failed calls leave the list alone";
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, RemoveHandsTheStorageBack) {
    BitmapList list = make_list({5});
    BitmapHandle inside;
    ASSERT_EQ(Z_GetBitmapListItem(list, 0, &inside, Z_BITMAPHANDLE_SIZE), ST_OK);
    BitmapHandle out{};
    ASSERT_EQ(Z_RemoveBitmapListItem(list, 0, &out), ST_OK);
    EXPECT_EQ(std::memcmp(&out, &inside, sizeof out), 0) << "the record comes back as it went in";
    const Header h = header(list);
    EXPECT_EQ(h.count, 0u);
    EXPECT_EQ(h.items, nullptr) << "an empty list has no array";
    EXPECT_EQ(Z_RemoveBitmapListItem(list, 0, nullptr), ST_BAD_PARAM);
    Z_FreeBitmap(&out);  // the caller owns it again
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, ZeroedSlotCannotBeRemovedIntoARecord) {
    BitmapList list = make_list({1, 2, 3});
    BitmapHandle second;
    ASSERT_EQ(Z_GetBitmapListItem(list, 1, &second, Z_BITMAPHANDLE_SIZE), ST_OK);
    ASSERT_EQ(Z_SetBitmapListItem(list, 1, nullptr), ST_OK);
    BitmapHandle out;
    EXPECT_EQ(Z_RemoveBitmapListItem(list, 1, &out), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(header(list).count, 3u);
    // Without a buffer the slot goes.
    EXPECT_EQ(Z_RemoveBitmapListItem(list, 1, nullptr), ST_OK);
    EXPECT_EQ(tags(list), (std::vector<int>{1, 3}));
    Z_FreeBitmap(&second);
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, DestroyDropsZeroedSlotsAndFreesTheRest) {
    BitmapList list = make_list({1, 2, 3});
    BitmapHandle first;
    ASSERT_EQ(Z_GetBitmapListItem(list, 0, &first, Z_BITMAPHANDLE_SIZE), ST_OK);
    ASSERT_EQ(Z_SetBitmapListItem(list, 0, nullptr), ST_OK);
    Z_FreeBitmap(&first);
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);  // ASan: records 2 and 3 freed, nothing leaked
}

TEST(BitmapList, DeleteItemsClampsAndFrees) {
    struct Case {
        uint32_t index, count;
        std::vector<int> want;
    } cases[] = {{1, 10, {0}}, {0, 1, {1, 2}}, {1, 1, {0, 2}}, {0, 3, {}}, {2, 0xFFFFFFFFu, {0, 1}}};
    for (const auto& c : cases) {
        BitmapList list = make_list({0, 1, 2});
        EXPECT_EQ(Z_DeleteBitmapListItems(list, c.index, c.count), ST_OK);
        EXPECT_EQ(tags(list), c.want) << c.index << "," << c.count;
        EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
    }
}

TEST(BitmapList, GetSharesAndSetReplacesWithoutFreeing) {
    BitmapList list = make_list({1, 2});
    BitmapHandle a, again;
    ASSERT_EQ(Z_GetBitmapListItem(list, 0, &a, Z_BITMAPHANDLE_SIZE), ST_OK);
    ASSERT_EQ(Z_GetBitmapListItem(list, 0, &again, Z_BITMAPHANDLE_SIZE), ST_OK);
    EXPECT_EQ(a.Data, again.Data) << "a got record shares the list's storage";
    BitmapHandle replacement = tagged(7);
    ASSERT_EQ(Z_SetBitmapListItem(list, 0, &replacement), ST_OK);
    EXPECT_EQ(tags(list), (std::vector<int>{7, 2}));
    EXPECT_NE(a.Flags & BF_ALLOCATED, 0u);
    EXPECT_EQ(a.Data[0], 1) << "the replaced bitmap's storage is still there";
    Z_FreeBitmap(&a);
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, CopyMakesDeepCopiesInOrder) {
    BitmapList list = make_list({0, 1, 2, 3});
    struct Case {
        uint32_t index, count;
        std::vector<int> want;
    } cases[] = {{1, 2, {1, 2}}, {2, 100, {2, 3}}, {0, 4, {0, 1, 2, 3}}, {4, 1, {}}, {0, 0, {}}};
    for (const auto& c : cases) {
        BitmapList copy = nullptr;
        ASSERT_EQ(Z_CopyBitmapListItems(&copy, list, c.index, c.count), ST_OK);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(tags(copy), c.want);
        for (uint32_t i = 0; i < c.want.size(); ++i) {
            BitmapHandle mine, theirs;
            ASSERT_EQ(Z_GetBitmapListItem(copy, i, &mine, Z_BITMAPHANDLE_SIZE), ST_OK);
            ASSERT_EQ(Z_GetBitmapListItem(list, c.index + i, &theirs, Z_BITMAPHANDLE_SIZE), ST_OK);
            EXPECT_NE(mine.Data, theirs.Data) << "copies own their pixels";
            EXPECT_NE(mine.Palette, theirs.Palette);
        }
        EXPECT_EQ(Z_DestroyBitmapList(copy), ST_OK);
    }
    EXPECT_EQ(tags(list), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, CopyOfAnUnallocatedRecordFailsAndLeavesNothing) {
    BitmapList list = make_list({0, 1});
    BitmapHandle described = zktest::described(3, 3, 8);
    ASSERT_EQ(Z_InsertBitmapListItem(list, Z_LIST_APPEND, &described), ST_OK);
    BitmapList copy = reinterpret_cast<BitmapList>(1);
    EXPECT_EQ(Z_CopyBitmapListItems(&copy, list, 0, 3), ST_BAD_PARAM);
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

TEST(BitmapList, MoveTakesRecordsAsTheyAre) {
    struct Case {
        uint32_t index, count;
        std::vector<int> moved, left;
    } cases[] = {{1, 2, {1, 2}, {0, 3}}, {0, 10, {0, 1, 2, 3}, {}}, {3, 1, {3}, {0, 1, 2}}};
    for (const auto& c : cases) {
        BitmapList list = make_list({0, 1, 2, 3});
        std::vector<uint8_t*> data;
        for (uint32_t i = c.index; i < c.index + c.moved.size(); ++i) {
            BitmapHandle b;
            ASSERT_EQ(Z_GetBitmapListItem(list, i, &b, Z_BITMAPHANDLE_SIZE), ST_OK);
            data.push_back(b.Data);
        }
        BitmapList moved = nullptr;
        ASSERT_EQ(Z_MoveBitmapListItems(&moved, list, c.index, c.count), ST_OK);
        EXPECT_EQ(tags(moved), c.moved);
        EXPECT_EQ(tags(list), c.left);
        for (uint32_t i = 0; i < data.size(); ++i) {
            BitmapHandle b;
            ASSERT_EQ(Z_GetBitmapListItem(moved, i, &b, Z_BITMAPHANDLE_SIZE), ST_OK);
            EXPECT_EQ(b.Data, data[i]) << "no pixel copy";
        }
        if (c.left.empty()) {
            EXPECT_EQ(header(list).items, nullptr);
        }
        EXPECT_EQ(Z_DestroyBitmapList(moved), ST_OK);
        EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
    }
}

// A random sequence of edits against a plain vector.
TEST(BitmapList, RandomEditsMatchAModel) {
    std::mt19937 rng(4);
    BitmapList list = make_list({});
    std::vector<int> model;
    int next = 0;
    for (int step = 0; step < 400; ++step) {
        const uint32_t n = static_cast<uint32_t>(model.size());
        const int op = static_cast<int>(rng() % 4);
        if (op <= 1 || n == 0) {
            // Any index, past the end too, and the append marker.
            const uint32_t at = rng() % 8 == 0 ? Z_LIST_APPEND : static_cast<uint32_t>(rng() % (n + 3));
            BitmapHandle b = tagged(next % 50);
            ASSERT_EQ(Z_InsertBitmapListItem(list, at, &b), ST_OK);
            model.insert(model.begin() + std::min(at, n), next % 50);
            ++next;
        } else if (op == 2) {
            const uint32_t at = static_cast<uint32_t>(rng() % n);
            BitmapHandle b;
            ASSERT_EQ(Z_RemoveBitmapListItem(list, at, &b), ST_OK);
            EXPECT_EQ(tag_of(b), model[at]);
            Z_FreeBitmap(&b);
            model.erase(model.begin() + at);
        } else {
            const uint32_t at = static_cast<uint32_t>(rng() % n);
            const uint32_t count = 1 + static_cast<uint32_t>(rng() % 3);
            BitmapList moved = nullptr;
            ASSERT_EQ(Z_MoveBitmapListItems(&moved, list, at, count), ST_OK);
            const uint32_t k = std::min(count, n - at);
            std::vector<int> want(model.begin() + at, model.begin() + at + k);
            EXPECT_EQ(tags(moved), want);
            model.erase(model.begin() + at, model.begin() + at + k);
            // Put them back at the front, in order.
            for (uint32_t i = k; i-- > 0;) {
                BitmapHandle b;
                ASSERT_EQ(Z_RemoveBitmapListItem(moved, i, &b), ST_OK);
                ASSERT_EQ(Z_InsertBitmapListItem(list, 0, &b), ST_OK);
                model.insert(model.begin(), want[i]);
            }
            EXPECT_EQ(Z_DestroyBitmapList(moved), ST_OK);
        }
        ASSERT_EQ(header(list).count, model.size());
    }
    EXPECT_EQ(tags(list), model);
    EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
}

// Each operation fails at its n-th allocation or mapping, for every n until
// it succeeds; the source list stays as it was and nothing leaks.
TEST(BitmapList, FailureAtEveryStepLeavesTheListWhole) {
    const std::vector<int> start = {0, 1, 2};
    for (int op = 0; op < 5; ++op) {
        SCOPED_TRACE(testing::Message() << "op " << op);
        zktest::sweep_faults(
            {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 200, [&](FaultKind kind, int n) {
                BitmapList list = make_list(start);
                BitmapHandle extra = tagged(7);
                BitmapList out = nullptr;
                const int32_t r = zktest::under_fault(kind, n, [&] {
                    switch (op) {
                        case 0: return Z_InsertBitmapListItem(list, 1, &extra);
                        case 1: return Z_CopyBitmapListItems(&out, list, 0, 3);
                        case 2: return Z_MoveBitmapListItems(&out, list, 1, 2);
                        case 3: return Z_CreateBitmapList(&out);
                        default: return Z_DeleteBitmapListItems(list, 1, 1);  // a failed shrink is no failure
                    }
                });
                if (r == ST_OK) {
                    if (op == 0) {
                        EXPECT_EQ(tags(list), (std::vector<int>{0, 7, 1, 2}));
                    }
                    if (op == 1) {
                        EXPECT_EQ(tags(out), start);
                    }
                    if (op == 2) {
                        EXPECT_EQ(tags(out), (std::vector<int>{1, 2}));
                    }
                    if (op == 4) {
                        EXPECT_EQ(tags(list), (std::vector<int>{0, 2}));
                    }
                    if (op != 0) Z_FreeBitmap(&extra);
                    if (out) {
                        EXPECT_EQ(Z_DestroyBitmapList(out), ST_OK);
                    }
                } else {
                    EXPECT_EQ(r, ST_NO_MEMORY);
                    EXPECT_EQ(tags(list), start);
                    if (op != 3 && op != 4) {
                        EXPECT_EQ(out, nullptr);
                    }
                    Z_FreeBitmap(&extra);
                }
                EXPECT_EQ(Z_DestroyBitmapList(list), ST_OK);
                return r == ST_OK;
            });
    }
}

}  // namespace
