// The run-length row codec and its six exports.
//
// Compressing goes through the packed bits eight bytes at a time, read as a
// 64-bit word with the first pixel in the top bit, so that the places where
// a pixel differs from the one before it (the run boundaries) are the set
// bits of w ^ (w >> 1 | last). A word without such a bit (all white or all
// black, most of a text page) only lengthens the open run. A word with a few
// boundaries gives them first to last through countl_zero, each closing the
// run before it. A word with many (halftones, noise) is taken a byte at a
// time through the byte-run table: the byte's first run lengthens the open
// run when its top bit has the run's colour, and its runs are stored as
// eight words at once, of which as many count as the byte has runs.
//
// Expanding marks the pixels where a new run begins, a byte per pixel, for
// up to 4096 pixels at a time, then turns the marks into packed bits: eight
// marks become a byte with one multiplication (with AVX2, 32 marks become
// bits at once by their top bits), and a running exclusive or over the
// marks gives the pixels. Each run then costs an addition and a
// store, whatever its length; stretches that no run boundary falls in are
// filled whole.
#include "run_length.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "bitmap_handle.h"
#include "platform/x86_intrinsics.h"

namespace zk::rle {
namespace {

// ---------------------------------------------------------------------------
// Writing run words.

// Writes words one after another from `p`, trusting the caller's buffer.
struct WordWriter {
    uint8_t* p;
    uint8_t* start;
    explicit WordWriter(uint8_t* out) : p(out), start(out) {}
    void put_words(const uint16_t* w, size_t n) {
        std::memcpy(p, w, 2 * n);
        p += 2 * n;
    }
    uint64_t words() const { return static_cast<uint64_t>(p - start) / 2; }
};

// Writes words while `capacity` words have room and counts all of them.
struct BoundedWordWriter {
    uint8_t* out;
    uint64_t capacity;
    uint64_t n = 0;
    void put_words(const uint16_t* w, size_t count) {
        if (n < capacity) std::memcpy(out + 2 * n, w, 2 * static_cast<size_t>(std::min<uint64_t>(count, capacity - n)));
        n += count;
    }
    uint64_t words() const { return n; }
};

// ---------------------------------------------------------------------------
// Reading packed bits.

// 8 bytes from p as one word, the first byte in the top 8 bits.
inline uint64_t load_msb_first(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    return v;
}

// Words gather in a block on the stack before they go to the row: a byte
// step stores eight words past the open one whatever the byte's runs, which
// the row (sized to the words that count) has no room for. The block is
// passed on before it can run out: a word of source bytes adds at most 8
// words a byte, 2 more where a long run splits, and the 8 a step stores.
constexpr size_t kStageWords = 512;
constexpr size_t kPassOnAt = kStageWords - 8 * 10 - 16;
// Boundaries up to which a word of source bytes is taken boundary by
// boundary rather than byte by byte.
constexpr int kFewBoundaries = 6;

// Set bits of v, counted without relying on an instruction for it.
inline int count_bits(uint64_t v) {
    v -= (v >> 1) & 0x5555555555555555u;
    v = (v & 0x3333333333333333u) + ((v >> 2) & 0x3333333333333333u);
    v = (v + (v >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    return static_cast<int>((v * 0x0101010101010101u) >> 56);
}

// What a whole byte does to a row being compressed, for each colour of the
// open run (the first 256 entries for an open 0-run) and each byte value,
// from the byte's runs: `extends` pixels (its first run, when that has the
// open run's colour) lengthen the open run, the `added` runs after them
// follow as new words, and the last of those (`last` pixels) is then the
// open run.
struct alignas(32) ByteStep {
    uint16_t appended[8];
    uint16_t extends;
    uint16_t added;
    uint16_t last;
};

constexpr std::array<ByteStep, 512> make_byte_steps() {
    std::array<ByteStep, 512> steps{};
    for (unsigned colour = 0; colour < 2; ++colour)
        for (unsigned b = 0; b < 256; ++b) {
            const ByteRuns& runs = kByteRuns[b];
            ByteStep& step = steps[colour * 256 + b];
            const unsigned skip = (b >> 7) == colour ? 1 : 0;
            step.extends = skip ? runs.length[0] : 0;
            step.added = static_cast<uint16_t>(runs.count - skip);
            for (unsigned k = skip; k < runs.count; ++k) step.appended[k - skip] = runs.length[k];
            step.last = runs.length[runs.count - 1];
        }
    return steps;
}

constexpr std::array<ByteStep, 512> kByteSteps = make_byte_steps();

// Compresses pixels `offset` .. offset + count - 1 of src (offset < 8) into
// out's run words, where the source bytes start at bit 0. The leading
// `offset` bits are cleared and taken as 0-pixels, and the open word starts
// at -offset (modulo 2^32), so that the row's first word counts only the
// 0-pixels from bit `offset` on. The writer is taken and given back by
// value: as a local its position stays in a register.
template <class Out>
Out compress_bits(const uint8_t* src, uint32_t offset, uint64_t count, Out out) {
    const uint64_t total = offset + count;
    const uint64_t whole = total / 8;  // bytes taken whole
    const auto rest = static_cast<unsigned>(total % 8);
    uint16_t stage[kStageWords];
    size_t p = 0;                 // where the open word goes in stage
    uint32_t open = 0u - offset;  // the open run's word
    uint32_t colour = 0;          // the open run's colour

    auto put = [&](uint32_t v) { stage[p++] = static_cast<uint16_t>(v); };
    // Adds the `pixels` of a byte's first run to the open run, which has its
    // colour. When the word would pass 65535 it is closed first and an empty
    // run of the other colour keeps the colours in turn. (On the first byte
    // the open word wraps back to the pixels past the offset, which a byte
    // cannot take past the limit.)
    auto add_first_run = [&](uint32_t pixels) {
        if (open + pixels > kMaxRunWord) [[unlikely]] {
            put(open);
            put(0);
            open = 0;
        }
        open += pixels;
    };
    // Lengthens the open run by pixels from .. to - 1 of a word of source
    // bytes (counted from its first pixel), a byte's first run at a time
    // once the word could pass the limit.
    auto extend = [&](uint32_t from, uint32_t to) {
        if (open + (to - from) <= kMaxRunWord) [[likely]] {
            open += to - from;
            return;
        }
        while (from < to) {
            const uint32_t byte_end = std::min(to, (from & ~7u) + 8);
            add_first_run(byte_end - from);
            from = byte_end;
        }
    };
    // One whole byte through the byte-run table: its first run goes to the
    // open word when it has the open run's colour; the words of its other
    // runs (or of all of them) are stored as eight words after the open one,
    // and the last run the byte has becomes the open one.
    auto byte_step = [&](uint32_t b) {
        const ByteStep& step = kByteSteps[colour * 256 + b];
        uint32_t first = open + step.extends;
        if (first > kMaxRunWord) [[unlikely]] {
            put(open);
            put(0);
            first = step.extends;
        }
        stage[p] = static_cast<uint16_t>(first);
        std::memcpy(stage + p + 1, step.appended, 16);
        open = step.added != 0 ? step.last : first;
        p += step.added;
        colour = b & 1;
    };
    // The last `bits` pixels (1-7) of the row, the top bits of byte b.
    auto last_bits = [&](uint32_t b, uint32_t bits) {
        const ByteRuns& runs = kByteRuns[b];
        for (uint32_t k = 0, at = 0; at < bits; ++k) {
            const uint32_t pixels = std::min<uint32_t>(runs.length[k], bits - at);
            if (((b >> (7 - at)) & 1) == colour) {  // the first run, continuing
                add_first_run(pixels);
            } else {
                put(open);
                open = pixels;
                colour ^= 1;
            }
            at += pixels;
        }
    };

    uint64_t i = 0;
    if (whole != 0) {
        byte_step(src[0] & kRightMask[offset]);
        i = 1;
    }
    for (; i + 8 <= whole; i += 8) {
        if (p >= kPassOnAt) {
            out.put_words(stage, p);
            p = 0;
        }
        const uint64_t v = load_msb_first(src + i);
        uint64_t edges = v ^ ((v >> 1) | (uint64_t{colour} << 63));
        if (edges == 0) {
            if (open + 64 <= kMaxRunWord) [[likely]] {
                open += 64;
                continue;
            }
        } else if (count_bits(edges) <= kFewBoundaries) {
            uint32_t from = 0;
            do {
                const auto at = static_cast<uint32_t>(std::countl_zero(edges));
                extend(from, at);
                put(open);
                open = 0;
                from = at;
                edges &= ~(uint64_t{1} << 63 >> at);
            } while (edges != 0);
            extend(from, 64);
            colour = static_cast<uint32_t>(v & 1);
            continue;
        }
        for (uint64_t k = 0; k < 8; ++k) byte_step(src[i + k]);
    }
    if (p >= kPassOnAt) {
        out.put_words(stage, p);
        p = 0;
    }
    for (; i < whole; ++i) byte_step(src[i]);
    if (rest != 0) last_bits(whole == 0 ? src[0] & kRightMask[offset] : src[whole], rest);
    put(open);
    out.put_words(stage, p);
    return out;
}

// ---------------------------------------------------------------------------
// Writing packed bits.

// Pixels marked at a time.
constexpr uint64_t kMarkPixels = 4096;

// The colour (0 or all ones) of pixel 63 of a word of pixels, first in the
// top bit.
inline uint64_t last_colour(uint64_t pixels) { return 0 - (pixels & 1); }

// Stores a word of pixels, the first in the top bit, as 8 bytes.
inline void store_msb_first(uint8_t* p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

#if ZK_X86_TIERS
// The whole 64-pixel words of pack_marks, `words` of them, 32 marks at a
// time: the marks of each 8 pixels reversed (so that the first lands in
// bit 7 of its byte) and gathered by their top bits. Returns the colour of
// the last pixel.
__attribute__((target("avx2"))) uint64_t pack_marks_avx2(uint8_t* marks, uint64_t words, uint64_t colour,
                                                         uint8_t* dst) {
    const __m256i reverse = _mm256_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1,
                                             0, 15, 14, 13, 12, 11, 10, 9, 8);
    for (uint64_t i = 0; i < words; ++i, marks += 64, dst += 8) {
        const __m256i lo = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(marks));
        const __m256i hi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(marks + 32));
        uint64_t word = colour;
        if (!_mm256_testz_si256(_mm256_or_si256(lo, hi), _mm256_or_si256(lo, hi))) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(marks), _mm256_setzero_si256());
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(marks + 32), _mm256_setzero_si256());
            // Byte k holds the marks of pixels 8k .. 8k + 7 from bit 7 down.
            uint64_t m =
                static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_slli_epi16(_mm256_shuffle_epi8(lo, reverse), 7)));
            m |= uint64_t{static_cast<uint32_t>(
                     _mm256_movemask_epi8(_mm256_slli_epi16(_mm256_shuffle_epi8(hi, reverse), 7)))}
                 << 32;
            // Each bit the exclusive or of those before it in its byte, then
            // of the bytes before it: bit 0 of a byte is then its parity, and
            // the sum of the parities below each byte is at most 7.
            m ^= (m >> 1) & 0x7F7F7F7F7F7F7F7Fu;
            m ^= (m >> 2) & 0x3F3F3F3F3F3F3F3Fu;
            m ^= (m >> 4) & 0x0F0F0F0F0F0F0F0Fu;
            const uint64_t below = ((m & 0x0101010101010101u) * 0x0101010101010100u) & 0x0101010101010101u;
            word ^= m ^ below * 0xFF;
        }
        std::memcpy(dst, &word, 8);
        colour = 0 - ((word >> 56) & 1);
    }
    return colour;
}
#endif

