// The run-length row codec against a model that builds the run words pixel
// by pixel (extending a run byte by byte of the source and splitting it
// before a byte that would take it past 65535) and expands them pixel by
// pixel: the byte-run table against the bits it describes, exact words for
// every width 1-200 and bit offset, long rows around the split (also where
// the split falls among dense or sparse pixels), expansion from every first
// pixel and of arbitrary words in every processor tier, mirroring and
// flipping by their pixel meaning, the checked helpers on rows that lie
// about their size. Every buffer has exactly the bytes the call may touch,
// so that AddressSanitizer sees any access past them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "core/platform/cpu.h"
#include "core/run_length.h"
#include "zkernel.h"

namespace {

using Pixels = std::vector<uint8_t>;  // one 0 or 1 per pixel
using Words = std::vector<uint16_t>;
using Bytes = std::vector<uint8_t>;

Words model_compress(const Pixels& px, uint32_t offset) {
    Words w{0};
    uint8_t colour = 0;
    for (size_t i = 0; i < px.size(); ++i) {
        if (px[i] != colour) {
            colour = px[i];
            w.push_back(0);
        } else if ((offset + i) % 8 == 0) {
            // The run goes on into a new source byte: the pixels it has there.
            size_t in_byte = 0;
            while (i + in_byte < px.size() && in_byte < 8 && px[i + in_byte] == colour) ++in_byte;
            if (w.back() + in_byte > 65535) w.insert(w.end(), {0, 0});
        }
        ++w.back();
    }
    return w;
}

Pixels model_expand(const Words& w, uint64_t first, uint64_t count) {
    Pixels all;
    for (size_t i = 0; i < w.size(); ++i) all.insert(all.end(), w[i], static_cast<uint8_t>(i % 2));
    Pixels out(count, 0);
    for (uint64_t i = 0; i < count && first + i < all.size(); ++i) out[i] = all[first + i];
    return out;
}

Bytes serialize(const Words& w) {
    Bytes out(4 + 2 * w.size());
    const auto n = static_cast<uint32_t>(w.size());
    std::memcpy(out.data(), &n, 4);
    if (!w.empty()) std::memcpy(out.data() + 4, w.data(), 2 * w.size());
    return out;
}

// px packed from bit `offset` of the first byte; the bits around them hold
// `junk`.
Bytes pack(const Pixels& px, uint32_t offset, uint8_t junk = 0) {
    Bytes out((offset + px.size() + 7) / 8, junk);
    for (size_t i = 0; i < px.size(); ++i) {
        const size_t bit = offset + i;
        out[bit / 8] =
            static_cast<uint8_t>(px[i] ? out[bit / 8] | (0x80 >> bit % 8) : out[bit / 8] & ~(0x80 >> bit % 8));
    }
    return out;
}

// Rows of several kinds: noise, short text-like runs, all 0, all 1.
Pixels make_row(size_t width, int kind, std::mt19937& rng) {
    Pixels px(width, kind == 3 ? 1 : 0);
    if (kind == 0)
        for (auto& p : px) p = static_cast<uint8_t>(rng() & 1);
    if (kind == 1)
        for (size_t i = 0; i < width;) {
            const size_t run = 1 + rng() % 24;
            std::fill_n(px.begin() + i, std::min(run, width - i), static_cast<uint8_t>(rng() % 3 == 0));
            i += run;
        }
    return px;
}

// Runs Z_CompressRow into a buffer of exactly the model's size and checks
// the words, the source left alone, and the round trip through Z_ExpandRow.
void check_compress(const Pixels& px, uint32_t offset, uint8_t junk) {
    const Bytes want = serialize(model_compress(px, offset));
    const Bytes src = pack(px, offset, junk);
    const Bytes src_before = src;
    Bytes got(want.size());
    // Bits of the offset above the low three are ignored.
    const uint32_t given_offset = offset + 8u * static_cast<uint32_t>(px.size() % 5);
    ASSERT_EQ(Z_CompressRow(got.data(), src.data(), given_offset, static_cast<uint32_t>(px.size())),
              static_cast<int32_t>(px.size()));
    ASSERT_EQ(got, want) << "width " << px.size() << " offset " << offset;
    ASSERT_EQ(src, src_before);
    Bytes back((px.size() + 7) / 8, 0xA5);
    ASSERT_EQ(Z_ExpandRow(got.data(), back.data(), 0, static_cast<uint32_t>(px.size())), ST_OK);
    ASSERT_EQ(back, pack(px, 0));
}

// Each byte's runs, laid out from bit 7 with colours alternating from bit
// 7's, give the byte back; every run is at least a pixel, the lengths past
// the count are 0. Then the examples and the masks as listed.
TEST(RunLength, ByteRunTableDescribesEveryByte) {
    for (unsigned b = 0; b < 256; ++b) {
        const zk::rle::ByteRuns& runs = zk::rle::kByteRuns[b];
        ASSERT_TRUE(runs.count >= 1 && runs.count <= 8) << b;
        unsigned bits = 0, pixels = 0;
        for (unsigned k = 0; k < 8; ++k) {
            if (k >= runs.count) {
                EXPECT_EQ(runs.length[k], 0) << b;
                continue;
            }
            EXPECT_GE(runs.length[k], 1) << b;
            for (unsigned i = 0; i < runs.length[k]; ++i) bits = bits << 1 | (((b >> 7) ^ k) & 1);
            pixels += runs.length[k];
        }
        EXPECT_EQ(pixels, 8u) << b;
        EXPECT_EQ(bits, b);
    }
    auto lengths = [](unsigned b) {
        const zk::rle::ByteRuns& runs = zk::rle::kByteRuns[b];
        return Words(runs.length, runs.length + runs.count);
    };
    EXPECT_EQ(lengths(0), Words({8}));
    EXPECT_EQ(lengths(1), Words({7, 1}));
    EXPECT_EQ(lengths(2), Words({6, 1, 1}));
    EXPECT_EQ(lengths(3), Words({6, 2}));
    EXPECT_EQ(lengths(0xAA), Words(8, 1));
    const uint8_t left[] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE};
    const uint8_t right[] = {0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03, 0x01};
    for (unsigned n = 0; n < 8; ++n) {
        EXPECT_EQ(zk::rle::kLeftMask[n], left[n]);
        EXPECT_EQ(zk::rle::kRightMask[n], right[n]);
    }
}

