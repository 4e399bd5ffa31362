// Storage helpers of the fuzz targets that make disk and tiled storage.
//
// PrivateTempDir: a temporary directory created once per process under
// $TMPDIR (or the system's temporary directory), made the thread's temporary
// directory, and removed at exit. After each input a target checks that the
// directory is empty and that no open descriptor still refers to a file in
// it (a temporary file that is unlinked but still open outlives its bitmap
// all the same), and can count the mappings that storage leaves behind.
//
// FileSizeLimit: a lowered file-size limit for the length of one call, which
// stands in for a full disk. Growing a file past the limit must give a
// status; the limit's signal ends the run (libFuzzer reports it).
//
// SavedThresholds and allocate_kind: a bitmap allocated conventionally, in
// memory tiles, in disk tiles or in a disk file, the thresholds put back.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "fuzz_input.h"
#include "zkernel.h"

namespace zkfuzz {

class PrivateTempDir {
public:
    // The directory of this process, made and installed on first use.
    static PrivateTempDir& get() {
        static PrivateTempDir dir;
        return dir;
    }

    // Installs the directory as the calling thread's temporary directory.
    void install() const { check(Z_SetTempDirectory(wide_.c_str()) == ST_OK); }

    // Stops the run when a file is left in the directory or a descriptor
    // still refers to one. This runs after every input, so the descriptors
    // are only read one by one when the lowest free descriptor has moved
    // since the last time (a descriptor left open takes that slot).
    void check_clean() {
        DIR* dir = ::opendir(path_.c_str());
        check(dir != nullptr);
        while (const dirent* e = ::readdir(dir))
            check(std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0);
        ::closedir(dir);
        const int lowest = ::dup(2);
        check(lowest >= 0);
        ::close(lowest);
        if (lowest == lowest_free_) return;
        DIR* fds = ::opendir("/proc/self/fd");
        check(fds != nullptr);
        char link[64], target[4096];
        while (const dirent* e = ::readdir(fds)) {
            if (e->d_name[0] == '.') continue;
            std::snprintf(link, sizeof link, "/proc/self/fd/%s", e->d_name);
            const ssize_t n = ::readlink(link, target, sizeof target);
            if (n > 0) check(std::string_view(target, static_cast<size_t>(n)).substr(0, prefix_.size()) != prefix_);
        }
        ::closedir(fds);
        lowest_free_ = lowest;
    }

    const std::string& path() const { return path_; }

    // Shared anonymous mappings (conventional storage and memory tiles) and
    // mappings of files in the directory (disk tiles) now in the process.
    int count_storage_mappings() const {
        static std::string text;
        text.clear();
        const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
        check(fd >= 0);
        char chunk[16384];
        for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
        ::close(fd);
        int count = 0;
        for (const std::string_view key : {std::string_view("/dev/zero"), std::string_view(prefix_)})
            for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) ++count;
        return count;
    }

private:
    PrivateTempDir() {
        std::error_code ec;
        std::filesystem::path base = std::filesystem::temp_directory_path(ec);
        if (ec) base = "/tmp";
        // The name is widened byte by byte for the library, so it must be ASCII.
        for (const char c : base.string())
            if (static_cast<unsigned char>(c) >= 0x80) base = "/tmp";
        remove_stale(base);
        // A name of the process id and a counter; creation fails when the
        // name is taken, and the next one is tried.
        for (unsigned n = 0;; ++n) {
            check(n < 1000);
            char name[64];
            std::snprintf(name, sizeof name, "zkfuzz.%ld.%u", static_cast<long>(::getpid()), n);
            const std::filesystem::path p = base / name;
            if (std::filesystem::create_directory(p, ec) && !ec) {
                path_ = std::filesystem::canonical(p, ec).string();
                check(!ec);
                break;
            }
        }
        prefix_ = path_ + "/";
        wide_.assign(path_.begin(), path_.end());
        check(wide_.size() + 2 < Z_MAX_PATH);
        install();
    }
    ~PrivateTempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    // Removes the directories of runs that ended without removing theirs (a
    // crash does not run destructors): those whose process is gone.
    static void remove_stale(const std::filesystem::path& base) {
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(base, ec)) {
            const std::string name = e.path().filename().string();
            long pid = 0;
            unsigned n = 0;
            if (std::sscanf(name.c_str(), "zkfuzz.%ld.%u", &pid, &n) != 2 || pid <= 0) continue;
            std::error_code gone;
            if (std::filesystem::exists("/proc/" + std::to_string(pid), gone) || gone) continue;
            std::filesystem::remove_all(e.path(), gone);
        }
    }

    std::string path_;
    std::string prefix_;
    int lowest_free_ = -1;
    std::wstring wide_;
};

// The thread's memory thresholds, put back when it goes.
class SavedThresholds {
public:
    SavedThresholds() { Z_GetMemoryThresholds(&v_[0], &v_[1], &v_[2], &v_[3], &v_[4]); }
    ~SavedThresholds() { Z_SetMemoryThresholds(v_[0], v_[1], v_[2], v_[3], v_[4], 0x1F); }
    SavedThresholds(const SavedThresholds&) = delete;
    SavedThresholds& operator=(const SavedThresholds&) = delete;

private:
    int32_t v_[5] = {};
};

// Allocates the described bitmap in one of five kinds: 0 conventional,
// 1 tiles of `memory_tile` bytes all in memory, 2 tiles of `disk_tile`
// bytes all on disk with one mapped at a time, 3 a disk file, 4 run-length
// rows (conventional storage at depths other than 1). The
// thresholds that choose the kind stay set (results built later take them
// too); a SavedThresholds put in place before puts them back.
inline int32_t allocate_kind(BitmapHandle& b, uint32_t kind, int32_t memory_tile, int32_t disk_tile) {
    Z_SetMemoryThresholds(0, 0x7FFFFFFF, kind == 2 ? disk_tile : memory_tile, kind == 2 ? 0 : -100, 1, 0x1F);
    const uint32_t type = kind == 0   ? TYPE_CONV
                          : kind == 3 ? TYPE_DISK
                          : kind == 4 ? TYPE_COMPRESSED | TYPE_CONV
                                      : TYPE_TILED;
    return Z_AllocateBitmap(&b, type);
}

class FileSizeLimit {
public:
    // Lowers the limit to `bytes` unless the standard error stream is a file
    // already longer than that (the report of a crash under the limit must
    // still be written).
    explicit FileSizeLimit(uint64_t bytes) {
        std::error_code ec;
        const auto log = std::filesystem::status("/proc/self/fd/2", ec);
        if (!ec && std::filesystem::is_regular_file(log)) {
            const uintmax_t written = std::filesystem::file_size("/proc/self/fd/2", ec);
            if (ec || written + 65536 > bytes) return;
        }
        check(::getrlimit(RLIMIT_FSIZE, &saved_) == 0);
        rlimit lower = saved_;
        lower.rlim_cur = static_cast<rlim_t>(bytes);
        if (saved_.rlim_max != RLIM_INFINITY && lower.rlim_cur > saved_.rlim_max) return;
        check(::setrlimit(RLIMIT_FSIZE, &lower) == 0);
        active_ = true;
    }
    ~FileSizeLimit() { restore(); }
    void restore() {
        if (active_) check(::setrlimit(RLIMIT_FSIZE, &saved_) == 0);
        active_ = false;
    }
    bool active() const { return active_; }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit saved_{};
    bool active_ = false;
};

}  // namespace zkfuzz
