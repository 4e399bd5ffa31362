// Drives the run-length row codec. Every buffer holds exactly the bytes its
// call may touch (AddressSanitizer catches any access past it).
//  - Compression of pixels made from the input as runs (some long enough to
//    be split) at any bit offset, with junk around them: the words must be
//    well formed (a 0 word past the first only after a word that could not
//    take another byte), the same into a buffer of exactly their size, the
//    same through the checked compressor (which must refuse one byte less),
//    and expand back to the pixels, whole and from any first pixel.
//  - Mirroring and flipping rows of arbitrary words: a mirrored row expands
//    to its source's pixels reversed, flipped rows are the rows reversed;
//    each source row expands to the pixels its words describe.
//  - The checked expander on arbitrary bytes: it either refuses, leaving
//    its destination alone, or gives the pixels the words describe, as
//    Z_ExpandRow does.
// The first byte caps the processor tier, so that every tier's kernels run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/platform/cpu.h"
#include "core/run_length.h"
#include "fuzz_input.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;
using Bytes = std::vector<uint8_t>;

uint16_t word_at(const uint8_t* row, size_t i) { return zk::rle::run_word(row, i); }

// Pixel i of a packed row.
bool bit(const Bytes& packed, uint64_t i) { return packed[i / 8] & (0x80 >> i % 8); }

// The pixels of a row of words, one byte each.
Bytes pixels_of(const uint8_t* row) {
    Bytes px;
    for (uint32_t i = 0; i < zk::rle::run_count(row); ++i) px.insert(px.end(), word_at(row, i), i & 1);
    return px;
}

Bytes expand(const uint8_t* row, uint32_t first, uint32_t count) {
    Bytes out((count + 7) / 8);
    check(Z_ExpandRow(row, out.empty() ? nullptr : out.data(), first, count) == (out.empty() ? ST_BAD_PARAM : ST_OK));
    return out;
}

void compress_and_expand(Reader& in) {
    const uint32_t offset = in.take(1) % 8;
    const uint8_t junk = static_cast<uint8_t>(in.take(1));
    Bytes px;
    for (uint8_t colour = in.take(1) & 1; in.n && px.size() < 400000; colour ^= 1) {
        const uint32_t b = in.take(1);
        // Mostly short runs; some within 128 of 1-3 times the longest word a
        // run of whole bytes reaches, where the splits fall.
        const uint32_t length = b < 240 ? b % 40 : (1 + (b - 240) % 3) * 65528 + in.take(1) - 128;
        px.insert(px.end(), length, colour);
    }
    const auto width = static_cast<uint32_t>(px.size());
    Bytes src((offset + width + 7) / 8, junk);
    for (uint32_t i = 0; i < width; ++i) {
        const uint32_t at = offset + i;
        src[at / 8] = static_cast<uint8_t>(px[i] ? src[at / 8] | 0x80 >> at % 8 : src[at / 8] & ~(0x80 >> at % 8));
    }
    if (src.empty()) src.push_back(junk);
    const Bytes before = src;

    Bytes roomy(zk::rle::compressed_size_bound(width));
    check(Z_CompressRow(roomy.data(), src.data(), offset, width) == static_cast<int32_t>(width));
    check(src == before);
    const uint64_t bytes = zk::rle::row_bytes(roomy.data());
    check(bytes <= roomy.size());
    Bytes exact(roomy.begin(), roomy.begin() + static_cast<long>(bytes));
    Bytes again(exact.size());
    check(Z_CompressRow(again.data(), src.data(), offset + 8 * (junk & 3), width) == static_cast<int32_t>(width));
    check(again == exact);
    // Well formed: the runs hold the pixels; a 0 word past the first follows
    // a word that could not take another byte of its run.
    const uint32_t n = zk::rle::run_count(exact.data());
    check(n >= 1 && pixels_of(exact.data()) == px);
    for (uint32_t i = 1; i < n; ++i)
        if (word_at(exact.data(), i) == 0) check(word_at(exact.data(), i - 1) >= 65528 && i + 1 < n);

    if (offset == 0) {
        size_t written = 0;
        Bytes checked(exact.size()), short_by_one(exact.size() - 1);
        check(zk::rle::compress_row(src.data(), width, checked.data(), checked.size(), &written) == ST_OK);
        check(written == exact.size() && checked == exact);
        check(zk::rle::compress_row(src.data(), width, short_by_one.data(), short_by_one.size(), &written) ==
              ST_TOO_LARGE);
        check(written == exact.size());
    }

    if (width == 0) return;
    const uint32_t first = (junk * 2654435761u) % width;
    const uint32_t count = std::min<uint32_t>(width - first, 1 + junk * 37u % 5000);
    for (auto [f, c] : {std::pair{0u, width}, std::pair{first, count}}) {
        const Bytes out = expand(exact.data(), f, c);
        for (uint32_t i = 0; i < c; ++i) check(bit(out, i) == (px[f + i] != 0));
        for (uint32_t i = c; i < out.size() * 8; ++i) check(!bit(out, i));
        Bytes checked(out.size());
        check(zk::rle::expand_row_checked(exact.data(), exact.size(), width, f, c, checked.data()) == ST_OK);
        check(checked == out);
    }
}

