// POSIX implementation of the operating-system layer.
#if !defined(_WIN32)

#include "platform.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#if defined(__linux__)
#include <sys/random.h>
#include <sys/sysinfo.h>
#endif

namespace zk::platform {

// ---------------------------------------------------------------------------
// Fault seam.
namespace {
struct FaultCounter {
    std::atomic<int> armed{0};
    std::atomic<long> calls{0};
};
FaultCounter g_faults[static_cast<int>(FaultKind::Count_)];
}  // namespace

void inject_failure(FaultKind kind, int nth) { g_faults[static_cast<int>(kind)].armed.store(nth); }

long fault_calls(FaultKind kind) { return g_faults[static_cast<int>(kind)].calls.load(); }

void reset_fault_counters() {
    for (auto& f : g_faults) {
        f.armed.store(0);
        f.calls.store(0);
    }
}

bool should_fail(FaultKind kind) {
    auto& f = g_faults[static_cast<int>(kind)];
    f.calls.fetch_add(1);
    int armed = f.armed.load();
    while (armed > 0) {
        if (f.armed.compare_exchange_weak(armed, armed - 1)) return armed == 1;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Runtime heap.
// No object may exceed PTRDIFF_MAX bytes; larger requests (and count * size
// products that overflow) fail here rather than in the runtime, which some
// runtimes (sanitizers among them) treat as a fatal error.
namespace {
constexpr std::size_t kMaxObject = static_cast<std::size_t>(PTRDIFF_MAX);
}  // namespace

void* heap_alloc(std::size_t size) {
    if (should_fail(FaultKind::Allocation)) return nullptr;
    if (size > kMaxObject) return nullptr;
    return std::malloc(size ? size : 1);
}

void* heap_calloc(std::size_t count, std::size_t size) {
    if (should_fail(FaultKind::Allocation)) return nullptr;
    if (count == 0 || size == 0) return std::calloc(1, 1);
    if (size > kMaxObject / count) return nullptr;
    return std::calloc(count, size);
}

void* heap_realloc(void* pointer, std::size_t size) {
    if (should_fail(FaultKind::Allocation)) return nullptr;
    if (size > kMaxObject) return nullptr;
    return std::realloc(pointer, size ? size : 1);
}

void heap_free(void* pointer) { std::free(pointer); }

// ---------------------------------------------------------------------------
// Movable blocks, emulated: the handle is a small descriptor; the data is a
// heap block preceded by a prefix that leads back to the descriptor, so that
// block_from_pointer works as the global-memory service's handle lookup does.
namespace {
constexpr std::uint64_t kBlockMagic = 0x7A6B626C6F636B31ull;  // "zkblock1"
struct Block {
    std::uint64_t magic;
    std::size_t size;
    int locks;
    unsigned char* storage;  // prefix + data
};
struct alignas(16) Prefix {
    std::uint64_t magic;
    Block* block;
};
unsigned char* data_of(Block* b) { return b->storage + sizeof(Prefix); }
}  // namespace

BlockHandle block_alloc(std::size_t size, bool zero) {
    if (should_fail(FaultKind::Allocation)) return nullptr;
    if (size > kMaxObject - sizeof(Prefix)) return nullptr;
    auto* b = static_cast<Block*>(std::malloc(sizeof(Block)));
    if (!b) return nullptr;
    auto* storage =
        static_cast<unsigned char*>(zero ? std::calloc(1, sizeof(Prefix) + size) : std::malloc(sizeof(Prefix) + size));
    if (!storage) {
        std::free(b);
        return nullptr;
    }
    *b = Block{kBlockMagic, size, 0, storage};
    Prefix p{kBlockMagic, b};
    std::memcpy(storage, &p, sizeof p);
    return b;
}

void* block_lock(BlockHandle handle) {
    auto* b = static_cast<Block*>(handle);
    if (!b || b->magic != kBlockMagic) return nullptr;
    ++b->locks;
    return data_of(b);
}

bool block_unlock(BlockHandle handle) {
    auto* b = static_cast<Block*>(handle);
    if (!b || b->magic != kBlockMagic) return false;
    if (b->locks > 0) --b->locks;
    return b->locks > 0;
}

BlockHandle block_realloc(BlockHandle handle, std::size_t size, bool zero_growth) {
    auto* b = static_cast<Block*>(handle);
    if (!b || b->magic != kBlockMagic) return nullptr;
    if (should_fail(FaultKind::Allocation)) return nullptr;
    if (size > kMaxObject - sizeof(Prefix)) return nullptr;
    auto* storage = static_cast<unsigned char*>(std::realloc(b->storage, sizeof(Prefix) + size));
    if (!storage) return nullptr;
    if (zero_growth && size > b->size) std::memset(storage + sizeof(Prefix) + b->size, 0, size - b->size);
    b->storage = storage;
    b->size = size;
    return b;
}

void block_free(BlockHandle handle) {
    auto* b = static_cast<Block*>(handle);
    if (!b || b->magic != kBlockMagic) return;
    Prefix p{};
    std::memcpy(b->storage, &p, sizeof p);
    std::free(b->storage);
    b->magic = 0;
    std::free(b);
}

BlockHandle block_from_pointer(const void* pointer) {
    if (!pointer) return nullptr;
    Prefix p;
    std::memcpy(&p, static_cast<const unsigned char*>(pointer) - sizeof(Prefix), sizeof p);
    if (p.magic != kBlockMagic || !p.block || p.block->magic != kBlockMagic) return nullptr;
    if (data_of(p.block) != pointer) return nullptr;
    return p.block;
}

std::size_t block_size(BlockHandle handle) {
    auto* b = static_cast<Block*>(handle);
    return (b && b->magic == kBlockMagic) ? b->size : 0;
}

// ---------------------------------------------------------------------------
// Files.
FileHandle file_open(const std::string& path, const OpenOptions& o) {
    if (should_fail(FaultKind::File)) return kNoFile;
    int flags = O_CLOEXEC;
    switch (o.access) {
        case Access::Read: flags |= O_RDONLY; break;
        case Access::Write: flags |= O_WRONLY; break;
        case Access::ReadWrite: flags |= O_RDWR; break;
    }
    switch (o.disposition) {
        case Disposition::OpenExisting: break;
        case Disposition::CreateAlways: flags |= O_CREAT | O_TRUNC; break;
        case Disposition::TruncateExisting: flags |= O_TRUNC; break;
        case Disposition::OpenAlways: flags |= O_CREAT; break;
    }
    mode_t mode = o.read_only_attribute ? 0444 : 0666;
    int fd;
    do {
        fd = ::open(path.c_str(), flags, mode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return kNoFile;
    if (o.delete_on_close) ::unlink(path.c_str());
    return fd;
}

namespace {
// Moves all `count` bytes unless the file ends or fails: read(2) and write(2)
// may move fewer bytes than asked or be interrupted.
template <typename Call, typename Byte>
std::int64_t move_all(FileHandle file, Byte* p, std::size_t count, Call call) {
    if (file < 0) return -1;
    if (should_fail(FaultKind::File)) return -1;
    std::size_t done = 0;
    while (done < count) {
        ssize_t n = call(static_cast<int>(file), p + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}
}  // namespace

std::int64_t file_read(FileHandle file, void* buffer, std::size_t count) {
    return move_all(file, static_cast<unsigned char*>(buffer), count,
                    [](int fd, unsigned char* p, std::size_t n) { return ::read(fd, p, n); });
}

namespace {
// Bytes a file may grow to under the process's file-size limit; growing past
// it would raise SIGXFSZ, whose default action ends the process.
std::uint64_t file_size_limit() {
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return UINT64_MAX;
    return static_cast<std::uint64_t>(limit.rlim_cur);
}

// Whether bytes up to `end` stay within the file-size limit (sets EFBIG when not).
bool below_size_limit(std::uint64_t end) {
    if (end <= file_size_limit()) return true;
    errno = EFBIG;
    return false;
}
}  // namespace

std::int64_t file_write(FileHandle file, const void* buffer, std::size_t count) {
    // A write that would pass the file-size limit is cut at the limit; one
    // that starts there fails.
    const std::uint64_t limit = file_size_limit();
    if (file >= 0 && limit != UINT64_MAX && count > 0) {
        const off_t at = ::lseek(static_cast<int>(file), 0, SEEK_CUR);
        if (at >= 0) {
            const auto pos = static_cast<std::uint64_t>(at);
            if (pos >= limit) return -1;
            if (count > limit - pos) count = static_cast<std::size_t>(limit - pos);
        }
    }
    return move_all(file, static_cast<const unsigned char*>(buffer), count,
                    [](int fd, const unsigned char* p, std::size_t n) { return ::write(fd, p, n); });
}

std::int64_t file_read_at(FileHandle file, void* buffer, std::size_t count, std::uint64_t offset) {
    if (offset > static_cast<std::uint64_t>(INT64_MAX)) return -1;
    auto* base = static_cast<unsigned char*>(buffer);
    return move_all(file, base, count, [offset, base](int fd, unsigned char* p, std::size_t n) {
        return ::pread(fd, p, n, static_cast<off_t>(offset + static_cast<std::uint64_t>(p - base)));
    });
}

std::int64_t file_write_at(FileHandle file, const void* buffer, std::size_t count, std::uint64_t offset) {
    if (offset > static_cast<std::uint64_t>(INT64_MAX)) return -1;
    const std::uint64_t limit = file_size_limit();
    if (limit != UINT64_MAX && count > 0) {
        if (offset >= limit) return -1;
        if (count > limit - offset) count = static_cast<std::size_t>(limit - offset);
    }
    const auto* base = static_cast<const unsigned char*>(buffer);
    return move_all(file, base, count, [offset, base](int fd, const unsigned char* p, std::size_t n) {
        return ::pwrite(fd, p, n, static_cast<off_t>(offset + static_cast<std::uint64_t>(p - base)));
    });
}

bool file_write_pieces(FileHandle file, std::uint64_t offset, std::size_t stride, std::size_t piece, std::size_t pieces,
                       const void* buffer) {
    if (file < 0) return false;
    if (should_fail(FaultKind::File)) return false;
    if (pieces == 0) return true;
    const std::uint64_t last = offset + std::uint64_t{pieces - 1} * stride;
    if (last < offset || last > static_cast<std::uint64_t>(INT64_MAX) - piece || !below_size_limit(last + piece))
        return false;
    const auto* in = static_cast<const unsigned char*>(buffer);
    bool whole = true;
    for (std::size_t k = 0; k < pieces; ++k, in += piece, offset += stride) {
        std::size_t done = 0;
        while (done < piece) {
            const ssize_t n =
                ::pwrite(static_cast<int>(file), in + done, piece - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        whole = whole && done == piece;
    }
    return whole;
}

void file_will_read([[maybe_unused]] FileHandle file, [[maybe_unused]] std::uint64_t offset,
                    [[maybe_unused]] std::uint64_t count) {
#if defined(POSIX_FADV_WILLNEED)
    if (file >= 0 && offset <= static_cast<std::uint64_t>(INT64_MAX) && count <= static_cast<std::uint64_t>(INT64_MAX))
        ::posix_fadvise(static_cast<int>(file), static_cast<off_t>(offset), static_cast<off_t>(count),
                        POSIX_FADV_WILLNEED);
#endif
}

std::int64_t file_seek(FileHandle file, std::int64_t offset, int origin) {
    if (file < 0) return -1;
    if (should_fail(FaultKind::File)) return -1;
    int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : origin == 2 ? SEEK_END : -1;
    if (whence < 0) return -1;
    off_t r = ::lseek(static_cast<int>(file), static_cast<off_t>(offset), whence);
    return r < 0 ? -1 : static_cast<std::int64_t>(r);
}

bool file_set_size(FileHandle file, std::uint64_t size) {
    if (file < 0) return false;
    if (should_fail(FaultKind::File)) return false;
    if (size > static_cast<std::uint64_t>(INT64_MAX) || !below_size_limit(size)) return false;
    return ::ftruncate(static_cast<int>(file), static_cast<off_t>(size)) == 0;
}

bool file_reserve(FileHandle file, std::uint64_t size) {
    if (file < 0) return false;
    if (should_fail(FaultKind::File)) return false;
    if (size > static_cast<std::uint64_t>(INT64_MAX) || !below_size_limit(size)) return false;
    if (size == 0) return ::ftruncate(static_cast<int>(file), 0) == 0;
    int r;
    do {
        r = ::posix_fallocate(static_cast<int>(file), 0, static_cast<off_t>(size));
    } while (r == EINTR);
    return r == 0;
}

bool file_close(FileHandle file) {
    if (file < 0) return false;
    return ::close(static_cast<int>(file)) == 0;
}

bool file_delete(const std::string& path) { return ::unlink(path.c_str()) == 0; }

char path_separator() { return '/'; }

std::string temp_directory() {
    const char* names[] = {"TMPDIR", "TMP", "TEMP"};
    std::string dir;
    for (const char* n : names) {
        const char* v = std::getenv(n);
        if (v && *v) {
            dir = v;
            break;
        }
    }
    if (dir.empty()) dir = "/tmp";
    if (dir.back() != '/') dir.push_back('/');
    return dir;
}

namespace {
// 64 random bits from the kernel; where it gives none, a mix of the time, the
// process and a counter (names stay unique through O_EXCL either way).
std::uint64_t random64() {
    std::uint64_t v = 0;
#if defined(__linux__)
    if (::getrandom(&v, sizeof v, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof v)) return v;
#endif
    static std::atomic<std::uint64_t> counter{0};
    struct timespec ts {};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    v = static_cast<std::uint64_t>(ts.tv_nsec) ^ (static_cast<std::uint64_t>(ts.tv_sec) << 30) ^
        (static_cast<std::uint64_t>(::getpid()) << 48) ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    v ^= v >> 31;
    v *= 0xBF58476D1CE4E5B9ull;
    return v ^ (v >> 29);
}

// Creates `<dir><prefix><16 hex digits>.TMP` with O_EXCL under fresh random
// names until one is new. Returns the descriptor and fills `path`.
int create_named(const std::string& directory, const std::string& prefix, int access, std::string& path) {
    std::string dir = directory;
    if (!dir.empty() && dir.back() != '/') dir.push_back('/');
    for (int attempt = 0; attempt < 64; ++attempt) {
        char name[32];
        std::snprintf(name, sizeof name, "%016llX.TMP", static_cast<unsigned long long>(random64()));
        path = dir + prefix + name;
        int fd;
        do {
            fd = ::open(path.c_str(), O_CREAT | O_EXCL | access | O_CLOEXEC, 0600);
        } while (fd < 0 && errno == EINTR);
        if (fd >= 0) return fd;
        if (errno != EEXIST) return -1;
    }
    return -1;
}
}  // namespace

std::string unique_temp_name(const std::string& directory, const std::string& prefix) {
    if (should_fail(FaultKind::File)) return {};
    std::string path;
    const int fd = create_named(directory, prefix, O_WRONLY, path);
    if (fd < 0) return {};
    ::close(fd);
    return path;
}

FileHandle create_temp_file(const std::string& directory) {
    if (should_fail(FaultKind::File)) return kNoFile;
    std::string dir = directory.empty() ? std::string(".") : directory;
#if defined(O_TMPFILE)
    int fd;
    do {
        fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) return fd;
    // Only a file system without unnamed files falls through to a name.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return kNoFile;
#endif
    std::string path;
    const int named = create_named(dir, "ZK", O_RDWR, path);
    if (named < 0) return kNoFile;
    ::unlink(path.c_str());
    return named;
}

std::string to_utf8(const wchar_t* text) {
    std::string out;
    if (!text) return out;
    for (const wchar_t* p = text; *p; ++p) {
        std::uint32_t c = static_cast<std::uint32_t>(*p);
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<std::uint32_t>(p[1]) - 0xDC00);
            ++p;
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | ((c >> 18) & 0x07)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

std::wstring from_utf8(const std::string& text) {
    std::wstring out;
    std::size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<unsigned char>(text[i]);
        std::uint32_t c;
        int extra;
        if (b < 0x80) {
            c = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else {
            c = b & 0x07;
            extra = 3;
        }
        ++i;
        for (int k = 0; k < extra && i < text.size(); ++k, ++i) c = (c << 6) | (text[i] & 0x3F);
        if (sizeof(wchar_t) == 2 && c >= 0x10000) {
            c -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (c >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (c & 0x3FF)));
        } else {
            out.push_back(static_cast<wchar_t>(c));
        }
    }
    return out;
}

// ---------------------------------------------------------------------------
// Mappings.
namespace {
constexpr std::size_t kHugePage = std::size_t{2} << 20;  // the x86-64 and arm64 (4 KiB granule) size

std::size_t page_size() {
    static const std::size_t size = [] {
        const long p = ::sysconf(_SC_PAGESIZE);
        return p > 0 ? static_cast<std::size_t>(p) : std::size_t{4096};
    }();
    return size;
}

// Asks for huge pages behind the whole 2 MiB blocks of [view, view + size).
// Only advice: where the system has none, pages stay small.
void advise_huge_pages([[maybe_unused]] void* view, [[maybe_unused]] std::size_t size) {
#if defined(MADV_HUGEPAGE)
    if (size >= kHugePage) ::madvise(view, size, MADV_HUGEPAGE);
#endif
}

// A private anonymous mapping of `size` bytes, starting on a 2 MiB boundary
// when it is at least that large: more is mapped and the unaligned head and
// the tail past the last page are returned at once, so that exactly the
// pages of [view, view + size) stay mapped. Null on failure.
void* map_private(std::size_t size) {
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS;
    if (size < kHugePage) {
        void* v = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0);
        return v == MAP_FAILED ? nullptr : v;
    }
    const std::size_t page = page_size();
    if (size > SIZE_MAX - kHugePage - page) return nullptr;
    const std::size_t length = (size + page - 1) / page * page;
    const std::size_t padded = length + kHugePage - page;
    void* raw = ::mmap(nullptr, padded, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    const auto base = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (base + kHugePage - 1) & ~std::uintptr_t{kHugePage - 1};
    if (aligned > base) ::munmap(raw, aligned - base);
    const std::size_t tail = padded - (aligned - base) - length;
    if (tail > 0) ::munmap(reinterpret_cast<void*>(aligned + length), tail);
    auto* view = reinterpret_cast<void*>(aligned);
    advise_huge_pages(view, size);
    return view;
}
}  // namespace

Mapping map_anonymous(std::size_t size) {
    Mapping m;
    if (size == 0) return m;
    if (should_fail(FaultKind::Mapping)) return m;
    void* v = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (v == MAP_FAILED) return m;
    m.handle = v;
    m.view = v;
    m.size = size;
    return m;
}

Mapping map_anonymous_private(std::size_t size) {
    Mapping m;
    if (size == 0) return m;
    if (should_fail(FaultKind::Mapping)) return m;
    void* v = map_private(size);
    if (!v) return m;
    m.handle = v;
    m.view = v;
    m.size = size;
    return m;
}

Mapping map_file(FileHandle file, std::size_t size) {
    Mapping m;
    if (size == 0 || file < 0) return m;
    if (should_fail(FaultKind::Mapping)) return m;
    void* v = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
    if (v == MAP_FAILED) return m;
    m.handle = v;
    m.view = v;
    m.size = size;
    return m;
}

void unmap(Mapping& m) {
    if (m.view) ::munmap(m.view, m.size);
    m = Mapping{};
}

bool remap_anonymous_private(Mapping& m, std::size_t new_size) {
    if (!m.view || new_size == 0) return false;
    if (should_fail(FaultKind::Mapping)) return false;
    const std::size_t page = page_size();
    if (new_size <= m.size) {
        // Shrinking returns the pages past the new end and clears the rest
        // of the last page, which a later growth hands out again; the view
        // stays.
        auto* view = static_cast<unsigned char*>(m.view);
        const std::size_t keep = (new_size + page - 1) / page * page;
        const std::size_t had = (m.size + page - 1) / page * page;
        if (had > keep) ::munmap(view + keep, had - keep);
        std::memset(view + new_size, 0, (keep < m.size ? keep : m.size) - new_size);
        m.size = new_size;
        return true;
    }
    void* v = nullptr;
#if defined(__linux__)
    // In place where the address space after the view is free; else the
    // pages move, without being copied, to the start of a new aligned
    // mapping of the new size.
    v = ::mremap(m.view, m.size, new_size, 0);
    if (v == MAP_FAILED) {
        void* target = map_private(new_size);
        if (!target) return false;
        v = ::mremap(m.view, m.size, new_size, MREMAP_MAYMOVE | MREMAP_FIXED, target);
        if (v == MAP_FAILED) {
            ::munmap(target, new_size);
            return false;
        }
    }
    advise_huge_pages(v, new_size);
#else
    v = map_private(new_size);
    if (!v) return false;
    std::memcpy(v, m.view, m.size);
    ::munmap(m.view, m.size);
#endif
    m.view = v;
    m.handle = v;
    m.size = new_size;
    return true;
}

// ---------------------------------------------------------------------------
// Memory status.
namespace {
std::atomic<bool> g_status_overridden{false};
MemoryStatus g_status_override;
}  // namespace

void override_memory_status(const MemoryStatus* status) {
    if (status) g_status_override = *status;
    g_status_overridden.store(status != nullptr);
}

MemoryStatus memory_status() {
    if (g_status_overridden.load()) return g_status_override;
    MemoryStatus s;
#if defined(__linux__)
    struct sysinfo info {};
    if (::sysinfo(&info) == 0) {
        std::uint64_t unit = info.mem_unit ? info.mem_unit : 1;
        s.total_physical = info.totalram * unit;
        s.available_physical = (info.freeram + info.bufferram) * unit;
        s.total_page_file = info.totalswap * unit;
        s.available_page_file = info.freeswap * unit;
    }
    // MemAvailable counts reclaimable cache too; prefer it when present.
    if (FILE* f = std::fopen("/proc/meminfo", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            unsigned long long kb = 0;
            if (std::sscanf(line, "MemAvailable: %llu kB", &kb) == 1) {
                s.available_physical = static_cast<std::uint64_t>(kb) * 1024u;
                break;
            }
        }
        std::fclose(f);
    }
#else
    long pages = ::sysconf(_SC_PHYS_PAGES);
    long page = ::sysconf(_SC_PAGESIZE);
    if (pages > 0 && page > 0) {
        s.total_physical = static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page);
        s.available_physical = s.total_physical / 2;
    }
#endif
    return s;
}

// ---------------------------------------------------------------------------
// Thread-local storage.
bool tls_create(TlsKey* key, void (*destructor)(void*)) {
    pthread_key_t k;
    if (::pthread_key_create(&k, destructor) != 0) return false;
    *key = static_cast<TlsKey>(k);
    return true;
}

void tls_delete(TlsKey key) { ::pthread_key_delete(static_cast<pthread_key_t>(key)); }

void* tls_get(TlsKey key) { return ::pthread_getspecific(static_cast<pthread_key_t>(key)); }

bool tls_set(TlsKey key, void* value) { return ::pthread_setspecific(static_cast<pthread_key_t>(key), value) == 0; }

}  // namespace zk::platform

#endif  // !_WIN32
