// Per-thread settings blocks, the caller's thread-slot service, callbacks and
// the library's process and thread lifetime.
#include "thread_state.h"

#include <atomic>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include "platform/platform.h"

namespace zk {
namespace {

namespace pf = zk::platform;

// The process-wide fallback block; its words start zero.
ThreadState g_process_block{};

// One OS thread-local key leads to each thread's block.
pf::TlsKey g_key = 0;
// Set once the key exists; read without the lock on every call.
std::atomic<bool> g_have_key{false};
pf::Lock g_key_lock;

// The caller-visible thread-slot table, shared by all threads.
pf::Lock g_slot_lock;
bool g_slot_used[Z_TLS_SLOTS];
uint32_t g_slot_high = 0;  // slots handed out so far (high-water count)

int g_attach_count = 0;

std::atomic<long> g_live_blocks{0};

void fill_temp_directory(wchar_t* out) {
    std::wstring dir;
    try {
        dir = pf::from_utf8(pf::temp_directory());
    } catch (...) {
        dir.clear();
    }
    std::size_t n = dir.size() < Z_MAX_PATH - 1 ? dir.size() : Z_MAX_PATH - 1;
    std::wmemcpy(out, dir.data(), n);
    out[n] = L'\0';
}

void release_block(void* p) {
    auto* s = static_cast<ThreadState*>(p);
    if (!s || s == &g_process_block) return;
    s->hotkey_registration = 0;
    pf::heap_free(s->slots);
    pf::heap_free(s);
    g_live_blocks.fetch_sub(1);
}

ThreadState* create_block() {
    auto* s = static_cast<ThreadState*>(pf::heap_calloc(1, sizeof(ThreadState)));
    if (!s) return nullptr;
    s->open = Z_OsOpen;
    s->read = Z_OsRead;
    s->write = Z_OsWrite;
    s->seek = Z_OsSeek;
    s->close = Z_OsClose;
    s->dither_method = DITHER_ORDERED;
    s->x_resolution = 150;
    s->y_resolution = 150;
    s->memory_type = TYPE_CONV;
    s->max_conv_size = 0x7FFFFFFF;
    s->memory_reserve = 0;
    s->tile_size = 0;
    s->max_mem_tiles = -100;
    s->tile_views = 1;
    fill_temp_directory(s->temp_directory);
    s->slots = static_cast<void**>(pf::heap_calloc(Z_TLS_SLOTS, sizeof(void*)));
    if (!s->slots) {
        pf::heap_free(s);
        return nullptr;
    }
    g_live_blocks.fetch_add(1);
    return s;
}

bool ensure_key() {
    if (g_have_key.load(std::memory_order_acquire)) return true;
    std::lock_guard<pf::Lock> guard(g_key_lock);
    if (g_have_key.load(std::memory_order_relaxed)) return true;
    const bool made = pf::tls_create(&g_key, release_block);
    g_have_key.store(made, std::memory_order_release);
    return made;
}

}  // namespace

namespace testing {
long live_thread_blocks() { return g_live_blocks.load(); }
}  // namespace testing

bool is_process_block(const ThreadState& state) { return &state == &g_process_block; }

ThreadState& thread_state() {
    if (!ensure_key()) return g_process_block;
    if (auto* s = static_cast<ThreadState*>(pf::tls_get(g_key))) return *s;
    ThreadState* s = create_block();
    if (!s) return g_process_block;
    if (!pf::tls_set(g_key, s)) {
        release_block(s);
        return g_process_block;
    }
    return *s;
}

Progress::Progress(uint32_t total_steps, bool copy_status) : total_(total_steps ? total_steps : 1) {
    ThreadState& s = thread_state();
    if (copy_status) {
        callback_ = s.copy_status_callback;
        user_ = s.copy_status_user;
    } else {
        callback_ = s.status_callback;
        user_ = s.status_user;
    }
}

int32_t Progress::call(int32_t percent) {
    if (!callback_ || percent == last_) return ST_OK;
    last_ = percent;
    return callback_(percent, user_);
}

int32_t Progress::start() { return call(0); }

int32_t Progress::step() {
    if (done_ < total_) ++done_;
    return call(static_cast<int32_t>(static_cast<uint64_t>(done_) * 100u / total_));
}

namespace detail {

bool process_attach() {
    if (g_attach_count == 0) Z_ResetDisDispatch();
    if (!ensure_key()) return false;
    ThreadState& s = thread_state();
    if (is_process_block(s)) return false;
    ++g_attach_count;
    return true;
}

void process_detach() {
    if (g_attach_count > 0) --g_attach_count;
    std::lock_guard<pf::Lock> guard(g_key_lock);
    if (!g_have_key.load()) return;
    void* mine = pf::tls_get(g_key);
    pf::tls_set(g_key, nullptr);
    release_block(mine);
    if (g_attach_count == 0) {
        pf::tls_delete(g_key);
        g_have_key.store(false);
    }
}

}  // namespace detail
}  // namespace zk

