// zk demo: the built-in scene through every dither method to three palettes,
// the eight view perspectives and the quarter turns, on one labelled contact
// sheet, with a table of timings on a larger copy of the scene.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>

#include "font.h"
#include "image_io.h"
#include "progress.h"
#include "scene.h"
#include "zk.h"

namespace zk_tool {
namespace {

const char* const kMethods[] = {"nearest",        "Floyd-Steinberg", "Stucki",  "Burkes",   "Sierra",
                                "Stevenson-Arce", "Jarvis",          "ordered", "clustered"};

struct Palette {
    const char* title;
    int32_t bits;
    uint32_t flags;
};
const Palette kPalettes[] = {{"fixed 16-colour palette", 4, CRF_FIXED_PALETTE},
                             {"fixed 256-colour palette", 8, CRF_FIXED_PALETTE},
                             {"optimized 256-colour palette", 8, CRF_OPTIMIZED_PALETTE}};

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A bitmap of 24-bit R G B rows from packed pixels.
void make_bitmap(Bitmap& bitmap, int32_t width, int32_t height, const std::vector<uint8_t>& rgb) {
    check(Z_CreateBitmap(bitmap.get(), Z_BITMAPHANDLE_SIZE, TYPE_CONV, width, height, 24, CO_RGB, nullptr, VP_TOP_LEFT,
                         nullptr, 0),
          "making the demo bitmap");
    for (int32_t y = 0; y < height; ++y) {
        const int32_t put = Z_PutBitmapRow(bitmap.get(), rgb.data() + static_cast<size_t>(y) * width * 3,
                                           static_cast<uint32_t>(y), static_cast<uint32_t>(width) * 3);
        if (put < 0) check(put, "storing a row of the demo bitmap");
    }
}

// The stored rows of any bitmap as packed R G B, top row first.
std::vector<uint8_t> rgb_rows(BitmapHandle* bitmap) {
    const int32_t w = bitmap->Width, h = bitmap->Height;
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * 3);
    std::vector<uint8_t> row(
        static_cast<size_t>(Z_CalcConvertSize(w, static_cast<uint32_t>(bitmap->BitsPerPixel), w, 24)));
    for (int32_t y = 0; y < h; ++y) {
        const int32_t got = Z_GetBitmapRow(bitmap, row.data(), static_cast<uint32_t>(y), bitmap->BytesPerLine);
        if (got < 0) check(got, "reading a row of a demo result");
        if (bitmap->BitsPerPixel != 24 || bitmap->Order != CO_RGB)
            check(Z_ConvertBufferExt(row.data(), w, bitmap->BitsPerPixel, 24, static_cast<int32_t>(bitmap->Order),
                                     CO_RGB, bitmap->Palette, nullptr, 0, 0, 0),
                  "converting a demo result to 24 bits");
        std::memcpy(out.data() + static_cast<size_t>(y) * w * 3, row.data(), static_cast<size_t>(w) * 3);
    }
    return out;
}

// PSNR in dB of b against a (same size); infinity when equal.
double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size()) return -1;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = static_cast<double>(a[i]) - b[i];
        sum += d * d;
    }
    if (sum == 0) return INFINITY;
    return 10.0 * std::log10(255.0 * 255.0 / (sum / static_cast<double>(a.size())));
}

std::string psnr_text(double db) {
    if (std::isinf(db)) return "exact";
    if (db < 0) return "size differs";
    char text[32];
    std::snprintf(text, sizeof text, "PSNR %.1f dB", db);
    return text;
}

struct Tile {
    std::vector<uint8_t> rgb;
    int32_t width, height;
    std::string label1, label2;
};

struct Section {
    std::string title;
    std::vector<Tile> tiles;
};

struct Timing {
    std::string what;
    double seconds;
};

