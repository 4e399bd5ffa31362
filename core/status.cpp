// Status names for messages and logs, and the library's version.
//
// May include: include/zkernel.h.
#include "zkernel.h"

// The build passes project()'s version from CMakeLists.txt; the header's
// macros must say the same, so that a caller comparing ZK_VERSION with
// Z_GetVersion() compares the release it was built against.
#if !defined(ZK_PROJECT_VERSION_MAJOR) || !defined(ZK_PROJECT_VERSION_MINOR) || !defined(ZK_PROJECT_VERSION_PATCH)
#error "CMakeLists.txt passes ZK_PROJECT_VERSION_MAJOR/MINOR/PATCH to the library's sources"
#endif
static_assert(ZK_VERSION_MAJOR == ZK_PROJECT_VERSION_MAJOR && ZK_VERSION_MINOR == ZK_PROJECT_VERSION_MINOR &&
                  ZK_VERSION_PATCH == ZK_PROJECT_VERSION_PATCH,
              "the version macros of zkernel.h differ from project() in CMakeLists.txt");
static_assert(ZK_VERSION_MINOR < 100 && ZK_VERSION_PATCH < 100, "ZK_VERSION packs minor and patch in two digits");
static_assert(ZK_VERSION == ZK_VERSION_MAJOR * 10000 + ZK_VERSION_MINOR * 100 + ZK_VERSION_PATCH);

namespace {

struct StatusText {
    int32_t status;
    const char* text;
};

// One line per ST_ code of the header; each text starts with the code's name.
constexpr StatusText kStatusTexts[] = {
    {ST_OK, "ST_OK: success"},
    {ST_NO_MEMORY, "ST_NO_MEMORY: an allocation failed, or the bitmap has no storage to reach"},
    {ST_INVALID_BITMAP, "ST_INVALID_BITMAP: no bitmap record, or the bitmap has no storage"},
    {ST_FILE_SEEK, "ST_FILE_SEEK: a seek in a bitmap's file did not reach its offset"},
    {ST_FILE_WRITE, "ST_FILE_WRITE: writing a bitmap's file failed, or a row copy stopped short"},
    {ST_FILE_READ, "ST_FILE_READ: reading a bitmap's file failed"},
    {ST_BAD_POSITION, "ST_BAD_POSITION: a position outside the bitmap, or an empty bitmap to allocate"},
    {ST_BAD_PARAM, "ST_BAD_PARAM: an invalid argument"},
    {ST_BAD_BPP, "ST_BAD_BPP: bits per pixel not supported by the operation"},
    {ST_NO_DISPATCH, "ST_NO_DISPATCH: no region hook table is installed"},
    {ST_TEMP_FILE, "ST_TEMP_FILE: a temporary file could not be created"},
    {ST_BAD_STRUCT_SIZE, "ST_BAD_STRUCT_SIZE: a record or size argument is not Z_BITMAPHANDLE_SIZE"},
    {ST_NO_BITMAP, "ST_NO_BITMAP: a required bitmap record is missing"},
    {ST_SIGNED_DATA, "ST_SIGNED_DATA: the operation refuses signed pixel data"},
    {ST_TOO_LARGE, "ST_TOO_LARGE: image dimensions whose sizes do not fit; refused before any allocation"},
};

}  // namespace

extern "C" const char* Z_API Z_StatusName(int32_t status) {
    for (const StatusText& s : kStatusTexts)
        if (s.status == status) return s.text;
    return "unknown status";
}

extern "C" int32_t Z_API Z_GetVersion(void) { return ZK_VERSION; }
