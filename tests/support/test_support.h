// Helpers shared by the test programs: a private temporary directory for
// storage tests, fault injection, and seeded random rows.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
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

// Runs `fn` with the n-th call of `kind` failing and returns its result.
template <typename Fn>
auto under_fault(zk::platform::FaultKind kind, int nth, Fn fn) {
    FaultScope scope(kind, nth);
    return fn();
}

// A fault sweep: for each kind, attempt(kind, n) for n = 1, 2, ... until it
// returns true (the operation got past every call of that kind), which must
// happen before `limit`.
template <typename Attempt>
void sweep_faults(std::initializer_list<zk::platform::FaultKind> kinds, int limit, Attempt attempt) {
    for (zk::platform::FaultKind kind : kinds) {
        bool done = false;
        for (int n = 1; !done && n < limit; ++n) {
            SCOPED_TRACE(::testing::Message() << "fault kind " << static_cast<int>(kind) << ", call " << n);
            done = attempt(kind, n);
        }
        EXPECT_TRUE(done) << "fault kind " << static_cast<int>(kind) << " still failing at call " << limit;
    }
}

// Deterministic random bytes.
std::vector<uint8_t> random_bytes(size_t count, uint32_t seed);

// A record filled by Z_InitBitmap, checked.
BitmapHandle described(int32_t width, int32_t height, int32_t bpp);

}  // namespace zktest
