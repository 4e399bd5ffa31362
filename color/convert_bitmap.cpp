// Whole-bitmap conversion over row streams and the two-buffer row converter.
#include "color/convert_bitmap.h"

#include "core/bitmap_handle.h"
#include "core/heap_object.h"
#include "rows/row_stream.h"

namespace zk {
namespace {

// Destinations at least this large are written around the caches: they
// cannot stay in them, and bypassing them saves reading each line before it
// is overwritten.
constexpr size_t kStreamBytes = size_t{32} << 20;

}  // namespace

int32_t convert_bitmap_rows(BitmapHandle& source, BitmapHandle& destination, ConvertRequest request, RowHook hook,
                            DestinationPages pages) {
    if (!allocated(&source) || !allocated(&destination) || &source == &destination) return ST_INVALID_BITMAP;
    if (source.StructSize != kStructSize || destination.StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!geometry_consistent(source) || !geometry_consistent(destination)) return ST_INVALID_BITMAP;
    if (source.Width != destination.Width || source.Height != destination.Height) return ST_BAD_PARAM;
    request.width = source.Width;
    // An 8-bit bitmap taken in gray order holds gray levels (depth 0), not
    // palette indices.
    const auto depth = [](const BitmapHandle& b, int64_t order) {
        return b.BitsPerPixel == 8 && order == CO_GRAY ? 0 : b.BitsPerPixel;
    };
    request.src_bits = depth(source, request.src_order);
    request.dst_bits = static_cast<uint32_t>(depth(destination, request.dst_order));
    request.buffer = nullptr;
    request.source = nullptr;
    // The converter holds a palette memo and a stage: too large for every
    // caller's stack.
    const HeapObject<RowConverter> block;
    RowConverter* converter = block.get();
    if (!converter) return ST_NO_MEMORY;
    if (const int32_t status = converter->prepare(request); status != ST_OK) return status;

    const bool stream =
        pages == DestinationPages::Touched && (destination.Flags & BF_MEMORY) && destination.Size >= kStreamBytes;
    rows::RowStream in(source), out(destination);
    for (uint32_t y = 0; y < static_cast<uint32_t>(source.Height); ++y) {
        const uint8_t* src = in.read(y);
        if (!src) return in.status();
        // A scratch row is filled first: the destination keeps its bits past
        // the last pixel and its padding.
        uint8_t* dst = out.write(y, true);
        if (!dst) return out.status();
        converter->run(src, dst, stream);
        if (hook.call)
            if (const int32_t status = hook.call(hook.context, y, dst); status != ST_OK) return status;
        if (const int32_t status = out.commit(); status != ST_OK) return status;
    }
    return ST_OK;
}

}  // namespace zk
