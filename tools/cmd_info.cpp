// zk info: what a file holds and how the library stores it.
#include <cstdio>

#include "image_io.h"
#include "progress.h"
#include "zk.h"

namespace zk_tool {
namespace {

int run(const Args& args) {
    if (args.positional.size() != 1) throw UsageError("info takes one file");
    const std::string& path = args.positional[0];
    Bitmap bitmap;
    ImageDesc d;
    {
        Progress progress("reading");
        d = load_image(path, bitmap, &progress);
    }
    uint32_t type = 0, tile = 0, tiles = 0, in_memory = 0, mapped_max = 0, mapped = 0;
    check(Z_GetBitmapMemoryInfo(bitmap.get(), &type, &tile, &tiles, &in_memory, &mapped_max, &mapped),
          "asking the storage kind");
    std::printf("%s: %s\n", path.c_str(), d.details.c_str());
    std::printf("  size         %d x %d stored, %d x %d displayed\n", bitmap->Width, bitmap->Height,
                bitmap->ViewPerspective >= 5 ? bitmap->Height : bitmap->Width,
                bitmap->ViewPerspective >= 5 ? bitmap->Width : bitmap->Height);
    std::printf("  depth        %d bits per pixel%s\n", bitmap->BitsPerPixel,
                bitmap->BitsPerPixel <= 8  ? ", palette indices"
                : bitmap->Order == CO_GRAY ? ", order gray"
                : bitmap->Order == CO_BGR  ? ", order BGR"
                                           : ", order RGB");
    if (bitmap->BitsPerPixel <= 8)
        std::printf("  palette      %u entries%s\n", bitmap->ColorCount,
                    is_gray_ramp(d.palette, d.bits) ? " (gray ramp)" : "");
    std::printf("  orientation  %u (%s)\n", bitmap->ViewPerspective, perspective_name(bitmap->ViewPerspective));
    if (d.xres > 0) std::printf("  resolution   %d x %d dpi\n", d.xres, d.yres);
    switch (type) {
        case TYPE_TILED:
            std::printf("  storage      tiled: %u tiles of %u bytes, %u in memory, the rest on disk\n", tiles, tile,
                        in_memory);
            break;
        case TYPE_DISK: std::printf("  storage      a temporary disk file\n"); break;
        case TYPE_COMPRESSED: std::printf("  storage      run-length rows\n"); break;
        default: std::printf("  storage      conventional memory, %zu bytes\n", bitmap->Size); break;
    }
    if (args.has("palette") && bitmap->Palette)
        for (uint32_t i = 0; i < bitmap->ColorCount; ++i)
            std::printf("  %3u  #%02x%02x%02x\n", i, bitmap->Palette[i].rgbRed, bitmap->Palette[i].rgbGreen,
                        bitmap->Palette[i].rgbBlue);
    return 0;
}

}  // namespace

extern const Command kInfo = {
    "info",
    "FILE",
    "print dimensions, depth, palette, orientation and the storage kind the library chose",
    {{"palette", "", "also list the palette entries"}},
    "zk info --memory-limit 64M scan.tif",
    run,
};

}  // namespace zk_tool
