// zk mirror: the displayed image left to right.
#include "edit.h"

namespace zk_tool {
namespace {
int run(const Args& args) {
    return edit_image(args, "mirroring",
                      [](BitmapHandle* b, Progress&) { check(Z_ReverseBitmap(b), "mirroring the image"); });
}
}  // namespace

extern const Command kMirror = {
    "mirror", "IN OUT", "mirror the displayed image left to right", {ZK_OUTPUT_OPTIONS}, "zk mirror in.tif out.tif",
    run,
};

}  // namespace zk_tool
