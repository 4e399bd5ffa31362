// Flip and mirror by moving pixels: the row workers, Z_FlipBitmap and
// Z_ReverseBitmap with their overlays.
#include "flip.h"

#include <cstring>
#include <memory>
#include <optional>

#include "bitmap_handle.h"
#include "core/platform/x86_intrinsics.h"
#include "mirror.h"
#include "region.h"
#include "rows/row_stream.h"
#include "storage.h"
#include "thread_state.h"

namespace zk::geometry {
namespace {

struct FreeDeleter {
    void operator()(uint8_t* p) const { Z_Free(p); }
};
using Buffer = std::unique_ptr<uint8_t, FreeDeleter>;

bool transposed(uint32_t perspective) { return perspective >= 5 && perspective <= 8; }

// Storage to work on, and a row length that holds the width.
bool workable(const BitmapHandle* b) { return allocated(b) && geometry_consistent(*b); }

#if ZK_X86_TIERS
// 64 bytes of each at a time in 32-byte registers: the wider loads and
// stores keep more lines in flight than 16-byte ones (an in-place flip of a
// 64 MiB image ran at 0.8 x a copy of it with these, 1.2 x with them).
__attribute__((target("avx2"))) size_t swap_bytes_avx2(uint8_t* p, uint8_t* q, size_t n) {
    size_t i = 0;
    for (; i + 64 <= n; i += 64) {
        const __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i));
        const __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 32));
        const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q + i));
        const __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q + i + 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + i), b0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + i + 32), b1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(q + i), a0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(q + i + 32), a1);
    }
    return i;
}
#endif

// Exchanges the n bytes at p and q.
void swap_bytes(uint8_t* p, uint8_t* q, size_t n) {
    size_t i = 0;
#if ZK_X86_TIERS
    if (n >= 64 && platform::cpu_tier() >= platform::CpuTier::AVX2) i = swap_bytes_avx2(p, q, n);
#endif
    for (; i + 32 <= n; i += 32) {
        uint8_t t[32];
        std::memcpy(t, p + i, 32);
        std::memcpy(p + i, q + i, 32);
        std::memcpy(q + i, t, 32);
    }
    for (; i < n; ++i) {
        const uint8_t t = p[i];
        p[i] = q[i];
        q[i] = t;
    }
}

// One pass of a row operation over a bitmap. Every step either completes or
// leaves its rows as they were, so a pass that fails half-way can be undone
// by repeating the steps already done: each operation is its own inverse.
class RowPass {
public:
    RowPass(BitmapHandle& b, RowOp op)
        : bitmap_(b),
          op_(op),
          width_(static_cast<uint32_t>(b.Width)),
          bpp_(b.BitsPerPixel),
          bpl_(b.BytesPerLine),
          height_(static_cast<uint32_t>(b.Height)) {}

    int32_t run(bool report) {
        stream_.emplace(bitmap_);
        if (op_ != RowOp::Mirror && height_ >= 2 && !stream_->rows_stay_put()) {
            buffer_.reset(static_cast<uint8_t*>(Z_Malloc(bpl_ ? bpl_ : 1)));
            if (!buffer_) return ST_NO_MEMORY;
        }
        const uint32_t steps = op_ == RowOp::Mirror ? height_ : height_ / 2;
        std::optional<Progress> progress;
        if (report) {
            progress.emplace(steps);
            const int32_t r = progress->start();
            if (r != ST_OK) return r;
        }
        for (uint32_t k = 0; k < steps; ++k) {
            int32_t r = step(k);
            if (r == ST_OK && progress) r = progress->step();
            if (r != ST_OK) {
                // A stop by the callback keeps the rows exchanged or
                // mirrored so far (a half turn, which must be whole or
                // nothing, puts them back); a failure puts back the steps
                // before k, step k having left its rows as they were.
                if (step_done_ && op_ != RowOp::HalfTurn) return r;
                undo(step_done_ ? k + 1 : k);
                return r;
            }
        }
        // The middle row of a half turn is mirrored in place.
        if (op_ == RowOp::HalfTurn && (height_ & 1)) {
            const int32_t r = transform_row(height_ / 2);
            if (r != ST_OK) {
                undo(steps);
                return r;
            }
        }
        return ST_OK;
    }

