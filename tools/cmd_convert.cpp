// zk convert: another format, depth, colour order or palette.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "edit.h"

namespace zk_tool {
namespace {

const char* const kDither[] = {"none",           "floyd",  "stucki",  "burkes",   "sierra",
                               "stevenson-arce", "jarvis", "ordered", "clustered"};

uint32_t parse_dither(const std::string& text) {
    const std::string t = lower(text);
    for (uint32_t i = 0; i < 9; ++i)
        if (t == kDither[i] || t == std::to_string(i)) return i;
    if (t == "nearest") return DITHER_NONE;
    if (t == "floyd-steinberg") return DITHER_FLOYD;
    throw UsageError("unknown dither method '" + text +
                     "' (none, floyd, stucki, burkes, sierra, stevenson-arce, jarvis, ordered, clustered)");
}

// A palette from a file: an image with a palette, or text lines "#rrggbb" or
// "r g b" (0..255), '#' lines after a space being comments.
std::vector<RGBQUAD> read_palette(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        throw Failure(ST_FILE_READ, "cannot open the palette file '" + path + "': " + std::strerror(errno),
                      "give a PNG or TIFF with a palette, or a text file of '#rrggbb' lines");
    unsigned char magic[4] = {};
    const size_t got = std::fread(magic, 1, 4, f);
    const bool image = got == 4 && (magic[0] == 0x89 || magic[0] == 'I' || magic[0] == 'M');
    std::vector<RGBQUAD> entries;
    if (image) {
        std::fclose(f);
        auto reader = open_reader(path);
        entries = reader->desc().palette;
        if (entries.empty())
            throw Failure(ST_BAD_PARAM, "'" + path + "' has no palette", "give an image of 8 bits or fewer per pixel");
        return entries;
    }
    std::rewind(f);
    char line[256];
    int number = 0;
    while (std::fgets(line, sizeof line, f)) {
        ++number;
        unsigned r = 0, g = 0, b = 0;
        char* p = line;
        while (*p == ' ' || *p == '\t') ++p;
        if (*p == '\n' || *p == '\r' || *p == '\0' || (*p == '#' && std::sscanf(p, "#%2x%2x%2x", &r, &g, &b) != 3))
            continue;
        if ((*p == '#' && std::sscanf(p, "#%2x%2x%2x", &r, &g, &b) == 3) ||
            (std::sscanf(p, "%u %u %u", &r, &g, &b) == 3 && r < 256 && g < 256 && b < 256)) {
            entries.push_back(RGBQUAD{static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r), 0});
            continue;
        }
        std::fclose(f);
        throw Failure(ST_BAD_PARAM, "line " + std::to_string(number) + " of '" + path + "' is not a colour",
                      "write one colour a line as #rrggbb or as three numbers 0..255");
    }
    std::fclose(f);
    if (entries.empty() || entries.size() > 256)
        throw Failure(ST_BAD_PARAM, "'" + path + "' holds " + std::to_string(entries.size()) + " colours",
                      "a palette has 1 to 256 colours");
    return entries;
}

int run(const Args& args) {
    const bool reduce = args.has("depth") || args.has("palette") || args.has("dither") || args.has("colors");
    int32_t depth = static_cast<int32_t>(args.get_int("depth", 8, 1, 64));
    const int valid[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    if (std::find(std::begin(valid), std::end(valid), depth) == std::end(valid))
        throw UsageError("--depth is one of 1..8, 12, 16, 24, 32, 48, 64");
    uint32_t flags = CRF_DITHER(parse_dither(args.get("dither", "floyd")));
    const std::string order = lower(args.get("order", "rgb"));
    if (order == "bgr")
        flags |= CRF_BYTE_ORDER_BGR;
    else if (order == "gray")
        flags |= CRF_BYTE_ORDER_GRAY;
    else if (order != "rgb")
        throw UsageError("--order is rgb, bgr or gray");
    const std::string kind = args.get("palette", "optimized");
    std::vector<RGBQUAD> user;
    if (kind == "fixed")
        flags |= CRF_FIXED_PALETTE;
    else if (kind == "cube")
        flags |= CRF_CUBE_PALETTE;
    else if (kind == "optimized")
        flags |= CRF_OPTIMIZED_PALETTE;
    else {
        user = read_palette(kind);
        flags |= CRF_USER_PALETTE;
    }
    if (kind == "cube" && depth != 8) throw UsageError("the cube palette needs --depth 8");
    uint32_t colors = static_cast<uint32_t>(args.get_int("colors", 0, 0, 256));
    if (!user.empty()) colors = static_cast<uint32_t>(user.size());
    return edit_image(args, "converting", [&](BitmapHandle* b, Progress&) {
        if (!reduce) return;
        check(Z_ColorResBitmap(b, b, Z_BITMAPHANDLE_SIZE, depth, flags, user.empty() ? nullptr : user.data(), nullptr,
                               colors, nullptr, nullptr),
              "converting to " + std::to_string(depth) + " bits per pixel");
    });
}

}  // namespace

extern const Command kConvert = {
    "convert",
    "IN OUT",
    "write the image in another format, depth, colour order or palette (the format follows OUT's extension)",
    {{"depth", "BITS", "bits per pixel: 1..8 (palette indices), 12, 16, 24, 32, 48 or 64"},
     {"palette", "KIND",
      "for 8 bits or fewer: fixed, cube (8 bits), optimized (default) or a FILE (PNG/TIFF "
      "with a palette, or text lines #rrggbb)"},
     {"colors", "N", "entries of an optimized palette (default 2^BITS)"},
     {"dither", "METHOD", "none, floyd (default), stucki, burkes, sierra, stevenson-arce, jarvis, ordered, clustered"},
     {"order", "ORDER", "above 8 bits: rgb (default), bgr or gray"},
     ZK_OUTPUT_OPTIONS},
    "zk convert --depth 8 --palette fixed --dither stucki photo.png photo8.png",
    run,
};

}  // namespace zk_tool
