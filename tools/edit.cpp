#include "edit.h"

namespace zk_tool {

SaveOptions save_options(const Args& args) {
    SaveOptions o;
    o.compression = args.get("compression");
    o.tile = static_cast<int32_t>(args.get_int("tile", 0, 0, 4096));
    o.bigtiff = args.has("bigtiff");
    return o;
}

int edit_image(const Args& args, const char* label, const std::function<void(BitmapHandle*, Progress&)>& change) {
    if (args.positional.size() != 2) throw UsageError("give an input and an output file");
    const SaveOptions options = save_options(args);
    format_for_output(args.positional[1]);
    Progress progress("reading");
    Bitmap bitmap;
    load_image(args.positional[0], bitmap, &progress);
    progress.step(label);
    change(bitmap.get(), progress);
    save_image(bitmap.get(), args.positional[1], options, &progress);
    return 0;
}

}  // namespace zk_tool
