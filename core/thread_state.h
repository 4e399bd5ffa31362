// The per-thread settings block: defaults for new bitmaps, memory thresholds,
// the temporary directory, the swappable I/O routines, callbacks and the
// caller's thread slots. Each thread gets its own block on first use; when
// one cannot be made, a process-wide block of the same layout serves.
//
// May include: include/zkernel.h, core/platform/platform.h.
#pragma once

#include "zkernel.h"

namespace zk {

struct ThreadState {
    void* user_match_table;
    Z_OPENPROC open;
    Z_READPROC read;
    Z_WRITEPROC write;
    Z_SEEKPROC seek;
    Z_CLOSEPROC close;
    void* io_user[5];  // open, read, write, seek, close
    uint32_t dither_method;
    int32_t x_resolution;
    int32_t y_resolution;
    uint32_t memory_type;
    int32_t max_conv_size;
    int32_t memory_reserve;
    int32_t tile_size;
    int32_t max_mem_tiles;
    int32_t tile_views;
    wchar_t temp_directory[Z_MAX_PATH];
    STATUSCALLBACK status_callback;
    void* status_user;
    COPYSTATUSCALLBACK copy_status_callback;
    void* copy_status_user;
    uint32_t hotkey_registration;
    uint32_t spare[4];
    void** slots;  // Z_TLS_SLOTS values
    SUBSTITUTEFONTCALLBACK substitute_font_callback;
    void* substitute_font_user;
};

// The calling thread's block (created on first use), or the process-wide one.
ThreadState& thread_state();
// True when `state` is the process-wide fallback block.
bool is_process_block(const ThreadState& state);

// Progress reporting through the thread's status callback: report(0) first,
// then step() once per unit of work; a callback result other than ST_OK stops
// the work and is returned by step(). Without a callback both return ST_OK.
class Progress {
public:
    Progress(uint32_t total_steps, bool copy_status = false);
    int32_t start();
    int32_t step();

private:
    int32_t call(int32_t percent);
    STATUSCALLBACK callback_ = nullptr;
    void* user_ = nullptr;
    uint32_t total_;
    uint32_t done_ = 0;
    int32_t last_ = -1;
};

// A temporary file for disk or tiled storage: nameless from the start (or
// unlinked at once), `bytes` long with every block reserved, in the thread's
// temporary directory; closing it deletes it. Z_INVALID_FILE on failure, with
// nothing left behind and *status set: ST_TEMP_FILE when no file could be
// made, ST_FILE_WRITE when the disk or the file-size limit has no room.
Z_FILE create_reserved_temp_file(uint64_t bytes, int32_t* status);

namespace detail {
// Library lifetime, called by the process attach/detach hooks.
bool process_attach();
void process_detach();
}  // namespace detail

namespace testing {
// Per-thread blocks now alive (created and not yet released). Tests use it to
// see a thread's block go when the thread ends.
long live_thread_blocks();
}  // namespace testing

}  // namespace zk
