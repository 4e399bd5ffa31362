// Right-angle turns of packed buffers and of bitmaps in every storage kind.
//
// A quarter turn moves every source row into a destination column. It runs
// in bands of destination columns: the source rows of a band are read once,
// then every destination row receives its strip of the band's columns. The
// band's columns are transposed a block at a time from a copy that sits in
// cache, so the spacing of the source rows does not matter.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "bitmap_handle.h"
#include "core/platform/streaming.h"
#include "geometry/rotate.h"
#include "platform/platform.h"
#include "region.h"
#include "rows/row_stream.h"
#include "run_length.h"
#include "run_length_store.h"
#include "storage.h"
#include "thread_state.h"

namespace zk::rotate {
namespace {

// Band sizes. Memory turns take square tiles (see memory_band) of at most
// 1024 band rows; turns that involve tiled or disk storage take bands of
// up to 128 MiB so that the destination is walked only a few times (each
// walk maps and faults in every destination page it writes to) while the
// memory held stays bounded whatever the image size.
constexpr uint64_t kMaxMemoryBand = 1024;
constexpr uint64_t kStreamBand = uint64_t{128} << 20;
std::atomic<uint64_t> g_stream_band{kStreamBand};
// The columns of a band being transposed are first copied side by side into
// a block about this size (at least a cache line per band row), so that the
// transpose reads from the second-level cache whatever the source rows'
// spacing (rows a power of two apart would otherwise share a few sets).
constexpr uint64_t kChunkBytes = 256 << 10;
// Results at least this large are written around the caches.
constexpr uint64_t kStreamBytes = uint64_t{16} << 20;
std::atomic<uint64_t> g_stream_bytes{kStreamBytes};

// Side of a square of pixels that fills about `bytes` (a multiple of 8, at
// least 8, at most kMaxMemoryBand).
uint32_t square_side(uint64_t bytes, int32_t bpp) {
    const uint64_t bits = bytes * 8 / static_cast<uint32_t>(bpp);
    uint64_t rows = 8;
    while ((rows + 8) * (rows + 8) <= bits && rows < kMaxMemoryBand) rows += 8;
    return static_cast<uint32_t>(rows);
}

// A band or ring tile rounded down to whole tiles of the processor's tile
// kernel for the depth, where there is one and it fits.
uint32_t whole_tiles(uint32_t rows, int32_t bpp) {
    const TileKernel* t = tile_kernel(bpp);
    return t && rows >= t->side ? rows / t->side * t->side : rows;
}

// Memory turns take square tiles: the band's strips (what each destination
// row receives) as long as the pieces read from each band row, so that the
// reads and the writes both come in runs of several lines while the block
// of band columns fills the second-level cache.
uint32_t memory_band(int32_t bpp) { return whole_tiles(square_side(kChunkBytes, bpp), bpp); }

// Side of the tiles of an in-place square turn; 0: the default, tiles of
// half the block size, since a ring keeps three tile-sized blocks in the
// second-level cache (the held tile, the band copy and the destination).
std::atomic<uint32_t> g_square_tile{0};

// Strips a stage holds: a group, or every destination row when there are
// fewer.
uint32_t stage_rows(int32_t bpp, uint32_t width) { return width < strip_group(bpp) ? width : strip_group(bpp); }

// A block from Z_Malloc released on every way out.
struct Buffer {
    void* p = nullptr;
    ~Buffer() { Z_Free(p); }
    bool alloc(uint64_t bytes, bool zero) {
        if (bytes > SIZE_MAX - 1) return false;
        p = zero ? Z_Calloc(1, static_cast<size_t>(bytes ? bytes : 1))
                 : Z_Malloc(static_cast<size_t>(bytes ? bytes : 1));
        return p != nullptr;
    }
    template <typename T>
    T* as() const {
        return static_cast<T*>(p);
    }
};

// A large block of private memory backed by huge pages where the system
// has them (few first-touch faults), unmapped on every way out.
struct LargeBuffer {
    zk::platform::Mapping m;
    ~LargeBuffer() { zk::platform::unmap(m); }
    bool alloc(uint64_t bytes) {
        if (bytes > SIZE_MAX) return false;
        m = zk::platform::map_anonymous_private(static_cast<size_t>(bytes ? bytes : 1));
        return static_cast<bool>(m);
    }
    template <typename T>
    T* as() const {
        return static_cast<T*>(m.view);
    }
};

// First byte of column c and the bytes that columns c .. c+n-1 cover.
struct Strip {
    size_t offset;
    size_t bytes;
};
Strip strip_of(int32_t bpp, uint32_t c, uint32_t n) {
    const uint64_t first = uint64_t{c} * static_cast<uint32_t>(bpp);
    const uint64_t end = (uint64_t{c} + n) * static_cast<uint32_t>(bpp);
    return {static_cast<size_t>(first >> 3), static_cast<size_t>(((end + 7) >> 3) - (first >> 3))};
}

bool plain_memory(const BitmapHandle& b) {
    const storage::KindOps* ops = storage::kind_ops(b);
    return ops && ops->rows_stay_put;
}

// The mirrored perspectives show the stored rows reflected, so a turn of
// what is shown is the opposite turn of what is stored.
bool mirrored_perspective(uint32_t vp) {
    return vp == VP_TOP_RIGHT || vp == VP_BOTTOM_LEFT || vp == VP_LEFT_TOP || vp == VP_RIGHT_BOTTOM;
}

// Checks shared by the bitmap turns.
int32_t check_bitmap(const BitmapHandle* b) {
    if (!b) return ST_NO_BITMAP;
    if (b->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!(b->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    if (!valid_depth(b->BitsPerPixel)) return ST_BAD_BPP;
    if (!geometry_consistent(*b) || b->Width < 1 || b->Height < 1) return ST_INVALID_BITMAP;
    return ST_OK;
}

// Transposes bands of source rows into strips of destination rows. Band
// row k (in destination column order: already reversed for a clockwise
// turn) becomes destination column c0 + k. The sink says where the strips
// of destination rows d0 .. d0+g-1 are transposed to (begin) and stores
// them from there (end).
class BandTurn {
public:
    // `width`: the widest band row a run will be given.
    BandTurn(int32_t bpp, uint32_t width, uint32_t band) : bpp_(bpp), width_(width), band_(band) {
        const uint32_t group = strip_group(bpp);
        uint64_t per_row = kChunkBytes / band;
        if (per_row < 64) per_row = 64;
        uint64_t px = (per_row * 8 / static_cast<uint32_t>(bpp)) & ~uint64_t{group - 1};
        if (px < group) px = group;
        const uint64_t all = (uint64_t{width} + 7) & ~uint64_t{7};
        chunk_px_ = static_cast<uint32_t>(px < all ? px : all);
        chunk_row_ = strip_of(bpp, 0, chunk_px_).bytes;
    }
    // The block has 8 bytes of slack for the word reads of the kernels.
    // Turns with whole tiles for the processor's tile kernel also take its
    // scratch block and stage.
    int32_t init() {
        if (!chunk_.alloc(uint64_t{band_} * chunk_row_ + 8, true)) return ST_NO_MEMORY;
        tiles_ = tile_kernel(bpp_);
        if (tiles_ && (width_ < tiles_->side || band_ < tiles_->side)) tiles_ = nullptr;
        if (tiles_ && !tile_block_.alloc(tiles_->scratch_bytes + uint64_t{tiles_->side} * stage_row() + 63, false))
            return ST_NO_MEMORY;
        return ST_OK;
    }
    template <typename Sink>
    int32_t run(const uint8_t* const* rows, uint32_t n, Sink& sink) {
        return run(rows, n, width_, sink);
    }
    // Band rows of `width` pixels (at most the constructor's).
    template <typename Sink>
    int32_t run(const uint8_t* const* rows, uint32_t n, uint32_t width, Sink& sink) {
        uint32_t from = 0;
        if (tiles_ && sink.base && n >= tiles_->side && width >= tiles_->side) {
            // Whole tiles read straight from the band rows, a group of them
            // gathered in the stage and stored a run per destination row;
            // the band rows past the last whole tile, then the destination
            // rows past it, go the general way.
            const uint32_t side = tiles_->side, group = side * tiles_->group;
            const uint32_t whole_rows = n / side * side;
            from = width / side * side;
            auto* const scratch =
                reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(tile_block_.p) + 63) & ~uintptr_t{63});
            uint8_t* const stage = scratch + tiles_->scratch_bytes;
            const size_t stage_bytes = stage_row();
            uint8_t* out[kMaxTileSide];
            for (uint32_t d = 0; d < from; d += side)
                for (uint32_t k0 = 0; k0 < whole_rows; k0 += group) {
                    // Tiles side by side in the stage, then whole runs of
                    // each destination row.
                    const uint32_t m = std::min(whole_rows - k0, group);
                    for (uint32_t k = 0; k < m; k += side)
                        tiles_->turn(rows + k0 + k, bytes_of(d), stage + bytes_of(k), stage_bytes, scratch);
                    for (uint32_t x = 0; x < side; ++x) out[x] = sink.target(d + x) + bytes_of(k0);
                    store_runs(stage, stage_bytes, bytes_of(m), out, side, sink.stream);
                }
            if (whole_rows < n) {
                const uint32_t column = sink.column;
                sink.set_strip(bpp_, column + whole_rows, n - whole_rows);
                const int32_t r = columns(rows + whole_rows, n - whole_rows, 0, from, sink);
                sink.set_strip(bpp_, column, n);
                if (r != ST_OK) return r;
            }
        }
        return columns(rows, n, from, width, sink);
    }

private:
    // Destination rows from .. width-1 of band rows 0 .. n-1, through the
    // block of band columns.
    template <typename Sink>
    int32_t columns(const uint8_t* const* rows, uint32_t n, uint32_t from, uint32_t width, Sink& sink) {
        const uint32_t group = strip_group(bpp_);
        uint8_t* out[64];
        for (uint32_t d = from; d < width; d += chunk_px_) {
            const uint32_t c = width - d < chunk_px_ ? width - d : chunk_px_;
            const Strip part = strip_of(bpp_, d, c);
            for (uint32_t k = 0; k < n; ++k)
                std::memcpy(chunk_.as<uint8_t>() + k * chunk_row_, rows[k] + part.offset, part.bytes);
            for (uint32_t d0 = d; d0 < d + c; d0 += group) {
                const uint32_t g = d + c - d0 < group ? d + c - d0 : group;
                sink.begin(d0, g, out);
                transpose_strip(bpp_, chunk_.as<uint8_t>(), chunk_row_, n, d0 - d, g, out);
                if (const int32_t r = sink.end(d0, g, out); r != ST_OK) return r;
            }
        }
        return ST_OK;
    }

    // Bytes of `px` pixels (whole bytes at the tile kernels' depths).
    size_t bytes_of(uint32_t px) const { return size_t{px} * static_cast<uint32_t>(bpp_) / 8; }
    // Bytes of each destination row the stage gathers: a group of tiles.
    size_t stage_row() const { return bytes_of(tiles_->side * tiles_->group); }

    int32_t bpp_;
    uint32_t width_, band_, chunk_px_;
    size_t chunk_row_;
    Buffer chunk_, tile_block_;
    const TileKernel* tiles_ = nullptr;
};

// Where the strips go. A group of strips is transposed into a stage small
// enough to stay in the first-level cache, then each strip is stored whole:
// straight into addressable memory (around the caches for large results, so
// that no destination line is read before it is written), into a tile's
// view where the kind maps one, else through row access (disk storage).
struct StripSink {
    uint8_t* base = nullptr;  // a buffer's pixels; null: ask the stream
    rows::RowStream* out = nullptr;
    uint64_t stride = 0;
    uint32_t rows = 0;     // destination height
    bool reverse = false;  // destination row d is rows-1-d (counter-clockwise)
    bool stream = false;
    uint8_t* stage = nullptr;
    size_t stage_row = 0;  // bytes of the widest strip
    Strip strip{};
    uint32_t column = 0;   // first destination column of the strip
    bool partial = false;  // the strip ends inside a byte

