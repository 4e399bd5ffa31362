// zk alpha: the alpha channel of an image as a gray image, and back.
#include "edit.h"

namespace zk_tool {
namespace {

int extract(const Args& args) {
    if (args.positional.size() != 3) throw UsageError("give an input and an output file: zk alpha extract IN OUT");
    const SaveOptions options = save_options(args);
    format_for_output(args.positional[2]);
    Progress progress("reading");
    Bitmap image, alpha;
    load_image(args.positional[1], image, &progress);
    progress.step("extracting");
    check(Z_GetBitmapAlpha(image.get(), alpha.get(), Z_BITMAPHANDLE_SIZE), "extracting the alpha channel");
    image.reset();
    save_image(alpha.get(), args.positional[2], options, &progress);
    return 0;
}

int set(const Args& args) {
    if (args.positional.size() != 4)
        throw UsageError("give an input, an alpha and an output file: zk alpha set IN ALPHA OUT");
    const SaveOptions options = save_options(args);
    format_for_output(args.positional[3]);
    Progress progress("reading");
    Bitmap image, alpha;
    load_image(args.positional[1], image, &progress);
    load_image(args.positional[2], alpha, &progress);
    progress.step("setting alpha");
    check(Z_SetBitmapAlpha(image.get(), alpha.get()), "writing '" + args.positional[2] + "' into the alpha channel",
          "give a gray image (1, 8 or 16 bits) as ALPHA");
    alpha.reset();
    save_image(image.get(), args.positional[3], options, &progress);
    return 0;
}

int run(const Args& args) {
    const std::string what = args.positional.empty() ? "" : args.positional[0];
    if (what == "extract") return extract(args);
    if (what == "set") return set(args);
    throw UsageError("alpha takes 'extract IN OUT' or 'set IN ALPHA OUT'");
}

}  // namespace

extern const Command kAlpha = {
    "alpha",
    "extract IN OUT | set IN ALPHA OUT",
    "write the alpha channel as a gray image (8 bits, 16 from 64-bit pixels), or set it from a gray image "
    "(an image without alpha gains one)",
    {ZK_OUTPUT_OPTIONS},
    "zk alpha set photo.png mask.png photo_rgba.png",
    run,
};

}  // namespace zk_tool