// Turns the marks of `pixels` pixels (one byte each, 1 where the pixel
// differs from the one before it; 0 past the pixels up to a multiple of 64)
// into packed pixels at dst, `colour` (0 or all ones) being the colour
// before the first; bits past the pixels in the last byte are 0. The marks
// are left 0. Returns the colour of the last pixel. With `vector` the whole
// words go through the AVX2 kernel.
uint64_t pack_marks(uint8_t* marks, uint64_t pixels, uint64_t colour, uint8_t* dst, bool vector) {
    uint64_t at = 0;
#if ZK_X86_TIERS
    if (vector) {
        colour = pack_marks_avx2(marks, pixels / 64, colour, dst);
        at = pixels / 64 * 64;
    }
#else
    (void)vector;
#endif
    for (marks += at; at < pixels; at += 64, marks += 64) {
        uint64_t m[8], any = 0;
        std::memcpy(m, marks, sizeof m);
        for (const uint64_t v : m) any |= v;
        uint64_t word = colour;
        if (any != 0) {
            std::memset(marks, 0, sizeof m);
            // Mark k of each 8 (bytes 0 or 1, the first at the lowest
            // address) goes to bit 7 - k of a byte through a product whose
            // partial products never meet; then each bit is made the
            // exclusive or of those before it.
            uint64_t changes = 0;
            for (uint64_t v : m) {
                if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap64(v);
                changes = (changes << 8) | ((v * 0x8040201008040201u) >> 56);
            }
            for (unsigned shift = 1; shift < 64; shift *= 2) changes ^= changes >> shift;
            word ^= changes;
        }
        if (pixels - at >= 64) {
            store_msb_first(dst + at / 8, word);
        } else {
            word &= ~(~uint64_t{0} >> (pixels - at));
            uint8_t bytes[8];
            store_msb_first(bytes, word);
            std::memcpy(dst + at / 8, bytes, static_cast<size_t>((pixels - at + 7) / 8));
        }
        colour = last_colour(word);
    }
    return colour;
}