    // Repeats the first `steps` steps, which puts their rows back.
    void undo(uint32_t steps) {
        // A new stream: a stream keeps reporting its first failure.
        stream_.reset();
        stream_.emplace(bitmap_);
        for (uint32_t k = 0; k < steps; ++k) step(k);
    }
    // Puts back a whole pass (the middle row of a half turn included).
    void undo_all() {
        const uint32_t steps = op_ == RowOp::Mirror ? height_ : height_ / 2;
        undo(steps);
        if (op_ == RowOp::HalfTurn && (height_ & 1)) transform_row(height_ / 2);
    }

private:
    int32_t step(uint32_t k) {
        step_done_ = false;
        const int32_t r = op_ == RowOp::Mirror ? transform_row(k) : exchange(k, height_ - 1 - k);
        step_done_ = r == ST_OK;
        return r;
    }

    void transform(uint8_t* row) const {
        if (op_ != RowOp::Flip) mirror_row_exact(row, width_, bpp_);
    }

    int32_t failed() const { return stream_->status() != ST_OK ? stream_->status() : ST_FILE_WRITE; }

    // Mirrors one row in place (in the kind's own form where it has one).
    int32_t transform_row(uint32_t row) {
        if (ops_ && ops_->mirror_row) return ops_->mirror_row(bitmap_, row);
        uint8_t* p = stream_->write(row, true);
        if (!p) return failed();
        transform(p);
        if (stream_->commit() != ST_OK) return failed();
        return ST_OK;
    }

    // Rows top and bottom change places (each mirrored for a half turn).
    // Where rows stay put the two are exchanged in place; elsewhere only one
    // row pointer is held at a time: the top row goes into the buffer
    // first. On failure both rows are as they were.
    int32_t exchange(uint32_t top, uint32_t bottom) {
        if (ops_ && ops_->exchange_rows) return exchange_entries(top, bottom);
        if (stream_->rows_stay_put()) {  // both rows at once, each byte read and written once
            uint8_t* t = stream_->write(top);
            uint8_t* q = t ? stream_->write(bottom) : nullptr;
            if (!q) return failed();
            swap_bytes(t, q, bpl_);
            transform(t);
            transform(q);
            return ST_OK;
        }
        uint8_t* a = buffer_.get();
        const uint8_t* t = stream_->read(top);
        if (!t) return failed();
        std::memcpy(a, t, bpl_);
        transform(a);
        uint8_t* q = stream_->write(bottom, true);
        if (!q) return failed();
        transform(q);
        swap_bytes(q, a, bpl_);  // q: the new bottom row; a: the new top row
        if (stream_->commit() != ST_OK) return failed();
        uint8_t* w = stream_->write(top);
        int32_t r = ST_OK;
        if (w) {
            std::memcpy(w, a, bpl_);
            if (stream_->commit() == ST_OK) return ST_OK;
        }
        r = failed();
        // The bottom row was stored: put its old bytes back.
        transform(a);
        if (uint8_t* back = stream_->write(bottom)) {
            std::memcpy(back, a, bpl_);
            stream_->commit();
        }
        return r;
    }

    // Rows that change places without moving their pixels (each then
    // mirrored in its own form for a half turn); on failure both rows are
    // as they were.
    int32_t exchange_entries(uint32_t top, uint32_t bottom) {
        if (const int32_t r = ops_->exchange_rows(bitmap_, top, bottom); r != ST_OK) return r;
        if (op_ == RowOp::Flip) return ST_OK;
        int32_t r = transform_row(top);
        if (r == ST_OK) {
            if ((r = transform_row(bottom)) == ST_OK) return ST_OK;
            transform_row(top);
        }
        ops_->exchange_rows(bitmap_, top, bottom);
        return r;
    }

    BitmapHandle& bitmap_;
    const storage::KindOps* ops_ = storage::kind_ops(bitmap_);
    std::optional<rows::RowStream> stream_;  // the one open stream over the bitmap
    RowOp op_;
    uint32_t width_;
    int32_t bpp_;
    uint32_t bpl_;
    uint32_t height_;
    Buffer buffer_;
    bool step_done_ = false;
};

// The pass, then the hook that lets the region follow; a refusing hook has
// the pixels put back.
template <typename Hook>
int32_t pass_then_hook(BitmapHandle* b, RowOp op, bool report, Hook hook) {
    if (!workable(b)) return ST_INVALID_BITMAP;
    RowPass pass(*b, op);
    int32_t r = pass.run(report);
    if (r != ST_OK) return r;
    r = hook();
    if (r != ST_OK) pass.undo_all();
    return r;
}

