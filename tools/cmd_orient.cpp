// zk orient: the view perspective (TIFF Orientation) of an image.
#include "edit.h"

namespace zk_tool {
namespace {
int run(const Args& args) {
    const int given = args.has("apply") + args.has("to") + args.has("set");
    if (given != 1) throw UsageError("give exactly one of --apply, --to VP and --set VP");
    if (args.has("set")) {
        const uint32_t vp = parse_perspective(args.get("set"));
        return edit_image(args, "orienting", [vp](BitmapHandle* b, Progress&) { b->ViewPerspective = vp; });
    }
    const uint32_t to = args.has("apply") ? VP_TOP_LEFT : parse_perspective(args.get("to"));
    return edit_image(args, "orienting", [to](BitmapHandle* b, Progress&) {
        check(Z_ChangeBitmapViewPerspective(nullptr, b, Z_BITMAPHANDLE_SIZE, static_cast<int32_t>(to)),
              "changing the view perspective");
    });
}
}  // namespace

extern const Command kOrient = {
    "orient",
    "IN OUT",
    "change how the pixels are stored (keeping the picture), apply the file's orientation, or relabel it",
    {{"apply", "", "store the picture as displayed: row 0 at the top, orientation 1 (top-left)"},
     {"to", "VP", "store the same picture in view perspective VP (1..8 or a name such as right-top)"},
     {"set", "VP", "only change the orientation tag to VP, which changes how the stored pixels are displayed"},
     ZK_OUTPUT_OPTIONS},
    "zk orient --apply camera.tif upright.tif",
    run,
};

}  // namespace zk_tool
