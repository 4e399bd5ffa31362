// Drives buffer redirection with random operations and checks every result
// against a plain model of the buffer. Input: one flags byte, then operations
// of one code byte and up to four argument bytes each.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "zkernel.h"

using zkfuzz::check;
using zkfuzz::Reader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    Reader in{data + 1, size - 1};
    const uint32_t flags = data[0] & 7;
    const bool grow = flags & Z_REDIRECT_GROW;
    const bool input_only = flags & Z_REDIRECT_INPUT;

    // A caller buffer of up to 255 bytes, or none.
    const size_t initial = in.take(1);
    uint8_t* start = initial ? static_cast<uint8_t*>(Z_Malloc(initial)) : nullptr;
    if (start) std::memset(start, 0xA5, initial);

    Z_REDIRECTBUFFER* rec = nullptr;
    Z_FILE h = 0;
    check(Z_StartRedirectToBuffer(&rec, &h, flags, start, start ? initial : 0) == ST_OK);
    check(h == Z_REDIRECT_HANDLE);

    std::vector<uint8_t> model(input_only && start ? start : nullptr, input_only && start ? start + initial : nullptr);
    std::vector<bool> known(model.size(), true);  // bytes whose value the model knows
    size_t capacity = start ? initial : 0;
    size_t pos = 0;
    std::vector<uint8_t> scratch(70000);

    while (in.n) {
        const uint32_t op = in.take(1) % 6;
        if (op == 0) {  // write
            const uint32_t count = in.take(2);
            for (uint32_t i = 0; i < count; ++i) scratch[i] = static_cast<uint8_t>(i * 7 + pos);
            const int32_t got = Z_RedirectedWrite(h, scratch.data(), count);
            if (input_only) {
                check(got == -1);
                continue;
            }
            if (count == 0) {
                check(got == 0);
                model.resize(pos < capacity ? pos : capacity);
                known.resize(model.size());
                continue;
            }
            if (grow && pos + count > capacity) capacity = (pos + count + 0x7FFF) & ~size_t{0x7FFF};
            check(rec->Size == capacity);
            if (pos > capacity) {
                check(got == -1);
                continue;
            }
            const size_t n = capacity - pos < count ? capacity - pos : count;
            check(got == static_cast<int32_t>(n));
            if (model.size() < pos) {
                model.resize(pos);
                known.resize(pos);
            }
            if (model.size() < pos + n) {
                model.resize(pos + n);
                known.resize(pos + n);
            }
            if (n) std::memcpy(model.data() + pos, scratch.data(), n);
            for (size_t i = pos; i < pos + n; ++i) known[i] = true;
            pos += n;
        } else if (op == 1) {  // read
            const uint32_t count = in.take(2);
            const int32_t got = Z_RedirectedRead(h, scratch.data(), count);
            if (!rec->Buffer || pos > model.size()) {
                check(got == -1);
                continue;
            }
            const size_t n = model.size() - pos < count ? model.size() - pos : count;
            check(got == static_cast<int32_t>(n));
            for (size_t i = 0; i < n; ++i) check(!known[pos + i] || scratch[i] == model[pos + i]);
            pos += n;
        } else if (op == 2) {  // seek
            const int32_t origin = static_cast<int32_t>(in.take(1) % 4);
            const int64_t offset = static_cast<int16_t>(in.take(2));
            const int64_t got = Z_RedirectedSeek(h, offset, origin);
            const int64_t base = origin == 0   ? 0
                                 : origin == 1 ? static_cast<int64_t>(pos)
                                               : static_cast<int64_t>(model.size());
            if (origin == 3 || base + offset < 0) {
                check(got == -1);
            } else {
                check(got == base + offset);
                pos = static_cast<size_t>(got);
            }
        } else if (op == 3) {  // open
            const int32_t open_flags = (in.take(1) & 1) ? Z_O_TRUNC : 0;
            check(Z_RedirectedOpen(L"", open_flags, 0) == Z_REDIRECT_HANDLE);
            pos = 0;
            if (open_flags) {
                model.clear();
                known.clear();
            }
        } else if (op == 4) {  // a foreign handle fails
            check(Z_RedirectedWrite(4, scratch.data(), 1) == -1);
            check(Z_RedirectedRead(6, scratch.data(), 1) == -1);
        } else {  // close, which may shrink
            const bool shrinks = !input_only && (flags & 3) == 3 && model.size() < capacity;
            check(Z_RedirectedClose(h) == 0);
            if (shrinks) capacity = model.size();
            check(rec->Size == capacity);
        }
        check(rec->End == model.size());
        check(rec->Position == pos);
    }

    void* buffer = nullptr;
    size_t end = 0;
    check(Z_StopRedirectToBuffer(rec, &buffer, &end) == ST_OK);
    check(end == model.size());
    for (size_t i = 0; i < end; ++i) check(!known[i] || static_cast<uint8_t*>(buffer)[i] == model[i]);
    Z_Free(buffer);
    return 0;
}
