// The mapping behind conventional storage, read back from the kernel's own
// account of the process (/proc/self/smaps, mincore): large bitmaps start on
// a 2 MiB boundary in a mapping that ends on the page after their last byte
// and asks for huge pages; height changes keep the rows, zero the growth and
// keep that shape when the pages move; freeing leaves none of it mapped.
#include <gtest/gtest.h>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kinds.h"
#include "platform/platform.h"

namespace {

using zktest::described;
namespace pf = zk::platform;

constexpr uintptr_t kHuge = uintptr_t{2} << 20;

uintptr_t page() { return static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE)); }
uintptr_t page_end(const uint8_t* p, size_t n) {
    return (reinterpret_cast<uintptr_t>(p) + n + page() - 1) & ~(page() - 1);
}

struct Vma {
    uintptr_t start = 0, end = 0;
    std::string flags;
};

// The mapping that holds `p`, with its VmFlags line.
Vma vma_of(const void* p) {
    const auto a = reinterpret_cast<uintptr_t>(p);
    Vma v, found;
    FILE* f = std::fopen("/proc/self/smaps", "r");
    if (!f) return found;
    char line[512];
    bool inside = false;
    while (std::fgets(line, sizeof line, f)) {
        unsigned long long s = 0, e = 0;
        if (std::sscanf(line, "%llx-%llx ", &s, &e) == 2) {
            inside = a >= s && a < e;
            if (inside) found = Vma{static_cast<uintptr_t>(s), static_cast<uintptr_t>(e), {}};
        } else if (inside && std::strncmp(line, "VmFlags:", 8) == 0) {
            found.flags = line + 8;
        }
    }
    std::fclose(f);
    return found;
}

// Whether no page of [from, to) is mapped.
bool unmapped(uintptr_t from, uintptr_t to) {
    unsigned char in_core = 0;
    for (uintptr_t a = from; a < to; a += page())
        if (::mincore(reinterpret_cast<void*>(a), page(), &in_core) == 0 || errno != ENOMEM) return false;
    return true;
}

bool huge_pages_offered() { return ::access("/sys/kernel/mm/transparent_hugepage/enabled", F_OK) == 0; }

// A large bitmap's view: aligned, exactly as long as its pages, advised.
void expect_large_view(const BitmapHandle& b) {
    const Vma v = vma_of(b.Data);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % kHuge, 0u);
    EXPECT_EQ(v.start, reinterpret_cast<uintptr_t>(b.Data));
    EXPECT_EQ(v.end, page_end(b.Data, b.Size + 31));
    if (huge_pages_offered()) {
        EXPECT_NE(v.flags.find(" hg"), std::string::npos) << v.flags;
    }
}

uint8_t pattern(size_t i) { return static_cast<uint8_t>(i * 7 + (i >> 11) + 1); }

TEST(ConventionalMapping, LargeViewsAreAlignedExactAndFreedWhole) {
    struct Case {
        int32_t width, height, bpp;
        bool large;  // Size + 31 reaches 2 MiB
    } cases[] = {{100, 50, 8, false},
                 {1024, 2047, 8, false},
                 {1024, 2048, 8, true},
                 {1000, 3001, 24, true},
                 {4097, 1000, 1, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + "x" + std::to_string(c.bpp));
        BitmapHandle b = described(c.width, c.height, c.bpp);
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
        ASSERT_EQ(b.Size + 31 >= kHuge, c.large);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % 32, 0u);
        if (c.large) expect_large_view(b);
        std::memset(b.Data, 0xA5, b.Size);
        const uintptr_t from = reinterpret_cast<uintptr_t>(b.Data), to = page_end(b.Data, b.Size + 31);
        Z_FreeBitmap(&b);
        EXPECT_TRUE(unmapped(from, to));
    }
}

TEST(ConventionalMapping, HeightChangesKeepRowsZeroGrowthAndShape) {
    BitmapHandle b = described(1024, 2048, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
    for (size_t i = 0; i < b.Size; ++i) b.Data[i] = pattern(i);
    // A page right after the view makes the growth move the pages.
    void* blocker = ::mmap(reinterpret_cast<void*>(page_end(b.Data, b.Size + 31)), page(), PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    const uintptr_t old_from = reinterpret_cast<uintptr_t>(b.Data), old_to = page_end(b.Data, b.Size + 31);

    // A refused mapping leaves the bitmap as it was.
    {
        zktest::FaultScope fault(pf::FaultKind::Mapping, 1);
        EXPECT_EQ(Z_ChangeBitmapHeight(&b, 5000), ST_NO_MEMORY);
    }
    EXPECT_EQ(b.Height, 2048);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data), old_from);

    struct Step {
        int32_t height;
        bool same_view;  // shrinking never moves the view
    } steps[] = {{5000, false}, {100, true}, {3000, false}, {2999, true}};
    size_t kept = b.Size;
    for (const Step& s : steps) {
        SCOPED_TRACE(s.height);
        uint8_t* before = b.Data;
        ASSERT_EQ(Z_ChangeBitmapHeight(&b, s.height), ST_OK);
        if (blocker != MAP_FAILED && &s == &steps[0]) {
            EXPECT_NE(reinterpret_cast<uintptr_t>(b.Data), old_from);
            EXPECT_TRUE(unmapped(old_from, old_to));  // every page moved, none was left behind
        }
        ASSERT_EQ(b.Size, size_t{1024} * static_cast<uint32_t>(s.height));
        if (s.same_view) {
            EXPECT_EQ(b.Data, before);
        }
        if (b.Size + 31 >= kHuge) expect_large_view(b);
        kept = std::min(kept, b.Size);
        size_t wrong = 0;
        for (size_t i = 0; i < b.Size; ++i) wrong += b.Data[i] != (i < kept ? pattern(i) : 0);
        EXPECT_EQ(wrong, 0u);
        for (size_t i = kept; i < b.Size; ++i) b.Data[i] = pattern(i);  // the next shrink must clear these
        kept = b.Size;
    }
    if (blocker != MAP_FAILED) ::munmap(blocker, page());
    const uintptr_t from = reinterpret_cast<uintptr_t>(b.Data), to = page_end(b.Data, b.Size + 31);
    Z_FreeBitmap(&b);
    EXPECT_TRUE(unmapped(from, to));
}

}  // namespace
#endif  // __linux__
