// Pieces shared by the benchmark programs: buffers placed where memcpy runs
// at its normal speed, the processor and huge-page setting printed with the
// figures, repetitions summarised as median and range, and ratios of each
// figure to its baseline of the same bytes.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zkbench {

// Two buffers in one block: the first on a page boundary, the second 2 KiB
// past the first page boundary after it. Some memcpy implementations run
// many times slower when the destination sits a few bytes past the source
// modulo 4 KiB (loads then seem to depend on earlier stores); half a page is
// as far from that as two buffers can be. Both are written once here, so
// no page fault falls inside a timed copy.
class BufferPair {
public:
    BufferPair(size_t first_bytes, size_t second_bytes) {
        const size_t start = (first_bytes + 4095) / 4096 * 4096 + 2048;
        const size_t total = (start + second_bytes + 4095) / 4096 * 4096;
        block_ = static_cast<uint8_t*>(std::aligned_alloc(4096, total));
        if (!block_) std::abort();
        second_ = block_ + start;
        std::memset(block_, 0x11, first_bytes);
        std::memset(second_, 0x22, second_bytes);
    }
    ~BufferPair() { std::free(block_); }
    BufferPair(const BufferPair&) = delete;
    BufferPair& operator=(const BufferPair&) = delete;
    uint8_t* first() const { return block_; }
    uint8_t* second() const { return second_; }

private:
    uint8_t* block_ = nullptr;
    uint8_t* second_ = nullptr;
};

// "model name (family f, model m, stepping s)" from /proc/cpuinfo.
inline std::string processor_model() {
    std::ifstream in("/proc/cpuinfo");
    std::string line, name, family, model, stepping;
    auto value = [](const std::string& l) {
        const size_t colon = l.find(':');
        return colon == std::string::npos ? std::string() : l.substr(l.find_first_not_of(" \t", colon + 1));
    };
    while (std::getline(in, line) && (name.empty() || stepping.empty())) {
        if (line.rfind("model name", 0) == 0 && name.empty())
            name = value(line);
        else if (line.rfind("cpu family", 0) == 0 && family.empty())
            family = value(line);
        else if (line.rfind("model", 0) == 0 && line.find("name") == std::string::npos && model.empty())
            model = value(line);
        else if (line.rfind("stepping", 0) == 0 && stepping.empty())
            stepping = value(line);
    }
    if (name.empty()) return "unknown processor";
    if (family.empty()) return name;
    return name + " (family " + family + ", model " + model + ", stepping " + stepping + ")";
}

// The bracketed choice in /sys/kernel/mm/transparent_hugepage/enabled.
inline std::string huge_page_setting() {
    std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string all;
    std::getline(in, all);
    const size_t open = all.find('['), close = all.find(']');
    if (open == std::string::npos || close == std::string::npos || close < open) return "unknown";
    return all.substr(open + 1, close - open - 1);
}

// Adds the processor and the huge-page setting to the header that the
// console reporter prints above the figures.
inline void add_context() {
    benchmark::AddCustomContext("processor", processor_model());
    benchmark::AddCustomContext("transparent huge pages", huge_page_setting());
}

// Real time of each repetition summarised by median, min and max.
inline benchmark::internal::Benchmark* repeated(benchmark::internal::Benchmark* b, int repetitions = 5) {
    return b->UseRealTime()
        ->Repetitions(repetitions)
        ->DisplayAggregatesOnly(true)
        ->ComputeStatistics("min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
        ->ComputeStatistics("max", [](const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); });
}

// Collects the median, min and max real time (seconds) of each benchmark,
// keyed by its name and arguments, and prints ratios to baselines.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : benchmark::ConsoleReporter(OO_Tabular) {}  // plain text: the figures end up in logs
    struct Times {
        double median = 0, min = 0, max = 0;
        double cpu_median = 0;  // processor time of this thread, less disturbed by other load
    };
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs) {
            if (r.error_occurred) continue;
            std::string key = r.run_name.function_name;
            if (!r.run_name.args.empty()) key += "/" + r.run_name.args;
            const double s = r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
            const double cpu = r.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
            Times& t = times_[key];
            if (r.run_type == Run::RT_Iteration) {
                // Without repetitions the single run is all there is.
                if (t.median == 0) t = Times{s, s, s, cpu};
            } else if (r.aggregate_name == "median") {
                t.median = s;
                t.cpu_median = cpu;
            } else if (r.aggregate_name == "min") {
                t.min = s;
            } else if (r.aggregate_name == "max") {
                t.max = s;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const Times* find(const std::string& key) const {
        const auto i = times_.find(key);
        return i == times_.end() ? nullptr : &i->second;
    }
    // "label 0.31x (0.29-0.33), processor time 0.35x of baseline": baseline
    // time over the figure's time, the median ratio of real time and its
    // range over the repetitions, then the ratio of median processor times.
    // False when either is missing (filtered out or failed).
    bool print_ratio(const std::string& label, const std::string& key, const std::string& baseline) const {
        const Times* t = find(key);
        const Times* b = find(baseline);
        if (!t || !b || t->median <= 0 || t->min <= 0 || t->max <= 0) return false;
        std::printf("  %-58s %6.3fx (%.3f-%.3f), processor time %.3fx, of %s\n", label.c_str(), b->median / t->median,
                    b->min / t->max, b->max / t->min, t->cpu_median > 0 ? b->cpu_median / t->cpu_median : 0.0,
                    baseline.c_str());
        return true;
    }

private:
    std::map<std::string, Times> times_;
};

}  // namespace zkbench