// The sheet: sections one under another, each a heading and a row of tiles.
std::vector<uint8_t> compose(const std::vector<Section>& sections, int32_t cell, int32_t* width, int32_t* height) {
    const int big = cell >= 200 ? 2 : 1;
    const int margin = 16, gap = 12, label = 22, heading = 12 * big, title = 10 + 12 * big;
    size_t columns = 0;
    for (const auto& s : sections) columns = std::max(columns, s.tiles.size());
    *width = margin * 2 + static_cast<int32_t>(columns) * (cell + gap) - gap;
    int32_t h = margin + title;
    for (const auto& s : sections) {
        int32_t tallest = 0;
        for (const auto& t : s.tiles) tallest = std::max(tallest, t.height);
        h += heading + tallest + label + gap;
    }
    *height = h + margin;
    const size_t stride = static_cast<size_t>(*width) * 3;
    std::vector<uint8_t> sheet(stride * *height, 0);
    for (size_t i = 0; i < sheet.size(); i += 3) {
        sheet[i] = 34;
        sheet[i + 1] = 36;
        sheet[i + 2] = 42;
    }
    draw_text(sheet.data(), stride, *width, *height, margin, margin,
              "zkernel: one synthetic photograph through every dither method, view perspective and quarter turn", 240,
              240, 240, big);
    int32_t y = margin + title;
    for (const auto& s : sections) {
        draw_text(sheet.data(), stride, *width, *height, margin, y + 2, s.title, 250, 210, 120, big);
        y += heading;
        int32_t tallest = 0;
        for (size_t i = 0; i < s.tiles.size(); ++i) {
            const Tile& t = s.tiles[i];
            const int32_t x = margin + static_cast<int32_t>(i) * (cell + gap);
            for (int32_t r = 0; r < t.height; ++r)
                std::memcpy(sheet.data() + (y + r) * stride + static_cast<size_t>(x) * 3,
                            t.rgb.data() + static_cast<size_t>(r) * t.width * 3, static_cast<size_t>(t.width) * 3);
            draw_text(sheet.data(), stride, *width, *height, x, y + t.height + 3, t.label1, 230, 230, 230, 1);
            draw_text(sheet.data(), stride, *width, *height, x, y + t.height + 12, t.label2, 150, 200, 255, 1);
            tallest = std::max(tallest, t.height);
        }
        y += tallest + label + gap;
    }
    return sheet;
}

