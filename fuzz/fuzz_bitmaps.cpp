// Drives bitmaps of arbitrary dimensions and depths through creation, row
// access, rectangle copies, trims, height changes, whole copies and buffer
// conversion, in conventional, caller, tiled and disk storage, under small
// memory thresholds and with allocation, mapping and file failures injected
// where the input asks for them.
//
// Dimensions cover the whole 32-bit range, including negatives, values near
// 2^31 and widths whose bit count passes a multiple of 2^32. Every size the
// library reports is checked against sizes computed here in 64 bits; storage
// is made only for bitmaps of at most kMaxBytes, but larger dimensions still
// go through every call that only describes them or must refuse them.
//
// Each live bitmap has a model of its bytes. Every call must return ST_OK (or
// the bytes it moved) or a documented negative status; a refused or failed
// call leaves the bitmap it works on as it was, a failed copy leaves its
// destination unallocated, and a copy never changes its source record. After
// each input every bitmap is compared with its model and freed, and no
// temporary file, descriptor or shared mapping may remain.
//
// Input: a few bytes of thresholds, then up to kMaxOps operations of one
// code byte (its value modulo 12 selects the operation; values from 0xB0 up
// also lower the file-size limit or arm an allocation, mapping or file
// failure for the call) and their arguments. The reader gives zeros once the
// input runs out. ZK_FUZZ_TRACE=1 prints the calls an input makes.
#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_storage.h"
#include "platform/platform.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;
namespace pf = zk::platform;

// Storage is made only for bitmaps of at most this many bytes and rows (row
// loops over files cost a system call or two per row).
constexpr uint64_t kMaxBytes = 256 * 1024;
constexpr int64_t kMaxRows = 2048;
// Longest transfer of one row call, and largest conversion buffer.
constexpr uint32_t kMaxTransfer = 1 << 16;
constexpr int32_t kMaxConvert = 2048;
// Sizes every build must accept: rows up to 1 GiB, images up to 1 TiB.
constexpr uint64_t kSureRow = uint64_t{1} << 30;
constexpr uint64_t kSureSize = uint64_t{1} << 40;
constexpr int kSlots = 3;
constexpr int kMaxOps = 24;

constexpr int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
constexpr int32_t kOddDepths[] = {0, 9, 10, 11, 13, 15, 17, 31, 33, 63, 65, 96, 128, -1, -8, INT32_MIN, INT32_MAX};
constexpr uint32_t kTypes[] = {TYPE_CONV,   TYPE_TILED,       TYPE_DISK, TYPE_USER,  TYPE_CONV | TYPE_NOTILE,
                               TYPE_NOTILE, TYPE_MEMORY_ONLY, TYPE_CONV, TYPE_TILED, TYPE_DISK};
constexpr uint32_t kOddTypes[] = {0, 3, 5, 16, 129, 512, 513, 1024, 1025, 0x80000000u, 0xFFFFFFFFu};
// Dimensions at the edges of 32-bit arithmetic.
constexpr int64_t kEdges[] = {0,          1,          -1,         INT32_MIN,  INT32_MAX,  INT32_MAX - 1, 0x40000000,
                              0x3FFFFFFF, 0x20000000, 0x10000000, 0x7FFFFFF8, 0x7FFFFFE0, 0x55555556,    0x2AAAAAAB,
                              178956971,  178956970,  0x08000000, 0x04000000, 65536,      65537,         46341};
constexpr int32_t kStatuses[] = {ST_NO_MEMORY,    ST_INVALID_BITMAP, ST_FILE_SEEK, ST_FILE_WRITE, ST_FILE_READ,
                                 ST_BAD_POSITION, ST_BAD_PARAM,      ST_BAD_BPP,   ST_TEMP_FILE,  ST_TOO_LARGE};
// What the copy-status callback returns to stop a copy: a status the copies
// do not return on their own.
constexpr int32_t kStopStatus = ST_FILE_SEEK;

// ZK_FUZZ_TRACE set in the environment prints every call and its result,
// which turns a saved input into a reproducer.
const bool g_trace = std::getenv("ZK_FUZZ_TRACE") != nullptr;

__attribute__((format(printf, 1, 2))) void trace(const char* format, ...) {
    if (!g_trace) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

template <typename T, size_t N>
constexpr size_t count_of(const T (&)[N]) {
    return N;
}

bool documented(int32_t status) {
    return std::find(std::begin(kStatuses), std::end(kStatuses), status) != std::end(kStatuses);
}

bool valid_depth(int64_t bpp) { return std::find(std::begin(kDepths), std::end(kDepths), bpp) != std::end(kDepths); }

int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v))); }

// Padded row length, in 64 bits (exact for widths below 2^31 and depths
// below 2^32).
uint64_t row_bytes(int64_t width, int64_t bpp) {
    return ((static_cast<uint64_t>(width) * static_cast<uint64_t>(bpp) + 31) >> 3) & ~uint64_t{3};
}

// ---------------------------------------------------------------------------
// Choosing values.

int32_t depth(Reader& in) {
    const uint32_t v = in.take(1);
    if (v < 224) return kDepths[v % count_of(kDepths)];
    if (v < 248) return kOddDepths[v % count_of(kOddDepths)];
    return static_cast<int32_t>(in.take(4));
}

// A dimension; `unit` is what one step of it costs (bits per pixel for a
// width, bytes per row for a height), so that some choices make the product
// pass a multiple of 2^32 by a little.
int32_t dimension(Reader& in, uint64_t unit) {
    switch (in.take(1) % 10) {
        case 0:
        case 1:
        case 2:
        case 3: return static_cast<int32_t>(in.take(1) % 80);
        case 4: return static_cast<int32_t>(in.take(2) % 4096);
        case 5:
        case 6: return wrap32(kEdges[in.take(1) % count_of(kEdges)] + static_cast<int8_t>(in.take(1)));
        case 7: {
            const uint64_t multiple = 1 + in.take(1) % 4;
            return wrap32(static_cast<int64_t>((multiple << 32) / std::max<uint64_t>(unit, 1)) +
                          static_cast<int8_t>(in.take(1)));
        }
        case 8: return static_cast<int32_t>(in.take(4));
        default: return -static_cast<int32_t>(in.take(1) % 16);
    }
}

uint32_t memory_type(Reader& in) {
    const uint32_t v = in.take(1);
    if (v < 232) return kTypes[v % count_of(kTypes)];
    return kOddTypes[v % count_of(kOddTypes)];
}

// Whether Z_AllocateBitmap, after adjusting the type as it does, makes
// storage of it from memory and temporary files alone (the run-length kind
// is checked and freed at once; the second compressed form is refused).
bool plain_type(uint32_t type, int32_t bpp) {
    if (type & TYPE_COMPRESSED) type = bpp == 1 ? 0x300u : (type & ~TYPE_COMPRESSED);
    if ((type & TYPE_SUPERCOMPRESSED) && bpp != 24 && bpp != 1) type &= ~TYPE_SUPERCOMPRESSED;
    switch (type) {
        case 1:
        case 2:
        case 4:
        case 8:
        case 9:
        case 128:
        case 256: return true;
        default: return false;
    }
}

