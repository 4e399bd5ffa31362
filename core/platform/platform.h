// The operating-system layer. Everything the library needs from the OS goes
// through this header: anonymous and file-backed mappings, movable blocks,
// the runtime heap, files, temporary names, memory status, thread-local
// storage and a lock. posix.cpp implements it for POSIX systems and win32.cpp
// for Windows; no other file includes an OS header.
//
// Every call reports failure by its result (null, false or -1); none throws.
//
// May include: the C++ standard library only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace zk::platform {

// ---------------------------------------------------------------------------
// Runtime heap (Z_Malloc family). Counted by the fault seam as allocations.
void* heap_alloc(std::size_t size);
void* heap_calloc(std::size_t count, std::size_t size);
void* heap_realloc(void* pointer, std::size_t size);  // null pointer allocates
void heap_free(void* pointer);

// ---------------------------------------------------------------------------
// Movable blocks (global memory). A block is reached through its handle; its
// address is valid while it is locked and may change across block_realloc.
// Locks nest. Where the OS has no such memory it is emulated.
using BlockHandle = void*;
BlockHandle block_alloc(std::size_t size, bool zero);
void* block_lock(BlockHandle block);   // null on failure
bool block_unlock(BlockHandle block);  // true while still locked
// Resizes an unlocked or locked block; the growth is zeroed when asked.
// On failure the block is unchanged and null is returned.
BlockHandle block_realloc(BlockHandle block, std::size_t size, bool zero_growth);
void block_free(BlockHandle block);
// The handle of the block whose locked address is `pointer`; null if none.
BlockHandle block_from_pointer(const void* pointer);
std::size_t block_size(BlockHandle block);

// ---------------------------------------------------------------------------
// Files. Handles are small integers or OS handles cast to intptr_t; -1 means
// none. Names are UTF-8 (the wide-string exports convert).
using FileHandle = std::intptr_t;
constexpr FileHandle kNoFile = -1;

enum class Access { Read, Write, ReadWrite };
enum class Disposition {
    OpenExisting,  // fail when missing
    CreateAlways,  // create or replace
    TruncateExisting,
    OpenAlways,
};
struct OpenOptions {
    Access access = Access::ReadWrite;
    Disposition disposition = Disposition::OpenExisting;
    bool share_read = true;
    bool share_write = true;
    bool delete_on_close = false;  // POSIX: the name is removed at once
    bool read_only_attribute = false;
    bool hidden_attribute = false;
    bool system_attribute = false;
};
FileHandle file_open(const std::string& path, const OpenOptions& options);
// Bytes moved, or -1.
std::int64_t file_read(FileHandle file, void* buffer, std::size_t count);
std::int64_t file_write(FileHandle file, const void* buffer, std::size_t count);
// origin 0 start, 1 current, 2 end. New position, or -1.
std::int64_t file_seek(FileHandle file, std::int64_t offset, int origin);
// Moves `count` bytes at `offset` without using or changing the file
// position: all of them, or -1 (a read that meets the end of the file moves
// fewer). A write is cut at the process's file-size limit like file_write.
std::int64_t file_read_at(FileHandle file, void* buffer, std::size_t count, std::uint64_t offset);
std::int64_t file_write_at(FileHandle file, const void* buffer, std::size_t count, std::uint64_t offset);
// Writes `pieces` pieces of `piece` bytes that follow one another in
// `buffer` to the file, `stride` bytes apart from `offset`, one positional
// write each (the file-size limit asked once). False when any piece could
// not be written whole (the others are still written).
bool file_write_pieces(FileHandle file, std::uint64_t offset, std::size_t stride, std::size_t piece, std::size_t pieces,
                       const void* buffer);
