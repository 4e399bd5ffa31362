// zk rotate: quarter and half turns of the displayed image, clockwise.
#include "edit.h"

namespace zk_tool {
namespace {
int run(const Args& args) {
    if (args.positional.empty()) throw UsageError("give the angle: 90, 180 or 270");
    const std::string angle = args.positional[0];
    if (angle != "90" && angle != "180" && angle != "270")
        throw UsageError("rotate turns by 90, 180 or 270 degrees clockwise, not '" + angle + "'");
    Args rest = args;
    rest.positional.erase(rest.positional.begin());
    const int32_t hundredths = std::stoi(angle) * 100;
    return edit_image(rest, "turning", [hundredths](BitmapHandle* b, Progress&) {
        check(Z_RotateBitmap(b, hundredths, ROTATE_RESIZE, 0), "turning the image");
    });
}
}  // namespace

extern const Command kRotate = {
    "rotate",
    "90|180|270 IN OUT",
    "turn the displayed image clockwise by a quarter, half or three-quarter turn",
    {ZK_OUTPUT_OPTIONS},
    "zk rotate 90 --memory-limit 64M big.tif turned.tif",
    run,
};

}  // namespace zk_tool
