// Row loops shared by the copying operations: a bitmap opened for a row loop
// (global storage locked for the loop, rows addressed directly when the
// storage allows it) and the bit extraction of a rectangle that starts
// inside a byte.
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#pragma once

#include <cstdint>
#include <cstring>

#include "bitmap_handle.h"

namespace zk {

// Locks global storage for the lifetime of the object (Z_LockBitmap /
// Z_UnlockBitmap, which leave every other kind alone) and tells whether the
// rows can be reached through Data. The row cursor is put back at the end, so
// a bitmap that is only read comes out of a copy exactly as it went in.
class RowPort {
public:
    explicit RowPort(BitmapHandle* b)
        : b_(b), was_locked_(Z_LockBitmap(b)), cur_row_(b->CurRow), cur_offset_(b->CurRowOffset) {
        const uint32_t indirect = BF_TILED | BF_COMPRESSED | BF_SUPERCOMPRESSED;
        direct_ = (b->Flags & BF_MEMORY) && !(b->Flags & indirect) && b->Data != nullptr;
    }
    ~RowPort() {
        Z_UnlockBitmap(b_, was_locked_);
        b_->CurRow = cur_row_;
        b_->CurRowOffset = cur_offset_;
    }
    RowPort(const RowPort&) = delete;
    RowPort& operator=(const RowPort&) = delete;

    bool direct() const { return direct_; }
    uint8_t* row(uint32_t r) const { return b_->Data + static_cast<size_t>(r) * b_->BytesPerLine; }

private:
    BitmapHandle* b_;
    int32_t was_locked_;
    uint32_t cur_row_;
    size_t cur_offset_;
    bool direct_ = false;
};

// Copies `bits` bits starting at bit `offset` of `in` (a row of `in_bytes`
// bytes, pixels packed from the most significant bit) to the start of `out`,
// and zeroes the rest of `out` up to `out_bytes`.
void extract_bits(uint8_t* out, uint32_t out_bytes, const uint8_t* in, uint32_t in_bytes, uint64_t offset,
                  uint64_t bits);

}  // namespace zk