void mirror_and_flip(Reader& in) {
    const uint32_t rows = 1 + in.take(1) % 8;
    Bytes source;
    std::vector<size_t> starts;
    for (uint32_t r = 0; r < rows; ++r) {
        const uint32_t n = in.take(1) % 24;
        starts.push_back(source.size());
        source.resize(source.size() + 4 + 2 * n);
        std::memcpy(source.data() + starts.back(), &n, 4);
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t c = in.take(1);
            const auto w = static_cast<uint16_t>(c < 8 ? 0 : c < 250 ? c % 64 : in.take(2));
            std::memcpy(source.data() + starts.back() + 4 + 2 * i, &w, 2);
        }
    }
    starts.push_back(source.size());

    size_t mirrored_bytes = 0;
    for (uint32_t r = 0; r < rows; ++r) mirrored_bytes += zk::rle::mirrored_row_bytes(source.data() + starts[r]);
    Bytes mirrored(mirrored_bytes), flipped(source.size());
    check(Z_MirrorCompressedBuffer(source.data(), mirrored.data(), rows) == ST_OK);
    check(Z_FlipCompressedBuffer(source.data(), flipped.data(), rows) == ST_OK);
    const uint8_t* m = mirrored.data();
    size_t at = 0;
    for (uint32_t r = 0; r < rows; ++r) {
        Bytes px = pixels_of(source.data() + starts[r]);
        if (!px.empty()) {
            const auto width = static_cast<uint32_t>(px.size());
            const uint32_t first = (r * 7919u) % width;
            const Bytes out = expand(source.data() + starts[r], first, width - first);
            for (uint32_t i = first; i < width; ++i) check(bit(out, i - first) == (px[i] != 0));
        }
        std::reverse(px.begin(), px.end());
        check(pixels_of(m) == px);
        m += zk::rle::row_bytes(m);
        // Flipped: row rows - 1 - r of the source, byte for byte.
        const size_t len = starts[rows - r] - starts[rows - 1 - r];
        check(std::memcmp(flipped.data() + at, source.data() + starts[rows - 1 - r], len) == 0);
        at += len;
    }
    check(m == mirrored.data() + mirrored.size() && at == flipped.size());
}

void checked_expand(Reader& in) {
    const uint32_t width = in.take(2) % 2000;
    const uint32_t first = in.take(2) % (width + 2);
    const uint32_t count = in.take(2) % (width + 2);
    Bytes row(in.p, in.p + in.n);
    if (row.size() >= 4) {
        // Mostly a count near what the bytes hold.
        const uint32_t n = static_cast<uint32_t>((row.size() - 4) / 2) + (row[0] & 3) - (row[1] & 3);
        if (row[2] & 1) std::memcpy(row.data(), &n, 4);
    }
    Bytes out((count + 7) / 8 + 1, 0x5C);
    const int32_t r =
        zk::rle::expand_row_checked(row.empty() ? nullptr : row.data(), row.size(), width, first, count, out.data());
    size_t bytes = 0;
    const bool well_formed = !row.empty() && zk::rle::check_row(row.data(), row.size(), width, &bytes) == ST_OK;
    check(r == ((well_formed && first + count <= width) ? ST_OK : ST_BAD_PARAM));
    if (r != ST_OK) {
        check(std::all_of(out.begin(), out.end(), [](uint8_t v) { return v == 0x5C; }));
        return;
    }
    check(bytes == zk::rle::row_bytes(row.data()) && bytes <= row.size());
    check(out.back() == 0x5C);
    out.pop_back();
    const Bytes px = pixels_of(row.data());
    for (uint32_t i = 0; i < out.size() * 8; ++i) check(bit(out, i) == (i < count && px[first + i] != 0));
    Bytes plain(out.size());
    if (!plain.empty()) check(Z_ExpandRow(row.data(), plain.data(), first, count) == ST_OK);
    check(plain == out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    zk::platform::set_cpu_tier_cap(zk::platform::kCpuTiers[in.take(1) % 3]);
    switch (in.take(1) % 3) {
        case 0: compress_and_expand(in); break;
        case 1: mirror_and_flip(in); break;
        default: checked_expand(in); break;
    }
    return 0;
}