using zk::thread_state;

// ---------------------------------------------------------------------------
// Thread slots.
extern "C" uint32_t Z_API Z_TlsAlloc(void) {
    std::lock_guard<zk::platform::Lock> guard(zk::g_slot_lock);
    if (zk::g_slot_high < Z_TLS_SLOTS) {
        uint32_t slot = zk::g_slot_high++;
        zk::g_slot_used[slot] = true;
        return slot;
    }
    for (uint32_t i = 0; i < zk::g_slot_high; ++i) {
        if (!zk::g_slot_used[i]) {
            zk::g_slot_used[i] = true;
            return i;
        }
    }
    return Z_TLS_OUT_OF_INDEXES;
}

extern "C" int32_t Z_API Z_TlsFree(uint32_t slot) {
    std::lock_guard<zk::platform::Lock> guard(zk::g_slot_lock);
    if (slot >= Z_TLS_SLOTS || zk::g_slot_high == 0 || slot > zk::g_slot_high - 1 || !zk::g_slot_used[slot]) return 0;
    zk::g_slot_used[slot] = false;
    if (slot == zk::g_slot_high - 1) --zk::g_slot_high;
    return 1;
}

extern "C" int32_t Z_API Z_TlsSetValue(uint32_t slot, void* value) {
    uint32_t high;
    {
        std::lock_guard<zk::platform::Lock> guard(zk::g_slot_lock);
        high = zk::g_slot_high;
    }
    if (slot >= high) return 0;
    zk::ThreadState& s = thread_state();
    if (!s.slots) return 0;
    s.slots[slot] = value;
    return 1;
}

extern "C" void* Z_API Z_TlsGetValue(uint32_t slot) {
    if (slot >= Z_TLS_SLOTS) return nullptr;
    zk::ThreadState& s = thread_state();
    return s.slots ? s.slots[slot] : nullptr;
}

// ---------------------------------------------------------------------------
// Callbacks.
extern "C" int32_t Z_API Z_SetStatusCallBack(STATUSCALLBACK callback, void* userData, STATUSCALLBACK* previous,
                                             void** previousUserData) {
    zk::ThreadState& s = thread_state();
    if (previous) *previous = s.status_callback;
    if (previousUserData) *previousUserData = s.status_user;
    s.status_callback = callback;
    s.status_user = userData;
    return ST_OK;
}

extern "C" STATUSCALLBACK Z_API Z_GetStatusCallBack(void** userData) {
    zk::ThreadState& s = thread_state();
    if (userData) *userData = s.status_user;
    return s.status_callback;
}

extern "C" int32_t Z_API Z_SetCopyStatusCallBack(COPYSTATUSCALLBACK callback, void* userData,
                                                 COPYSTATUSCALLBACK* previous, void** previousUserData) {
    zk::ThreadState& s = thread_state();
    if (previous) *previous = s.copy_status_callback;
    if (previousUserData) *previousUserData = s.copy_status_user;
    s.copy_status_callback = callback;
    s.copy_status_user = userData;
    return ST_OK;
}

extern "C" COPYSTATUSCALLBACK Z_API Z_GetCopyStatusCallBack(void** userData) {
    zk::ThreadState& s = thread_state();
    if (userData) *userData = s.copy_status_user;
    return s.copy_status_callback;
}

extern "C" int32_t Z_API Z_VecSetSubstituteFontCallback(SUBSTITUTEFONTCALLBACK callback, void* userData) {
    zk::ThreadState& s = thread_state();
    s.substitute_font_callback = callback;
    s.substitute_font_user = userData;
    return ST_OK;
}

extern "C" SUBSTITUTEFONTCALLBACK Z_API Z_VecGetSubstituteFontCallback(void** userData) {
    zk::ThreadState& s = thread_state();
    if (userData) *userData = s.substitute_font_user;
    return s.substitute_font_callback;
}

// ---------------------------------------------------------------------------
// Library lifetime. On POSIX a constructor/destructor pair stands for process
// attach and detach; thread detach is the thread-local key's destructor. On
// Windows DllMain in core/platform/win32.cpp calls the same functions.
#if !defined(_WIN32)
__attribute__((constructor)) static void zk_process_attach() { zk::detail::process_attach(); }
__attribute__((destructor)) static void zk_process_detach() { zk::detail::process_detach(); }
#endif
