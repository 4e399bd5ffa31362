// Row streams and build-then-replace results.
#include "row_stream.h"

#include <cstring>

#include "bitmap_handle.h"
#include "storage.h"

namespace zk::rows {

RowStream::RowStream(BitmapHandle& b)
    : b_(b), was_locked_(Z_LockBitmap(&b)), cur_row_(b.CurRow), cur_offset_(b.CurRowOffset), bpl_(b.BytesPerLine) {}

RowStream::~RowStream() {
    Z_Free(scratch_);
    Z_UnlockBitmap(&b_, was_locked_);
    b_.CurRow = cur_row_;
    b_.CurRowOffset = cur_offset_;
}

uint8_t* RowStream::direct(uint32_t index) {
    const storage::KindOps* ops = storage::kind_ops(b_);
    if (!ops || !ops->addressable) return nullptr;
    return ops->map(b_, static_cast<size_t>(uint64_t{index} * bpl_), bpl_);
}

uint8_t* RowStream::piece(uint32_t index, uint32_t column, size_t bytes) {
    const storage::KindOps* ops = storage::kind_ops(b_);
    const uint64_t offset = column_offset(b_.BitsPerPixel, column);
    if (!ops || !ops->addressable || offset > bpl_ || bytes > bpl_ - offset) return nullptr;
    return ops->map(b_, static_cast<size_t>(uint64_t{index} * bpl_ + offset), bytes);
}

int32_t RowStream::put_piece(uint32_t index, uint32_t column, const uint8_t* data, size_t bytes) {
    const int32_t put = Z_PutBitmapRowCol(&b_, data, index, column, static_cast<uint32_t>(bytes));
    if (put != static_cast<int32_t>(bytes)) status_ = put < 0 ? put : ST_FILE_WRITE;
    return status_;
}

uint8_t* RowStream::scratch() {
    if (!scratch_) scratch_ = static_cast<uint8_t*>(Z_Malloc(bpl_ ? bpl_ : 1));
    if (!scratch_) status_ = ST_NO_MEMORY;
    return scratch_;
}

const uint8_t* RowStream::read(uint32_t index) {
    if (b_.Height < 0 || index >= static_cast<uint32_t>(b_.Height)) {
        status_ = ST_BAD_PARAM;
        return nullptr;
    }
    if (const uint8_t* p = direct(index)) return p;
    uint8_t* s = scratch();
    if (!s) return nullptr;
    const int32_t got = Z_GetBitmapRow(&b_, s, index, bpl_);
    if (got != static_cast<int32_t>(bpl_)) {
        status_ = got < 0 ? got : ST_FILE_READ;
        return nullptr;
    }
    return s;
}

uint8_t* RowStream::write(uint32_t index, bool fill) {
    pending_ = UINT32_MAX;
    if (b_.Height < 0 || index >= static_cast<uint32_t>(b_.Height)) {
        status_ = ST_BAD_PARAM;
        return nullptr;
    }
    if (uint8_t* p = direct(index)) return p;
    if (fill) {
        if (!read(index)) return nullptr;
    } else if (!scratch()) {
        return nullptr;
    }
    pending_ = index;
    return scratch_;
}

bool RowStream::rows_stay_put() const {
    const storage::KindOps* ops = storage::kind_ops(b_);
    return ops && ops->rows_stay_put;
}

int32_t RowStream::commit() {
    if (pending_ == UINT32_MAX) return ST_OK;
    const uint32_t row = pending_;
    pending_ = UINT32_MAX;
    const int32_t put = Z_PutBitmapRow(&b_, scratch_, row, bpl_);
    if (put != static_cast<int32_t>(bpl_)) status_ = put < 0 ? put : ST_FILE_WRITE;
    return status_;
}

Replacement::Replacement() { std::memset(&result_, 0, sizeof result_); }

Replacement::~Replacement() {
    if (built_) Z_FreeBitmap(&result_);
}

int32_t Replacement::build_like(BitmapHandle& source, int32_t width, int32_t height, int32_t bits_per_pixel) {
    if (built_) {
        Z_FreeBitmap(&result_);
        built_ = false;
    }
    const int32_t r = Z_DupBitmapNewDim(&result_, &source, Z_BITMAPHANDLE_SIZE, width, height, bits_per_pixel,
                                        DUP_ALLOCATE | DUP_PALETTE | DUP_REGION | DUP_OVERLAYS);
    built_ = r == ST_OK;
    return r;
}

void Replacement::commit(BitmapHandle& target) {
    if (!built_) return;
    Z_FreeBitmap(&target);
    hand_over(target);
}

void Replacement::hand_over(BitmapHandle& target) {
    if (!built_) return;
    std::memcpy(&target, &result_, sizeof target);
    built_ = false;
}

}  // namespace zk::rows