// Sets `pixels` pixels from dst on (dst at a byte's first pixel) to `colour`
// (0 or all ones); bits past them in the last byte are 0.
void fill_pixels(uint8_t* dst, uint64_t pixels, uint64_t colour) {
    const auto bytes = static_cast<size_t>((pixels + 7) / 8);
    std::memset(dst, static_cast<int>(colour & 0xFF), bytes);
    if (pixels % 8 != 0) dst[bytes - 1] &= kLeftMask[pixels % 8];
}

// Room to mark a block of pixels, 0 wherever a row may mark it: cleared
// once as far as the widest row given reaches, and left so by every row.
struct MarkBlock {
    explicit MarkBlock(uint64_t widest) {
        std::memset(marks, 0, static_cast<size_t>(std::min(kMarkPixels, (widest + 63) / 64 * 64)));
    }
    uint8_t marks[kMarkPixels];
};

// Expands `count` pixels from pixel `first` of the n run words at `words`
// into dst, reading none of the words past the n-th: runs skipped before the
// first pixel, the rest of the run it falls in, then whole runs, the last
// cut at the count. Pixels the runs do not reach are 0. Run i is a 1-run
// when i is odd. `marks` is a MarkBlock's.
void expand_words(const uint8_t* words, uint32_t n, uint64_t first, uint64_t count, uint8_t* dst, uint8_t* marks) {
    auto length_at = [](const uint8_t* p) {
        uint16_t w;
        std::memcpy(&w, p, sizeof w);
        return w;
    };
    if (count == 0) return;
    const uint8_t* const end = words + 2 * size_t{n};
    // `colour` (0 or all ones) runs from the first pixel to `change`, the
    // first boundary; none is found when the first pixel is past the runs.
    uint64_t colour = 0, change = UINT64_MAX;
    const uint8_t* w = words;  // the next run
    for (; w != end; w += 2) {
        const uint16_t length = length_at(w);
        if (first < length) {
            colour = 0 - uint64_t{(static_cast<size_t>(w - words) / 2) & 1};
            change = length - first;
            w += 2;
            break;
        }
        first -= length;
    }
#if ZK_X86_TIERS
    const bool vector = platform::cpu_tier() >= platform::CpuTier::AVX2;
#else
    const bool vector = false;
#endif
    for (uint64_t base = 0; base < count;) {
        const uint64_t pixels = std::min(kMarkPixels, count - base);
        if (change >= base + pixels) {
            // No boundary here, nor up to the block that holds the next.
            const uint64_t to = change >= count ? count : base + (change - base) / kMarkPixels * kMarkPixels;
            fill_pixels(dst + base / 8, to - base, colour);
            base = to;
            continue;
        }
        uint64_t at = change - base;
        marks[at] ^= 1;
        for (;;) {
            // Four runs at a time while they end inside the block (their
            // ends summed in pairs, so that the block's position waits on
            // one addition); their boundaries are toggled, so that an empty
            // run undoes the mark of the run before it.
            for (; end - w >= 8; w += 8) {
                const uint32_t w0 = length_at(w), w01 = w0 + length_at(w + 2);
                const uint32_t w2 = length_at(w + 4), w23 = w2 + length_at(w + 6);
                const uint64_t a = at + w0, b = at + w01, c = b + w2, d = at + (w01 + w23);
                if (d >= pixels) break;
                marks[a] ^= 1;
                marks[b] ^= 1;
                marks[c] ^= 1;
                marks[d] ^= 1;
                at = d;
            }
            if (w == end) {
                // After the last run the pixels are 0: when that run was a
                // 1-run its end stays marked, else its mark is undone.
                if (n % 2 != 0) marks[at] ^= 1;
                change = UINT64_MAX;
                break;
            }
            const uint64_t next = at + length_at(w);
            w += 2;
            if (next >= pixels) {
                change = base + next;
                break;
            }
            at = next;
            marks[at] ^= 1;
        }
        colour = pack_marks(marks, pixels, colour, dst + base / 8, vector);
        base += pixels;
    }
}