int run(const Args& args) {
    const std::string out = args.positional.empty() ? "zk-demo.png" : args.positional[0];
    if (args.positional.size() > 1) throw UsageError("demo takes at most one argument, the output PNG");
    format_for_output(out);
    const int32_t tw = static_cast<int32_t>(args.get_int("tile", 240, 64, 1024));
    const int32_t th = tw * 3 / 4;
    const int32_t bw = static_cast<int32_t>(args.get_int("timing-width", 2048, 64, 16384));
    const int32_t bh = bw * 3 / 4;
    const auto total_start = Clock::now();
    Progress progress("demo");

    // The tile-sized scene for the sheet, the larger one for the timings.
    std::vector<Timing> timings;
    auto start = Clock::now();
    const std::vector<uint8_t> original = make_scene(tw, th);
    Bitmap scene, big;
    make_bitmap(scene, tw, th, original);
    make_bitmap(big, bw, bh, make_scene(bw, bh));
    const double make_time = seconds_since(start);
    const double mp = static_cast<double>(bw) * bh / 1e6;

    std::vector<Section> sections;
    Section first{"original and quarter turns (Z_RotateBitmap)", {}};
    first.tiles.push_back({original, tw, th, "original, 24-bit", "PSNR reference"});

    // Quarter turns: the tile turned, then turned back and compared.
    const int turns[] = {9000, 18000, 27000};
    for (int angle : turns) {
        Bitmap turned, back;
        check(Z_CopyBitmap(turned.get(), scene.get(), Z_BITMAPHANDLE_SIZE), "copying the scene");
        check(Z_RotateBitmap(turned.get(), angle, ROTATE_RESIZE, 0), "turning the scene");
        check(Z_CopyBitmap(back.get(), turned.get(), Z_BITMAPHANDLE_SIZE), "copying the turned scene");
        check(Z_RotateBitmap(back.get(), 36000 - angle, ROTATE_RESIZE, 0), "turning the scene back");
        first.tiles.push_back({rgb_rows(turned.get()), turned->Width, turned->Height,
                               "turn " + std::to_string(angle / 100) + " cw",
                               "back: " + psnr_text(psnr(original, rgb_rows(back.get())))});
        Bitmap copy;
        check(Z_CopyBitmap(copy.get(), big.get(), Z_BITMAPHANDLE_SIZE), "copying the large scene");
        start = Clock::now();
        check(Z_RotateBitmap(copy.get(), angle, ROTATE_RESIZE, 0), "turning the large scene");
        timings.push_back({"turn " + std::to_string(angle / 100) + " degrees", seconds_since(start)});
    }
    {
        Bitmap copy;
        check(Z_CopyBitmap(copy.get(), big.get(), Z_BITMAPHANDLE_SIZE), "copying the large scene");
        start = Clock::now();
        check(Z_FlipBitmap(copy.get()), "flipping the large scene");
        timings.push_back({"flip (top to bottom)", seconds_since(start)});
        start = Clock::now();
        check(Z_ReverseBitmap(copy.get()), "mirroring the large scene");
        timings.push_back({"mirror (left to right)", seconds_since(start)});
    }
    sections.push_back(std::move(first));

    // Nine dither methods to each palette.
    int step = 0;
    for (const Palette& p : kPalettes) {
        Section s{std::string("nine dither methods to the ") + p.title + " (Z_ColorResBitmap)", {}};
        for (uint32_t m = 0; m < 9; ++m) {
            progress.update(++step * 100 / 40);
            Bitmap small, large;
            const uint32_t flags = p.flags | CRF_DITHER(m);
            check(Z_ColorResBitmap(scene.get(), small.get(), Z_BITMAPHANDLE_SIZE, p.bits, flags, nullptr, nullptr, 0,
                                   nullptr, nullptr),
                  std::string("reducing the scene with ") + kMethods[m]);
            start = Clock::now();
            check(Z_ColorResBitmap(big.get(), large.get(), Z_BITMAPHANDLE_SIZE, p.bits, flags, nullptr, nullptr, 0,
                                   nullptr, nullptr),
                  std::string("reducing the large scene with ") + kMethods[m]);
            const double t = seconds_since(start);
            timings.push_back({std::string(kMethods[m]) + ", " + p.title, t});
            std::vector<uint8_t> rgb = rgb_rows(small.get());
            const double db = psnr(original, rgb);
            s.tiles.push_back({std::move(rgb), tw, th, kMethods[m], psnr_text(db)});
        }
        sections.push_back(std::move(s));
    }

    // The eight view perspectives: the stored rows of the scene held in each,
    // and the round trip back to top-left.
    Section views{"the scene's stored rows in the eight view perspectives (Z_ChangeBitmapViewPerspective)", {}};
    for (uint32_t vp = 1; vp <= 8; ++vp) {
        progress.update(++step * 100 / 40);
        Bitmap stored, back, large;
        check(Z_ChangeBitmapViewPerspective(stored.get(), scene.get(), Z_BITMAPHANDLE_SIZE, static_cast<int32_t>(vp)),
              "changing the view perspective");
        check(Z_ChangeBitmapViewPerspective(back.get(), stored.get(), Z_BITMAPHANDLE_SIZE, VP_TOP_LEFT),
              "changing the view perspective back");
        start = Clock::now();
        check(Z_ChangeBitmapViewPerspective(large.get(), big.get(), Z_BITMAPHANDLE_SIZE, static_cast<int32_t>(vp)),
              "changing the large scene's view perspective");
        timings.push_back({std::string("to perspective ") + std::to_string(vp) + " " + perspective_name(vp) + " (copy)",
                           seconds_since(start)});
        views.tiles.push_back({rgb_rows(stored.get()), stored->Width, stored->Height,
                               std::to_string(vp) + " " + perspective_name(vp),
                               "back: " + psnr_text(psnr(original, rgb_rows(back.get())))});
    }
    sections.push_back(std::move(views));

    int32_t sw = 0, sh = 0;
    const std::vector<uint8_t> sheet_rgb = compose(sections, std::max(tw, th), &sw, &sh);
    Bitmap sheet;
    make_bitmap(sheet, sw, sh, sheet_rgb);
    start = Clock::now();
    save_image(sheet.get(), out, SaveOptions{}, nullptr);
    const double save_time = seconds_since(start);
    progress.update(100);
    progress.step("");

    std::printf("zk demo: wrote the contact sheet %s (%d x %d)\n", out.c_str(), sw, sh);
    std::printf("timings on a %d x %d 24-bit copy of the scene (%.1f megapixels), one thread:\n", bw, bh, mp);
    std::printf("  %-58s %9s %9s\n", "operation", "ms", "MP/s");
    for (const Timing& t : timings)
        std::printf("  %-58s %9.2f %9.1f\n", t.what.c_str(), t.seconds * 1e3, mp / t.seconds);
    std::printf("  %-58s %9.2f\n", "making both scenes", make_time * 1e3);
    std::printf("  %-58s %9.2f\n", "writing the sheet (libpng)", save_time * 1e3);
    std::printf("  %-58s %9.2f\n", "whole demo", seconds_since(total_start) * 1e3);
    return 0;
}

}  // namespace

extern const Command kDemo = {
    "demo",
    "[OUT.png]",
    "draw the built-in scene through every dither method, view perspective and quarter turn onto one labelled "
    "contact sheet, and time each operation",
    {{"tile", "PIXELS", "width of each tile on the sheet (64..1024, default 240; height is 3/4 of it)"},
     {"timing-width", "PIXELS", "width of the scene the timings run on (default 2048; height is 3/4 of it)"}},
    "zk demo contact-sheet.png",
    run,
};

}  // namespace zk_tool