    ~StripSink() {
        if (stream) platform::fence_streams();
    }
    void set_strip(int32_t bpp, uint32_t c0, uint32_t n) {
        strip = strip_of(bpp, c0, n);
        column = c0;
        partial = (uint64_t{c0} + n) * static_cast<uint32_t>(bpp) % 8 != 0;
    }
    uint8_t* target(uint32_t d) const {
        const uint32_t row = reverse ? rows - 1 - d : d;
        if (base) return base + static_cast<size_t>(row * stride) + strip.offset;
        return out ? out->piece(row, column, strip.bytes) : nullptr;
    }
    void begin(uint32_t d0, uint32_t g, uint8_t** pieces) const {
        for (uint32_t a = 0; a < g; ++a) {
            pieces[a] = stage + a * stage_row;
            if (partial) {  // the bits past the strip keep what they hold, where that can be read
                const uint8_t* q = target(d0 + a);
                pieces[a][strip.bytes - 1] = q ? q[strip.bytes - 1] : 0;
            }
        }
    }
    int32_t end(uint32_t d0, uint32_t g, uint8_t* const* pieces) const {
        for (uint32_t a = 0; a < g; ++a) {
            if (uint8_t* q = target(d0 + a)) {
                platform::write_out(q, pieces[a], strip.bytes, stream);
                continue;
            }
            const uint32_t row = reverse ? rows - 1 - (d0 + a) : d0 + a;
            if (const int32_t put = out->put_piece(row, column, pieces[a], strip.bytes); put != ST_OK) return put;
        }
        return ST_OK;
    }
};

// Quarter turns of blocks of pixels between addressable rows: w x h pixels
// whose rows lie src_stride bytes apart become h x w pixels whose rows lie
// dst_stride bytes apart. Blocks start on a byte; source and destination do
// not overlap. Everything it needs is allocated by init, so that run cannot
// fail.
class MemoryTurn {
public:
    // Blocks at most max_w x max_h; `stream`: results go around the caches.
    MemoryTurn(int32_t bpp, uint32_t max_w, uint32_t max_h, bool stream)
        : bpp_(bpp), band_(clamp_band(memory_band(bpp), max_h)), turn_(bpp, max_w, band_) {
        stage_row_ = strip_of(bpp, 0, band_).bytes;
        stage_rows_ = stage_rows(bpp, max_w);
        sink_.stream = stream;
    }
    int32_t init() {
        if (turn_.init() != ST_OK || !ptrs_.alloc(uint64_t{band_} * sizeof(const uint8_t*), false) ||
            !stage_.alloc(uint64_t{stage_rows_} * stage_row_, true))
            return ST_NO_MEMORY;
        sink_.stage = stage_.as<uint8_t>();
        sink_.stage_row = stage_row_;
        return ST_OK;
    }
    void run(const uint8_t* src, size_t src_stride, uint32_t w, uint32_t h, uint8_t* dst, size_t dst_stride, bool cw) {
        const uint8_t** rowp = ptrs_.as<const uint8_t*>();
        sink_.base = dst;
        sink_.stride = dst_stride;
        sink_.rows = w;
        sink_.reverse = !cw;
        for (uint32_t c0 = 0; c0 < h; c0 += band_) {
            const uint32_t n = h - c0 < band_ ? h - c0 : band_;
            for (uint32_t k = 0; k < n; ++k) rowp[k] = src + size_t{cw ? h - 1 - (c0 + k) : c0 + k} * src_stride;
            sink_.set_strip(bpp_, c0, n);
            turn_.run(rowp, n, w, sink_);
        }
    }

private:
    static uint32_t clamp_band(uint32_t band, uint32_t h) { return band > h ? (h + 7) & ~7u : band; }