// Writes the row count in front of its words.
void put_count(uint8_t* row, uint64_t n) {
    const auto count = static_cast<uint32_t>(n);
    std::memcpy(row, &count, sizeof count);
}

}  // namespace

size_t compressed_size_bound(uint32_t width) {
    if (width > kMaxRowPixels) return 0;
    const uint64_t bytes = kCountBytes + 2 * (uint64_t{width} + 1);
    return bytes > SIZE_MAX ? 0 : static_cast<size_t>(bytes);
}

int32_t compress_row(const uint8_t* packed, uint32_t width, uint8_t* out, size_t capacity, size_t* written) {
    if (!packed || !out || !written || width > kMaxRowPixels) return ST_BAD_PARAM;
    const size_t bound = compressed_size_bound(width);
    uint64_t n;
    if (bound != 0 && capacity >= bound) {
        n = compress_bits(packed, 0, width, WordWriter(out + kCountBytes)).words();
    } else {
        const uint64_t room = capacity < kCountBytes ? 0 : (capacity - kCountBytes) / 2;
        n = compress_bits(packed, 0, width, BoundedWordWriter{out + kCountBytes, room}).words();
    }
    const uint64_t bytes = kCountBytes + 2 * n;
    *written = static_cast<size_t>(std::min<uint64_t>(bytes, SIZE_MAX));
    if (bytes > capacity) return ST_TOO_LARGE;
    put_count(out, n);
    return ST_OK;
}

