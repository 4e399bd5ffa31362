// The run-length row codec and its six exports.
//
// Compressing reads the packed bits eight bytes at a time as one 64-bit word
// with pixel j in bit j, so that the places where a pixel differs from the
// one before it (the run boundaries) are the set bits of w ^ (w << 1). A
// word without such a bit (all white or all black, most of a text page) is
// passed over at once; the others give their boundaries lowest first through
// countr_zero, each closing the run before it.
//
// Expanding writes 64 pixels at a time: the runs set their bits in a word,
// which is stored (most significant bit first) once full; runs that cover
// whole words store them directly.
#include "run_length.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "bitmap_handle.h"

namespace zk::rle {
namespace {

// ---------------------------------------------------------------------------
// Writing run words.

// Writes words one after another from `p`, trusting the caller's buffer.
struct WordWriter {
    uint8_t* p;
    uint8_t* start;
    explicit WordWriter(uint8_t* out) : p(out), start(out) {}
    void put(uint32_t v) {
        const auto w = static_cast<uint16_t>(v);
        std::memcpy(p, &w, sizeof w);
        p += sizeof w;
    }
    uint64_t words() const { return static_cast<uint64_t>(p - start) / 2; }
};

// Writes words while `capacity` words have room and counts all of them.
struct BoundedWordWriter {
    uint8_t* out;
    uint64_t capacity;
    uint64_t n = 0;
    void put(uint32_t v) {
        if (n < capacity) {
            const auto w = static_cast<uint16_t>(v);
            std::memcpy(out + 2 * n, &w, sizeof w);
        }
        ++n;
    }
    uint64_t words() const { return n; }
};

// Writes the words of one run of `length` pixels that starts at bit `start`
// of the source (bits counted from the first source byte's most significant
// bit). The run's word takes the pixels of its first byte, then those of
// each following byte; before a byte that would take it past 65535 it is
// written, a 0 word follows and a new word starts with that byte. Runs that
// fit one word (nearly all) are written at once.
template <class Out>
inline void put_run(Out& out, uint64_t length, uint64_t start) {
    if (length <= kMaxRunWord) [[likely]] {
        out.put(static_cast<uint32_t>(length));
        return;
    }
    const uint64_t head = 8 - (start & 7);  // below length here
    const uint64_t tail = (start + length) & 7;
    uint64_t bytes = (length - head - tail) / 8;  // whole bytes after the first
    uint64_t word = head;
    for (;;) {
        const uint64_t take = std::min(bytes, (kMaxRunWord - word) / 8);
        word += 8 * take;
        bytes -= take;
        if (bytes == 0) break;
        out.put(static_cast<uint32_t>(word));
        out.put(0);
        word = 0;
    }
    if (tail != 0) {
        if (word + tail > kMaxRunWord) {
            out.put(static_cast<uint32_t>(word));
            out.put(0);
            word = 0;
        }
        word += tail;
    }
    out.put(static_cast<uint32_t>(word));
}

// ---------------------------------------------------------------------------
// Reading packed bits.

// Reverses the bits of each byte, so that pixel j of 8 bytes read in memory
// order lies in bit j.
constexpr uint64_t reverse_bits_in_bytes(uint64_t v) {
    v = ((v >> 1) & 0x5555555555555555u) | ((v & 0x5555555555555555u) << 1);
    v = ((v >> 2) & 0x3333333333333333u) | ((v & 0x3333333333333333u) << 2);
    return ((v >> 4) & 0x0F0F0F0F0F0F0F0Fu) | ((v & 0x0F0F0F0F0F0F0F0Fu) << 4);
}

// Pixels 8i .. 8i + 63 of `n` bytes (byte k in bits 8k .. 8k + 7), pixel j
// in bit j; bytes past the n given read as 0.
inline uint64_t load_pixels(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    if (n >= 8) {
        std::memcpy(&v, p, 8);
        if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap64(v);
    } else {
        for (size_t k = 0; k < n; ++k) v |= uint64_t{p[k]} << (8 * k);
    }
    return reverse_bits_in_bytes(v);
}

// Compresses pixels `offset` .. offset + count - 1 of src (offset < 8) into
// out's run words, where the source bytes start at bit 0: the leading
// `offset` bits are taken as 0-pixels whose run is not counted, so the row's
// first word holds the 0-pixels from bit `offset` on. The writer is taken and
// given back by value: as a local its position stays in a register, where
// the byte stores of the words could otherwise change it.
template <class Out>
Out compress_bits(const uint8_t* src, uint32_t offset, uint64_t count, Out out) {
    const uint64_t total = offset + count;
    const auto bytes = static_cast<size_t>((total + 7) / 8);
    uint64_t run_start = offset;  // bit where the open run began
    uint64_t last = 0;            // the pixel before the current word, in bit 0
    uint64_t base = 0;            // bit of the current word's pixel 0
    for (size_t i = 0; i < bytes; i += 8, base += 64) {
        uint64_t w = load_pixels(src + i, bytes - i);
        if (i == 0) w &= ~uint64_t{0} << offset;
        uint64_t edges = w ^ ((w << 1) | last);
        last = w >> 63;
        if (total - base < 64) edges &= (uint64_t{1} << (total - base)) - 1;
        while (edges != 0) {
            const uint64_t at = base + static_cast<unsigned>(std::countr_zero(edges));
            put_run(out, at - run_start, run_start);
            run_start = at;
            edges &= edges - 1;
        }
    }
    put_run(out, total - run_start, run_start);
    return out;
}

// ---------------------------------------------------------------------------
// Writing packed bits.

// Stores pixels into dst's (count + 7) / 8 bytes, 64 at a time, most
// significant bit first; bits past the count stay 0. `fill` is the colour of
// a run: all ones or all zeros.
class PackedRowWriter {
public:
    PackedRowWriter(uint8_t* dst, uint64_t count) : dst_(dst), count_(count), whole_(count / 64 * 64) {}