// Advises the system that `count` bytes at `offset` will be read soon
// (read-ahead). Only advice: nothing is reported.
void file_will_read(FileHandle file, std::uint64_t offset, std::uint64_t count);
// Sets the file's length. Growth past the process's file-size limit fails
// (false) instead of raising the limit's signal.
bool file_set_size(FileHandle file, std::uint64_t size);
// Makes the file `size` bytes long with every block allocated now, so that
// later writes and writes through a mapping cannot meet a full disk. False
// (and the file's length possibly changed) when the space or the process's
// file-size limit does not allow it.
bool file_reserve(FileHandle file, std::uint64_t size);
// A new, empty, read-write temporary file in `directory` that has no name
// from the moment it exists (Linux O_TMPFILE), or, where the file system
// cannot do that, is created under a random 64-bit name with O_EXCL and
// unlinked at once. Closing it deletes it. kNoFile on failure.
FileHandle create_temp_file(const std::string& directory);
bool file_close(FileHandle file);
bool file_delete(const std::string& path);
// The system's temporary directory, with a trailing separator.
std::string temp_directory();
// Creates a new, empty, uniquely named file `<directory><prefix>X...X.TMP`
// (sixteen hex digits of randomness, retried on collision) and returns its
// name; empty on failure.
std::string unique_temp_name(const std::string& directory, const std::string& prefix);
char path_separator();

// Wide <-> UTF-8 names.
std::string to_utf8(const wchar_t* text);
std::wstring from_utf8(const std::string& text);

// ---------------------------------------------------------------------------
// Mappings. Handle and view are kept together; on POSIX the handle is the
// view itself, on Windows the section handle.
struct Mapping {
    void* handle = nullptr;
    void* view = nullptr;
    std::size_t size = 0;
    explicit operator bool() const { return view != nullptr; }
};
// Anonymous, committed, read-write shared memory.
Mapping map_anonymous(std::size_t size);
// Anonymous, committed, read-write private memory for one large block. From
// 2 MiB up the view starts on a 2 MiB boundary and the system is asked to
// back it with huge pages, which first touches fill several times faster
// than small pages (shared anonymous memory gets huge pages only where the
// system enables them for shared memory, which is seldom the default).
// Exactly the pages of [view, view + size) are mapped: unmap releases it.
Mapping map_anonymous_private(std::size_t size);
// A read-write view of `size` bytes of `file` from offset 0.
Mapping map_file(FileHandle file, std::size_t size);
void unmap(Mapping& mapping);
// Resizes a mapping from map_anonymous_private keeping min(old, new) bytes;
// bytes past the old size read as zero. Shrinking keeps the view where it
// is; growth may move it (to a 2 MiB boundary when it moves). On failure the
// mapping is unchanged and false returned.
bool remap_anonymous_private(Mapping& mapping, std::size_t new_size);

// ---------------------------------------------------------------------------
// Memory status, in bytes.
struct MemoryStatus {
    std::uint64_t total_physical = 0;
    std::uint64_t available_physical = 0;
    std::uint64_t total_page_file = 0;
    std::uint64_t available_page_file = 0;
};
MemoryStatus memory_status();
// Test seam: while set, memory_status() returns *status (null restores the
// real figures).
void override_memory_status(const MemoryStatus* status);

// ---------------------------------------------------------------------------
// Thread-local storage with a destructor run at thread exit (POSIX keys; on
// Windows the thread-detach notification calls it).
using TlsKey = std::uintptr_t;
bool tls_create(TlsKey* key, void (*destructor)(void*));
void tls_delete(TlsKey key);
void* tls_get(TlsKey key);
bool tls_set(TlsKey key, void* value);

// A critical section.
using Lock = std::mutex;

// ---------------------------------------------------------------------------
// Test seam: makes the n-th call of a kind fail (1 = the next one), counting
// from the moment it is armed. 0 disarms. Only tests arm it.
enum class FaultKind { Allocation, Mapping, File, Count_ };
void inject_failure(FaultKind kind, int nth);
// Calls of each kind seen since the last reset (to size fault sweeps).
long fault_calls(FaultKind kind);
void reset_fault_counters();
// Consumes one call of `kind`; true when that call must fail.
bool should_fail(FaultKind kind);

}  // namespace zk::platform