int32_t check_row(const uint8_t* runs, size_t available_bytes, uint32_t width, size_t* bytes) {
    if (!runs || available_bytes < kCountBytes) return ST_BAD_PARAM;
    const uint32_t n = run_count(runs);
    if (n > (available_bytes - kCountBytes) / 2) return ST_BAD_PARAM;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < n && sum <= width; ++i) sum += run_word(runs, i);
    if (sum != width) return ST_BAD_PARAM;
    if (bytes) *bytes = kCountBytes + 2 * size_t{n};
    return ST_OK;
}

int32_t expand_row_checked(const uint8_t* runs, size_t available_bytes, uint32_t width, uint32_t first, uint32_t count,
                           uint8_t* dst) {
    if (!dst || uint64_t{first} + count > width) return ST_BAD_PARAM;
    if (const int32_t status = check_row(runs, available_bytes, width, nullptr); status != ST_OK) return status;
    MarkBlock block(count);
    expand_words(runs + kCountBytes, run_count(runs), first, count, dst, block.marks);
    return ST_OK;
}

size_t mirror_row(const uint8_t* row, uint8_t* out) {
    const uint32_t n = run_count(row);
    const uint32_t kept = n == 0 ? 0 : n - (run_word(row, 0) == 0 ? 1 : 0);
    uint8_t* p = out + kCountBytes;
    if (n % 2 == 0) {
        std::memset(p, 0, 2);
        p += 2;
    }
    // The last `kept` words, last first.
    const uint8_t* q = row + kCountBytes + 2 * size_t{n};
    for (uint32_t i = 0; i < kept; ++i, p += 2) {
        q -= 2;
        std::memcpy(p, q, 2);
    }
    const size_t words = static_cast<size_t>(p - out - kCountBytes) / 2;
    put_count(out, words);
    return kCountBytes + 2 * words;
}

}  // namespace zk::rle