    int32_t bpp_;
    uint32_t band_;
    BandTurn turn_;
    size_t stage_row_ = 0;
    uint32_t stage_rows_ = 0;
    Buffer ptrs_, stage_;
    StripSink sink_;
};

// Quarter turn of `src` (stored rows clockwise when cw) into the result of
// `rep`, which it builds.
int32_t turn_quarter(BitmapHandle& src, bool cw, rows::Replacement& rep) {
    const int32_t bpp = src.BitsPerPixel;
    const uint32_t w = static_cast<uint32_t>(src.Width);
    const uint32_t h = static_cast<uint32_t>(src.Height);
    int32_t r = rep.build_like(src, src.Height, src.Width, bpp);
    if (r != ST_OK) return r;
    BitmapHandle& dst = rep.result();

    const bool src_plain = plain_memory(src);
    const bool dst_plain = plain_memory(dst);
    const uint32_t src_bpl = src.BytesPerLine;
    uint32_t band = src_plain && dst_plain ? memory_band(bpp) : band_rows(src_bpl, g_stream_band.load());
    if (band > h) band = (h + 7) & ~7u;
    // Rows of the other kinds are only in place until the next one is read.
    const bool copy_rows = !src_plain;

    Buffer rows_buf, ptrs_buf, stage_buf;
    BandTurn turn(bpp, w, band);
    if ((r = turn.init()) != ST_OK) return r;
    if (!ptrs_buf.alloc(uint64_t{band} * sizeof(const uint8_t*), false)) return ST_NO_MEMORY;
    if (copy_rows && !rows_buf.alloc(uint64_t{band} * src_bpl, true)) return ST_NO_MEMORY;
    const size_t stage_row = strip_of(bpp, 0, band).bytes;
    if (!stage_buf.alloc(uint64_t{stage_rows(bpp, w)} * stage_row, true)) return ST_NO_MEMORY;
    const uint8_t** rowp = ptrs_buf.as<const uint8_t*>();

    rows::RowStream in(src);
    rows::RowStream out(dst);  // holds the destination locked
    Progress progress(h);
    if ((r = progress.start()) != ST_OK) return r;
    StripSink sink;
    if (dst_plain && out.rows_stay_put()) {  // rows in one block: the sink addresses them itself
        uint8_t* first = out.write(0);
        if (first && out.write(w - 1) == first + size_t{w - 1} * dst.BytesPerLine) sink.base = first;
    }
    sink.out = &out;
    sink.stride = dst.BytesPerLine;
    sink.rows = w;
    sink.reverse = !cw;
    sink.stream = dst_plain && dst.Size >= g_stream_bytes.load();
    sink.stage = stage_buf.as<uint8_t>();
    sink.stage_row = stage_row;

    for (uint32_t c0 = 0; c0 < h; c0 += band) {
        const uint32_t n = h - c0 < band ? h - c0 : band;
        for (uint32_t k = 0; k < n; ++k) {
            const uint8_t* p = in.read(cw ? h - 1 - (c0 + k) : c0 + k);
            if (!p) return in.status();
            if (copy_rows) {
                uint8_t* q = rows_buf.as<uint8_t>() + size_t{k} * src_bpl;
                std::memcpy(q, p, src_bpl);
                p = q;
            }
            rowp[k] = p;
        }
        sink.set_strip(bpp, c0, n);
        if ((r = turn.run(rowp, n, sink)) != ST_OK) return r;
        for (uint32_t k = 0; k < n; ++k)
            if ((r = progress.step()) != ST_OK) return r;
    }
    return ST_OK;
}

// Expanded bytes a quarter turn of run-length rows holds at once: up to
// this the whole image is expanded once; above it the columns are taken a
// group at a time from the runs of every row.
constexpr uint64_t kRunTurnBytes = 18000000;
std::atomic<uint64_t> g_run_turn_bytes{kRunTurnBytes};

// Quarter turn of a bitmap whose rows can be read as runs into the result
// of `rep`: a group of source columns expanded from every row's runs, turned
// in memory 64 columns at a time, and each result row stored (compressed)
// once.
int32_t turn_runs(BitmapHandle& src, bool cw, rows::Replacement& rep) {
    const uint32_t w = static_cast<uint32_t>(src.Width);
    const uint32_t h = static_cast<uint32_t>(src.Height);
    int32_t r = rep.build_like(src, src.Height, src.Width, 1);
    if (r != ST_OK) return r;
    BitmapHandle& dst = rep.result();
    const uint64_t group_bytes = std::max<uint64_t>(1, g_run_turn_bytes.load() / h);  // bytes of one row's group
    const uint32_t group = static_cast<uint32_t>(std::min<uint64_t>(w, group_bytes * 8));
    const size_t stride = (size_t{group} + 7) / 8;
    constexpr uint32_t kTurned = 64;  // result rows made at once
    Buffer block, turned;
    if (!block.alloc(uint64_t{stride} * h, false) || !turned.alloc(uint64_t{kTurned} * dst.BytesPerLine, true))
        return ST_NO_MEMORY;
    MemoryTurn turn(1, kTurned, h, false);
    if ((r = turn.init()) != ST_OK) return r;
    rows::RowStream out(dst);
    Progress progress(w);
    if ((r = progress.start()) != ST_OK) return r;
    for (uint32_t c0 = 0; c0 < w; c0 += group) {
        const uint32_t n = std::min(group, w - c0);
        for (uint32_t y = 0; y < h; ++y) {
            size_t bytes = 0;
            const uint8_t* runs = storage::stored_row(src, y, &bytes);
            if (!runs || rle::expand_row_checked(runs, bytes, w, c0, n, block.as<uint8_t>() + y * stride) != ST_OK)
                return ST_INVALID_BITMAP;
        }
        for (uint32_t k = 0; k < n; k += kTurned) {
            const uint32_t m = std::min(kTurned, n - k);
            turn.run(block.as<uint8_t>() + k / 8, stride, m, h, turned.as<uint8_t>(), dst.BytesPerLine, cw);
            for (uint32_t j = 0; j < m; ++j) {
                // Column c becomes row c turning clockwise, row w-1-c the
                // other way, where the block's turn puts it last-first.
                const uint32_t c = c0 + k + j;
                const uint8_t* row = turned.as<uint8_t>() + size_t{cw ? j : m - 1 - j} * dst.BytesPerLine;
                uint8_t* to = out.write(cw ? c : w - 1 - c);
                if (!to) return out.status();
                std::memcpy(to, row, dst.BytesPerLine);
                if ((r = out.commit()) != ST_OK) return r;
                if ((r = progress.step()) != ST_OK) return r;
            }
        }
    }
    return ST_OK;
}

// A rectangle of a square image: first column and row, columns and rows.
struct Rect {
    uint32_t col, row, cols, rows;
};

// Where a clockwise quarter turn of a side x side image takes r.
Rect turned(const Rect& r, uint32_t side) { return {side - r.row - r.rows, r.col, r.rows, r.cols}; }

// Ring i of a square turn in tiles of `tile` pixels, `per_side` tiles along
// each side of the top-left quadrant: tile i of the quadrant and its three
// images under a clockwise turn.
void ring_rects(uint32_t i, uint32_t per_side, uint32_t tile, uint32_t side, Rect (&r)[4]) {
    const uint32_t x = i % per_side * tile, y = i / per_side * tile;
    r[0] = {x, y, side / 2 - x < tile ? side / 2 - x : tile, side / 2 - y < tile ? side / 2 - y : tile};
    for (int k = 1; k < 4; ++k) r[k] = turned(r[k - 1], side);
}

// Quarter turn of a square bitmap in its own storage, tile by tile: each
// tile of the top-left quadrant and its three images under the turn form a
// ring of four rectangles whose contents move one place along the ring
// (the last one's through a copy). Every pixel is read once and written
// once where it was just read, and no new storage is taken. A ring is
// complete or untouched, so a stop is undone by moving the finished rings
// back. The side is a multiple of 16 so that every rectangle starts on a
// byte at every depth.
class SquareTurn {
public:
    SquareTurn(BitmapHandle& b, uint8_t* pixels)
        : bpp_(b.BitsPerPixel),
          side_(static_cast<uint32_t>(b.Width)),
          tile_(std::min(
              g_square_tile.load() ? g_square_tile.load() : whole_tiles(square_side(kChunkBytes / 2, bpp_), bpp_),
              side_ / 2)),
          pixels_(pixels),
          stride_(b.BytesPerLine),
          per_side_((side_ / 2 + tile_ - 1) / tile_),
          turn_(bpp_, tile_, tile_, false) {}