// A type that a copy can fill: caller memory is attached later, so a copy
// into it has nowhere to put the rows.
bool fillable_type(uint32_t type, int32_t bpp) { return type != TYPE_USER && plain_type(type, bpp); }

bool accepted_type(uint32_t type, int32_t bpp) {
    if (plain_type(type, bpp)) return true;
    if (type & TYPE_COMPRESSED) type = bpp == 1 ? 0x300u : (type & ~TYPE_COMPRESSED);
    if ((type & TYPE_SUPERCOMPRESSED) && bpp != 24 && bpp != 1) type &= ~TYPE_SUPERCOMPRESSED;
    return type == 768 || type == 1024 || type == 1025;
}

// A row index: mostly inside the bitmap or just past it, sometimes anywhere.
uint32_t pick_row(Reader& in, int32_t height) {
    if (in.take(1) < 224) return in.take(2) % (static_cast<uint32_t>(height) + 2);
    return in.take(4);
}

uint32_t pick_column(Reader& in, int32_t width) {
    if (in.take(1) < 224) return in.take(2) % (static_cast<uint32_t>(width) + 8);
    return in.take(4);
}

// A signed position or extent near a bitmap side, or anywhere.
int32_t pick_signed(Reader& in, int32_t side) {
    const uint32_t v = in.take(1);
    if (v < 192) return static_cast<int32_t>(in.take(1) % (static_cast<uint32_t>(side) + 3)) - 1;
    if (v < 224) return wrap32(kEdges[v % count_of(kEdges)]);
    return static_cast<int32_t>(in.take(4));
}

// ---------------------------------------------------------------------------
// Bits, most significant first.

bool get_bit(const uint8_t* p, uint64_t bit) { return (p[bit >> 3] >> (7 - (bit & 7))) & 1; }

void set_bit(uint8_t* p, uint64_t bit, bool v) {
    const uint8_t m = static_cast<uint8_t>(0x80u >> (bit & 7));
    p[bit >> 3] = static_cast<uint8_t>(v ? (p[bit >> 3] | m) : (p[bit >> 3] & ~m));
}

void copy_bits(uint8_t* dst, uint64_t dbit, const uint8_t* src, uint64_t sbit, uint64_t n) {
    if ((dbit & 7) == 0 && (sbit & 7) == 0) {
        std::memcpy(dst + (dbit >> 3), src + (sbit >> 3), static_cast<size_t>(n >> 3));
        dbit += n & ~uint64_t{7};
        sbit += n & ~uint64_t{7};
        n &= 7;
    }
    for (uint64_t k = 0; k < n; ++k) set_bit(dst, dbit + k, get_bit(src, sbit + k));
}

bool same_bits(const uint8_t* a, uint64_t abit, const uint8_t* b, uint64_t bbit, uint64_t n) {
    if ((abit & 7) == 0 && (bbit & 7) == 0) {
        if (std::memcmp(a + (abit >> 3), b + (bbit >> 3), static_cast<size_t>(n >> 3)) != 0) return false;
        abit += n & ~uint64_t{7};
        bbit += n & ~uint64_t{7};
        n &= 7;
    }
    for (uint64_t k = 0; k < n; ++k)
        if (get_bit(a, abit + k) != get_bit(b, bbit + k)) return false;
    return true;
}

void pattern(std::vector<uint8_t>& out, uint32_t seed) {
    uint32_t x = seed * 2654435761u + 1;
    for (auto& v : out) {
        x = x * 1103515245u + 12345u;
        v = static_cast<uint8_t>(x >> 23);
    }
}

// ---------------------------------------------------------------------------
// What Z_InitBitmap must do with a width, height and depth.

enum class Outcome { Ok, Refused, Either };

struct Expected {
    Outcome outcome;
    int32_t status;  // the status of a refusal; 0 when several are allowed
    uint32_t bytes_per_line;
    uint64_t size;
};

Expected expect_init(int32_t w, int32_t h, int32_t bpp) {
    if (w == 0 && h == 0 && bpp == 0) return {Outcome::Ok, ST_OK, 0, 0};
    if (!valid_depth(bpp)) return {Outcome::Refused, ST_BAD_BPP, 0, 0};
    if (w < 0 || h < 0) return {Outcome::Refused, 0, 0, 0};
    const uint64_t row = row_bytes(w, bpp);
    if (row > UINT32_MAX) return {Outcome::Refused, ST_TOO_LARGE, 0, 0};
    const uint64_t size = row * static_cast<uint64_t>(h);  // below 2^63
    if (size > static_cast<uint64_t>(PTRDIFF_MAX) || size > SIZE_MAX) return {Outcome::Refused, ST_TOO_LARGE, 0, 0};
    const Outcome o = row <= kSureRow && size <= kSureSize ? Outcome::Ok : Outcome::Either;
    return {o, ST_OK, static_cast<uint32_t>(row), size};
}

// Only StructSize may be set in a record that a refused Z_InitBitmap left.
bool empty_record(const BitmapHandle& b) {
    BitmapHandle z;
    std::memset(&z, 0, sizeof z);
    z.StructSize = b.StructSize;
    return b.StructSize == static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE) && std::memcmp(&z, &b, sizeof z) == 0;
}

// The record after a successful description of w x h at bpp.
void check_described(const BitmapHandle& b, int32_t w, int32_t h, int32_t bpp, const Expected& e) {
    check(b.StructSize == static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE));
    check(b.Width == w && b.Height == h && b.BitsPerPixel == bpp);
    check(b.BytesPerLine == e.bytes_per_line && b.BytesPerLine % 4 == 0);
    check(uint64_t{b.BytesPerLine} >= (static_cast<uint64_t>(w) * static_cast<uint64_t>(bpp) + 7) / 8);
    check(b.Size == e.size && static_cast<uint64_t>(b.Size) == uint64_t{b.BytesPerLine} * static_cast<uint64_t>(h));
}

// The whole-record geometry of an allocated bitmap.
void check_geometry(const BitmapHandle& b) {
    check(b.Flags & BF_ALLOCATED);
    check(b.Width >= 0 && b.Height >= 0 && valid_depth(b.BitsPerPixel));
    check(b.BytesPerLine == row_bytes(b.Width, b.BitsPerPixel));
    check(static_cast<uint64_t>(b.Size) == uint64_t{b.BytesPerLine} * static_cast<uint64_t>(b.Height));
}

// ---------------------------------------------------------------------------
// Injected failures and the copy-status callback.

// Failures the input asks for around one call: the n-th allocation, mapping
// or file call fails, or the file-size limit is lowered (a full disk), under
// which a write to a disk bitmap may also stop short.
struct Faults {
    bool armed = false;
    bool limited = false;
    std::optional<zkfuzz::FileSizeLimit> limit;

    void arm(Reader& in, uint32_t code) {
        const uint32_t f = code >> 4;
        if (f == 11) {
            const uint64_t bytes = 8192 + 8 * uint64_t{in.take(2)};
            limit.emplace(bytes);
            if (!limit->active()) return;
            trace("  [file-size limit %llu bytes]\n", static_cast<unsigned long long>(bytes));
            armed = limited = true;
            return;
        }
        if (f < 12) return;
        const auto kind = static_cast<pf::FaultKind>((f - 12) % 3);
        const int nth = static_cast<int>(1 + in.take(1) % 16);
        pf::inject_failure(kind, nth);
        trace("  [failure %d of kind %d armed]\n", nth, static_cast<int>(kind));
        armed = true;
    }
    void disarm() {
        limit.reset();
        if (!armed) return;
        for (auto k : {pf::FaultKind::Allocation, pf::FaultKind::Mapping, pf::FaultKind::File})
            pf::inject_failure(k, 0);
    }
};

