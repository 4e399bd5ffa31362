// Mirroring one packed row in place: pixel i changes place with pixel
// width-1-i. The kernels work on whole words where the depth allows it: bytes
// reversed eight at a time, sub-byte pixels reversed inside each byte and the
// span then shifted back by one whole-word pass, 24-bit pixels reversed two
// at a time out of place through a small stack buffer.
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#pragma once

#include <cstdint>

namespace zk::geometry {

// Z_MirrorLine without the null check: depths 1-8, 12, 16, 24, 32, 48 and 64
// are mirrored, any other depth leaves the row alone. At 1, 2 and 4 bits the
// bits past the last pixel of its byte come out as zero; elsewhere they are
// kept.
void mirror_line(uint8_t* row, uint32_t width, int32_t bpp);

// As mirror_line, but the bits past the last pixel of its byte keep their
// value at every depth, so that mirroring a row twice gives back every byte.
void mirror_row_exact(uint8_t* row, uint32_t width, int32_t bpp);

}  // namespace zk::geometry
