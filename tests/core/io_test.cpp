// File routines, temporary names and directory, swappable routines and
// buffer redirection.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "test_support.h"

namespace {

std::wstring wide(const std::string& s) { return zk::platform::from_utf8(s); }

struct Routines {
    Z_OPENPROC open;
    Z_READPROC read;
    Z_WRITEPROC write;
    Z_SEEKPROC seek;
    Z_CLOSEPROC close;
    void* user[5];
    bool operator==(const Routines& o) const {
        return open == o.open && read == o.read && write == o.write && seek == o.seek && close == o.close &&
               std::equal(user, user + 5, o.user);
    }
};

Routines current_routines() {
    Routines r{};
    EXPECT_EQ(Z_GetFilterIOData(&r.open, &r.read, &r.write, &r.seek, &r.close, &r.user[0], &r.user[1], &r.user[2],
                                &r.user[3], &r.user[4]),
              ST_OK);
    return r;
}

const Routines kOwn = {Z_OsOpen, Z_OsRead, Z_OsWrite, Z_OsSeek, Z_OsClose, {}};

}  // namespace

// ---------------------------------------------------------------------------
// Own file routines.

TEST(OsFile, CreateWriteSeekReadRoundTrip) {
    zktest::PrivateTempDir dir;
    const std::string path = dir.path() + "round.bin";
    const auto data = zktest::random_bytes(70000, 11);
    Z_FILE f = Z_OsCreat(wide(path).c_str(), 0);
    ASSERT_NE(f, Z_INVALID_FILE);
    EXPECT_EQ(Z_OsWrite(f, data.data(), static_cast<uint32_t>(data.size()), nullptr), 70000);
    EXPECT_EQ(Z_OsSeek(f, 0, 1, nullptr), 70000);
    EXPECT_EQ(Z_OsSeek(f, -1000, 2, nullptr), 69000);
    std::vector<uint8_t> back(2000);
    EXPECT_EQ(Z_OsRead(f, back.data(), 2000, nullptr), 1000);  // short read at the end
    EXPECT_TRUE(std::equal(back.begin(), back.begin() + 1000, data.begin() + 69000));
    EXPECT_EQ(Z_OsRead(f, back.data(), 10, nullptr), 0);
    EXPECT_EQ(Z_OsSeek(f, 123, 0, nullptr), 123);
    EXPECT_EQ(Z_OsRead(f, back.data(), 500, nullptr), 500);
    EXPECT_TRUE(std::equal(back.begin(), back.begin() + 500, data.begin() + 123));
    // Offsets beyond 4 GiB (a sparse file).
    const int64_t far = (int64_t{5} << 30) + 7;
    EXPECT_EQ(Z_OsSeek(f, far, 0, nullptr), far);
    EXPECT_EQ(Z_OsWrite(f, "z", 1, nullptr), 1);
    EXPECT_EQ(Z_OsSeek(f, 0, 2, nullptr), far + 1);
    EXPECT_EQ(Z_OsSeek(f, -1, 1, nullptr), far);
    char c = 0;
    EXPECT_EQ(Z_OsRead(f, &c, 1, nullptr), 1);
    EXPECT_EQ(c, 'z');
    EXPECT_EQ(Z_OsClose(f, nullptr), 0);
    EXPECT_EQ(Z_OsDelete(wide(path).c_str()), ST_OK);
    EXPECT_TRUE(dir.files().empty());
    EXPECT_NE(Z_OsDelete(wide(path).c_str()), ST_OK);
}