int32_t g_stop_after = 0;  // calls of the copy-status callback before it stops the copy; 0 never
bool g_stopped = false;

int32_t Z_API stop_copy(int32_t, void*) {
    if (g_stop_after > 0 && --g_stop_after == 0) {
        g_stopped = true;
        return kStopStatus;
    }
    return ST_OK;
}

struct CopyWatch {
    bool on = false;
    void start(Reader& in) {
        const uint32_t v = in.take(1);
        g_stopped = false;
        if (v < 192) return;
        g_stop_after = static_cast<int32_t>(1 + v % 8);
        trace("  [copy-status callback stops at call %d]\n", g_stop_after);
        check(Z_SetCopyStatusCallBack(stop_copy, nullptr, nullptr, nullptr) == ST_OK);
        on = true;
    }
    ~CopyWatch() {
        if (on) Z_SetCopyStatusCallBack(nullptr, nullptr, nullptr, nullptr);
        g_stop_after = 0;
    }
};

// ---------------------------------------------------------------------------
// Bitmaps and their models.

struct Slot {
    BitmapHandle b;
    bool live = false;
    std::vector<uint8_t> pixels;  // Size bytes: what the bitmap holds
    std::vector<uint8_t> caller;  // pixel memory of caller-memory bitmaps
};

void release(Slot& s) {
    if (s.live) {
        Z_FreeBitmap(&s.b);
        check(!(s.b.Flags & BF_ALLOCATED));
    }
    s.live = false;
    std::memset(&s.b, 0, sizeof s.b);
    s.pixels.clear();
}

bool tiled(const Slot& s) { return (s.b.Flags & BF_TILED) != 0; }

// The whole image in one call: a count longer than a row runs on through the
// following rows.
std::vector<uint8_t> read_all(Slot& s) {
    std::vector<uint8_t> out(s.b.Size);
    check(Z_GetBitmapRow(&s.b, out.data(), 0, static_cast<uint32_t>(s.b.Size)) == static_cast<int32_t>(s.b.Size));
    return out;
}

void verify(Slot& s) {
    check_geometry(s.b);
    check(s.pixels.size() == s.b.Size);
    check(read_all(s) == s.pixels);
}

void resync(Slot& s) {
    check_geometry(s.b);
    s.pixels = read_all(s);
}

void check_memory_info(Slot& s) {
    uint32_t type = 0, tile = 0, count = 0, mem = 0, max_mapped = 0, mapped = 0;
    check(Z_GetBitmapMemoryInfo(&s.b, &type, &tile, &count, &mem, &max_mapped, &mapped) == ST_OK);
    const uint32_t f = s.b.Flags;
    if (f & BF_TILED) {
        check(type == TYPE_TILED && (f & BF_MEMORY));
        check(s.b.BytesPerLine > 0 && tile % s.b.BytesPerLine == 0);
        const uint64_t rows = tile / s.b.BytesPerLine;
        check(rows > 0 && count == (static_cast<uint64_t>(s.b.Height) + rows - 1) / rows);
        check(mem <= count && mapped <= max_mapped && max_mapped <= count);
    } else if (f & BF_MEMORY) {
        check(type == TYPE_CONV && !(f & BF_DISK));
    } else {
        check(type == TYPE_DISK && (f & BF_DISK));
    }
}

// Storage of the kind asked for, or one it may fall back to.
void check_kind(const BitmapHandle& b, uint32_t type) {
    const uint32_t f = b.Flags;
    check(f & BF_ALLOCATED);
    if (type == TYPE_DISK) check((f & BF_DISK) && !(f & BF_MEMORY));
    if (type == TYPE_USER) check(f & BF_USER_DATA);
    if (type == TYPE_MEMORY_ONLY) check(!(f & BF_DISK));
    if (type & TYPE_NOTILE) check(!(f & BF_TILED));
}

// Fills a new bitmap with a pattern through one put of the whole image.
void fill(Slot& s, uint32_t seed) {
    s.pixels.assign(s.b.Size, 0);
    pattern(s.pixels, seed);
    check(Z_PutBitmapRow(&s.b, s.pixels.data(), 0, static_cast<uint32_t>(s.b.Size)) == static_cast<int32_t>(s.b.Size));
    check_memory_info(s);
}

bool small_enough(uint64_t size, int64_t height) { return size <= kMaxBytes && height <= kMaxRows; }

// ---------------------------------------------------------------------------
// The operations.

struct Run {
    Reader in;
    Slot slots[kSlots];
    Faults faults;

    int id(const Slot& s) const { return static_cast<int>(&s - slots); }

    // Sometimes a tile size that splits the next bitmap into two to four
    // tiles, for that bitmap only: every tile on disk is a file, and on some
    // file systems making files is slow enough to set the pace of the run.
    int32_t saved_tile_ = -1;
    void tiles_for(uint64_t size) {
        const uint32_t v = in.take(1);
        if (v < 128) return;
        const auto tile = static_cast<int32_t>(std::max<uint64_t>(size / (2 + v % 3), 1));
        check(Z_GetMemoryThresholds(nullptr, nullptr, &saved_tile_, nullptr, nullptr) == ST_OK);
        check(Z_SetMemoryThresholds(0, 0, tile, 0, 0, 4) == ST_OK);
        trace("Z_SetMemoryThresholds(0, 0, %d, 0, 0, 4)\n", tile);
    }
    void tiles_back() {
        if (saved_tile_ < 0) return;
        check(Z_SetMemoryThresholds(0, 0, saved_tile_, 0, 0, 4) == ST_OK);
        saved_tile_ = -1;
    }

    Slot& pick_slot() { return slots[in.take(1) % kSlots]; }
    Slot* pick_live() {
        const uint32_t first = in.take(1);
        for (int k = 0; k < kSlots; ++k)
            if (slots[(first + k) % kSlots].live) return &slots[(first + k) % kSlots];
        return nullptr;
    }
    Slot* pick_free(const Slot* not_this) {
        const uint32_t first = in.take(1);
        for (int k = 0; k < kSlots; ++k) {
            Slot& s = slots[(first + k) % kSlots];
            if (&s != not_this && !s.live) return &s;
        }
        for (int k = 0; k < kSlots; ++k) {
            Slot& s = slots[(first + k) % kSlots];
            if (&s != not_this) {
                release(s);
                return &s;
            }
        }
        return nullptr;
    }

    // Describes, then allocates when the bitmap is small, through
    // Z_InitBitmap + Z_AllocateBitmap or through Z_CreateBitmap.
    void create(uint32_t code) {
        Slot& s = pick_slot();
        release(s);
        const int32_t bpp = depth(in);
        const int32_t w = dimension(in, bpp > 0 ? static_cast<uint64_t>(bpp) : 8);
        const int32_t h = dimension(in, std::max<uint64_t>(row_bytes(w < 0 ? 0 : w, bpp > 0 ? bpp : 8), 1));
        const uint32_t type = memory_type(in);
        const uint32_t how = in.take(1);
        const uint32_t seed = in.take(2);
        if (how & 1) {
            create_bitmap(s, code, w, h, bpp, type, how);
        } else {
            init_and_allocate(s, code, w, h, bpp, type);
        }
        if (s.live) fill(s, seed);
    }

