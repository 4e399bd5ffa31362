// The built-in test picture: a synthetic photograph-like scene with a sky
// gradient, a sun, hills, hard-edged buildings, a printed page of text-like
// strokes, a colour wheel and a little sensor noise. Any size; deterministic.
#pragma once

#include <cstdint>
#include <vector>

namespace zk_tool {

// Fills one row (width * 3 bytes, R G B) of the scene at width x height.
// The text on the page is left out (see make_scene).
void scene_row(int32_t width, int32_t height, int32_t y, uint8_t* rgb);

// The whole scene as packed R G B rows, text included.
std::vector<uint8_t> make_scene(int32_t width, int32_t height);

}  // namespace zk_tool