// Open and create flags on an existing 10-byte file: the size after opening,
// whether writes go through, and what a written byte reads back as.
TEST(OsFile, OpenAndCreateFlagsDecideTruncationAndAccess) {
    zktest::PrivateTempDir dir;
    const std::wstring name = wide(dir.path() + "flags.bin");
    // Without create or truncate the file must exist.
    EXPECT_EQ(Z_OsOpen(name.c_str(), Z_O_RDWR, 0, nullptr), Z_INVALID_FILE);
    EXPECT_EQ(Z_OsOpen(name.c_str(), Z_O_RDWR | Z_O_TRUNC, 0, nullptr), Z_INVALID_FILE);
    struct Case {
        bool creat;  // Z_OsCreat with `flags` as its mode, else Z_OsOpen
        int32_t flags;
        int64_t size_after_open;
        bool writable, readable;
    } cases[] = {
        {false, Z_O_RDWR, 10, true, true},
        {false, Z_O_WRONLY, 10, true, false},
        {false, Z_O_RDONLY, 10, false, true},
        {false, Z_O_RDWR | Z_O_TRUNC, 0, true, true},
        {false, Z_O_RDWR | Z_O_CREAT, 0, true, true},  // always creates, replacing
        {false, Z_O_WRONLY | Z_O_CREAT | Z_O_TRUNC, 0, true, false},
        {true, 0, 0, true, true},                     // created again: replaced
        {true, Z_CREAT_HIDDEN_ATTR, 0, false, true},  // mode bit 1: read only
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.creat << " " << c.flags);
        Z_FILE f = Z_OsCreat(name.c_str(), 0);
        ASSERT_NE(f, Z_INVALID_FILE);
        ASSERT_EQ(Z_OsWrite(f, "0123456789", 10, nullptr), 10);
        ASSERT_EQ(Z_OsClose(f, nullptr), 0);
        f = c.creat ? Z_OsCreat(name.c_str(), c.flags)
                    : Z_OsOpen(name.c_str(), c.flags, Z_S_IREAD | Z_S_IWRITE, nullptr);
        ASSERT_NE(f, Z_INVALID_FILE);
        EXPECT_EQ(Z_OsSeek(f, 0, 2, nullptr), c.size_after_open);
        EXPECT_EQ(Z_OsSeek(f, 0, 0, nullptr), 0);
        EXPECT_EQ(Z_OsWrite(f, "x", 1, nullptr), c.writable ? 1 : -1);
        char back = 0;
        EXPECT_EQ(Z_OsSeek(f, 0, 0, nullptr), 0);
        const bool empty = c.size_after_open == 0 && !c.writable;
        EXPECT_EQ(Z_OsRead(f, &back, 1, nullptr), !c.readable ? -1 : empty ? 0 : 1);
        if (c.readable && !empty) {
            EXPECT_EQ(back, c.writable ? 'x' : '0');
        }
        EXPECT_EQ(Z_OsClose(f, nullptr), 0);
    }
    // Access value 3 is not an access mode.
    EXPECT_EQ(Z_OsOpen(name.c_str(), 3, 0, nullptr), Z_INVALID_FILE);
    EXPECT_EQ(Z_OsDelete(name.c_str()), ST_OK);
}

TEST(OsFile, DeleteOnCloseLeavesNothingBehind) {
    zktest::PrivateTempDir dir;
    wchar_t name[Z_MAX_PATH];
    ASSERT_EQ(Z_OsGetTempName(name), ST_OK);
    EXPECT_EQ(dir.files().size(), 1u);  // the unique-name service creates the file
    Z_FILE f = Z_OsCreat(name, Z_CREAT_DELETE_ON_CLOSE);
    ASSERT_NE(f, Z_INVALID_FILE);
    // The name is gone at once; the open file still works.
    EXPECT_TRUE(dir.files().empty());
    const auto data = zktest::random_bytes(4096, 3);
    EXPECT_EQ(Z_OsWrite(f, data.data(), 4096, nullptr), 4096);
    EXPECT_EQ(Z_OsSeek(f, 0, 0, nullptr), 0);
    std::vector<uint8_t> back(4096);
    EXPECT_EQ(Z_OsRead(f, back.data(), 4096, nullptr), 4096);
    EXPECT_EQ(back, data);
    EXPECT_EQ(Z_OsClose(f, nullptr), 0);
    EXPECT_TRUE(dir.files().empty());
}