    void init_and_allocate(Slot& s, uint32_t code, int32_t w, int32_t h, int32_t bpp, uint32_t type) {
        const Expected e = expect_init(w, h, bpp);
        const int32_t r = Z_InitBitmap(&s.b, Z_BITMAPHANDLE_SIZE, w, h, bpp);
        trace("Z_InitBitmap(b%d, %d, %d, %d) = %d\n", id(s), w, h, bpp, r);
        check_init(r, s.b, w, h, bpp, e);
        if (r != ST_OK) return;
        if (w == 0 && h == 0 && bpp == 0) return;
        if (s.b.Size == 0) {
            check(Z_AllocateBitmap(&s.b, type) == ST_BAD_POSITION);
            check(!(s.b.Flags & BF_ALLOCATED));
            return;
        }
        if (!small_enough(s.b.Size, h)) return;  // described only
        tiles_for(s.b.Size);
        faults.arm(in, code);
        const int32_t a = Z_AllocateBitmap(&s.b, type);
        faults.disarm();
        tiles_back();
        trace("Z_AllocateBitmap(b%d, %u) = %d, Flags 0x%x\n", id(s), type, a, s.b.Flags);
        after_allocation(s, a, type, bpp);
        if (!s.live) return;
        if (type == TYPE_USER) {
            s.caller.assign(s.b.Size, 0);
            check(Z_SetBitmapDataPointer(&s.b, s.caller.data(), s.caller.size() + 1) == ST_BAD_PARAM);
            check(Z_SetBitmapDataPointer(&s.b, s.caller.data(), s.caller.size()) == ST_OK);
        }
    }

    void check_init(int32_t r, const BitmapHandle& b, int32_t w, int32_t h, int32_t bpp, const Expected& e) {
        if (e.outcome == Outcome::Ok) check(r == ST_OK);
        if (e.outcome == Outcome::Refused) check(r != ST_OK && (e.status == 0 || r == e.status));
        if (r == ST_OK) {
            if (w == 0 && h == 0 && bpp == 0) {
                check(empty_record(b));
            } else {
                check_described(b, w, h, bpp, e);
                check(!(b.Flags & BF_ALLOCATED));
            }
        } else {
            // Refusals: a bad depth, a negative dimension, or sizes that do
            // not fit, which are ST_TOO_LARGE and nothing else.
            check(r == ST_BAD_BPP || r == ST_BAD_PARAM || r == ST_TOO_LARGE);
            if (e.outcome == Outcome::Either) check(r == ST_TOO_LARGE);
            check(empty_record(b));
        }
    }

    // A successful allocation is tracked; a failed one leaves the record
    // without storage.
    void after_allocation(Slot& s, int32_t a, uint32_t type, int32_t bpp) {
        if (!faults.armed && plain_type(type, bpp)) check(a == ST_OK);
        if (!accepted_type(type, bpp)) check(a == ST_BAD_PARAM);
        if (a != ST_OK) {
            check(documented(a));
            check(!(s.b.Flags & BF_ALLOCATED));
            return;
        }
        check_kind(s.b, type);
        check_geometry(s.b);
        if (s.b.Flags & BF_COMPRESSED) {
            // Run-length rows (1 bit): the model here keeps every bit of a
            // row, padding included, which runs do not; the kind is driven
            // by the row, geometry and reduction targets instead.
            uint32_t reported = 0;
            check(s.b.BitsPerPixel == 1 && (s.b.Flags & BF_MEMORY));
            check(Z_GetBitmapMemoryInfo(&s.b, &reported, nullptr, nullptr, nullptr, nullptr, nullptr) == ST_OK &&
                  reported == TYPE_COMPRESSED);
            Z_FreeBitmap(&s.b);
            return;
        }
        s.live = true;
    }

    void create_bitmap(Slot& s, uint32_t code, int32_t w, int32_t h, int32_t bpp, uint32_t type, uint32_t how) {
        const int32_t d = bpp == 0 ? 8 : bpp;
        const Expected e = expect_init(w, h, d);
        // Dimensions that must be accepted but are too large to make, or
        // that may go either way, are only described.
        if (e.outcome != Outcome::Refused && (e.outcome == Outcome::Either || !small_enough(e.size, h))) {
            const int32_t r = Z_InitBitmap(&s.b, Z_BITMAPHANDLE_SIZE, w, h, d);
            trace("Z_InitBitmap(b%d, %d, %d, %d) = %d\n", id(s), w, h, d, r);
            check_init(r, s.b, w, h, d, e);
            return;
        }
        static const RGBQUAD palette[256] = {};
        const uint32_t order = (how >> 1) % 8 == 7 ? CO_ALT_BGR : (how >> 1) % 4;
        const uint32_t view = (how >> 4) % 10;
        const bool user = type == TYPE_USER && (how & 0x80);
        if (user) s.caller.assign(e.size + ((how & 0x40) ? 1 : 0), 0);
        tiles_for(e.size);
        faults.arm(in, code);
        const int32_t r =
            Z_CreateBitmap(&s.b, Z_BITMAPHANDLE_SIZE, type, w, h, bpp, order, (how & 2) ? palette : nullptr, view,
                           user ? s.caller.data() : nullptr, user ? s.caller.size() : 0);
        faults.disarm();
        tiles_back();
        trace(
            "Z_CreateBitmap(b%d, type %u, %d, %d, %d, order %u, palette %s, view %u, data %s, %zu) = %d, Flags 0x%x\n",
            id(s), type, w, h, bpp, order, (how & 2) ? "given" : "null", view, user ? "given" : "null",
            user ? s.caller.size() : size_t{0}, r, s.b.Flags);
        if (e.outcome == Outcome::Refused) {
            // Refused before anything is allocated.
            check(r != ST_OK && (e.status == 0 || r == e.status));
            check(r == ST_BAD_BPP || r == ST_BAD_PARAM || r == ST_TOO_LARGE);
            check(empty_record(s.b));
            return;
        }
        const bool order_ok = order != CO_ALT_BGR || d == 24 || d == 48;
        if (!order_ok) check(r == ST_BAD_BPP && !(s.b.Flags & BF_ALLOCATED));
        const bool must_work = order_ok && view <= 8 && e.size > 0 && !faults.armed && plain_type(type, d) &&
                               (!user || s.caller.size() == e.size);
        if (must_work) check(r == ST_OK);
        if (r != ST_OK) {
            check(documented(r));
            // Refusals after allocation (view perspective, caller memory)
            // leave the storage for the caller to free.
            if (s.b.Flags & BF_ALLOCATED) Z_FreeBitmap(&s.b);
            std::memset(&s.b, 0, sizeof s.b);
            return;
        }
        check_described(s.b, w, h, d, e);
        check_kind(s.b, type);
        check(s.b.ViewPerspective == (view == 0 ? VP_TOP_LEFT : view));
        if (s.b.Flags & BF_COMPRESSED) {  // run-length rows: not this model's (see after_allocation)
            check(d == 1);
            Z_FreeBitmap(&s.b);
            std::memset(&s.b, 0, sizeof s.b);
            return;
        }
        if (type == TYPE_USER && !user) {
            s.caller.assign(s.b.Size, 0);
            check(Z_SetBitmapDataPointer(&s.b, s.caller.data(), s.caller.size()) == ST_OK);
        }
        s.live = true;
    }