// Overlays nested in overlays are followed this deep at most (a table that
// lists its own bitmap would otherwise never end).
constexpr int kMaxOverlayDepth = 16;
thread_local int g_overlay_depth = 0;

// Flips (vertical) or mirrors the displayed image of an allocated bitmap of
// the right record size, with its overlays.
int32_t flip_displayed(BitmapHandle* b, bool vertical) {
    auto* table = static_cast<OverlayTable*>(b->Overlays);
    if (table && table->size != kOverlayTableSize) return ST_BAD_STRUCT_SIZE;
    if (g_overlay_depth >= kMaxOverlayDepth) return ST_BAD_PARAM;

    const bool rows_reversed = vertical != transposed(b->ViewPerspective);
    auto main_op = [&] { return rows_reversed ? flip_row_order(b, true) : mirror_rows(b, true); };
    int32_t r = main_op();
    if (r != ST_OK || !table) return r;

    // Displayed height (flip) or width (mirror) of the main image.
    const bool swap = transposed(b->ViewPerspective);
    const int64_t extent = vertical ? (swap ? b->Width : b->Height) : (swap ? b->Height : b->Width);
    ProgressOff quiet;
    ++g_overlay_depth;
    auto apply = [&](OverlayEntry& e) { return vertical ? Z_FlipBitmap(e.bitmap) : Z_ReverseBitmap(e.bitmap); };
    uint32_t done = 0;
    for (; done < kOverlayEntries; ++done) {
        OverlayEntry& e = table->entries[done];
        if (!(e.flags & kOverlayTakesPart) || !e.bitmap) continue;
        r = apply(e);
        if (r != ST_OK) break;
        const BitmapHandle& o = *e.bitmap;
        if (vertical) {
            // The overlay's displayed height.
            const int64_t own = transposed(o.ViewPerspective) ? o.Width : o.Height;
            e.top = static_cast<int32_t>(extent - e.top - own);
        } else {
            // The overlay's Width whatever its perspective.
            e.left = static_cast<int32_t>(extent - o.Width - e.left);
        }
    }
    if (r != ST_OK) {
        // Put back the overlays already done, then the main bitmap.
        for (uint32_t i = 0; i < done; ++i) {
            OverlayEntry& e = table->entries[i];
            if (!(e.flags & kOverlayTakesPart) || !e.bitmap) continue;
            const BitmapHandle& o = *e.bitmap;
            if (vertical) {
                const int64_t own = transposed(o.ViewPerspective) ? o.Width : o.Height;
                e.top = static_cast<int32_t>(extent - e.top - own);
            } else {
                e.left = static_cast<int32_t>(extent - o.Width - e.left);
            }
            apply(e);
        }
        main_op();
    }
    --g_overlay_depth;
    return r;
}

}  // namespace

int32_t flip_row_order(BitmapHandle* bitmap, bool report) {
    return pass_then_hook(bitmap, RowOp::Flip, report, [&] { return region::rows_flipped(bitmap); });
}

int32_t mirror_rows(BitmapHandle* bitmap, bool report) {
    return pass_then_hook(bitmap, RowOp::Mirror, report, [&] { return region::rows_mirrored(bitmap); });
}

int32_t half_turn(BitmapHandle* bitmap, bool after_flip) {
    return pass_then_hook(bitmap, after_flip ? RowOp::Mirror : RowOp::HalfTurn, false, [&] {
        if (after_flip) {
            const int32_t r = region::rows_flipped(bitmap);
            if (r != ST_OK) return r;
        }
        return region::rotated(bitmap, bitmap->Width, bitmap->Height, 18000);
    });
}

ProgressOff::ProgressOff() {
    ThreadState& s = thread_state();
    callback_ = s.status_callback;
    user_ = s.status_user;
    s.status_callback = nullptr;
    s.status_user = nullptr;
}

ProgressOff::~ProgressOff() {
    ThreadState& s = thread_state();
    s.status_callback = callback_;
    s.status_user = user_;
}

}  // namespace zk::geometry

extern "C" int32_t Z_API Z_FlipBitmap(BitmapHandle* bitmap) {
    if (!bitmap || !(bitmap->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return zk::geometry::flip_displayed(bitmap, true);
}

extern "C" int32_t Z_API Z_ReverseBitmap(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!(bitmap->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    return zk::geometry::flip_displayed(bitmap, false);
}
