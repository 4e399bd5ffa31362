// A progress bar on standard error, driven by the library's status callback
// and by the tool's own row loops. Nothing is drawn when standard error is
// not a terminal or with --quiet.
#pragma once

#include <cstdint>
#include <string>

namespace zk_tool {

class Progress {
public:
    // Installs the status callback for the calling thread and labels the bar.
    explicit Progress(std::string label);
    // Clears the bar and restores the previous callback.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Shows percent (0..100) of the current step.
    void update(int32_t percent);
    // Shows row `done` of `total`.
    void rows(uint64_t done, uint64_t total);
    // Changes the label, starting the bar again at 0.
    void step(const std::string& label);

private:
    std::string label_;
    int32_t shown_ = -1;
    bool enabled_ = false;
    void* previous_ = nullptr;
    void* previous_data_ = nullptr;
};

}  // namespace zk_tool