    // Get and put of whole rows and of rows from a column, checked against
    // the model: inside the image they move exactly the bytes asked for,
    // past its end they are refused and change nothing.
    void rows(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        BitmapHandle& b = s->b;
        const uint32_t kind = in.take(1) % 4;
        const bool put = kind & 1;
        const bool with_column = kind & 2;
        const uint32_t row = pick_row(in, b.Height);
        const uint32_t column = with_column ? pick_column(in, b.Width) : 0;
        const uint64_t offset =
            uint64_t{row} * b.BytesPerLine + ((uint64_t{column} * static_cast<uint32_t>(b.BitsPerPixel)) >> 3);
        const uint64_t rest = offset < b.Size ? b.Size - offset : 0;
        uint32_t bytes;
        switch (in.take(1) % 6) {
            case 0: bytes = b.BytesPerLine; break;
            case 1: bytes = static_cast<uint32_t>(std::min<uint64_t>(rest, kMaxTransfer)); break;
            case 2: bytes = static_cast<uint32_t>(std::min<uint64_t>(rest + 1, kMaxTransfer)); break;
            case 3: bytes = in.take(1); break;
            default: bytes = in.take(2) % kMaxTransfer; break;
        }
        std::vector<uint8_t> buffer(bytes ? bytes : 1);
        pattern(buffer, in.take(2));
        const bool inside = offset + bytes <= b.Size;
        faults.arm(in, code);
        int32_t r;
        if (put) {
            r = with_column ? Z_PutBitmapRowCol(&b, buffer.data(), row, column, bytes)
                            : Z_PutBitmapRow(&b, buffer.data(), row, bytes);
        } else {
            r = with_column ? Z_GetBitmapRowCol(&b, buffer.data(), row, column, bytes)
                            : Z_GetBitmapRow(&b, buffer.data(), row, bytes);
        }
        faults.disarm();
        trace(
            "Z_%sBitmapRow%s(b%d, buffer, row %u, column %u, %u bytes) = %d (%d x %d x %d, %u per row, size %zu, "
            "flags 0x%x)\n",
            put ? "Put" : "Get", with_column ? "Col" : "", id(*s), row, column, bytes, r, b.Width, b.Height,
            b.BitsPerPixel, b.BytesPerLine, b.Size, b.Flags);
        if (bytes == 0) {
            check(r == 0 || documented(r));
        } else if (!inside) {
            check(r < 0 && documented(r));
        } else if (!faults.armed) {
            check(r == static_cast<int32_t>(bytes));
        } else {
            check(r == static_cast<int32_t>(bytes) || documented(r) ||
                  (faults.limited && put && r >= 0 && r < static_cast<int32_t>(bytes)));
        }
        // The tiled kind does not report failed file transfers of tiles it
        // cannot map: under injected failures its content is read back.
        const bool trusted = !faults.armed || !tiled(*s);
        if (r > 0 && put) {
            std::memcpy(s->pixels.data() + offset, buffer.data(), static_cast<size_t>(r));
            if (!trusted) resync(*s);
        } else if (r > 0 && trusted) {
            check(std::memcmp(buffer.data(), s->pixels.data() + offset, bytes) == 0);
        }
        if (put && r <= 0) verify(*s);
    }

    // Segment writes against a bit-level model: the spans take the buffer's
    // pixels, except that at 2 bits per pixel a span starting on the third
    // pixel of a byte leaves that byte's last pixel as it was.
    void segments(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        BitmapHandle& b = s->b;
        const uint32_t row = pick_row(in, b.Height);
        const uint32_t x_offset = in.take(1) < 240 ? in.take(1) % (static_cast<uint32_t>(b.Width) + 4) : in.take(4);
        uint32_t list[8];
        const uint32_t count = in.take(1) % 9;
        for (uint32_t i = 0; i < count; ++i)
            list[i] = in.take(1) < 240 ? in.take(1) % (static_cast<uint32_t>(b.Width) + 4) : in.take(4);
        std::vector<uint8_t> buffer(b.BytesPerLine);
        pattern(buffer, in.take(2));

        const uint64_t bpp = static_cast<uint32_t>(b.BitsPerPixel);
        const uint64_t row_bits = uint64_t{b.BytesPerLine} * 8;
        const uint64_t row_start = uint64_t{row} * b.BytesPerLine;
        std::vector<uint8_t> expect(s->pixels);
        bool refused = false;
        int64_t total = 0;
        for (uint32_t i = 0; i + 1 < count; i += 2) {
            const uint64_t start = list[i], end = list[i + 1];
            if (end <= start) continue;
            const uint64_t d0 = (x_offset + start) * bpp, d1 = (x_offset + end) * bpp;
            if (d1 > row_bits || row_start + b.BytesPerLine > b.Size) {
                refused = true;
                break;
            }
            uint8_t* line = expect.data() + row_start;
            const uint8_t keep = line[d0 >> 3];
            copy_bits(line, d0, buffer.data(), start * bpp, d1 - d0);
            if (bpp == 2 && (d0 & 7) == 4) line[d0 >> 3] = static_cast<uint8_t>((line[d0 >> 3] & ~3u) | (keep & 3u));
            total += static_cast<int64_t>((d1 + 7) / 8 - d0 / 8);
        }
        faults.arm(in, code);
        const int32_t r = Z_PutBitmapRowSegments(&b, buffer.data(), row, x_offset, list, count);
        faults.disarm();
        trace("Z_PutBitmapRowSegments(b%d, buffer, row %u, x %u, {", id(*s), row, x_offset);
        for (uint32_t i = 0; i < count; ++i) trace(i ? ", %u" : "%u", list[i]);
        trace("}, %u) = %d (%d x %d x %d, flags 0x%x; model %s, %lld)\n", count, r, b.Width, b.Height, b.BitsPerPixel,
              b.Flags, refused ? "refuses" : "writes", static_cast<long long>(total));
        if (refused) {
            check(r < 0 && documented(r));
        } else if (!faults.armed) {
            check(r == std::min<int64_t>(total, INT32_MAX));
        } else {
            check(r >= 0 || documented(r));
        }
        if (r >= 0 && !refused) s->pixels = expect;
        // A file failure part-way through the spans may leave the earlier
        // ones written; a refusal writes nothing.
        if (faults.armed && !refused) resync(*s);
        verify(*s);
    }