TEST(OsFile, BadInputTable) {
    char byte = 0;
    zktest::PrivateTempDir dir;
    wchar_t name[Z_MAX_PATH];
    ASSERT_EQ(Z_OsGetTempName(name), ST_OK);
    Z_FILE good = Z_OsCreat(name, Z_CREAT_DELETE_ON_CLOSE);
    ASSERT_NE(good, Z_INVALID_FILE);

    struct Case {
        const char* what;
        int64_t got;
        int64_t want;
    } cases[] = {
        {"open null name", Z_OsOpen(nullptr, Z_O_RDWR | Z_O_CREAT, 0, nullptr), -1},
        {"open empty name", Z_OsOpen(L"", Z_O_RDONLY, 0, nullptr), -1},
        {"open missing", Z_OsOpen(wide(dir.path() + "none").c_str(), Z_O_RDONLY, 0, nullptr), -1},
        {"creat null name", Z_OsCreat(nullptr, 0), -1},
        {"creat in missing dir", Z_OsCreat(wide(dir.path() + "no/such").c_str(), 0), -1},
        {"read bad handle", Z_OsRead(-1, &byte, 1, nullptr), -1},
        {"read null buffer", Z_OsRead(good, nullptr, 1, nullptr), -1},
        {"read zero count", Z_OsRead(good, nullptr, 0, nullptr), 0},
        {"write bad handle", Z_OsWrite(-1, &byte, 1, nullptr), -1},
        {"write null buffer", Z_OsWrite(good, nullptr, 1, nullptr), -1},
        {"seek bad handle", Z_OsSeek(-1, 0, 0, nullptr), -1},
        {"seek bad origin", Z_OsSeek(good, 0, 3, nullptr), -1},
        {"seek before start", Z_OsSeek(good, -1, 0, nullptr), -1},
        {"close bad handle", Z_OsClose(-1, nullptr), -1},
        {"delete null", Z_OsDelete(nullptr), ST_BAD_PARAM},
        {"temp name null", Z_OsGetTempName(nullptr), ST_BAD_PARAM},
        {"set temp dir null", Z_SetTempDirectory(nullptr), ST_BAD_PARAM},
        {"set temp dir empty", Z_SetTempDirectory(L""), ST_BAD_PARAM},
        {"get temp dir null", Z_GetTempDirectory(nullptr), ST_BAD_PARAM},
        {"start redirect null record", Z_StartRedirectToBuffer(nullptr, nullptr, 1, nullptr, 0), ST_BAD_PARAM},
        {"stop redirect null record", Z_StopRedirectToBuffer(nullptr, nullptr, nullptr), ST_BAD_PARAM},
        {"redirected open null name", Z_RedirectedOpen(nullptr, Z_O_RDONLY, 0), -1},
        {"redirected read bad handle", Z_RedirectedRead(-1, &byte, 1), -1},
        {"redirected close bad handle", Z_RedirectedClose(-1), -1},
        {"filter all null",
         Z_FilterIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK},
        {"get filter all null",
         Z_GetFilterIOData(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
         ST_OK},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(Z_OsClose(good, nullptr), 0);
    EXPECT_EQ(current_routines(), kOwn);  // nothing above installed anything
}

TEST(OsFile, InjectedFileFailuresReportMinusOne) {
    using zk::platform::FaultKind;
    zktest::PrivateTempDir dir;
    wchar_t name[Z_MAX_PATH];
    EXPECT_EQ(zktest::under_fault(FaultKind::File, 1, [&] { return Z_OsGetTempName(name); }), ST_TEMP_FILE);
    EXPECT_TRUE(dir.files().empty());
    ASSERT_EQ(Z_OsGetTempName(name), ST_OK);
    EXPECT_EQ(zktest::under_fault(FaultKind::File, 1, [&] { return Z_OsCreat(name, Z_CREAT_DELETE_ON_CLOSE); }),
              Z_INVALID_FILE);
    Z_FILE f = Z_OsCreat(name, Z_CREAT_DELETE_ON_CLOSE);
    ASSERT_NE(f, Z_INVALID_FILE);
    char buf[4] = {};
    EXPECT_EQ(zktest::under_fault(FaultKind::File, 1, [&] { return Z_OsWrite(f, buf, 4, nullptr); }), -1);
    EXPECT_EQ(zktest::under_fault(FaultKind::File, 1, [&] { return Z_OsSeek(f, 0, 0, nullptr); }), -1);
    EXPECT_EQ(zktest::under_fault(FaultKind::File, 1, [&] { return Z_OsRead(f, buf, 4, nullptr); }), -1);
    EXPECT_EQ(Z_OsClose(f, nullptr), 0);
    EXPECT_TRUE(dir.files().empty());
}

// ---------------------------------------------------------------------------
// Temporary names and directory.

TEST(TempName, UniqueNamesWithFixedPrefixInChosenDirectory) {
    zktest::PrivateTempDir dir;
    const std::wstring wdir = wide(dir.path());
    std::vector<std::wstring> names;
    for (int i = 0; i < 40; ++i) {
        wchar_t name[Z_MAX_PATH];
        ASSERT_EQ(Z_OsGetTempName(name), ST_OK);
        std::wstring n = name;
        ASSERT_EQ(n.compare(0, wdir.size(), wdir), 0) << zk::platform::to_utf8(name);
        EXPECT_EQ(n.substr(wdir.size(), 2), L"ZK");
        EXPECT_EQ(n.find(L'/', wdir.size()), std::wstring::npos);
        names.push_back(n);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
    EXPECT_EQ(dir.files().size(), names.size());
    for (const auto& n : names) EXPECT_EQ(Z_OsDelete(n.c_str()), ST_OK);
    EXPECT_TRUE(dir.files().empty());
}

TEST(TempDirectory, SeparatorAndLengthRules) {
    wchar_t saved[Z_MAX_PATH];
    ASSERT_EQ(Z_GetTempDirectory(saved), ST_OK);
    EXPECT_EQ(saved[std::wcslen(saved) - 1], L'/');  // the system path, joined-ready

    auto with_length = [](size_t n, bool trailing) {
        std::wstring s = L"/";
        while (s.size() < n) s.push_back(L'd');
        if (trailing) s.back() = L'/';
        return s;
    };
    struct Case {
        size_t length;
        bool trailing;
        int32_t want;
        size_t stored_length;
    } cases[] = {
        {1, true, ST_OK, 1},           {5, false, ST_OK, 6},          {258, false, ST_OK, 259},
        {259, true, ST_OK, 259},       {259, false, ST_BAD_PARAM, 0}, {260, true, ST_BAD_PARAM, 0},
        {1000, true, ST_BAD_PARAM, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        ASSERT_EQ(Z_SetTempDirectory(L"/before/"), ST_OK);
        const std::wstring d = with_length(c.length, c.trailing);
        EXPECT_EQ(Z_SetTempDirectory(d.c_str()), c.want);
        wchar_t back[Z_MAX_PATH];
        ASSERT_EQ(Z_GetTempDirectory(back), ST_OK);
        if (c.want == ST_OK) {
            EXPECT_EQ(std::wcslen(back), c.stored_length);
            EXPECT_EQ(std::wstring(back).substr(0, d.size()), d);
            EXPECT_EQ(back[c.stored_length - 1], L'/');
        } else {
            EXPECT_STREQ(back, L"/before/");  // refused: unchanged
        }
    }
    ASSERT_EQ(Z_SetTempDirectory(saved), ST_OK);
}

// A directory that is missing, or whose path leaves no room for a name within
// Z_MAX_PATH, gives no name; a file made for a name that would not fit is removed.
TEST(TempName, MissingDirectoryOrNoRoomForANameGivesTempFileStatus) {
    zktest::PrivateTempDir dir;
    std::string deep = dir.path();
    while (deep.size() < 250) {
        deep += std::string(std::min<size_t>(40, 253 - deep.size()), 'd') + "/";
        ASSERT_TRUE(std::filesystem::create_directory(deep));
    }
    ASSERT_LE(deep.size(), 259u);
    for (const std::string& d : {dir.path() + "missing/", deep}) {
        ASSERT_EQ(Z_SetTempDirectory(wide(d).c_str()), ST_OK);
        wchar_t name[Z_MAX_PATH];
        EXPECT_EQ(Z_OsGetTempName(name), ST_TEMP_FILE) << d;
    }
    EXPECT_TRUE(std::filesystem::is_empty(deep));
}

// ---------------------------------------------------------------------------
// Swappable routines.

namespace {

struct Log {
    std::vector<std::string> calls;
    std::vector<void*> users;
};
Log* g_log = nullptr;

void note(const std::string& call, void* user) {
    g_log->calls.push_back(call);
    g_log->users.push_back(user);
}
std::string str(int64_t v) { return std::to_string(v); }

Z_FILE Z_API rec_open(const wchar_t*, int32_t flags, int32_t perm, void* user) {
    note("open " + str(flags) + " " + str(perm), user);
    return 42;
}
int32_t Z_API rec_read(Z_FILE f, void*, uint32_t count, void* user) {
    note("read " + str(f) + " " + str(count), user);
    return 7;
}
int32_t Z_API rec_write(Z_FILE f, const void*, uint32_t count, void* user) {
    note("write " + str(f) + " " + str(count), user);
    return 8;
}
int64_t Z_API rec_seek(Z_FILE f, int64_t offset, int32_t origin, void* user) {
    note("seek " + str(f) + " " + str(offset) + " " + str(origin), user);
    return int64_t{1} << 33;
}
int32_t Z_API rec_close(Z_FILE f, void* user) {
    note("close " + str(f), user);
    return 0;
}

}  // namespace

TEST(Redirect, InstalledRoutinesGetTheirUserDataAndResetRestoresOwn) {
    Log log;
    g_log = &log;
    int token = 0;
    ASSERT_EQ(current_routines(), kOwn);
    ASSERT_EQ(Z_RedirectIO(rec_open, rec_read, rec_write, rec_seek, rec_close, &token), ST_OK);
    char buf[4];
    EXPECT_EQ(Z_RedirectedOpen(L"x", 0x102, 0x180), 42);
    EXPECT_EQ(Z_RedirectedRead(42, buf, 4), 7);
    EXPECT_EQ(Z_RedirectedWrite(42, buf, 3), 8);
    EXPECT_EQ(Z_RedirectedSeek(42, -5, 2), int64_t{1} << 33);
    EXPECT_EQ(Z_RedirectedClose(42), 0);
    EXPECT_EQ(log.calls,
              (std::vector<std::string>{"open 258 384", "read 42 4", "write 42 3", "seek 42 -5 2", "close 42"}));
    EXPECT_EQ(log.users, std::vector<void*>(5, &token));

    // A null routine means the library's own, each one separately.
    ASSERT_EQ(Z_RedirectIO(nullptr, rec_read, nullptr, nullptr, rec_close, nullptr), ST_OK);
    Routines r = current_routines();
    EXPECT_EQ(r.open, Z_OsOpen);
    EXPECT_EQ(r.read, rec_read);
    EXPECT_EQ(r.write, Z_OsWrite);
    EXPECT_EQ(r.seek, Z_OsSeek);
    EXPECT_EQ(r.close, rec_close);

    ASSERT_EQ(Z_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
    EXPECT_EQ(current_routines(), kOwn);
    g_log = nullptr;
}

TEST(Redirect, DefaultRoutinesReachTheFileSystem) {
    zktest::PrivateTempDir dir;
    const std::wstring name = wide(dir.path() + "redirected.bin");
    Z_FILE f = Z_RedirectedOpen(name.c_str(), Z_O_RDWR | Z_O_CREAT, Z_S_IREAD | Z_S_IWRITE);
    ASSERT_NE(f, Z_INVALID_FILE);
    EXPECT_EQ(Z_RedirectedWrite(f, "hello", 5), 5);
    EXPECT_EQ(Z_RedirectedSeek(f, 1, 0), 1);
    char back[4] = {};
    EXPECT_EQ(Z_RedirectedRead(f, back, 4), 4);
    EXPECT_EQ(std::memcmp(back, "ello", 4), 0);
    EXPECT_EQ(Z_RedirectedClose(f), 0);
    EXPECT_EQ(dir.files(), std::vector<std::string>{"redirected.bin"});
}

namespace {

// A filter that counts written bytes and passes each call to the routine it
// replaced, with that routine's own user data.
struct Filter {
    Z_WRITEPROC previous_write;
    void* previous_user;
    uint64_t bytes;
};

int32_t Z_API counting_write(Z_FILE f, const void* buffer, uint32_t count, void* user) {
    auto* filter = static_cast<Filter*>(user);
    filter->bytes += count;
    return filter->previous_write(f, buffer, count, filter->previous_user);
}

}  // namespace

TEST(Redirect, FilterChainsOntoPreviousRoutinesAndRestoresThem) {
    Log log;
    g_log = &log;
    int base_user = 0;
    ASSERT_EQ(Z_RedirectIO(rec_open, rec_read, rec_write, rec_seek, rec_close, &base_user), ST_OK);
    const Routines before = current_routines();

    // Swap only the write routine; the user words passed in always replace
    // the current ones, so the others are handed back unchanged.
    Filter filter{nullptr, nullptr, 0};
    Z_WRITEPROC write = counting_write;
    void* user_write = &filter;
    Z_OPENPROC open = nullptr;  // null: keep, but report the current one
    void* user_open = &base_user;
    ASSERT_EQ(Z_FilterIO(&open, nullptr, &write, nullptr, nullptr, &user_open, nullptr, &user_write, nullptr, nullptr),
              ST_OK);
    EXPECT_EQ(open, rec_open);
    EXPECT_EQ(user_open, &base_user);
    EXPECT_EQ(write, rec_write);
    EXPECT_EQ(user_write, &base_user);
    filter.previous_write = write;
    filter.previous_user = user_write;

    Routines during = current_routines();
    EXPECT_EQ(during.open, rec_open);
    EXPECT_EQ(during.write, counting_write);
    EXPECT_EQ(during.user[2], &filter);
    EXPECT_EQ(during.read, rec_read);

    char buf[16] = {};
    EXPECT_EQ(Z_RedirectedWrite(42, buf, 16), 8);  // the result of the chained routine
    EXPECT_EQ(Z_RedirectedWrite(42, buf, 5), 8);
    EXPECT_EQ(filter.bytes, 21u);
    EXPECT_EQ(log.calls, (std::vector<std::string>{"write 42 16", "write 42 5"}));
    EXPECT_EQ(log.users, std::vector<void*>(2, &base_user));

    // Restoring: hand the saved values back through the same exchange.
    Z_WRITEPROC restore = write;
    void* restore_user = user_write;
    ASSERT_EQ(
        Z_FilterIO(nullptr, nullptr, &restore, nullptr, nullptr, nullptr, nullptr, &restore_user, nullptr, nullptr),
        ST_OK);
    EXPECT_EQ(restore, counting_write);
    EXPECT_EQ(restore_user, &filter);
    EXPECT_EQ(current_routines(), before);

    // A user word passed as null still replaces.
    void* null_user = nullptr;
    ASSERT_EQ(Z_FilterIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &null_user),
              ST_OK);
    EXPECT_EQ(null_user, &base_user);
    EXPECT_EQ(current_routines().user[4], nullptr);

    ASSERT_EQ(Z_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
    g_log = nullptr;
}

// ---------------------------------------------------------------------------
// Buffer redirection.

namespace {

// Ends a redirection that allocated its own buffer and returns the data.
std::string take(Z_REDIRECTBUFFER* rec) {
    void* buffer = nullptr;
    size_t size = 0;
    EXPECT_EQ(Z_StopRedirectToBuffer(rec, &buffer, &size), ST_OK);
    std::string out(static_cast<const char*>(buffer), buffer ? size : 0);
    Z_Free(buffer);
    return out;
}

}  // namespace

TEST(BufferRedirect, GrowsInThirtyTwoKibSteps) {
    Z_REDIRECTBUFFER* rec = nullptr;
    Z_FILE h = 0;
    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, &h, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(h, Z_REDIRECT_HANDLE);
    EXPECT_EQ(Z_RedirectedOpen(L"ignored", Z_O_WRONLY | Z_O_CREAT, 0), Z_REDIRECT_HANDLE);
    EXPECT_EQ(rec->Buffer, nullptr);
    const auto data = zktest::random_bytes(200000, 5);
    struct Step {
        size_t count;
        size_t size_after;
    } steps[] = {
        {1, 0x8000}, {0x7FFE, 0x8000}, {1, 0x8000}, {1, 0x10000}, {0x8000, 0x18000}, {100000, 0x30000},
    };
    size_t written = 0;
    for (const auto& s : steps) {
        SCOPED_TRACE(written);
        ASSERT_EQ(Z_RedirectedWrite(h, data.data() + written, static_cast<uint32_t>(s.count)),
                  static_cast<int32_t>(s.count));
        written += s.count;
        EXPECT_EQ(rec->Size, s.size_after);
        EXPECT_EQ(rec->End, written);
        EXPECT_EQ(rec->Position, written);
    }
    // Read everything back through the same routines.
    EXPECT_EQ(Z_RedirectedSeek(h, 0, 0), 0);
    std::vector<uint8_t> back(written + 10);
    EXPECT_EQ(Z_RedirectedRead(h, back.data(), static_cast<uint32_t>(back.size())), static_cast<int32_t>(written));
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + static_cast<long>(written), back.begin()));
    EXPECT_EQ(Z_RedirectedClose(h), 0);
    EXPECT_EQ(take(rec), std::string(data.begin(), data.begin() + static_cast<long>(written)));
}

// Seeks, reads past the end and truncating writes are in the random model below.
TEST(BufferRedirect, OpenRewindsAndEmptiesOnlyWithTruncation) {
    Z_REDIRECTBUFFER* rec = nullptr;
    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, nullptr, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    EXPECT_EQ(Z_RedirectedWrite(Z_REDIRECT_HANDLE, "abcdef", 6), 6);
    EXPECT_EQ(Z_RedirectedOpen(L"", Z_O_RDWR, 0), Z_REDIRECT_HANDLE);
    EXPECT_EQ(rec->Position, 0u);
    EXPECT_EQ(rec->End, 6u);
    EXPECT_EQ(Z_RedirectedOpen(L"", Z_O_RDWR | Z_O_TRUNC, 0), Z_REDIRECT_HANDLE);
    EXPECT_EQ(rec->End, 0u);
    EXPECT_EQ(take(rec), "");
}

TEST(BufferRedirect, InputOnlyBufferReadsAndRefusesWrites) {
    const char text[] = "input data";
    std::vector<char> mine(text, text + 10);
    Z_REDIRECTBUFFER* rec = nullptr;
    Z_FILE h = 0;
    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, &h, Z_REDIRECT_INPUT | Z_REDIRECT_SHRINK, mine.data(), 10), ST_OK);
    EXPECT_EQ(rec->End, 10u);
    for (uint32_t count : {0u, 1u, 10u, 100000u}) EXPECT_EQ(Z_RedirectedWrite(h, "x", count), -1) << count;
    EXPECT_EQ(Z_RedirectedSeek(h, 0, 2), 10);
    EXPECT_EQ(Z_RedirectedSeek(h, 6, 0), 6);
    char back[8] = {};
    EXPECT_EQ(Z_RedirectedRead(h, back, 8), 4);
    EXPECT_EQ(std::memcmp(back, "data", 4), 0);
    EXPECT_EQ(Z_RedirectedClose(h), 0);
    void* buffer = nullptr;
    size_t size = 0;
    ASSERT_EQ(Z_StopRedirectToBuffer(rec, &buffer, &size), ST_OK);
    EXPECT_EQ(buffer, mine.data());  // the caller's buffer, never reallocated
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(std::string(mine.begin(), mine.end()), "input data");
}

TEST(BufferRedirect, FixedBufferCutsWritesAtItsSize) {
    std::vector<uint8_t> mine(16, 0xEE);
    Z_REDIRECTBUFFER* rec = nullptr;
    Z_FILE h = 0;
    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, &h, 0, mine.data(), mine.size()), ST_OK);
    EXPECT_EQ(rec->End, 0u);
    EXPECT_EQ(Z_RedirectedWrite(h, "0123456789", 10), 10);
    EXPECT_EQ(Z_RedirectedWrite(h, "0123456789", 10), 6);  // only what fits
    EXPECT_EQ(Z_RedirectedWrite(h, "0123456789", 10), 0);  // at the size
    EXPECT_EQ(Z_RedirectedSeek(h, 17, 0), 17);
    EXPECT_EQ(Z_RedirectedWrite(h, "0", 1), -1);  // beyond the size
    EXPECT_EQ(Z_RedirectedWrite(h, "0", 0), 0);   // truncation stops at the buffer's end
    EXPECT_EQ(rec->End, 16u);
    EXPECT_EQ(Z_RedirectedSeek(h, 10, 0), 10);
    EXPECT_EQ(Z_RedirectedWrite(h, "0", 0), 0);
    EXPECT_EQ(rec->End, 10u);
    char back[16];
    EXPECT_EQ(Z_RedirectedRead(h, back, 16), 0);
    EXPECT_EQ(Z_RedirectedSeek(h, 20, 0), 20);
    EXPECT_EQ(Z_RedirectedRead(h, back, 16), -1);
    EXPECT_EQ(Z_RedirectedSeek(h, 0, 0), 0);
    EXPECT_EQ(Z_RedirectedWrite(h, "0123456789012345", 16), 16);
    EXPECT_EQ(rec->Size, 16u);
    EXPECT_EQ(rec->End, 16u);
    void* buffer = nullptr;
    size_t size = 0;
    ASSERT_EQ(Z_StopRedirectToBuffer(rec, &buffer, &size), ST_OK);
    EXPECT_EQ(buffer, mine.data());
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(std::memcmp(mine.data(), "0123456789012345", 16), 0);
}

