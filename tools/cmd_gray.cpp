// zk gray: gray levels of an image.
#include "edit.h"

namespace zk_tool {
namespace {
int run(const Args& args) {
    const int32_t bits = static_cast<int32_t>(args.get_int("depth", 8, 8, 16));
    if (bits != 8 && bits != 16) throw UsageError("--depth is 8 or 16");
    return edit_image(args, "gray", [bits](BitmapHandle* b, Progress&) {
        check(Z_GrayScaleBitmap(b, bits), "converting to gray levels");
    });
}
}  // namespace

extern const Command kGray = {
    "gray",
    "IN OUT",
    "replace every pixel by its gray level, (2R + 5G + B) / 8",
    {{"depth", "BITS", "8 (default) or 16 bits per pixel"}, ZK_OUTPUT_OPTIONS},
    "zk gray --depth 16 photo.png gray.png",
    run,
};

}  // namespace zk_tool