TEST(RunLength, EveryWidthAndOffsetGivesTheModelsWordsAndRoundTrips) {
    std::mt19937 rng(7);
    for (uint32_t width = 1; width <= 200; ++width)
        for (uint32_t offset = 0; offset < 8; ++offset)
            for (int kind = 0; kind < 4; ++kind) check_compress(make_row(width, kind, rng), offset, 0x5A);
}

TEST(RunLength, LongRunsSplitWhereTheModelSplitsThem) {
    std::mt19937 rng(11);
    std::vector<Pixels> rows;
    for (const size_t width : {65526u, 65530u, 65535u, 65536u, 65540u, 65544u, 70000u, 131072u})
        for (uint8_t v : {0, 1}) rows.push_back(Pixels(width, v));
    // Blocks of each colour around the limit, the first starting either way.
    for (const size_t block : {65530u, 65535u, 65536u, 65541u})
        for (uint8_t start : {0, 1}) {
            Pixels px(200000);
            for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint8_t>(start ^ (i / block % 2));
            rows.push_back(px);
        }
    Pixels mixed = make_row(300000, 1, rng);
    std::fill(mixed.begin() + 1003, mixed.begin() + 140001, 1);
    rows.push_back(mixed);
    for (const Pixels& px : rows)
        for (uint32_t offset : {0u, 1u, 3u, 7u}) check_compress(px, offset, 0xFF);
    // The same rows whole through Z_CompressRows and the checked compressor.
    for (const Pixels& px : rows) {
        const Bytes want = serialize(model_compress(px, 0));
        const auto width = static_cast<uint32_t>(px.size());
        Bytes rows_out(want.size()), checked(want.size());
        const Bytes src = pack(px, 0);
        Bytes padded((width + 31) / 32 * 4);
        std::copy(src.begin(), src.end(), padded.begin());
        ASSERT_EQ(Z_CompressRows(rows_out.data(), padded.data(), width, 1), ST_OK);
        EXPECT_EQ(rows_out, want);
        size_t written = 0;
        ASSERT_EQ(zk::rle::compress_row(src.data(), width, checked.data(), checked.size(), &written), ST_OK);
        EXPECT_EQ(written, want.size());
        EXPECT_EQ(checked, want);
    }
}