    static bool applies(const BitmapHandle& b) { return plain_memory(b) && b.Width == b.Height && b.Width % 16 == 0; }
    int32_t init() {
        if (turn_.init() != ST_OK) return ST_NO_MEMORY;
        hold_row_ = strip_of(bpp_, 0, tile_).bytes;
        return hold_.alloc(uint64_t{tile_} * hold_row_, false) ? ST_OK : ST_NO_MEMORY;
    }
    uint32_t rings() const { return per_side_ * per_side_; }
    // Moves ring i one place clockwise (or back).
    void ring(uint32_t i, bool cw) {
        Rect r[4];
        ring_rects(i, per_side_, tile_, side_, r);
        // Clockwise the contents move from r[k] to r[k+1]: r[3] is held
        // while r[2], r[1] and r[0] move on, then goes to r[0].
        // Counter-clockwise they move from r[k+1] to r[k].
        if (cw) {
            hold(r[3]);
            for (int k = 2; k >= 0; --k) move(r[k], r[k + 1], true);
            turn_.run(hold_.as<uint8_t>(), hold_row_, r[3].cols, r[3].rows, at(r[0]), stride_, true);
        } else {
            hold(r[0]);
            for (int k = 1; k < 4; ++k) move(r[k], r[k - 1], false);
            turn_.run(hold_.as<uint8_t>(), hold_row_, r[0].cols, r[0].rows, at(r[3]), stride_, false);
        }
    }

private:
    uint8_t* at(const Rect& r) const { return pixels_ + size_t{r.row} * stride_ + strip_of(bpp_, r.col, 0).offset; }
    void hold(const Rect& r) {
        const size_t bytes = strip_of(bpp_, 0, r.cols).bytes;
        for (uint32_t k = 0; k < r.rows; ++k)
            std::memcpy(hold_.as<uint8_t>() + k * hold_row_, at(r) + k * stride_, bytes);
    }
    void move(const Rect& from, const Rect& to, bool cw) {
        turn_.run(at(from), stride_, from.cols, from.rows, at(to), stride_, cw);
    }

