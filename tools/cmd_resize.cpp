// zk resize: nearest-neighbour scaling, streamed row by row from the reader
// through Z_Resize to the writer, so no image is held whole.
#include <algorithm>
#include <cstring>

#include "edit.h"

namespace zk_tool {
namespace {

int run(const Args& args) {
    if (args.positional.size() != 2) throw UsageError("give an input and an output file");
    const std::string& out_path = args.positional[1];
    const Format format = format_for_output(out_path);
    const SaveOptions options = save_options(args);
    long long want_w = args.get_int("width", 0, 0, 0x7FFFFFFF), want_h = args.get_int("height", 0, 0, 0x7FFFFFFF);
    const long long percent = args.get_int("scale", 0, 0, 100000);
    if ((want_w || want_h) == (percent != 0)) throw UsageError("give --width and/or --height, or --scale");
    Progress progress("resizing");
    auto reader = open_reader(args.positional[0]);
    ImageDesc d = reader->desc();
    // Sizes are of the displayed picture; the rows are stored.
    const bool transposed = d.perspective >= VP_LEFT_TOP;
    if (transposed) std::swap(want_w, want_h);
    if (percent) {
        want_w = std::max<long long>(1, d.width * percent / 100);
        want_h = std::max<long long>(1, d.height * percent / 100);
    }
    ResizeHandle state = nullptr;
    check(Z_StartResize(d.width, d.height, static_cast<int32_t>(want_w), static_cast<int32_t>(want_h), &state),
          "starting the resize", "give positive sizes");
    struct Stop {
        ResizeHandle s;
        ~Stop() { Z_StopResize(s); }
    } stop{state};

    // Rows come from the file, or from a bitmap where the file cannot give
    // them in order (interlaced PNG); they go to the file, or to a bitmap
    // where PNG needs the picture upright.
    Bitmap source;
    if (reader->needs_bitmap()) {
        reader.reset();
        d = load_image(args.positional[0], source, &progress);
    }
    const bool upright_png = format == Format::Png && d.perspective != VP_TOP_LEFT;
    const size_t in_bytes = d.row_bytes();
    std::vector<uint8_t> row(static_cast<size_t>(Z_CalcConvertSize(d.width, static_cast<uint32_t>(d.bits), d.width,
                                                                   static_cast<uint32_t>(d.bits))) +
                             static_cast<size_t>(want_w + 8) * 8);
    ImageDesc nd = d;
    int32_t new_w = 0, copies = 0;
    // The new size, from the resize state's answer for the first row.
    {
        std::vector<uint8_t> probe(row.size(), 0);
        const int32_t n = Z_Resize(probe.data(), 0, d.bits, &new_w, &copies, state);
        if (n < 0) check(n, "resizing a row");
        check(Z_StopResize(state), "restarting the resize");
        stop.s = nullptr;
        state = nullptr;
        check(Z_StartResize(d.width, d.height, static_cast<int32_t>(want_w), static_cast<int32_t>(want_h), &state),
              "starting the resize");
        stop.s = state;
    }
    nd.width = new_w;
    nd.height = static_cast<int32_t>(
        want_h ? want_h : std::max<long long>(1, (static_cast<long long>(d.height) * new_w + d.width / 2) / d.width));
    std::unique_ptr<OutputFile> out;
    std::unique_ptr<RowWriter> writer;
    Bitmap target;
    if (upright_png) {
        std::vector<RGBQUAD> pal = nd.palette;
        if (nd.bits <= 8) pal.resize(1u << nd.bits);
        check(Z_CreateBitmap(target.get(), Z_BITMAPHANDLE_SIZE, TYPE_CONV, nd.width, nd.height, nd.bits, nd.order,
                             pal.empty() ? nullptr : pal.data(), nd.perspective, nullptr, 0),
              "making the resized bitmap");
    } else {
        out = std::make_unique<OutputFile>(out_path);
        writer = open_writer(*out, format, nd, options);
    }
    int32_t written = 0;
    for (int32_t r = 0; r < d.height; ++r) {
        if (source.allocated()) {
            const int32_t got =
                Z_GetBitmapRow(source.get(), row.data(), static_cast<uint32_t>(r), source->BytesPerLine);
            if (got < 0) check(got, "reading a row");
        } else {
            reader->read_row(row.data());
        }
        std::memset(row.data() + in_bytes, 0, row.size() - in_bytes);
        const int32_t n = Z_Resize(row.data(), r, d.bits, &new_w, &copies, state);
        if (n < 0) check(n, "resizing row " + std::to_string(r));
        for (int32_t k = 0; k < n && written < nd.height; ++k, ++written) {
            if (writer) {
                writer->write_row(row.data());
            } else {
                const int32_t put = Z_PutBitmapRow(target.get(), row.data(), static_cast<uint32_t>(written),
                                                   static_cast<uint32_t>(nd.row_bytes()));
                if (put < 0) check(put, "storing a resized row");
            }
        }
        progress.rows(r + 1, d.height);
    }
    if (written != nd.height)
        throw Failure(ST_BAD_PARAM,
                      "the resize gave " + std::to_string(written) + " rows instead of " + std::to_string(nd.height),
                      "report this");
    if (writer) {
        writer->finish();
        out->commit();
    } else {
        if (nd.bits <= 8 && nd.palette.size() < (1u << nd.bits))
            Z_SetBitmapNewPalette(target.get(), nd.palette.data(), static_cast<uint32_t>(nd.palette.size()));
        save_image(target.get(), out_path, options, &progress);
    }
    return 0;
}

}  // namespace

extern const Command kResize = {
    "resize",
    "IN OUT",
    "scale the image (nearest neighbour), streaming rows from IN to OUT without holding the image",
    {{"width", "PIXELS", "new displayed width (height follows the aspect ratio when not given)"},
     {"height", "PIXELS", "new displayed height (width follows when not given)"},
     {"scale", "PERCENT", "scale both sides by this percentage instead"},
     ZK_OUTPUT_OPTIONS},
    "zk resize --width 1024 big.tif small.png",
    run,
};

}  // namespace zk_tool
