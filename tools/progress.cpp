#include "progress.h"

#include <unistd.h>
#include <zkernel.h>

#include <cstdio>

#include "zk.h"

namespace zk_tool {
namespace {

int32_t Z_API on_status(int32_t percent, void* user) {
    static_cast<Progress*>(user)->update(percent);
    return ST_OK;
}

}  // namespace

Progress::Progress(std::string label) : label_(std::move(label)) {
    enabled_ = !globals().quiet && isatty(STDERR_FILENO) == 1;
    STATUSCALLBACK previous = nullptr;
    Z_SetStatusCallBack(enabled_ ? on_status : nullptr, this, &previous, &previous_data_);
    previous_ = reinterpret_cast<void*>(previous);
}

Progress::~Progress() {
    Z_SetStatusCallBack(reinterpret_cast<STATUSCALLBACK>(previous_), previous_data_, nullptr, nullptr);
    if (enabled_ && shown_ >= 0) std::fputs("\r\033[K", stderr);
}

void Progress::update(int32_t percent) {
    if (!enabled_) return;
    if (percent < 0) percent = 0;
    if (percent > 100) percent = 100;
    if (percent == shown_) return;
    shown_ = percent;
    constexpr int kWidth = 30;
    const int filled = percent * kWidth / 100;
    std::fprintf(stderr, "\r%-12.12s [%.*s%*s] %3d%%", label_.c_str(), filled, "##############################",
                 kWidth - filled, "", static_cast<int>(percent));
    std::fflush(stderr);
}

void Progress::rows(uint64_t done, uint64_t total) {
    if (enabled_ && total > 0) update(static_cast<int32_t>(done * 100 / total));
}

void Progress::step(const std::string& label) {
    label_ = label;
    shown_ = -1;
    update(0);
}

}  // namespace zk_tool