    int32_t bpp_;
    uint32_t side_, tile_;
    uint8_t* pixels_;
    size_t stride_;
    uint32_t per_side_;  // tiles along each side of the quadrant
    MemoryTurn turn_;
    size_t hold_row_ = 0;
    Buffer hold_;
};

// Side of the ring tiles of a square bitmap turned in tiled storage: the
// four rectangles of a ring and one turned rectangle are held in memory,
// each about kStoredRect bytes, so that the row segments read and written
// are long: one file call moves one segment. On a 1 GiB image 36 MiB
// rectangles (rows of 6 KiB) took a tenth less time than 16 MiB ones (rows
// of 4 KiB) but held 180 MiB instead of 80; 64 MiB ones a fifth less for
// 320 MiB. The turn keeps to 16 MiB: resident memory bounded near 100 MiB
// matters more to images larger than memory than a tenth of the time.
constexpr uint64_t kStoredRect = uint64_t{16} << 20;
uint32_t stored_tile(int32_t bpp, uint32_t side) {
    if (const uint32_t t = g_square_tile.load()) return std::min(t, side / 2);
    const uint64_t bits = kStoredRect * 8 / static_cast<uint32_t>(bpp);
    uint64_t t = 8;
    while ((t + 8) * (t + 8) <= bits && t + 8 <= side / 2) t += 8;
    return static_cast<uint32_t>(t);
}

// Quarter turn of a square bitmap in tiled storage, in its own storage: the
// rings of SquareTurn, each of whose four rectangles is read into memory
// whole, turned there and written to its next place. Every byte is read
// and written once, through the tiles, and no new storage is taken (a turn
// into new storage would reserve, fault in and zero a second image on
// disk). A ring is complete or put back as it was (its rectangles are held
// whole), and a failure or a stop is undone by moving the finished rings
// back.
class TiledSquareTurn {
public:
    explicit TiledSquareTurn(BitmapHandle& b)
        : b_(b),
          bpp_(b.BitsPerPixel),
          side_(static_cast<uint32_t>(b.Width)),
          tile_(stored_tile(bpp_, side_)),
          per_side_((side_ / 2 + tile_ - 1) / tile_),
          turn_(bpp_, tile_, tile_, false),
          ops_(storage::kind_ops(b)) {}

