// Memory wrappers: the runtime heap (Z_Malloc family) and movable blocks
// (Z_OsAlloc family, returned locked), their source-position forms, and the
// runtime wrappers that let callers share the library's runtime state.
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "zkernel.h"

namespace pf = zk::platform;

extern "C" void* Z_API Z_Malloc(size_t size) { return pf::heap_alloc(size); }

extern "C" void* Z_API Z_Calloc(size_t count, size_t size) { return pf::heap_calloc(count, size); }

extern "C" void* Z_API Z_Realloc(void* pointer, size_t size) { return pf::heap_realloc(pointer, size); }

extern "C" void Z_API Z_Free(void* pointer) { pf::heap_free(pointer); }

extern "C" void* Z_API Z_OsAllocInit(size_t size, int32_t zeroFlag) {
    pf::BlockHandle block = pf::block_alloc(size, zeroFlag != 0);
    if (!block) return nullptr;
    void* p = pf::block_lock(block);
    if (!p) pf::block_free(block);
    return p;
}

extern "C" void* Z_API Z_OsAlloc(size_t size) { return Z_OsAllocInit(size, 0); }

extern "C" void* Z_API Z_OsReAllocInit(void* pointer, size_t size, int32_t zeroFlag) {
    if (!pointer) return Z_OsAllocInit(size, zeroFlag);
    pf::BlockHandle block = pf::block_from_pointer(pointer);
    if (!block) return nullptr;
    pf::block_unlock(block);
    pf::BlockHandle grown = pf::block_realloc(block, size, zeroFlag != 0);
    // On failure the old block stays valid and is locked again for the caller.
    void* p = pf::block_lock(grown ? grown : block);
    return grown ? p : nullptr;
}

extern "C" void* Z_API Z_OsReAlloc(void* pointer, size_t size) { return Z_OsReAllocInit(pointer, size, 0); }

extern "C" void Z_API Z_OsFree(void* pointer) {
    if (!pointer) return;
    pf::BlockHandle block = pf::block_from_pointer(pointer);
    if (!block) return;
    while (pf::block_unlock(block)) {
    }
    pf::block_free(block);
}

extern "C" void* Z_API Z_MallocDump(size_t size, const char*, int32_t) { return Z_Malloc(size); }
extern "C" void* Z_API Z_CallocDump(size_t count, size_t size, const char*, int32_t) { return Z_Calloc(count, size); }
extern "C" void* Z_API Z_ReallocDump(void* pointer, size_t size, const char*, int32_t) {
    return Z_Realloc(pointer, size);
}
extern "C" void Z_API Z_FreeDump(void* pointer, const char*, int32_t) { Z_Free(pointer); }
extern "C" void* Z_API Z_OsAllocDump(size_t size, const char*, int32_t) { return Z_OsAlloc(size); }
extern "C" void* Z_API Z_OsAllocInitDump(size_t size, int32_t zeroFlag, const char*, int32_t) {
    return Z_OsAllocInit(size, zeroFlag);
}
extern "C" void* Z_API Z_OsReAllocDump(void* pointer, size_t size, const char*, int32_t) {
    return Z_OsReAlloc(pointer, size);
}
extern "C" void* Z_API Z_OsReAllocInitDump(void* pointer, size_t size, int32_t zeroFlag, const char*, int32_t) {
    return Z_OsReAllocInit(pointer, size, zeroFlag);
}
extern "C" void Z_API Z_OsFreeDump(void* pointer, const char*, int32_t) { Z_OsFree(pointer); }

// Leak reports are not kept in this build; the call exists for callers that
// bracket their sessions with it.
extern "C" void Z_API Z_DumpMemoryReport(const char*) {}

extern "C" char* Z_API Z_Setlocale(int32_t category, const char* locale) { return std::setlocale(category, locale); }

extern "C" char* Z_API Z_Strtok(char* string, const char* delimiters) {
    if (!delimiters) return nullptr;
    return std::strtok(string, delimiters);
}

extern "C" double Z_API Z_Strtod(const char* string, char** end) {
    if (!string) {
        if (end) *end = nullptr;
        return 0.0;
    }
    return std::strtod(string, end);
}