// A run long enough to split, ending at every place around the split
// point, followed by noise (taken a byte at a time) or by sparse edges
// (taken edge by edge), from several bit positions and in both colours.
TEST(RunLength, LongRunsSplitAmongDenseAndSparsePixels) {
    std::mt19937 rng(13);
    for (uint32_t length = 65518; length <= 65546; ++length)
        for (const size_t lead : {0u, 5u, 13u})
            for (uint8_t colour : {0, 1})
                for (int tail = 0; tail < 2; ++tail) {
                    Pixels px(lead, static_cast<uint8_t>(colour ^ 1));
                    px.insert(px.end(), length, colour);
                    for (size_t i = 0; i < 300; ++i)
                        px.push_back(tail == 0 ? static_cast<uint8_t>(rng() & 1)
                                               : static_cast<uint8_t>(colour ^ ((i + 1) / 23 % 2)));
                    check_compress(px, length % 8, 0xC6);
                }
}

TEST(RunLength, ExpandFromEveryFirstPixel) {
    std::mt19937 rng(3);
    for (const size_t width : {1u, 13u, 64u, 100u, 257u})
        for (int kind = 0; kind < 4; ++kind) {
            const Pixels px = make_row(width, kind, rng);
            const Words w = model_compress(px, 0);
            const Bytes row = serialize(w);
            for (uint32_t first = 0; first <= width + 3; ++first)
                for (uint32_t count : {0u, 1u, 7u, 9u, 64u, 70u, static_cast<uint32_t>(width)}) {
                    // No pixels write no bytes: the one given keeps its value.
                    Bytes want = count ? pack(model_expand(w, first, count), 0) : Bytes{0xC3};
                    Bytes out(want.size(), 0xC3);
                    ASSERT_EQ(Z_ExpandRow(row.data(), out.data(), first, count), ST_OK);
                    ASSERT_EQ(out, want) << width << " " << first << " " << count;
                    if (first + count > width) continue;
                    std::fill(out.begin(), out.end(), 0xC3);
                    ASSERT_EQ(zk::rle::expand_row_checked(row.data(), row.size(), static_cast<uint32_t>(width), first,
                                                          count, out.data()),
                              ST_OK);
                    ASSERT_EQ(out, want);
                }
        }
}

// Rows of arbitrary words: empty runs, short and long ones.
std::vector<Words> arbitrary_rows() {
    std::mt19937 rng(17);
    std::vector<Words> rows{{}, {0}, {0, 0, 5, 0, 0}};
    for (int r = 0; r < 24; ++r) {
        Words w;
        for (size_t total = 0; total < 20000;) {
            const uint32_t pick = rng() % 100;
            w.push_back(static_cast<uint16_t>(pick < 10   ? 0
                                              : pick < 80 ? 1 + rng() % 6
                                              : pick < 97 ? rng() % 300
                                                          : rng()));
            total += w.back();
        }
        rows.push_back(w);
    }
    return rows;
}