    static bool applies(const BitmapHandle& b) {
        const storage::KindOps* ops = storage::kind_ops(b);
        return ops && ops->transfer_piece && b.Width == b.Height && b.Width % 16 == 0;
    }
    int32_t init() {
        if (turn_.init() != ST_OK) return ST_NO_MEMORY;
        const uint64_t bytes = uint64_t{tile_} * strip_of(bpp_, 0, tile_).bytes;
        for (LargeBuffer& h : held_)
            if (!h.alloc(bytes)) return ST_NO_MEMORY;
        return moved_.alloc(bytes) ? ST_OK : ST_NO_MEMORY;
    }
    uint32_t rings() const { return per_side_ * per_side_; }
    // Moves ring i one place clockwise (or back): the contents of r[k] go
    // to r[k+1] clockwise, to r[k-1] counter-clockwise.
    int32_t ring(uint32_t i, bool cw) {
        Rect r[4];
        ring_rects(i, per_side_, tile_, side_, r);
        for (int k = 0; k < 4; ++k)
            if (const int32_t st = transfer(r[k], held_[k].as<uint8_t>(), false); st != ST_OK) return st;
        if (i + 1 < rings()) advise_next(i + 1);
        for (int k = 0; k < 4; ++k) {
            const Rect& to = r[(k + (cw ? 1 : 3)) % 4];
            turn_.run(held_[k].as<uint8_t>(), bytes_of(r[k]), r[k].cols, r[k].rows, moved_.as<uint8_t>(), bytes_of(to),
                      cw);
            if (const int32_t st = transfer(to, moved_.as<uint8_t>(), true); st != ST_OK) {
                for (int m = 0; m < 4; ++m) transfer(r[m], held_[m].as<uint8_t>(), true);  // as it was
                return st;
            }
        }
        return ST_OK;
    }

private:
    size_t bytes_of(const Rect& r) const { return strip_of(bpp_, 0, r.cols).bytes; }
    // Reads or writes the rows of r from or to `buf` (rows of bytes_of(r)),
    // disk tiles through their files: a rectangle's rows are short pieces
    // of many tiles, which through the tiles' views would be mapped and
    // faulted in again for every rectangle (through views made for each
    // rectangle's rows in a tile the turn took three times as long). Tiled
    // storage moves each tile's share of the rows at once.
    int32_t transfer(const Rect& r, uint8_t* buf, bool put) {
        const size_t bytes = bytes_of(r), at = strip_of(bpp_, r.col, 0).offset;
        if (storage::tile_table(b_))
            return storage::transfer_tile_rows(b_, size_t{r.row} * b_.BytesPerLine + at, bytes, r.rows, buf, put);
        for (uint32_t y = 0; y < r.rows; ++y, buf += bytes) {
            const size_t offset = static_cast<size_t>(uint64_t{r.row + y} * b_.BytesPerLine) + at;
            if (const int32_t st = ops_->transfer_piece(b_, offset, buf, bytes, put); st != ST_OK) return st;
        }
        return ST_OK;
    }