TEST(BufferRedirect, CloseShrinksOnlyWhenAskedAndNotInputOnly) {
    struct Case {
        uint32_t flags;
        size_t size_after_close;  // after writing 5 bytes into 32 KiB
    } cases[] = {
        {Z_REDIRECT_GROW, 0x8000},
        {0x2, 0x8000},
        {Z_REDIRECT_SHRINK, 5},
        {Z_REDIRECT_SHRINK | 0x8, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        Z_REDIRECTBUFFER* rec = nullptr;
        Z_FILE h = 0;
        auto* start = static_cast<uint8_t*>(Z_Malloc(0x8000));
        ASSERT_NE(start, nullptr);
        ASSERT_EQ(Z_StartRedirectToBuffer(&rec, &h, c.flags, start, 0x8000), ST_OK);
        ASSERT_EQ(Z_RedirectedWrite(h, "abcde", 5), 5);
        EXPECT_EQ(Z_RedirectedClose(h), 0);
        EXPECT_EQ(rec->Size, c.size_after_close);
        EXPECT_EQ(take(rec), "abcde");
    }
}

TEST(BufferRedirect, WrongHandleFailsEveryRoutine) {
    Z_REDIRECTBUFFER* rec = nullptr;
    Z_FILE h = 0;
    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, &h, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    char c = 'q';
    for (Z_FILE bad : {Z_FILE{-1}, Z_FILE{0}, Z_FILE{4}, Z_FILE{6}}) {
        EXPECT_EQ(Z_RedirectedRead(bad, &c, 1), -1);
        EXPECT_EQ(Z_RedirectedWrite(bad, &c, 1), -1);
        EXPECT_EQ(Z_RedirectedSeek(bad, 0, 0), -1);
        EXPECT_EQ(Z_RedirectedClose(bad), -1);
    }
    EXPECT_EQ(rec->Buffer, nullptr);
    ASSERT_EQ(Z_StopRedirectToBuffer(rec, nullptr, nullptr), ST_OK);
}

TEST(BufferRedirect, NestedRedirectionsRestoreInTurn) {
    const Routines outer = current_routines();
    Z_REDIRECTBUFFER* a = nullptr;
    Z_REDIRECTBUFFER* b = nullptr;
    ASSERT_EQ(Z_StartRedirectToBuffer(&a, nullptr, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    const Routines in_a = current_routines();
    EXPECT_EQ(in_a.user[0], a);
    ASSERT_EQ(Z_StartRedirectToBuffer(&b, nullptr, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    EXPECT_EQ(Z_RedirectedWrite(Z_REDIRECT_HANDLE, "bb", 2), 2);
    EXPECT_EQ(take(b), "bb");
    EXPECT_EQ(current_routines(), in_a);
    EXPECT_EQ(Z_RedirectedWrite(Z_REDIRECT_HANDLE, "aaa", 3), 3);
    EXPECT_EQ(take(a), "aaa");
    EXPECT_EQ(current_routines(), outer);
}

TEST(BufferRedirect, AllocationFailuresLeaveStateIntact) {
    using zk::platform::FaultKind;
    Z_REDIRECTBUFFER* rec = reinterpret_cast<Z_REDIRECTBUFFER*>(0x1);
    EXPECT_EQ(zktest::under_fault(FaultKind::Allocation, 1,
                                  [&] { return Z_StartRedirectToBuffer(&rec, nullptr, Z_REDIRECT_GROW, nullptr, 0); }),
              ST_NO_MEMORY);
    EXPECT_EQ(rec, reinterpret_cast<Z_REDIRECTBUFFER*>(0x1));
    EXPECT_EQ(current_routines(), kOwn);

    ASSERT_EQ(Z_StartRedirectToBuffer(&rec, nullptr, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
    const auto data = zktest::random_bytes(0x9000, 9);
    ASSERT_EQ(Z_RedirectedWrite(Z_REDIRECT_HANDLE, data.data(), 0x7000), 0x7000);
    uint8_t* before = rec->Buffer;
    // Growth fails: the old buffer stays and the write stops at its size.
    EXPECT_EQ(zktest::under_fault(FaultKind::Allocation, 1,
                                  [&] { return Z_RedirectedWrite(Z_REDIRECT_HANDLE, data.data() + 0x7000, 0x2000); }),
              0x1000);
    EXPECT_EQ(rec->Buffer, before);
    EXPECT_EQ(rec->Size, 0x8000u);
    EXPECT_EQ(Z_RedirectedWrite(Z_REDIRECT_HANDLE, data.data() + 0x8000, 0x1000), 0x1000);
    EXPECT_EQ(rec->Size, 0x10000u);
    EXPECT_EQ(take(rec), std::string(data.begin(), data.end()));
}

// Seeded random operations against a plain model of the buffer.
TEST(BufferRedirect, RandomOperationsMatchModel) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        Z_REDIRECTBUFFER* rec = nullptr;
        ASSERT_EQ(Z_StartRedirectToBuffer(&rec, nullptr, Z_REDIRECT_GROW, nullptr, 0), ST_OK);
        std::vector<uint8_t> model;  // bytes below the end of data that were written
        std::vector<bool> known;
        size_t pos = 0;
        for (int op = 0; op < 300; ++op) {
            const unsigned kind = rng() % 4;
            if (kind == 0) {
                const uint32_t count = rng() % 5000;
                auto bytes = zktest::random_bytes(count, rng());
                const int32_t n = Z_RedirectedWrite(Z_REDIRECT_HANDLE, bytes.data(), count);
                if (count == 0) {
                    ASSERT_EQ(n, 0);
                    model.resize(std::min(pos, rec->Size));
                    known.resize(model.size());
                    continue;
                }
                ASSERT_EQ(n, static_cast<int32_t>(count));
                if (model.size() < pos + count) {
                    model.resize(pos + count);
                    known.resize(pos + count);
                }
                std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<long>(pos));
                std::fill(known.begin() + static_cast<long>(pos), known.begin() + static_cast<long>(pos + count), true);
                pos += count;
                ASSERT_EQ(rec->Size % 0x8000, 0u);
                ASSERT_GE(rec->Size, pos);
            } else if (kind == 1) {
                const uint32_t count = rng() % 6000;
                std::vector<uint8_t> back(count);
                const int32_t n = Z_RedirectedRead(Z_REDIRECT_HANDLE, back.data(), count);
                if (pos > model.size() || (rec->Buffer == nullptr)) {
                    ASSERT_EQ(n, -1);
                    continue;
                }
                const size_t want = std::min<size_t>(count, model.size() - pos);
                ASSERT_EQ(n, static_cast<int32_t>(want));
                for (size_t i = 0; i < want; ++i)
                    if (known[pos + i]) {
                        ASSERT_EQ(back[i], model[pos + i]) << pos + i;
                    }
                pos += want;
            } else {
                const int32_t origin = static_cast<int32_t>(rng() % 4);  // 3 is no origin
                const int64_t offset = static_cast<int64_t>(rng() % 8000) - 2000;
                const int64_t base = origin == 0   ? 0
                                     : origin == 1 ? static_cast<int64_t>(pos)
                                                   : static_cast<int64_t>(model.size());
                const int64_t got = Z_RedirectedSeek(Z_REDIRECT_HANDLE, offset, origin);
                if (origin == 3 || base + offset < 0) {
                    ASSERT_EQ(got, -1);
                } else {
                    ASSERT_EQ(got, base + offset);
                    pos = static_cast<size_t>(got);
                }
            }
            ASSERT_EQ(rec->End, model.size());
            ASSERT_EQ(rec->Position, pos);
        }
        EXPECT_EQ(take(rec).size(), model.size());
    }
}
