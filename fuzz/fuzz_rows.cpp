// Drives row access with arbitrary rows, columns, byte counts and segment
// lists on small bitmaps held conventionally, in memory tiles, in tiles on
// disk and in a disk file. Every call must return a status or the bytes it
// moved without reaching outside the bitmap or the caller's buffer
// (AddressSanitizer), and a whole row written in range must read back as
// written. Temporary files go to a private directory, which must be empty
// (and no descriptor may refer to it) once the bitmap is freed.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_storage.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;

constexpr int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    const int32_t bpp = kDepths[in.take(1) % 14];
    const int32_t width = static_cast<int32_t>(in.take(1) % 70) + 1;
    const int32_t height = static_cast<int32_t>(in.take(1) % 40) + 1;
    const uint32_t kind = in.take(1) % 5;  // conventional, memory tiles, disk tiles, disk, runs
    zkfuzz::PrivateTempDir& temp = zkfuzz::PrivateTempDir::get();

    BitmapHandle b;
    check(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, width, height, bpp) == ST_OK);

    // Tiles when asked for: of 64 bytes (a row or a few), all in memory; or
    // about four, all on disk with one mapped at a time (each disk tile is a
    // file, and files are slow to make).
    {
        const zkfuzz::SavedThresholds saved;
        const auto disk_tile = static_cast<int32_t>(b.Size / 4 > 64 ? b.Size / 4 : 64);
        check(zkfuzz::allocate_kind(b, kind, 64, disk_tile) == ST_OK);
    }
    if (kind == 3) check((b.Flags & BF_DISK) && !(b.Flags & BF_MEMORY));

    const uint32_t line = b.BytesPerLine;
    std::vector<uint8_t> row(line), back(line);
    while (in.n) {
        const uint32_t op = in.take(1) % 8;
        const uint32_t at = in.take(1) % (static_cast<uint32_t>(height) + 4);
        const uint32_t column = in.take(1) % (static_cast<uint32_t>(width) + 8);
        const uint32_t bytes = in.take(2) % (3 * line + 8);
        std::vector<uint8_t> buffer(bytes ? bytes : 1);
        for (auto& v : buffer) v = static_cast<uint8_t>(in.take(1));
        int32_t got = 0;
        switch (op) {
            case 0: got = Z_GetBitmapRow(&b, buffer.data(), at, bytes); break;
            case 1: got = Z_PutBitmapRow(&b, buffer.data(), at, bytes); break;
            case 2: got = Z_GetBitmapRowCol(&b, buffer.data(), at, column, bytes); break;
            case 3: got = Z_PutBitmapRowCol(&b, buffer.data(), at, column, bytes); break;
            case 4: {
                // Segments over a whole-row buffer.
                uint32_t segments[8];
                const uint32_t count = in.take(1) % 9;
                for (uint32_t i = 0; i < count; ++i) segments[i] = in.take(1) % (static_cast<uint32_t>(width) + 4);
                std::vector<uint8_t> whole(line + 8);
                got = Z_PutBitmapRowSegments(&b, whole.data(), at, column % 9, segments, count);
                break;
            }
            case 5:
                // Runs of any shape in a buffer of exactly their stated size.
                got = Z_PutBitmapRowCompressed(&b, buffer.data(), at, bytes);
                check(got < 0 || bpp == 1);
                continue;
            case 6: {
                got = Z_GetBitmapRowCompressed(&b, buffer.data(), at, bytes);
                if (got < 0) continue;
                // What comes out goes back in, and the row reads the same.
                check(bpp == 1 && static_cast<uint32_t>(got) <= bytes);
                check(Z_GetBitmapRow(&b, row.data(), at, line) == static_cast<int32_t>(line));
                check(Z_PutBitmapRowCompressed(&b, buffer.data(), at, static_cast<uint32_t>(got)) == got);
                check(Z_GetBitmapRow(&b, back.data(), at, line) == static_cast<int32_t>(line));
                check(row == back);
                continue;
            }
            default: {
                // A whole row in range reads back as written: every bit of
                // it, but the bits past the last pixel of run-length rows.
                const uint32_t target = at % static_cast<uint32_t>(height);
                for (uint32_t i = 0; i < line; ++i) row[i] = static_cast<uint8_t>(in.take(1));
                check(Z_PutBitmapRow(&b, row.data(), target, line) == static_cast<int32_t>(line));
                check(Z_GetBitmapRow(&b, back.data(), target, line) == static_cast<int32_t>(line));
                if (b.Flags & BF_COMPRESSED)
                    for (uint32_t x = 0; x < static_cast<uint32_t>(width); ++x)
                        check(((row[x / 8] ^ back[x / 8]) & (0x80 >> (x % 8))) == 0);
                else
                    check(row == back);
                continue;
            }
        }
        check(got < 0 || (op == 4 || static_cast<uint32_t>(got) == bytes));
    }
    Z_FreeBitmap(&b);
    temp.check_clean();
    return 0;
}
