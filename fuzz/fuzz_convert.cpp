// Drives row conversion with arbitrary depths, orders, flags, bit ranges,
// palettes and pixels. Every call must either succeed or refuse with
// ST_BAD_PARAM; a refusal must leave the buffer untouched, and no call may
// reach outside the buffer that Z_CalcConvertSize sizes (AddressSanitizer).
// The same request from a source row into a second row (plain and
// streamed) must give the in-place result without touching a byte outside
// either row.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "color/convert.h"
#include "fuzz_input.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;

// Depths worth trying: every valid one and a few invalid ones.
constexpr int32_t kDepths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64, 9, 65, -1};
constexpr int32_t kOrders[] = {0, 1, 2, 5, 3, -1};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    const int32_t src_bits = kDepths[in.take(1) % (sizeof kDepths / sizeof kDepths[0])];
    const int32_t dst_bits = kDepths[in.take(1) % (sizeof kDepths / sizeof kDepths[0])];
    const int32_t src_order = kOrders[in.take(1) % (sizeof kOrders / sizeof kOrders[0])];
    const int32_t dst_order = kOrders[in.take(1) % (sizeof kOrders / sizeof kOrders[0])];
    const int32_t flags = static_cast<int32_t>(in.take(1));
    const uint32_t low = in.take(1) % 40 - 4;  // includes values read as negative
    const uint32_t high = in.take(1) % 40 - 4;
    const int32_t width = static_cast<int32_t>(in.take(2) % 300) - 2;
    const uint32_t palettes = in.take(1);

    // Palettes of 256 entries (a deep gray source's table is as long as its
    // sample range: 4,096 or 65,536 entries).
    const size_t src_entries = src_bits == 16 ? 65536 : src_bits == 12 ? 4096 : 256;
    std::vector<RGBQUAD> src_palette(src_entries), dst_palette(256);
    for (auto& e : src_palette) e = RGBQUAD{static_cast<uint8_t>(in.take(1)), 0, 0, 0};
    for (size_t i = 0; i < dst_palette.size(); ++i)
        dst_palette[i] =
            RGBQUAD{static_cast<uint8_t>(i), static_cast<uint8_t>(in.take(1)), static_cast<uint8_t>(i * 3), 0};

    const int32_t need = width > 0 ? Z_CalcConvertSize(width, static_cast<uint32_t>(src_bits < 0 ? 0 : src_bits), width,
                                                       static_cast<uint32_t>(dst_bits < 0 ? 0 : dst_bits))
                                   : 4;
    if (need <= 0 || need > (1 << 20)) return 0;
    std::vector<uint8_t> buffer(static_cast<size_t>(need));
    for (auto& b : buffer) b = static_cast<uint8_t>(in.take(1));
    const std::vector<uint8_t> before = buffer;

    const int32_t r = Z_ConvertBufferExt(
        buffer.data(), width, src_bits, static_cast<uint32_t>(dst_bits), src_order, static_cast<uint32_t>(dst_order),
        (palettes & 1) ? src_palette.data() : nullptr, (palettes & 2) ? dst_palette.data() : nullptr, flags, low, high);
    check(r == ST_OK || r == ST_BAD_PARAM);
    if (r == ST_BAD_PARAM) check(buffer == before);
    if (width <= 0 || src_bits < 0 || dst_bits < 0) return 0;

    // Rows of exactly their pixels' bytes, so that any access past them is
    // caught.
    const auto row_bytes = [width](int32_t bits) {
        return static_cast<size_t>((int64_t{width} * (bits ? bits : 8) + 7) / 8);
    };
    const size_t src_len = row_bytes(src_bits), dst_len = row_bytes(dst_bits);
    const std::vector<uint8_t> source(before.begin(), before.begin() + static_cast<long>(src_len));
    std::vector<uint8_t> dst_before(dst_len);
    for (auto& b : dst_before) b = static_cast<uint8_t>(in.take(1));
    zk::ConvertRequest rq;
    rq.width = width;
    rq.src_bits = src_bits;
    rq.dst_bits = static_cast<uint32_t>(dst_bits);
    rq.src_order = src_order;
    rq.dst_order = static_cast<uint32_t>(dst_order);
    rq.src_palette = (palettes & 1) ? src_palette.data() : nullptr;
    rq.dst_palette = (palettes & 2) ? dst_palette.data() : nullptr;
    rq.flags = static_cast<uint32_t>(flags) | (src_order == 2 ? CVT_SRC_GRAY : 0) | (dst_order == 2 ? CVT_DST_GRAY : 0);
    rq.low_bit = low;
    rq.high_bit = high;
    for (const bool stream : {false, true}) {
        std::vector<uint8_t> src = source, dst = dst_before;
        rq.buffer = dst.data();
        rq.source = src.data();
        zk::RowConverter converter;
        const int32_t r2 = converter.prepare(rq);
        check(r2 == r);
        if (r2 == ST_OK) converter.run(src.data(), dst.data(), stream);
        check(src == source);
        if (r2 != ST_OK) {
            check(dst == dst_before);
            continue;
        }
        // The in-place result, with the bits past the last pixel kept.
        const uint64_t bits = uint64_t(width) * uint32_t(dst_bits ? dst_bits : 8);
        for (size_t i = 0; i < dst_len; ++i) {
            uint8_t keep = 0;
            if (i + 1 == dst_len && bits % 8) keep = dst_bits == 12 ? 0xF0 : static_cast<uint8_t>(0xFF >> (bits % 8));
            check((dst[i] & ~keep) == (buffer[i] & ~keep) && (dst[i] & keep) == (dst_before[i] & keep));
        }
    }
    return 0;
}