// The rows expanded from several first pixels with several counts, across
// the 4096-pixel blocks the expansion works in, each against the model.
void expand_as_the_model(const std::vector<Words>& rows) {
    for (const Words& w : rows) {
        const Bytes row = serialize(w);
        const Pixels all = model_expand(w, 0, 60000);
        for (const uint32_t first : {0u, 1u, 63u, 4095u, 4097u, 9000u})
            for (const uint32_t count : {1u, 64u, 4095u, 4096u, 4160u, 12345u, 40000u}) {
                const Bytes want = pack(Pixels(all.begin() + first, all.begin() + first + count), 0);
                Bytes out(want.size(), 0xC3);
                ASSERT_EQ(Z_ExpandRow(row.data(), out.data(), first, count), ST_OK);
                ASSERT_EQ(out, want) << w.size() << " words from " << first << " count " << count;
            }
    }
}

// In every processor tier.
TEST(RunLength, ArbitraryWordsExpandAsTheModelInEveryTier) {
    namespace pf = zk::platform;
    const std::vector<Words> rows = arbitrary_rows();
    for (pf::CpuTier tier : pf::kCpuTiers) {
        SCOPED_TRACE(pf::cpu_tier_name(tier));
        if (tier > pf::cpu_tier_supported()) {
            std::printf("[   NOTE   ] %s run-length expansion not tested: this processor lacks it\n",
                        pf::cpu_tier_name(tier));
            continue;
        }
        const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
        expand_as_the_model(rows);
        pf::set_cpu_tier_cap(previous);
    }
}

// The packed image of `rows`, `width` pixels each; the padding bytes after
// each row's pixels hold 0xEE (Z_ExpandRows leaves them as they are).
Bytes pack_image(const std::vector<Pixels>& rows, uint32_t width) {
    const size_t stride = (width + 31) / 32 * 4;
    Bytes out(stride * rows.size(), 0xEE);
    for (size_t y = 0; y < rows.size(); ++y) {
        const Bytes p = pack(rows[y], 0);
        std::copy(p.begin(), p.end(), out.begin() + static_cast<long>(y * stride));
    }
    return out;
}

TEST(RunLength, ImagesRoundTripMirrorAndFlipByTheirPixels) {
    std::mt19937 rng(5);
    for (const uint32_t width : {1u, 2u, 31u, 200u, 70000u}) {
        const uint32_t height = width > 1000 ? 6 : 24;
        std::vector<Pixels> rows;
        Bytes runs;
        for (uint32_t y = 0; y < height; ++y) {
            rows.push_back(make_row(width, static_cast<int>(y % 4), rng));
            if (y % 5 == 4) rows.back()[0] = rows.back()[width - 1] = 1;
            const Bytes r = serialize(model_compress(rows.back(), 0));
            runs.insert(runs.end(), r.begin(), r.end());
        }
        const Bytes packed = pack_image(rows, width);
        Bytes compressed(runs.size());
        ASSERT_EQ(Z_CompressRows(compressed.data(), packed.data(), width, height), ST_OK);
        EXPECT_EQ(compressed, runs);
        auto expand = [&](const Bytes& image_runs) {
            Bytes out(packed.size(), 0xEE);
            EXPECT_EQ(Z_ExpandRows(image_runs.data(), out.data(), width, height), ST_OK);
            return out;
        };
        EXPECT_EQ(expand(runs), packed);

        size_t mirrored_size = 0;
        for (const uint8_t* r = runs.data(); r < runs.data() + runs.size(); r += zk::rle::row_bytes(r))
            mirrored_size += zk::rle::mirrored_row_bytes(r);
        Bytes mirrored(mirrored_size);
        ASSERT_EQ(Z_MirrorCompressedBuffer(runs.data(), mirrored.data(), height), ST_OK);
        std::vector<Pixels> changed = rows;
        for (Pixels& px : changed) std::reverse(px.begin(), px.end());
        EXPECT_EQ(expand(mirrored), pack_image(changed, width));

        Bytes flipped(runs.size()), twice(runs.size());
        ASSERT_EQ(Z_FlipCompressedBuffer(runs.data(), flipped.data(), height), ST_OK);
        changed.assign(rows.rbegin(), rows.rend());
        EXPECT_EQ(expand(flipped), pack_image(changed, width));
        ASSERT_EQ(Z_FlipCompressedBuffer(flipped.data(), twice.data(), height), ST_OK);
        EXPECT_EQ(twice, runs);
    }
}

