// File and redirected I/O: the library's own file routines over the platform
// layer, temporary names and the per-thread temporary directory, the five
// swappable routines of the thread's settings block, and redirection of all
// I/O into a memory buffer.
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>

#include "platform/platform.h"
#include "thread_state.h"

namespace pf = zk::platform;

namespace {

// Fixed prefix of every temporary file name.
constexpr const char* kTempPrefix = "ZK";

// Largest byte count a single read or write reports (the result is 32-bit).
constexpr uint32_t kMaxTransfer = 0x7FFFFFFFu;

// Converts a wide name for the OS; false when memory runs out.
bool utf8_name(const wchar_t* name, std::string& out) {
    try {
        out = pf::to_utf8(name);
        return true;
    } catch (...) {
        return false;
    }
}

bool is_separator(wchar_t c) { return c == L'/' || c == static_cast<wchar_t>(pf::path_separator()); }

// The thread's temporary directory; an empty one (the zeroed process-wide
// block) stands for the system's temporary path. Result ends in a separator.
bool temp_directory_of(const zk::ThreadState& s, std::wstring& out) {
    try {
        if (s.temp_directory[0] != L'\0') {
            out = s.temp_directory;
        } else {
            out = pf::from_utf8(pf::temp_directory());
        }
        if (!out.empty() && !is_separator(out.back())) out.push_back(static_cast<wchar_t>(pf::path_separator()));
        return true;
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------------------
// Buffer routines: the user data is the redirection record, the handle is the
// pseudo-handle Z_REDIRECT_HANDLE.
Z_REDIRECTBUFFER* buffer_record(Z_FILE file, void* user) {
    if (file != Z_REDIRECT_HANDLE || !user) return nullptr;
    return static_cast<Z_REDIRECTBUFFER*>(user);
}

Z_FILE Z_API buffer_open(const wchar_t*, int32_t openFlags, int32_t, void* user) {
    auto* r = static_cast<Z_REDIRECTBUFFER*>(user);
    if (!r) return Z_INVALID_FILE;
    r->Position = 0;
    if (openFlags & Z_O_TRUNC) r->End = 0;
    return Z_REDIRECT_HANDLE;
}

int32_t Z_API buffer_read(Z_FILE file, void* buffer, uint32_t count, void* user) {
    Z_REDIRECTBUFFER* r = buffer_record(file, user);
    if (!r || !r->Buffer || r->Position > r->End) return -1;
    const size_t end = r->End < r->Size ? r->End : r->Size;
    size_t n = r->Position < end ? end - r->Position : 0;
    if (count > kMaxTransfer) count = kMaxTransfer;
    if (n > count) n = count;
    if (n == 0) return 0;
    if (!buffer) return -1;
    std::memcpy(buffer, r->Buffer + r->Position, n);
    r->Position += n;
    return static_cast<int32_t>(n);
}

int32_t Z_API buffer_write(Z_FILE file, const void* buffer, uint32_t count, void* user) {
    Z_REDIRECTBUFFER* r = buffer_record(file, user);
    if (!r || (r->Flags & Z_REDIRECT_INPUT)) return -1;
    if (count == 0) {
        // Truncation at the position. The data never reaches past the buffer,
        // so that reads and the size handed back stay inside it.
        r->End = r->Position < r->Size ? r->Position : r->Size;
        return 0;
    }
    if (!buffer) return -1;
    if (count > kMaxTransfer) count = kMaxTransfer;
    const bool fits = r->Position <= SIZE_MAX - count;
    if ((r->Flags & Z_REDIRECT_GROW) && fits && r->Position + count > r->Size) {
        // Grow in 32 KiB steps; on failure the old buffer stays and the write
        // is cut to what fits.
        const size_t step = 0x8000;
        size_t need = r->Position + count;
        if (need <= SIZE_MAX - (step - 1)) {
            size_t grown = (need + step - 1) & ~(step - 1);
            if (auto* p = static_cast<uint8_t*>(Z_Realloc(r->Buffer, grown))) {
                r->Buffer = p;
                r->Size = grown;
            }
        }
    }
    // A buffer exists whenever Size is non-zero.
    if (r->Position > r->Size) return -1;
    size_t n = r->Size - r->Position;
    if (n > count) n = count;
    if (n) std::memcpy(r->Buffer + r->Position, buffer, n);
    r->Position += n;
    if (r->End < r->Position) r->End = r->Position;
    return static_cast<int32_t>(n);
}

int64_t Z_API buffer_seek(Z_FILE file, int64_t offset, int32_t origin, void* user) {
    Z_REDIRECTBUFFER* r = buffer_record(file, user);
    if (!r) return -1;
    int64_t base;
    switch (origin) {
        case 0: base = 0; break;
        case 1: base = static_cast<int64_t>(r->Position); break;
        case 2: base = static_cast<int64_t>(r->End); break;
        default: return -1;
    }
    // Positions beyond the data are allowed; only what the position word
    // cannot hold is refused.
    if ((offset > 0 && base > INT64_MAX - offset) || base + offset < 0) return -1;
    const int64_t target = base + offset;
    if (static_cast<uint64_t>(target) > SIZE_MAX) return -1;
    r->Position = static_cast<size_t>(target);
    return target;
}

int32_t Z_API buffer_close(Z_FILE file, void* user) {
    Z_REDIRECTBUFFER* r = buffer_record(file, user);
    if (!r) return -1;
    if (r->Buffer && r->End < r->Size && !(r->Flags & Z_REDIRECT_INPUT) &&
        (r->Flags & Z_REDIRECT_SHRINK) == Z_REDIRECT_SHRINK) {
        if (r->End == 0) {
            Z_Free(r->Buffer);
            r->Buffer = nullptr;
            r->Size = 0;
        } else if (auto* p = static_cast<uint8_t*>(Z_Realloc(r->Buffer, r->End))) {
            r->Buffer = p;
            r->Size = r->End;
        }
    }
    return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// The library's own file routines.
extern "C" Z_FILE Z_API Z_OsOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags, void*) {
    if (!name) return Z_INVALID_FILE;
    pf::OpenOptions o;
    switch (openFlags & 3) {
        case Z_O_RDONLY: o.access = pf::Access::Read; break;
        case Z_O_WRONLY: o.access = pf::Access::Write; break;
        case Z_O_RDWR: o.access = pf::Access::ReadWrite; break;
        default: return Z_INVALID_FILE;
    }
    if (openFlags & Z_O_CREAT)
        o.disposition = pf::Disposition::CreateAlways;
    else if (openFlags & Z_O_TRUNC)
        o.disposition = pf::Disposition::TruncateExisting;
    else
        o.disposition = pf::Disposition::OpenExisting;
    const bool share_read = (permFlags & Z_S_IREAD) != 0;
    o.share_read = share_read;
    o.share_write = share_read && (permFlags & Z_S_IWRITE) != 0;
    o.read_only_attribute = o.access == pf::Access::Read;
    std::string path;
    if (!utf8_name(name, path)) return Z_INVALID_FILE;
    return pf::file_open(path, o);
}

extern "C" int32_t Z_API Z_OsRead(Z_FILE file, void* buffer, uint32_t count, void*) {
    if (count == 0) return 0;
    if (!buffer) return -1;
    if (count > kMaxTransfer) count = kMaxTransfer;
    return static_cast<int32_t>(pf::file_read(file, buffer, count));
}

extern "C" int32_t Z_API Z_OsWrite(Z_FILE file, const void* buffer, uint32_t count, void*) {
    if (count == 0) return 0;
    if (!buffer) return -1;
    if (count > kMaxTransfer) count = kMaxTransfer;
    return static_cast<int32_t>(pf::file_write(file, buffer, count));
}

extern "C" int64_t Z_API Z_OsSeek(Z_FILE file, int64_t offset, int32_t origin, void*) {
    return pf::file_seek(file, offset, origin);
}

extern "C" int32_t Z_API Z_OsClose(Z_FILE file, void*) { return pf::file_close(file) ? 0 : -1; }

extern "C" Z_FILE Z_API Z_OsCreat(const wchar_t* name, int32_t mode) {
    if (!name) return Z_INVALID_FILE;
    pf::OpenOptions o;
    o.access = (mode & 0x2) ? pf::Access::Read : pf::Access::ReadWrite;
    o.disposition = pf::Disposition::CreateAlways;
    o.share_read = true;
    o.share_write = true;
    o.delete_on_close = (mode & Z_CREAT_DELETE_ON_CLOSE) != 0;
    o.read_only_attribute = (mode & Z_CREAT_READONLY_ATTR) != 0;
    o.hidden_attribute = (mode & Z_CREAT_HIDDEN_ATTR) != 0;
    o.system_attribute = (mode & Z_CREAT_SYSTEM_ATTR) != 0;
    std::string path;
    if (!utf8_name(name, path)) return Z_INVALID_FILE;
    return pf::file_open(path, o);
}

extern "C" int32_t Z_API Z_OsDelete(const wchar_t* name) {
    if (!name) return ST_BAD_PARAM;
    std::string path;
    if (!utf8_name(name, path)) return ST_NO_MEMORY;
    return pf::file_delete(path) ? ST_OK : ST_FILE_WRITE;
}

extern "C" int32_t Z_API Z_OsGetTempName(wchar_t* buffer) {
    if (!buffer) return ST_BAD_PARAM;
    try {
        std::wstring dir;
        if (!temp_directory_of(zk::thread_state(), dir)) return ST_NO_MEMORY;
        std::string name = pf::unique_temp_name(pf::to_utf8(dir.c_str()), kTempPrefix);
        if (name.empty()) return ST_TEMP_FILE;
        std::wstring wide = pf::from_utf8(name);
        if (wide.size() >= Z_MAX_PATH) {
            pf::file_delete(name);
            return ST_TEMP_FILE;
        }
        std::wmemcpy(buffer, wide.c_str(), wide.size() + 1);
        return ST_OK;
    } catch (...) {
        return ST_NO_MEMORY;
    }
}

Z_FILE zk::create_reserved_temp_file(uint64_t bytes, int32_t* status) {
    *status = ST_TEMP_FILE;
    std::string dir;
    try {
        std::wstring wide;
        if (!temp_directory_of(zk::thread_state(), wide)) return Z_INVALID_FILE;
        dir = pf::to_utf8(wide.c_str());
    } catch (...) {
        return Z_INVALID_FILE;
    }
    const pf::FileHandle f = pf::create_temp_file(dir);
    if (f == pf::kNoFile) return Z_INVALID_FILE;
    if (!pf::file_reserve(f, bytes)) {
        pf::file_close(f);
        *status = ST_FILE_WRITE;
        return Z_INVALID_FILE;
    }
    *status = ST_OK;
    return static_cast<Z_FILE>(f);
}

extern "C" int32_t Z_API Z_SetTempDirectory(const wchar_t* directory) {
    if (!directory) return ST_BAD_PARAM;
    const size_t length = std::wcslen(directory);
    if (length == 0) return ST_BAD_PARAM;
    // Names are joined directly to the directory, so it keeps a separator at
    // its end; with it the whole must fit Z_MAX_PATH with the terminator.
    const bool add_separator = !is_separator(directory[length - 1]);
    if (length + (add_separator ? 1 : 0) > Z_MAX_PATH - 1) return ST_BAD_PARAM;
    zk::ThreadState& s = zk::thread_state();
    std::wmemcpy(s.temp_directory, directory, length);
    size_t end = length;
    if (add_separator) s.temp_directory[end++] = static_cast<wchar_t>(zk::platform::path_separator());
    s.temp_directory[end] = L'\0';
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetTempDirectory(wchar_t* buffer) {
    if (!buffer) return ST_BAD_PARAM;
    std::wstring dir;
    if (!temp_directory_of(zk::thread_state(), dir)) return ST_NO_MEMORY;
    const size_t n = dir.size() < Z_MAX_PATH - 1 ? dir.size() : Z_MAX_PATH - 1;
    std::wmemcpy(buffer, dir.c_str(), n);
    buffer[n] = L'\0';
    return ST_OK;
}

// ---------------------------------------------------------------------------
// The thread's swappable routines. A null routine in the table (the zeroed
// process-wide block) means the library's own.
namespace {
Z_OPENPROC open_of(const zk::ThreadState& s) { return s.open ? s.open : Z_OsOpen; }
Z_READPROC read_of(const zk::ThreadState& s) { return s.read ? s.read : Z_OsRead; }
Z_WRITEPROC write_of(const zk::ThreadState& s) { return s.write ? s.write : Z_OsWrite; }
Z_SEEKPROC seek_of(const zk::ThreadState& s) { return s.seek ? s.seek : Z_OsSeek; }
Z_CLOSEPROC close_of(const zk::ThreadState& s) { return s.close ? s.close : Z_OsClose; }
}  // namespace

extern "C" Z_FILE Z_API Z_RedirectedOpen(const wchar_t* name, int32_t openFlags, int32_t permFlags) {
    const zk::ThreadState& s = zk::thread_state();
    return open_of(s)(name, openFlags, permFlags, s.io_user[0]);
}

extern "C" int32_t Z_API Z_RedirectedRead(Z_FILE file, void* buffer, uint32_t count) {
    const zk::ThreadState& s = zk::thread_state();
    return read_of(s)(file, buffer, count, s.io_user[1]);
}

extern "C" int32_t Z_API Z_RedirectedWrite(Z_FILE file, const void* buffer, uint32_t count) {
    const zk::ThreadState& s = zk::thread_state();
    return write_of(s)(file, buffer, count, s.io_user[2]);
}

extern "C" int64_t Z_API Z_RedirectedSeek(Z_FILE file, int64_t offset, int32_t origin) {
    const zk::ThreadState& s = zk::thread_state();
    return seek_of(s)(file, offset, origin, s.io_user[3]);
}

extern "C" int32_t Z_API Z_RedirectedClose(Z_FILE file) {
    const zk::ThreadState& s = zk::thread_state();
    return close_of(s)(file, s.io_user[4]);
}

extern "C" int32_t Z_API Z_RedirectIO(Z_OPENPROC open, Z_READPROC read, Z_WRITEPROC write, Z_SEEKPROC seek,
                                      Z_CLOSEPROC close, void* userData) {
    zk::ThreadState& s = zk::thread_state();
    s.open = open ? open : Z_OsOpen;
    s.read = read ? read : Z_OsRead;
    s.write = write ? write : Z_OsWrite;
    s.seek = seek ? seek : Z_OsSeek;
    s.close = close ? close : Z_OsClose;
    for (void*& u : s.io_user) u = userData;
    return ST_OK;
}

namespace {
// Hands the current routine back through `slot` and installs the one passed
// in, unless that was null.
template <typename Fn>
void exchange_routine(Fn* slot, Fn& current, Fn effective) {
    if (!slot) return;
    Fn incoming = *slot;
    *slot = effective;
    if (incoming) current = incoming;
}

// User-data words are always replaced by the value passed in.
void exchange_user(void** slot, void*& current) {
    if (!slot) return;
    void* incoming = *slot;
    *slot = current;
    current = incoming;
}
}  // namespace

extern "C" int32_t Z_API Z_FilterIO(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                    Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                    void** userSeek, void** userClose) {
    zk::ThreadState& s = zk::thread_state();
    exchange_routine(open, s.open, open_of(s));
    exchange_routine(read, s.read, read_of(s));
    exchange_routine(write, s.write, write_of(s));
    exchange_routine(seek, s.seek, seek_of(s));
    exchange_routine(close, s.close, close_of(s));
    exchange_user(userOpen, s.io_user[0]);
    exchange_user(userRead, s.io_user[1]);
    exchange_user(userWrite, s.io_user[2]);
    exchange_user(userSeek, s.io_user[3]);
    exchange_user(userClose, s.io_user[4]);
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetFilterIOData(Z_OPENPROC* open, Z_READPROC* read, Z_WRITEPROC* write, Z_SEEKPROC* seek,
                                           Z_CLOSEPROC* close, void** userOpen, void** userRead, void** userWrite,
                                           void** userSeek, void** userClose) {
    const zk::ThreadState& s = zk::thread_state();
    if (open) *open = open_of(s);
    if (read) *read = read_of(s);
    if (write) *write = write_of(s);
    if (seek) *seek = seek_of(s);
    if (close) *close = close_of(s);
    void** users[5] = {userOpen, userRead, userWrite, userSeek, userClose};
    for (int i = 0; i < 5; ++i)
        if (users[i]) *users[i] = s.io_user[i];
    return ST_OK;
}

// ---------------------------------------------------------------------------
// Redirection into a memory buffer.
extern "C" int32_t Z_API Z_StartRedirectToBuffer(Z_REDIRECTBUFFER** record, Z_FILE* handle, uint32_t flags,
                                                 void* buffer, size_t size) {
    if (!record) return ST_BAD_PARAM;
    auto* r = static_cast<Z_REDIRECTBUFFER*>(Z_Calloc(1, sizeof(Z_REDIRECTBUFFER)));
    if (!r) return ST_NO_MEMORY;
    r->Buffer = static_cast<uint8_t*>(buffer);
    // Without a buffer there is nothing to read or write in place; a growable
    // redirection allocates its own on the first write.
    r->Size = buffer ? size : 0;
    r->End = (flags & Z_REDIRECT_INPUT) ? r->Size : 0;
    r->Position = 0;
    r->Flags = flags;
    r->SavedOpen = buffer_open;
    r->SavedRead = buffer_read;
    r->SavedWrite = buffer_write;
    r->SavedSeek = buffer_seek;
    r->SavedClose = buffer_close;
    for (void*& u : r->SavedUser) u = r;
    // The exchange installs the buffer routines and leaves the previous ones
    // in the record for Z_StopRedirectToBuffer.
    Z_FilterIO(&r->SavedOpen, &r->SavedRead, &r->SavedWrite, &r->SavedSeek, &r->SavedClose, &r->SavedUser[0],
               &r->SavedUser[1], &r->SavedUser[2], &r->SavedUser[3], &r->SavedUser[4]);
    *record = r;
    if (handle) *handle = Z_REDIRECT_HANDLE;
    return ST_OK;
}

extern "C" int32_t Z_API Z_StopRedirectToBuffer(Z_REDIRECTBUFFER* record, void** buffer, size_t* dataSize) {
    if (!record) return ST_BAD_PARAM;
    Z_FilterIO(&record->SavedOpen, &record->SavedRead, &record->SavedWrite, &record->SavedSeek, &record->SavedClose,
               &record->SavedUser[0], &record->SavedUser[1], &record->SavedUser[2], &record->SavedUser[3],
               &record->SavedUser[4]);
    if (buffer) *buffer = record->Buffer;
    if (dataSize) *dataSize = record->End;
    Z_Free(record);
    return ST_OK;
}
