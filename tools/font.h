// A small built-in bitmap font (5 x 8 cells, printable ASCII) for labels the
// tool draws into images.
#pragma once

#include <cstdint>
#include <string>

namespace zk_tool {

// Pixels of text at `scale` (one glyph is 6 * scale wide with its gap).
int text_width(const std::string& text, int scale);
constexpr int text_height(int scale) { return 8 * scale; }

// Draws text with its top left at (x, y) into a 24-bit RGB image of
// width x height pixels whose rows are `stride` bytes apart; pixels outside
// the image are skipped.
void draw_text(uint8_t* image, size_t stride, int width, int height, int x, int y, const std::string& text, uint8_t r,
               uint8_t g, uint8_t b, int scale);

}  // namespace zk_tool
