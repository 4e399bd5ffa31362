// Status names and the version: every ST_ code the header defines has a name
// that starts with its own spelling, other values get the fallback, and the
// library reports the version of the header it was built with.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "zkernel.h"

namespace {

// The ST_ defines as the header spells them, read from the header itself so
// that a code added there without a name is caught.
std::vector<std::pair<std::string, int32_t>> header_status_codes() {
    std::ifstream in(ZK_HEADER_PATH);
    EXPECT_TRUE(in.good()) << ZK_HEADER_PATH;
    std::vector<std::pair<std::string, int32_t>> codes;
    std::string line;
    while (std::getline(in, line)) {
        // "#define ST_NAME 1" or "#define ST_NAME (-13)", then a comment.
        std::istringstream words(line);
        std::string directive, name, value;
        if (!(words >> directive >> name >> value) || directive != "#define" || name.rfind("ST_", 0) != 0) continue;
        if (value.front() == '(') value = value.substr(1);
        codes.emplace_back(name, std::stoi(value));
    }
    return codes;
}

TEST(StatusNames, EveryHeaderCodeIsNamedAndOthersFallBack) {
    const auto codes = header_status_codes();
    ASSERT_GE(codes.size(), 15u);
    std::set<int32_t> values;
    for (const auto& [name, value] : codes) {
        const char* text = Z_StatusName(value);
        ASSERT_NE(text, nullptr) << name;
        const std::string prefix = name + ": ";
        EXPECT_EQ(std::strncmp(text, prefix.c_str(), prefix.size()), 0) << name << " -> " << text;
        EXPECT_GT(std::strlen(text), prefix.size()) << name << " has no meaning";
        EXPECT_TRUE(values.insert(value).second) << name << " reuses " << value;
    }
    // Every value from well below the lowest code to above ST_OK: exactly the
    // header's codes have a name of their own.
    for (int32_t v = -5000; v <= 100; ++v) {
        const bool known = values.count(v) != 0;
        EXPECT_EQ(std::strcmp(Z_StatusName(v), "unknown status") != 0, known) << v;
    }
    for (int32_t v : {INT32_MIN, INT32_MAX}) EXPECT_STREQ(Z_StatusName(v), "unknown status");
}

TEST(Version, LibraryReportsTheHeaderVersion) {
    EXPECT_EQ(Z_GetVersion(), ZK_VERSION);
    EXPECT_EQ(Z_GetVersion(), ZK_VERSION_MAJOR * 10000 + ZK_VERSION_MINOR * 100 + ZK_VERSION_PATCH);
}

}  // namespace
