#include "test_support.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace zktest {

PrivateTempDir::PrivateTempDir() {
    const char* base = std::getenv("ZK_TEST_TMP");
    fs::path root = base && *base ? fs::path(base) : fs::temp_directory_path() / "zk_test_tmp";
    static int counter = 0;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string leaf =
        std::string(info ? info->name() : "t") + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
    for (auto& c : leaf)
        if (c == '/') c = '_';
    fs::path dir = root / leaf;
    fs::create_directories(dir);
    path_ = dir.string() + "/";
    wchar_t prev[Z_MAX_PATH] = {};
    Z_GetTempDirectory(prev);
    previous_ = prev;
    std::wstring wide = zk::platform::from_utf8(path_);
    EXPECT_EQ(Z_SetTempDirectory(wide.c_str()), ST_OK);
}

PrivateTempDir::~PrivateTempDir() {
    Z_SetTempDirectory(previous_.c_str());
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::vector<std::string> PrivateTempDir::files() const {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(path_, ec)) out.push_back(e.path().filename().string());
    return out;
}

FaultScope::FaultScope(zk::platform::FaultKind kind, int nth) : kind_(kind) { zk::platform::inject_failure(kind, nth); }

FaultScope::~FaultScope() { zk::platform::inject_failure(kind_, 0); }

std::vector<uint8_t> random_bytes(size_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(count);
    for (auto& b : out) b = static_cast<uint8_t>(rng() >> 24);
    return out;
}

BitmapHandle described(int32_t width, int32_t height, int32_t bpp) {
    BitmapHandle b{};
    EXPECT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, width, height, bpp), ST_OK);
    return b;
}

}  // namespace zktest