    // The expected pixels of a w x h rectangle from (left, top) of a model.
    static void check_rect(Slot& out, const std::vector<uint8_t>& src, uint32_t src_bpl, int32_t bpp, uint32_t left,
                           uint32_t top, uint32_t w, uint32_t h) {
        check(out.b.Width == static_cast<int32_t>(w) && out.b.Height == static_cast<int32_t>(h));
        check(out.b.BitsPerPixel == bpp);
        check_geometry(out.b);
        const std::vector<uint8_t> got = read_all(out);
        const uint64_t bits = uint64_t{w} * static_cast<uint32_t>(bpp);
        for (uint32_t r = 0; r < h; ++r) {
            const uint8_t* in = src.data() + uint64_t{top + r} * src_bpl;
            check(same_bits(got.data() + uint64_t{r} * out.b.BytesPerLine, 0, in,
                            uint64_t{left} * static_cast<uint32_t>(bpp), bits));
        }
        out.pixels = got;
    }

    // Z_CopyBitmapRect / Z_CopyBitmapRect2 into another record or in place.
    void rect(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        const uint32_t mode = in.take(1);
        const bool in_place = mode % 4 == 0;
        const bool typed = mode & 4;
        const uint32_t type = typed ? memory_type(in) : 0;
        const int32_t left = pick_signed(in, s->b.Width);
        const int32_t top = pick_signed(in, s->b.Height);
        const uint32_t w = static_cast<uint32_t>(pick_signed(in, s->b.Width));
        const uint32_t h = static_cast<uint32_t>(pick_signed(in, s->b.Height));
        const bool inside = left >= 0 && top >= 0 && w > 0 && h > 0 &&
                            uint64_t{static_cast<uint32_t>(left)} + w <= static_cast<uint64_t>(s->b.Width) &&
                            uint64_t{static_cast<uint32_t>(top)} + h <= static_cast<uint64_t>(s->b.Height);
        Slot* d = in_place ? s : pick_free(s);
        if (!d) return;
        CopyWatch watch;
        watch.start(in);
        const BitmapHandle before = s->b;
        const std::vector<uint8_t> src_pixels = s->pixels;
        BitmapHandle* dst = in_place ? ((mode & 8) ? &s->b : nullptr) : &d->b;
        faults.arm(in, code);
        const int32_t r = typed ? Z_CopyBitmapRect2(dst, &s->b, Z_BITMAPHANDLE_SIZE, left, top, w, h, type)
                                : Z_CopyBitmapRect(dst, &s->b, Z_BITMAPHANDLE_SIZE, left, top, w, h);
        faults.disarm();
        trace("Z_CopyBitmapRect%s(%s, b%d, %d, %d, %u, %u, type %u) = %d\n", typed ? "2" : "",
              in_place ? (dst ? "same" : "null") : "fresh", id(*s), left, top, w, h, type, r);
        const bool type_ok = !typed || fillable_type(type, before.BitsPerPixel);
        if (!inside) check(r < 0);
        if (inside && type_ok && !faults.armed && !g_stopped) check(r == ST_OK);
        if (g_stopped) check(r == kStopStatus);
        if (r != ST_OK) {
            check(documented(r) || (g_stopped && r == kStopStatus));
            if (!in_place) check(!(d->b.Flags & BF_ALLOCATED));
            check(std::memcmp(&s->b, &before, sizeof before) == 0);
            verify(*s);
            return;
        }
        if (!in_place) {
            check(std::memcmp(&s->b, &before, sizeof before) == 0);
            d->live = true;
        }
        if (typed) check_kind(d->b, type);
        if (d->b.Flags & BF_COMPRESSED) {  // run-length rows: not this model's (see after_allocation)
            check(before.BitsPerPixel == 1);
            if (!in_place) verify(*s);
            release(*d);
            return;
        }
        if (faults.armed) {
            check(d->b.Width == static_cast<int32_t>(w) && d->b.Height == static_cast<int32_t>(h));
            resync(*d);
        } else {
            check_rect(*d, src_pixels, before.BytesPerLine, before.BitsPerPixel, static_cast<uint32_t>(left),
                       static_cast<uint32_t>(top), w, h);
        }
        if (!in_place) verify(*s);
    }

    // Z_TrimBitmap: the rectangle clipped to the bitmap, the far edges from
    // the position as given.
    void trim(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        const int32_t left = pick_signed(in, s->b.Width);
        const int32_t top = pick_signed(in, s->b.Height);
        const int32_t w = pick_signed(in, s->b.Width);
        const int32_t h = pick_signed(in, s->b.Height);
        const int64_t right = std::min<int64_t>(int64_t{left} + w, s->b.Width);
        const int64_t bottom = std::min<int64_t>(int64_t{top} + h, s->b.Height);
        const int64_t l = std::max(left, 0), t = std::max(top, 0);
        const bool ok = right > l && bottom > t;
        CopyWatch watch;
        watch.start(in);
        const BitmapHandle before = s->b;
        const std::vector<uint8_t> src_pixels = s->pixels;
        faults.arm(in, code);
        const int32_t r = Z_TrimBitmap(&s->b, left, top, w, h);
        faults.disarm();
        trace("Z_TrimBitmap(b%d, %d, %d, %d, %d) = %d\n", id(*s), left, top, w, h, r);
        if (!ok) check(r < 0);
        if (ok && !faults.armed && !g_stopped) check(r == ST_OK);
        if (g_stopped) check(r == kStopStatus);
        if (r != ST_OK) {
            check(documented(r) || (g_stopped && r == kStopStatus));
            check(std::memcmp(&s->b, &before, sizeof before) == 0);
            verify(*s);
            return;
        }
        if (faults.armed) {
            check(s->b.Width == right - l && s->b.Height == bottom - t);
            resync(*s);
        } else {
            check_rect(*s, src_pixels, before.BytesPerLine, before.BitsPerPixel, static_cast<uint32_t>(l),
                       static_cast<uint32_t>(t), static_cast<uint32_t>(right - l), static_cast<uint32_t>(bottom - t));
        }
    }

    // Z_ChangeBitmapHeight: kept rows keep their bytes, added rows are zero;
    // a refusal or failure changes nothing.
    void change_height(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        BitmapHandle& b = s->b;
        int32_t h;
        switch (in.take(1) % 4) {
            case 0: h = b.Height + static_cast<int8_t>(in.take(1)) / 8; break;
            case 1: h = static_cast<int32_t>(in.take(2) % 4096); break;
            case 2: h = -static_cast<int32_t>(in.take(1) % 4); break;
            default: h = dimension(in, b.BytesPerLine); break;
        }
        // Heights that would make large storage are not asked for.
        if (h >= 1 && !small_enough(uint64_t{b.BytesPerLine} * static_cast<uint32_t>(h), h)) return;
        const BitmapHandle before = b;
        faults.arm(in, code);
        const int32_t r = Z_ChangeBitmapHeight(&b, h);
        faults.disarm();
        trace("Z_ChangeBitmapHeight(b%d, %d) = %d (was %d rows, flags 0x%x)\n", id(*s), h, r, before.Height,
              before.Flags);
        const bool user = before.Flags & BF_USER_DATA;
        if (user && h != before.Height) check(r == ST_BAD_PARAM);
        if (h < 1) check(r < 0);
        if (h == before.Height) check(r == ST_OK || (user && r == ST_BAD_PARAM));
        if (h >= 1 && !user && !faults.armed) check(r == ST_OK);
        if (r != ST_OK) {
            check(documented(r));
            check(b.Height == before.Height && b.Size == before.Size && b.BytesPerLine == before.BytesPerLine);
            check(b.Width == before.Width && b.Flags == before.Flags);
            verify(*s);
            return;
        }
        check(b.Height == h && b.Width == before.Width && b.BytesPerLine == before.BytesPerLine);
        check_geometry(b);
        s->pixels.resize(b.Size, 0);
        if (faults.armed && tiled(*s)) resync(*s);
        verify(*s);
        check_memory_info(*s);
    }

