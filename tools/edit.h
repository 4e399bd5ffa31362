// The shape shared by commands that load an image, change the bitmap and
// save it: IN OUT, the output options, a progress bar.
#pragma once

#include <functional>
#include <string>

#include "image_io.h"
#include "progress.h"
#include "zk.h"

namespace zk_tool {

// Output options of every command that writes an image.
#define ZK_OUTPUT_OPTIONS                                                                                 \
    {"compression", "KIND", "TIFF output: none, lzw (default), deflate or packbits"},                     \
        {"tile", "PIXELS", "TIFF output: write tiles of this side (multiple of 16) instead of strips"}, { \
        "bigtiff", "", "TIFF output: always write BigTIFF (it is chosen by itself above 3.5 GB)"          \
    }

SaveOptions save_options(const Args& args);

// Loads IN, calls change(bitmap, progress) with the progress bar labelled
// `label`, and saves to OUT.
int edit_image(const Args& args, const char* label, const std::function<void(BitmapHandle*, Progress&)>& change);

}  // namespace zk_tool