    // Read-ahead of the rectangles of ring i, read while this one turns.
    void advise_next(uint32_t i) {
        if (!storage::tile_table(b_)) return;
        Rect r[4];
        ring_rects(i, per_side_, tile_, side_, r);
        for (const Rect& q : r)
            storage::will_read_tile_rows(b_, size_t{q.row} * b_.BytesPerLine + strip_of(bpp_, q.col, 0).offset,
                                         bytes_of(q), q.rows);
    }

    BitmapHandle& b_;
    int32_t bpp_;
    uint32_t side_, tile_, per_side_;
    MemoryTurn turn_;
    const storage::KindOps* ops_;  // one that moves pieces (applies() holds)
    LargeBuffer held_[4], moved_;
};

// Half turn of `src` into the result of `rep`, which it builds.
int32_t turn_half(BitmapHandle& src, rows::Replacement& rep) {
    int32_t r = rep.build_like(src, src.Width, src.Height, src.BitsPerPixel);
    if (r != ST_OK) return r;
    BitmapHandle& dst = rep.result();
    const uint32_t h = static_cast<uint32_t>(src.Height);
    const uint32_t bpl = src.BytesPerLine;
    rows::RowStream in(src);
    rows::RowStream out(dst);
    Progress progress(h);
    if ((r = progress.start()) != ST_OK) return r;
    for (uint32_t i = 0; i < h; ++i) {
        const uint8_t* p = in.read(h - 1 - i);
        if (!p) return in.status();
        uint8_t* q = out.write(i);
        if (!q) return out.status();
        std::memcpy(q, p, bpl);
        mirror_row(p, q, static_cast<uint32_t>(src.Width), src.BitsPerPixel);
        if ((r = out.commit()) != ST_OK) return r;
        if ((r = progress.step()) != ST_OK) return r;
    }
    return ST_OK;
}

// Quarter turn of a square bitmap in its own storage (SquareTurn); false
// when its rows are not one block after all, with nothing done.
bool rotate_square(BitmapHandle& b, bool clockwise, bool cw, int32_t* status) {
    rows::RowStream stream(b);  // holds global storage locked
    const uint32_t last = static_cast<uint32_t>(b.Height) - 1;
    uint8_t* pixels = stream.write(0);
    if (!pixels || stream.write(last) != pixels + size_t{last} * b.BytesPerLine) return false;
    SquareTurn turn(b, pixels);
    const uint32_t rings = turn.rings();
    Progress progress(rings);
    int32_t& r = *status;
    if ((r = turn.init()) != ST_OK || (r = progress.start()) != ST_OK) return true;
    for (uint32_t i = 0; i < rings; ++i) {
        turn.ring(i, cw);
        if ((r = progress.step()) != ST_OK) {
            for (uint32_t j = 0; j <= i; ++j) turn.ring(j, !cw);
            return true;
        }
    }
    if ((r = region::rotated(&b, b.Width, b.Height, clockwise ? 9000 : -9000)) != ST_OK)
        for (uint32_t j = 0; j < rings; ++j) turn.ring(j, !cw);
    return true;
}

// Quarter turn of a square bitmap in tiled storage, in its own storage
// (TiledSquareTurn).
int32_t rotate_square_tiled(BitmapHandle& b, bool clockwise, bool cw) {
    rows::RowStream stream(b);  // puts the row cursor back
    TiledSquareTurn turn(b);
    const uint32_t rings = turn.rings();
    Progress progress(rings);
    int32_t r = turn.init();
    if (r != ST_OK || (r = progress.start()) != ST_OK) return r;
    const auto undo = [&](uint32_t finished) {
        for (uint32_t j = 0; j < finished; ++j) turn.ring(j, !cw);
    };
    for (uint32_t i = 0; i < rings; ++i) {
        if ((r = turn.ring(i, cw)) != ST_OK) {
            undo(i);
            return r;
        }
        if ((r = progress.step()) != ST_OK) {
            undo(i + 1);
            return r;
        }
    }
    if ((r = region::rotated(&b, b.Width, b.Height, clockwise ? 9000 : -9000)) != ST_OK) undo(rings);
    return r;
}

int32_t rotate_quarter(BitmapHandle& b, bool clockwise) {
    const bool cw = clockwise != mirrored_perspective(b.ViewPerspective);
    int32_t status = ST_OK;
    if (SquareTurn::applies(b) && rotate_square(b, clockwise, cw, &status)) return status;
    if (TiledSquareTurn::applies(b)) return rotate_square_tiled(b, clockwise, cw);
    const int32_t old_w = b.Width, old_h = b.Height;
    rows::Replacement rep;
    size_t runs = 0;
    int32_t r = storage::stored_row(b, 0, &runs) ? turn_runs(b, cw, rep) : turn_quarter(b, cw, rep);
    if (r != ST_OK) return r;
    r = region::rotated(&rep.result(), old_w, old_h, clockwise ? 9000 : -9000);
    if (r != ST_OK) return r;
    rep.commit(b);
    return ST_OK;
}

int32_t rotate_half(BitmapHandle& b) {
    rows::Replacement rep;
    int32_t r = turn_half(b, rep);
    if (r != ST_OK) return r;
    r = region::rotated(&rep.result(), b.Width, b.Height, 18000);
    if (r != ST_OK) return r;
    rep.commit(b);
    return ST_OK;
}

// Checks of the buffer turns; *bytes_src / *bytes_dst are the row lengths.
int32_t check_buffer(const void* src, const void* dst, int32_t width, int32_t height, int32_t bpp, uint32_t* src_bpl,
                     uint32_t* dst_bpl) {
    if (!src || !dst || width < 0 || height < 0) return ST_BAD_PARAM;
    if (!valid_depth(bpp)) return ST_BAD_BPP;
    const ImageSize s = image_size(width, height, bpp);
    if (s.status != ST_OK) return s.status;
    const ImageSize d = image_size(height, width, bpp);
    if (d.status != ST_OK) return d.status;
    *src_bpl = s.bytes_per_line;
    *dst_bpl = d.bytes_per_line;
    return ST_OK;
}

}  // namespace

void set_stream_band_for_testing(uint64_t bytes) { g_stream_band = bytes ? bytes : kStreamBand; }
void set_square_tile_for_testing(uint32_t pixels) { g_square_tile = pixels; }
void set_run_turn_bytes_for_testing(uint64_t bytes) { g_run_turn_bytes = bytes ? bytes : kRunTurnBytes; }
void set_stream_results_for_testing(uint64_t bytes) { g_stream_bytes = bytes ? bytes : kStreamBytes; }

}  // namespace zk::rotate