    // Z_CopyBitmap / Z_CopyBitmap2 into a free record, or onto the source.
    void copy(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        const uint32_t mode = in.take(1);
        const bool typed = mode & 1;
        const uint32_t type = typed ? memory_type(in) : 0;
        Slot* d = (mode & 6) == 6 ? s : pick_free(s);
        if (!d) return;
        CopyWatch watch;
        watch.start(in);
        const BitmapHandle before = s->b;
        faults.arm(in, code);
        const int32_t r = typed ? Z_CopyBitmap2(&d->b, &s->b, type, Z_BITMAPHANDLE_SIZE)
                                : Z_CopyBitmap(&d->b, &s->b, Z_BITMAPHANDLE_SIZE);
        faults.disarm();
        trace("Z_CopyBitmap%s(b%d, b%d, type %u) = %d\n", typed ? "2" : "", id(*d), id(*s), type, r);
        check(std::memcmp(&s->b, &before, sizeof before) == 0);
        if (d == s) {
            check(r == ST_OK);
            verify(*s);
            return;
        }
        const bool type_ok = !typed || fillable_type(type, before.BitsPerPixel);
        if (type_ok && !faults.armed && !g_stopped) check(r == ST_OK);
        if (g_stopped) check(r == kStopStatus);
        if (r != ST_OK) {
            check(documented(r) || r == kStopStatus);
            check(!(d->b.Flags & BF_ALLOCATED));
            verify(*s);
            return;
        }
        d->live = true;
        check(d->b.Width == before.Width && d->b.Height == before.Height && d->b.BitsPerPixel == before.BitsPerPixel);
        check_geometry(d->b);
        if (typed) check_kind(d->b, type);
        if (d->b.Flags & BF_COMPRESSED) {
            // A copy into run-length rows (see after_allocation): not this
            // model's; the source must be untouched.
            check(before.BitsPerPixel == 1);
            release(*d);
            verify(*s);
            return;
        }
        if (faults.armed) {
            resync(*d);
        } else {
            d->pixels = s->pixels;
            verify(*d);
        }
        verify(*s);
    }

    // Z_CopyBitmapData into a live bitmap, or into one made for it.
    void copy_data(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        const uint32_t mode = in.take(1);
        Slot* d = nullptr;
        if (mode & 1) {
            d = pick_live();
        } else {
            d = pick_free(s);
            if (!d) return;
            const uint32_t type = kTypes[in.take(1) % count_of(kTypes)];
            check(Z_InitBitmap(&d->b, Z_BITMAPHANDLE_SIZE, s->b.Width, s->b.Height, s->b.BitsPerPixel) == ST_OK);
            if (Z_AllocateBitmap(&d->b, type) != ST_OK) return;
            d->live = true;
            if (type == TYPE_USER) {
                d->caller.assign(d->b.Size, 0);
                check(Z_SetBitmapDataPointer(&d->b, d->caller.data(), d->caller.size()) == ST_OK);
            }
            resync(*d);
        }
        CopyWatch watch;
        watch.start(in);
        const BitmapHandle src_before = s->b;
        const BitmapHandle dst_before = d->b;
        faults.arm(in, code);
        const int32_t r = Z_CopyBitmapData(&d->b, &s->b);
        faults.disarm();
        trace("Z_CopyBitmapData(b%d, b%d) = %d\n", id(*d), id(*s), r);
        check(std::memcmp(&s->b, &src_before, sizeof src_before) == 0);
        const bool same =
            d->b.Width == s->b.Width && d->b.Height == s->b.Height && d->b.BitsPerPixel == s->b.BitsPerPixel;
        if (!same) check(r < 0);
        if (same && !faults.armed && !g_stopped && d != s) check(r == ST_OK);
        if (g_stopped) check(r == kStopStatus);
        check(d->b.Width == dst_before.Width && d->b.Height == dst_before.Height && d->b.Size == dst_before.Size);
        if (r != ST_OK) {
            check(documented(r) || (g_stopped && r == kStopStatus));
            // A copy stopped part-way leaves some rows copied.
            if (same) resync(*d);
            verify(*d);
            verify(*s);
            return;
        }
        if (faults.armed) {
            resync(*d);
        } else {
            d->pixels = s->pixels;
            verify(*d);
        }
        verify(*s);
    }

    // Z_DupBitmapNewDim with any dimensions, then Z_FreeDuplicateBitmap.
    void duplicate(uint32_t code) {
        Slot* s = pick_live();
        if (!s) return;
        Slot* d = pick_free(s);
        if (!d) return;
        const int32_t bpp = depth(in);
        const int32_t w = dimension(in, bpp > 0 ? static_cast<uint64_t>(bpp) : 8);
        const int32_t h = dimension(in, std::max<uint64_t>(row_bytes(w < 0 ? 0 : w, bpp > 0 ? bpp : 8), 1));
        uint32_t flags = in.take(1) & 15;
        const Expected e = expect_init(w, h, bpp);
        if (e.outcome == Outcome::Either) return;
        if ((flags & DUP_ALLOCATE) && (e.outcome != Outcome::Ok || !small_enough(e.size, h))) flags &= ~DUP_ALLOCATE;
        const BitmapHandle before = s->b;
        faults.arm(in, code);
        const int32_t r = Z_DupBitmapNewDim(&d->b, &s->b, Z_BITMAPHANDLE_SIZE, w, h, bpp, flags);
        faults.disarm();
        trace("Z_DupBitmapNewDim(b%d, b%d, %d, %d, %d, flags %u) = %d\n", id(*d), id(*s), w, h, bpp, flags, r);
        check(std::memcmp(&s->b, &before, sizeof before) == 0);
        if (e.outcome == Outcome::Refused) check(r != ST_OK && (e.status == 0 || r == e.status));
        if (e.outcome == Outcome::Ok && !faults.armed) {
            if (!(flags & DUP_ALLOCATE))
                check(r == ST_OK);
            else if (e.size == 0)
                check(r == ST_BAD_POSITION);
            else if (!(s->b.Flags & (BF_COMPRESSED | BF_SUPERCOMPRESSED)))
                check(r == ST_OK);
        }
        if (r != ST_OK) {
            check(documented(r));
            check(!(d->b.Flags & BF_ALLOCATED));
            std::memset(&d->b, 0, sizeof d->b);
            return;
        }
        if (!(w == 0 && h == 0 && bpp == 0)) check_described(d->b, w, h, bpp, e);
        check(((d->b.Flags & BF_ALLOCATED) != 0) == ((flags & DUP_ALLOCATE) != 0));
        check(Z_FreeDuplicateBitmap(&d->b, flags) == ST_OK);
        check(!(d->b.Flags & BF_ALLOCATED));
        std::memset(&d->b, 0, sizeof d->b);
        verify(*s);
    }

