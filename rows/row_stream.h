// Row streams: the way operations read and write whole rows of a bitmap in
// any storage kind, and the build-then-replace of results that change a
// bitmap's size or depth.
//
// A stream opens a bitmap for a row loop: global storage is locked for the
// stream's life and the row cursor is put back when it ends, so a bitmap that
// is only read comes out of a loop exactly as it went in. Each row is a
// pointer into the storage where the kind can address it (memory kinds; tiled
// storage through the tile's view), otherwise a scratch row filled or stored
// through row access (disk, compressed kinds). A row pointer stays valid until
// the next call on any stream over the same bitmap: a tile view may be
// replaced by another, so an operation that needs two rows of one bitmap at
// once copies one of them first.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/storage.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zkernel.h"

namespace zk::rows {

class RowStream {
public:
    explicit RowStream(BitmapHandle& bitmap);
    ~RowStream();
    RowStream(const RowStream&) = delete;
    RowStream& operator=(const RowStream&) = delete;

    // ST_OK, or why the last call failed.
    int32_t status() const { return status_; }
    uint32_t bytes_per_line() const { return bpl_; }

    // Row `index` to read (BytesPerLine bytes); null on failure (status()).
    const uint8_t* read(uint32_t index);
    // Where row `index` is to be written: the storage itself or a scratch
    // row; null on failure. Its bytes are unspecified until written, except
    // with `fill`, which reads the row's current bytes into a scratch row.
    uint8_t* write(uint32_t index, bool fill = false);
    // Stores the row last given by write() when it was a scratch row.
    int32_t commit();
    // Pieces of rows (`bytes` bytes of row `index` from the byte that holds
    // pixel `column`), for operations that fill many rows a piece at a
    // time: the storage itself where the kind can address it, else null,
    // and then put_piece stores the piece through row access (a kind that
    // keeps rows in its own form re-encodes the row each time). put_piece
    // returns ST_OK or the status.
    uint8_t* piece(uint32_t index, uint32_t column, size_t bytes);
    int32_t put_piece(uint32_t index, uint32_t column, const uint8_t* data, size_t bytes);
    // True when every row is addressed in place and its pointer stays valid
    // for the stream's life (memory kinds other than tiled), so that several
    // rows can be worked on at once.
    bool rows_stay_put() const;

private:
    uint8_t* direct(uint32_t index);
    uint8_t* scratch();

    BitmapHandle& b_;
    int32_t was_locked_;
    uint32_t cur_row_;
    size_t cur_offset_;
    uint32_t bpl_;
    int32_t status_ = ST_OK;
    uint8_t* scratch_ = nullptr;
    uint32_t pending_ = UINT32_MAX;  // row written to scratch and not yet stored
};

// A result built in a record of its own and moved over the caller's record
// only on full success; until then the caller's record and storage are left
// alone, and a result that is never committed is freed with everything it
// owns.
class Replacement {
public:
    Replacement();
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    // Describes and allocates the result as a duplicate of `source` with new
    // dimensions and depth: storage of the source's kind, its own copy of the
    // palette, region and overlays. Any failure status is returned as is.
    int32_t build_like(BitmapHandle& source, int32_t width, int32_t height, int32_t bits_per_pixel);
    BitmapHandle& result() { return result_; }
    // Frees what `target` owns and moves the result over it (the record keeps
    // its address). The result is then the target's.
    void commit(BitmapHandle& target);
    // Moves the result into `target` without freeing what target described
    // (a record the caller hands over to be filled). The result is then the
    // target's.
    void hand_over(BitmapHandle& target);

private:
    BitmapHandle result_;
    bool built_ = false;
};

}  // namespace zk::rows