TEST(RunLength, SmallCases) {
    struct Case {
        const char* what;
        Words words;  // the row's words (source of mirror and flip cases)
        Words want;
    };
    auto compressed = [](Bytes src, uint32_t offset, uint32_t count) {
        Bytes out(zk::rle::compressed_size_bound(count));
        EXPECT_EQ(Z_CompressRow(out.data(), src.data(), offset, count), static_cast<int32_t>(count));
        return Words(reinterpret_cast<const uint16_t*>(out.data() + 4),
                     reinterpret_cast<const uint16_t*>(out.data() + 4) + zk::rle::run_count(out.data()));
    };
    auto mirrored = [](const Words& w) {
        const Bytes row = serialize(w);
        Bytes out(zk::rle::mirrored_row_bytes(row.data()));
        EXPECT_EQ(zk::rle::mirror_row(row.data(), out.data()), out.size());
        return Words(reinterpret_cast<const uint16_t*>(out.data() + 4),
                     reinterpret_cast<const uint16_t*>(out.data() + out.size()));
    };
    const Case cases[] = {
        {"8 zeros", compressed({0x00}, 0, 8), {8}},
        {"8 ones", compressed({0xFF}, 0, 8), {0, 8}},
        {"70000 zeros", compressed(Bytes(8750, 0), 0, 70000), {65528, 0, 4472}},
        {"offset 3 count 5 of 0x1F", compressed({0x1F}, 3, 5), {0, 5}},
        {"offset 11 (3) count 5 of 0x1F", compressed({0x1F}, 11, 5), {0, 5}},
        {"no pixels", compressed({0xFF}, 0, 0), {0}},
        {"no pixels after offset 5", compressed({0xFF}, 5, 0), {0}},
        {"offset 6 count 2 of 0xFD", compressed({0xFD}, 6, 2), {1, 1}},
        {"mirror 0,8", mirrored({0, 8}), {0, 8}},
        {"mirror 3,5", mirrored({3, 5}), {0, 5, 3}},
        {"mirror 0,5,3", mirrored({0, 5, 3}), {3, 5}},
        {"mirror split", mirrored({65528, 0, 4472}), {4472, 0, 65528}},
        {"mirror empty", mirrored({}), {0}},
    };
    for (const Case& c : cases) EXPECT_EQ(c.words, c.want) << c.what;

    // Three rows of different lengths come back reversed with their counts.
    const Bytes a = serialize({5}), b = serialize({0, 2, 3}), c = serialize({1, 1, 1, 1, 1});
    Bytes rows = a, flipped(a.size() + b.size() + c.size()), want = c;
    rows.insert(rows.end(), b.begin(), b.end());
    rows.insert(rows.end(), c.begin(), c.end());
    want.insert(want.end(), b.begin(), b.end());
    want.insert(want.end(), a.begin(), a.end());
    ASSERT_EQ(Z_FlipCompressedBuffer(rows.data(), flipped.data(), 3), ST_OK);
    EXPECT_EQ(flipped, want);
}

