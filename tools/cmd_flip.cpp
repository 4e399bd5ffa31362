// zk flip: the displayed image top to bottom.
#include "edit.h"

namespace zk_tool {
namespace {
int run(const Args& args) {
    return edit_image(args, "flipping",
                      [](BitmapHandle* b, Progress&) { check(Z_FlipBitmap(b), "flipping the image"); });
}
}  // namespace

extern const Command kFlip = {
    "flip", "IN OUT", "flip the displayed image top to bottom", {ZK_OUTPUT_OPTIONS}, "zk flip in.png out.png", run,
};

}  // namespace zk_tool