    bool full() const { return pos_ == count_; }

    // Whether put_short takes a run of `length` pixels: one shorter than a
    // word that ends inside the whole words of the row.
    bool short_run(uint64_t length) const { return length < 64 && pos_ + length < whole_; }

    // Adds a short run without a branch: the current word is stored as if
    // the run completed it (a later store overwrites it when not), and the
    // word after it is started when the run reaches into it.
    void put_short(uint64_t fill, uint64_t length) {
        const uint64_t end = pos_ + length;
        const uint64_t from_pos = fill & (~uint64_t{0} >> (pos_ & 63));
        const uint64_t before_end = ~(~uint64_t{0} >> (end & 63));  // 0 when end starts a word
        store(pos_ / 64, word_ | from_pos);
        word_ = (end / 64 != pos_ / 64) ? fill & before_end : word_ | (from_pos & before_end);
        pos_ = end;
    }

    // Adds a run of any length, cut at the count.
    void put(uint64_t fill, uint64_t length) {
        length = std::min(length, count_ - pos_);
        const auto off = static_cast<unsigned>(pos_ & 63);
        if (off + length < 64) {
            word_ |= fill & (~uint64_t{0} >> off) & ~(~uint64_t{0} >> (off + length));
            pos_ += length;
            return;
        }
        // The run completes the current word, then fills whole ones.
        store(pos_ / 64, word_ | (fill & (~uint64_t{0} >> off)));
        pos_ += 64 - off;
        length -= 64 - off;
        if (length >= 64) {
            const uint64_t words = length / 64;
            std::memset(dst_ + pos_ / 8, static_cast<int>(fill & 0xFF), static_cast<size_t>(words * 8));
            pos_ += words * 64;
            length -= words * 64;
        }
        word_ = fill & ~(~uint64_t{0} >> length);
        pos_ += length;
    }

    // Writes the bytes not yet stored: the started word and the zeros of the
    // pixels no run reached.
    void finish() {
        const uint64_t done = pos_ / 64 * 8;  // bytes of the words before pos_
        const uint64_t bytes = (count_ + 7) / 8;
        if (done >= bytes) return;
        uint64_t v = word_;
        if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
        const uint64_t left = bytes - done;
        std::memcpy(dst_ + done, &v, static_cast<size_t>(std::min<uint64_t>(left, 8)));
        if (left > 8) std::memset(dst_ + done + 8, 0, static_cast<size_t>(left - 8));
    }

private:
    void store(uint64_t word, uint64_t v) {
        if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
        std::memcpy(dst_ + word * 8, &v, 8);
    }

    uint8_t* dst_;
    uint64_t count_;
    uint64_t whole_;  // pixels in the row's whole words
    uint64_t pos_ = 0;
    uint64_t word_ = 0;  // pixels of word pos_ / 64 so far, the first in bit 63
};

// Expands `count` pixels from pixel `first` of the n run words at `words`
// into dst, reading none of the words past the n-th: runs skipped before the
// first pixel, the rest of the run it falls in, then whole runs, the last
// cut at the count. Pixels the runs do not reach are 0. Run i is a 1-run
// when i is odd.
void expand_words(const uint8_t* words, uint32_t n, uint64_t first, uint64_t count, uint8_t* dst) {
    auto word = [words](uint32_t i) {
        uint16_t w;
        std::memcpy(&w, words + 2 * size_t{i}, sizeof w);
        return w;
    };
    auto fill = [](uint32_t i) { return uint64_t{0} - (i & 1); };
    PackedRowWriter out(dst, count);
    uint32_t i = 0;
    for (; i < n; ++i) {
        const uint16_t length = word(i);
        if (first < length) {
            out.put(fill(i), length - first);
            ++i;
            break;
        }
        first -= length;
    }
    for (; i < n; ++i) {
        const uint16_t length = word(i);
        if (out.short_run(length)) [[likely]] {
            out.put_short(fill(i), length);
        } else {
            out.put(fill(i), length);
            if (out.full()) break;
        }
    }
    out.finish();
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
    expand_words(runs + kCountBytes, run_count(runs), first, count, dst);
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
    zk::rle::expand_words(runs + zk::rle::kCountBytes, zk::rle::run_count(runs), first, count, buffer);
    return ST_OK;
}

extern "C" int32_t Z_API Z_ExpandRows(const uint8_t* runs, uint8_t* image, uint32_t width, uint32_t rows) {
    if (!runs || !image) return ST_BAD_PARAM;
    const auto stride = static_cast<size_t>(zk::padded_row_bytes(width, 1));
    for (uint32_t y = 0; y < rows; ++y, image += stride) {
        const uint32_t n = zk::rle::run_count(runs);
        zk::rle::expand_words(runs + zk::rle::kCountBytes, n, 0, width, image);
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