TEST(RunLength, NullPointersAndNoRows) {
    Bytes buf(16, 0x77);
    const Bytes before = buf;
    uint8_t* p = buf.data();
    for (uint32_t rows : {0u, 3u}) {
        EXPECT_EQ(Z_ExpandRows(nullptr, p, 8, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_ExpandRows(p, nullptr, 8, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_CompressRows(nullptr, p, 8, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_CompressRows(p, nullptr, 8, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_MirrorCompressedBuffer(nullptr, p, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_MirrorCompressedBuffer(p, nullptr, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_FlipCompressedBuffer(nullptr, p, rows), ST_BAD_PARAM);
        EXPECT_EQ(Z_FlipCompressedBuffer(p, nullptr, rows), ST_BAD_PARAM);
    }
    EXPECT_EQ(Z_ExpandRow(nullptr, p, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_ExpandRow(p, nullptr, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_CompressRow(nullptr, p, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_CompressRow(p, nullptr, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_CompressRow(p, p + 8, 0, 0x80000000u), ST_BAD_PARAM);
    EXPECT_EQ(Z_CompressRows(p, p + 8, 0x80000000u, 1), ST_BAD_PARAM);
    EXPECT_EQ(buf, before);
    // No rows: nothing is read or written.
    EXPECT_EQ(Z_ExpandRows(p, p + 8, 1000, 0), ST_OK);
    EXPECT_EQ(Z_CompressRows(p, p + 8, 1000, 0), ST_OK);
    EXPECT_EQ(Z_MirrorCompressedBuffer(p, p + 8, 0), ST_OK);
    EXPECT_EQ(Z_FlipCompressedBuffer(p, p + 8, 0), ST_OK);
    EXPECT_EQ(buf, before);
}

TEST(RunLength, CheckedHelpersRefuseRowsThatLieAboutTheirSize) {
    std::mt19937 rng(9);
    for (const uint32_t width : {1u, 9u, 100u, 300u})
        for (int kind = 0; kind < 4; ++kind) {
            const Pixels px = make_row(width, kind, rng);
            const Words w = model_compress(px, 0);
            const Bytes good = serialize(w);
            const size_t out_bytes = (width + 7) / 8;
            auto expand = [&](const Bytes& row, size_t available, uint32_t row_width) {
                Bytes out(out_bytes, 0x99);
                const int32_t r = zk::rle::expand_row_checked(row.data(), available, row_width, 0,
                                                              std::min(width, row_width), out.data());
                if (r != ST_OK) {
                    EXPECT_EQ(out, Bytes(out_bytes, 0x99));
                }
                return r;
            };
            size_t bytes = 0;
            EXPECT_EQ(zk::rle::check_row(good.data(), good.size(), width, &bytes), ST_OK);
            EXPECT_EQ(bytes, good.size());
            EXPECT_EQ(expand(good, good.size(), width), ST_OK);
            // Runs that overrun or stop short of the width.
            EXPECT_EQ(expand(good, good.size(), width - 1), ST_BAD_PARAM);
            EXPECT_EQ(expand(good, good.size(), width + 1), ST_BAD_PARAM);
            Words longer = w;
            ++longer.back();
            EXPECT_EQ(expand(serialize(longer), good.size(), width), ST_BAD_PARAM);
            // A count past the bytes: the row cut by a word, or one more word claimed.
            EXPECT_EQ(expand(Bytes(good.begin(), good.end() - 2), good.size() - 2, width), ST_BAD_PARAM);
            Bytes claims = good;
            const auto more = static_cast<uint32_t>(w.size() + 1);
            std::memcpy(claims.data(), &more, 4);
            EXPECT_EQ(expand(claims, claims.size(), width), ST_BAD_PARAM);
            const uint32_t huge = 0xFFFFFFFFu;
            std::memcpy(claims.data(), &huge, 4);
            EXPECT_EQ(expand(claims, claims.size(), width), ST_BAD_PARAM);
            EXPECT_EQ(zk::rle::check_row(good.data(), 3, width, nullptr), ST_BAD_PARAM);

            // The checked compressor: exact room, or one byte short.
            size_t written = 0;
            Bytes exact(good.size()), short_by_one(good.size() - 1);
            const Bytes src = pack(px, 0);
            EXPECT_EQ(zk::rle::compress_row(src.data(), width, exact.data(), exact.size(), &written), ST_OK);
            EXPECT_EQ(exact, good);
            EXPECT_EQ(zk::rle::compress_row(src.data(), width, short_by_one.data(), short_by_one.size(), &written),
                      ST_TOO_LARGE);
            EXPECT_EQ(written, good.size());
        }
    EXPECT_EQ(zk::rle::compressed_size_bound(0x80000000u), 0u);
    EXPECT_EQ(zk::rle::compressed_size_bound(8), 22u);
}

}  // namespace
