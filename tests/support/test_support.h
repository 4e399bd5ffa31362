// Helpers shared by the test programs: a private temporary directory for
// storage tests, fault injection, and seeded random rows.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "zkernel.h"

namespace zktest {

// A fresh directory under the build tree, set as the calling thread's
// temporary directory for the object's lifetime and removed afterwards.
class PrivateTempDir {
public:
    PrivateTempDir();
    ~PrivateTempDir();
    const std::string& path() const { return path_; }
    // Names of the files now in the directory.
    std::vector<std::string> files() const;

private:
    std::string path_;
    std::wstring previous_;
};

// Arms the platform fault seam for one kind and disarms it on scope exit.
class FaultScope {
public:
    FaultScope(zk::platform::FaultKind kind, int nth);
    ~FaultScope();

private:
    zk::platform::FaultKind kind_;
};

// Deterministic random bytes.
std::vector<uint8_t> random_bytes(size_t count, uint32_t seed);

// A record filled by Z_InitBitmap, checked.
BitmapHandle described(int32_t width, int32_t height, int32_t bpp);

}  // namespace zktest