    // Z_CalcConvertSize against the padded row lengths, then Z_ConvertBuffer
    // into a buffer of exactly that size.
    void convert(uint32_t) {
        static const std::vector<RGBQUAD> src_palette = [] {
            std::vector<RGBQUAD> p(65536);
            for (size_t i = 0; i < p.size(); ++i) p[i] = RGBQUAD{uint8_t(i), uint8_t(i >> 8), uint8_t(i * 7), 0};
            return p;
        }();
        static const std::vector<RGBQUAD> dst_palette = [] {
            std::vector<RGBQUAD> p(256);
            for (size_t i = 0; i < p.size(); ++i) p[i] = RGBQUAD{uint8_t(i), uint8_t(255 - i), uint8_t(i * 3), 0};
            return p;
        }();
        constexpr int32_t kOrders[] = {CO_RGB, CO_BGR, CO_GRAY, CO_ALT_BGR, 3, -1};
        const int32_t src_bits = depth(in);
        const int32_t dst_bits = depth(in);
        const int32_t width = dimension(in, src_bits > 0 ? static_cast<uint64_t>(src_bits) : 8);
        const int32_t width2 = (in.take(1) & 7) == 0 ? dimension(in, 8) : width;
        const int32_t src_order = kOrders[in.take(1) % count_of(kOrders)];
        const int32_t dst_order = kOrders[in.take(1) % count_of(kOrders)];
        const uint32_t palettes = in.take(1);

        const uint64_t s = src_bits == 0 ? 8 : static_cast<uint32_t>(src_bits);
        const uint64_t d = dst_bits == 0 ? 8 : static_cast<uint32_t>(dst_bits);
        const int32_t n =
            Z_CalcConvertSize(width, static_cast<uint32_t>(src_bits), width2, static_cast<uint32_t>(dst_bits));
        trace("Z_CalcConvertSize(%d, %u, %d, %u) = %d\n", width, static_cast<uint32_t>(src_bits), width2,
              static_cast<uint32_t>(dst_bits), n);
        if (width < 0 || width2 < 0) {
            check(n == ST_BAD_PARAM || n == ST_TOO_LARGE);
        } else {
            const uint64_t want = std::max({row_bytes(width, s), row_bytes(width2, s), row_bytes(width2, d)});
            if (want > INT32_MAX)
                check(n == ST_TOO_LARGE);
            else
                check(n == static_cast<int32_t>(want));
        }
        std::vector<uint8_t> buffer;
        if (n > 0 && n <= kMaxConvert && width > 0 && width2 == width) {
            buffer.resize(static_cast<size_t>(n));
        } else if (width <= 0) {
            buffer.resize(16);  // must be refused without being touched
        } else {
            return;
        }
        pattern(buffer, in.take(2));
        const std::vector<uint8_t> before = buffer;
        const int32_t r =
            Z_ConvertBuffer(buffer.data(), width, src_bits, static_cast<uint32_t>(dst_bits), src_order,
                            static_cast<uint32_t>(dst_order), (palettes & 1) ? src_palette.data() : nullptr,
                            (palettes & 2) ? dst_palette.data() : nullptr);
        trace("Z_ConvertBuffer(buffer of %zu, %d, %d, %u, %d, %u, %s, %s) = %d\n", buffer.size(), width, src_bits,
              static_cast<uint32_t>(dst_bits), src_order, static_cast<uint32_t>(dst_order),
              (palettes & 1) ? "palette" : "null", (palettes & 2) ? "palette" : "null", r);
        check(r == ST_OK || r == ST_BAD_PARAM);
        if (width <= 0) check(r == ST_BAD_PARAM);
        if (r != ST_OK) check(buffer == before);
    }

    void finish() {
        for (Slot& s : slots) {
            if (s.live) {
                verify(s);
                check_memory_info(s);
            }
            release(s);
        }
    }
};

// Thresholds small enough that tiling and disk tiles happen at small sizes
// (a few tiles for the largest bitmaps made here), and sometimes memory
// figures that leave little room.
void set_thresholds(Reader& in) {
    const uint32_t mode = in.take(1);
    const int32_t tile_size = (mode & 7) == 0 ? 0 : static_cast<int32_t>(kMaxBytes / 4 + 4 * in.take(2));
    const int32_t max_conv = (mode & 0x18) == 0   ? 0x7FFFFFFF
                             : (mode & 0x18) == 8 ? -static_cast<int32_t>(in.take(1) % 101)
                                                  : static_cast<int32_t>(in.take(2));
    const int32_t max_mem_tiles = std::max<int32_t>(static_cast<int8_t>(in.take(1)), -100);
    const int32_t views = std::max<int32_t>(static_cast<int8_t>(in.take(1)), -100);
    const int32_t reserve = (mode & 0x20) ? std::max<int32_t>(static_cast<int8_t>(in.take(1)), -100) : 0;
    check(Z_SetMemoryThresholds(reserve, max_conv, tile_size, max_mem_tiles, views, 0x1F) == ST_OK);
    trace("Z_SetMemoryThresholds(%d, %d, %d, %d, %d, 0x1F)\n", reserve, max_conv, tile_size, max_mem_tiles, views);
    if (mode & 0x40) {
        static pf::MemoryStatus status;
        status.total_physical = uint64_t{in.take(2)} << 8;
        status.available_physical = status.total_physical / 2;
        status.total_page_file = 0;
        status.available_page_file = 0;
        pf::override_memory_status(&status);
        trace("memory figures: %llu bytes physical, %llu available, no page file\n",
              static_cast<unsigned long long>(status.total_physical),
              static_cast<unsigned long long>(status.available_physical));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zkfuzz::PrivateTempDir& temp = zkfuzz::PrivateTempDir::get();
    // Storage mappings present before the first input (none, unless the
    // runtime makes some); every input must leave exactly as many. Reading
    // the process's mappings costs more than a typical input, so they are
    // counted after one input in eight, chosen by the input's bytes so that
    // a run repeats exactly (a leak that an input shows, its mutations show
    // too, and one in eight of them is checked).
    static const int mappings = temp.count_storage_mappings();
    uint32_t hash = 2166136261u;
    for (size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 16777619u;

    int32_t saved[5];
    Z_GetMemoryThresholds(&saved[0], &saved[1], &saved[2], &saved[3], &saved[4]);
    Run run{Reader{data, size}, {}, {}};
    set_thresholds(run.in);
    for (int ops = 0; run.in.n && ops < kMaxOps; ++ops) {
        const uint32_t code = run.in.take(1);
        run.faults.armed = run.faults.limited = false;
        switch (code % 12) {
            case 0:
            case 1: run.create(code); break;
            case 2:
            case 3: run.rows(code); break;
            case 4: run.segments(code); break;
            case 5: run.rect(code); break;
            case 6: run.trim(code); break;
            case 7: run.change_height(code); break;
            case 8: run.copy(code); break;
            case 9: run.copy_data(code); break;
            case 10: run.duplicate(code); break;
            default: run.convert(code); break;
        }
    }
    run.finish();
    pf::override_memory_status(nullptr);
    Z_SetMemoryThresholds(saved[0], saved[1], saved[2], saved[3], saved[4], 0x1F);

    temp.check_clean();
    if (hash % 8 == 0) check(temp.count_storage_mappings() == mappings);
    return 0;
}