// ---------------------------------------------------------------------------
// Exports.

extern "C" int32_t Z_API Z_ExpandRow(const uint8_t* runs, uint8_t* buffer, uint32_t first, uint32_t count) {
    if (!runs || !buffer) return ST_BAD_PARAM;
    zk::rle::MarkBlock block(count);
    zk::rle::expand_words(runs + zk::rle::kCountBytes, zk::rle::run_count(runs), first, count, buffer, block.marks);
    return ST_OK;
}

extern "C" int32_t Z_API Z_ExpandRows(const uint8_t* runs, uint8_t* image, uint32_t width, uint32_t rows) {
    if (!runs || !image) return ST_BAD_PARAM;
    const auto stride = static_cast<size_t>(zk::padded_row_bytes(width, 1));
    zk::rle::MarkBlock block(rows == 0 ? 0 : width);
    for (uint32_t y = 0; y < rows; ++y, image += stride) {
        const uint32_t n = zk::rle::run_count(runs);
        zk::rle::expand_words(runs + zk::rle::kCountBytes, n, 0, width, image, block.marks);
        runs += zk::rle::kCountBytes + 2 * size_t{n};
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_CompressRow(uint8_t* runs, const uint8_t* buffer, uint32_t bitOffset, uint32_t count) {
    if (!runs || !buffer || count > zk::rle::kMaxRowPixels) return ST_BAD_PARAM;
    const auto words =
        zk::rle::compress_bits(buffer, bitOffset & 7, count, zk::rle::WordWriter(runs + zk::rle::kCountBytes));
    zk::rle::put_count(runs, words.words());
    return static_cast<int32_t>(count);
}

extern "C" int32_t Z_API Z_CompressRows(uint8_t* runs, const uint8_t* image, uint32_t width, uint32_t rows) {
    if (!runs || !image || width > zk::rle::kMaxRowPixels) return ST_BAD_PARAM;
    const auto stride = static_cast<size_t>(zk::padded_row_bytes(width, 1));
    for (uint32_t y = 0; y < rows; ++y, image += stride) {
        const auto words = zk::rle::compress_bits(image, 0, width, zk::rle::WordWriter(runs + zk::rle::kCountBytes));
        zk::rle::put_count(runs, words.words());
        runs = words.p;
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_MirrorCompressedBuffer(const uint8_t* source, uint8_t* dest, uint32_t rows) {
    if (!source || !dest) return ST_BAD_PARAM;
    for (uint32_t y = 0; y < rows; ++y) {
        dest += zk::rle::mirror_row(source, dest);
        source += zk::rle::row_bytes(source);
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_FlipCompressedBuffer(const uint8_t* source, uint8_t* dest, uint32_t rows) {
    if (!source || !dest) return ST_BAD_PARAM;
    size_t total = 0;
    const uint8_t* row = source;
    for (uint32_t y = 0; y < rows; ++y) {
        const auto bytes = static_cast<size_t>(zk::rle::row_bytes(row));
        total += bytes;
        row += bytes;
    }
    // Each row, taken in order, goes just below the one before it.
    uint8_t* end = dest + total;
    for (uint32_t y = 0; y < rows; ++y) {
        const auto bytes = static_cast<size_t>(zk::rle::row_bytes(source));
        end -= bytes;
        std::memcpy(end, source, bytes);
        source += bytes;
    }
    return ST_OK;
}