using namespace zk;
using namespace zk::rotate;

extern "C" {

Z_EXPORT int32_t Z_API Z_RotateBitmap90(BitmapHandle* bitmap, int32_t clockwise) {
    const int32_t r = check_bitmap(bitmap);
    if (r != ST_OK) return r;
    return rotate_quarter(*bitmap, clockwise != 0);
}

Z_EXPORT int32_t Z_API Z_RotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fillColor) {
    (void)fillColor;  // right angles leave no uncovered area
    const int32_t r = check_bitmap(bitmap);
    if (r != ST_OK) return r;
    int64_t a = int64_t{angle} % 36000;
    if (a < 0) a += 36000;
    if (a % 9000 != 0) return ST_BAD_PARAM;
    if (a == 0) return ST_OK;
    if (a == 18000) return rotate_half(*bitmap);
    if (!(flags & ROTATE_RESIZE) && bitmap->Width != bitmap->Height) return ST_BAD_PARAM;
    return rotate_quarter(*bitmap, a == 9000);
}

Z_EXPORT int32_t Z_API Z_RotateBuffer90(const uint8_t* src, uint8_t* dst, int32_t clockwise, int32_t width,
                                        int32_t height, int32_t bitsPerPixel) {
    uint32_t src_bpl = 0, dst_bpl = 0;
    const int32_t r = check_buffer(src, dst, width, height, bitsPerPixel, &src_bpl, &dst_bpl);
    if (r != ST_OK) return r;
    if (width == 0 || height == 0) return ST_OK;
    const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    MemoryTurn turn(bitsPerPixel, w, h, uint64_t{dst_bpl} * w >= g_stream_bytes.load());
    if (turn.init() != ST_OK) return ST_NO_MEMORY;
    turn.run(src, src_bpl, w, h, dst, dst_bpl, clockwise != 0);
    return ST_OK;
}

Z_EXPORT int32_t Z_API Z_RotateBuffer180(const uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                                         int32_t bitsPerPixel) {
    uint32_t bpl = 0, unused = 0;
    const int32_t r = check_buffer(src, dst, width, height, bitsPerPixel, &bpl, &unused);
    if (r != ST_OK) return r;
    if (width == 0 || height == 0) return ST_OK;
    const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    if (src != dst) {
        for (uint32_t i = 0; i < h; ++i) {
            const uint8_t* p = src + size_t{i} * bpl;
            uint8_t* q = dst + size_t{h - 1 - i} * bpl;
            std::memcpy(q, p, bpl);
            mirror_row(p, q, w, bitsPerPixel);
        }
        return ST_OK;
    }
    // In place: rows i and h-1-i change places, each reversed; the middle
    // row of an odd height is reversed through the kept row too.
    Buffer keep;
    if (!keep.alloc(bpl, false)) return ST_NO_MEMORY;
    uint8_t* t = keep.as<uint8_t>();
    for (uint32_t i = 0, j = h - 1; i <= j; ++i, --j) {
        uint8_t* top = dst + size_t{i} * bpl;
        uint8_t* bottom = dst + size_t{j} * bpl;
        std::memcpy(t, top, bpl);
        if (i != j) {
            std::memcpy(top, bottom, bpl);
            mirror_row(bottom, top, w, bitsPerPixel);
            std::memcpy(bottom, t, bpl);
        }
        mirror_row(t, bottom, w, bitsPerPixel);
        if (j == 0) break;
    }
    return ST_OK;
}

}  // extern "C"
