// The run-length row codec for 1-bit images: packed rows (most significant
// bit first, a set bit being a 1-pixel) to and from rows of run lengths.
//
// A run-length row is a 32-bit count N followed by N 16-bit run words, the
// lengths of alternating runs of 0-pixels and 1-pixels; the first run is
// always a 0-run, so a row that begins with a 1-pixel begins with a 0 word.
// A run longer than 65535 is written as a word of at most 65535, a 0 word
// (an empty run of the other colour) and the rest. The count and the words
// are in the host's byte order and carry no alignment: rows of an image
// follow one another directly, each 4 + 2N bytes long, so they are read and
// written here a byte at a time through memcpy.
//
// The compressor extends a run a source byte at a time and splits it before
// the byte that would take its word past 65535, so where a long run is cut
// depends on where the source bytes begin: 70,000 0-pixels from the start of
// a byte become 65528, 0, 4472. Compressing a given row always gives the same
// words, which the tests hold to a pixel-by-pixel model.
//
// The public exports (Z_ExpandRow and the others in include/zkernel.h) trust
// the caller to size every buffer. The checked helpers below are for code
// that keeps rows of its own (the run-length storage kind): they take the
// bytes a stored row may occupy, refuse a row that claims more runs than
// those bytes hold or whose runs do not add up to the row's width, and never
// read or write past the sizes they are given.
//
// May include: include/zkernel.h, core/platform/.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zkernel.h"

namespace zk::rle {

// Longest run one word holds.
constexpr uint32_t kMaxRunWord = 65535;
// Widest row the codec compresses: bitmap widths are 31-bit, and a row of
// that many pixels always has a count that fits its 32-bit field.
constexpr uint32_t kMaxRowPixels = 0x7FFFFFFFu;
// Bytes in front of a row's run words: the count.
constexpr size_t kCountBytes = 4;

// The runs of one packed byte read from its most significant bit: `count`
// runs (1 to 8), the first of the colour of bit 7 and then alternating, of
// the lengths in `length`; the lengths past the count are 0. A byte and its
// complement have the same runs.
struct ByteRuns {
    uint8_t count;
    uint16_t length[8];
};

// The runs of every byte value, from the bits themselves.
constexpr std::array<ByteRuns, 256> make_byte_runs() {
    std::array<ByteRuns, 256> table{};
    for (unsigned b = 0; b < 256; ++b) {
        ByteRuns& runs = table[b];
        runs.count = 1;
        for (int bit = 7; bit >= 0; --bit) {
            if (bit < 7 && ((b >> bit) & 1) != ((b >> (bit + 1)) & 1)) ++runs.count;
            ++runs.length[runs.count - 1];
        }
    }
    return table;
}

inline constexpr std::array<ByteRuns, 256> kByteRuns = make_byte_runs();

// Masks of a packed byte, entry n (0-7): kLeftMask keeps its first n pixels
// (the top n bits), kRightMask the pixels from pixel n on (0xFF >> n).
inline constexpr std::array<uint8_t, 8> kLeftMask = [] {
    std::array<uint8_t, 8> masks{};
    for (unsigned n = 0; n < 8; ++n) masks[n] = static_cast<uint8_t>(0xFF00u >> n);
    return masks;
}();
inline constexpr std::array<uint8_t, 8> kRightMask = [] {
    std::array<uint8_t, 8> masks{};
    for (unsigned n = 0; n < 8; ++n) masks[n] = static_cast<uint8_t>(0xFFu >> n);
    return masks;
}();

// The count N of the row at `row`.
inline uint32_t run_count(const uint8_t* row) {
    uint32_t n;
    std::memcpy(&n, row, sizeof n);
    return n;
}

// Run word i of the row at `row` (i < N).
inline uint16_t run_word(const uint8_t* row, size_t i) {
    uint16_t w;
    std::memcpy(&w, row + kCountBytes + 2 * i, sizeof w);
    return w;
}

// Bytes the row at `row` occupies, 4 + 2N: where the next row of an image
// starts. 64-bit so that any count gives its exact length.
inline uint64_t row_bytes(const uint8_t* row) { return kCountBytes + 2 * uint64_t{run_count(row)}; }

// Largest number of bytes a compressed row of `width` pixels can take, count
// included: 4 + 2 (width + 1) (a word per pixel and the leading 0 word of a
// row that starts with a 1-pixel; the extra words of split runs never make up
// for the pixels those runs hold). 0 when width exceeds kMaxRowPixels or the
// result does not fit size_t.
size_t compressed_size_bound(uint32_t width);

// Compresses the `width` pixels of the packed row `packed` (the row's
// (width + 7) / 8 bytes are read, nothing past them) into out, which has
// room for `capacity` bytes. Returns ST_OK with the row's length in
// *written; ST_TOO_LARGE when the row needs more than `capacity` bytes (the
// length it needs is in *written, out holds an incomplete row); ST_BAD_PARAM
// for a null pointer or a width above kMaxRowPixels. A capacity of
// compressed_size_bound(width) always suffices.
int32_t compress_row(const uint8_t* packed, uint32_t width, uint8_t* out, size_t capacity, size_t* written);

// Checks the stored row at `runs`, of which `available_bytes` bytes may be
// read, as a row of `width` pixels: its count and words must lie within the
// bytes and its runs must add up to exactly `width`. Returns ST_OK with the
// row's length in *bytes (when bytes is not null), or ST_BAD_PARAM; reads
// nothing past the row's words or the available bytes, whichever ends first.
int32_t check_row(const uint8_t* runs, size_t available_bytes, uint32_t width, size_t* bytes);

// Expands `count` pixels of the stored row at `runs`, a row of `width`
// pixels (checked as check_row does), from pixel `first` on, into dst's
// (count + 7) / 8 bytes; the bits of the last byte past the count are
// cleared. Returns ST_OK, or ST_BAD_PARAM for a null pointer, a row that
// check_row refuses, or first + count past the width; on a refusal dst is
// untouched.
int32_t expand_row_checked(const uint8_t* runs, size_t available_bytes, uint32_t width, uint32_t first, uint32_t count,
                           uint8_t* dst);

// The row at `row` with its pixels in reverse order, written to out (which
// must not overlap it); returns the bytes written, mirrored_row_bytes(row).
// An even count means the row ends with a 1-run, so the mirrored row starts
// with a 0 word; a 0 first word (the row starts with a 1-pixel) is dropped.
size_t mirror_row(const uint8_t* row, uint8_t* out);

// Bytes mirror_row writes for the row at `row`: at most 2 more than its own.
inline uint64_t mirrored_row_bytes(const uint8_t* row) {
    const uint32_t n = run_count(row);
    if (n == 0) return kCountBytes + 2;
    const uint64_t kept = n - (run_word(row, 0) == 0 ? 1u : 0u);
    return kCountBytes + 2 * (kept + (n % 2 == 0 ? 1 : 0));
}

}  // namespace zk::rle
