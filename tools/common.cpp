#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zk.h"

namespace zk_tool {

void check(int32_t status, const std::string& what, const std::string& hint) {
    if (status == ST_OK) return;
    std::string advice = hint;
    if (advice.empty()) {
        switch (status) {
            case ST_NO_MEMORY:
                advice = "not enough memory: pass --memory-limit (e.g. --memory-limit 256M) to keep less in memory";
                break;
            case ST_TEMP_FILE:
            case ST_FILE_WRITE:
                advice = "the temporary directory is full or not writable: free space there or pass --temp-dir DIR";
                break;
            case ST_FILE_READ:
            case ST_FILE_SEEK: advice = "a temporary file could not be read back: check the --temp-dir disk"; break;
            case ST_BAD_BPP:
                advice = "the operation does not take this depth: convert first with zk convert --depth";
                break;
            case ST_TOO_LARGE: advice = "the image is too large for this build of the library"; break;
            case ST_SIGNED_DATA: advice = "the image holds signed samples, which this operation refuses"; break;
            default: advice = "see zk --help"; break;
        }
    }
    throw Failure(status, what, advice);
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
    auto it = options.find(name);
    return it == options.end() ? fallback : it->second;
}

long long Args::get_int(const std::string& name, long long fallback, long long min, long long max) const {
    auto it = options.find(name);
    if (it == options.end()) return fallback;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(it->second.c_str(), &end, 10);
    if (errno || end == it->second.c_str() || *end || v < min || v > max)
        throw UsageError("--" + name + " takes a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + it->second + "'");
    return v;
}

GlobalOptions& globals() {
    static GlobalOptions options;
    return options;
}

long long parse_size(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (errno || end == text.c_str() || v <= 0) throw UsageError("not a size: '" + text + "' (use e.g. 64M or 2G)");
    double scale = 1;
    const std::string unit = lower(end);
    if (unit == "k" || unit == "kib" || unit == "kb")
        scale = 1024.0;
    else if (unit == "m" || unit == "mib" || unit == "mb")
        scale = 1024.0 * 1024;
    else if (unit == "g" || unit == "gib" || unit == "gb")
        scale = 1024.0 * 1024 * 1024;
    else if (!unit.empty() && unit != "b")
        throw UsageError("unknown size unit in '" + text + "' (K, M or G)");
    return static_cast<long long>(v * scale);
}

Bitmap::Bitmap() {
    std::memset(&h_, 0, sizeof h_);
    h_.StructSize = Z_BITMAPHANDLE_SIZE;
}

Bitmap::~Bitmap() { reset(); }

void Bitmap::reset() {
    if (h_.StructSize == static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE)) Z_FreeBitmap(&h_);
    std::memset(&h_, 0, sizeof h_);
    h_.StructSize = Z_BITMAPHANDLE_SIZE;
}

OutputFile::OutputFile(const std::string& path) : path_(path) {
    const auto slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pattern = dir + "/." + base + ".zk-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = mkstemp(name.data());
    if (fd_ < 0)
        throw Failure(ST_FILE_WRITE, "cannot create a file in '" + dir + "': " + std::strerror(errno),
                      "check that the output directory exists and is writable");
    ::close(fd_);
    fd_ = -1;
    temp_ = name.data();
}

OutputFile::~OutputFile() {
    if (!committed_ && !temp_.empty()) ::unlink(temp_.c_str());
}

void OutputFile::commit() {
    // mkstemp makes the file private; give it the usual permissions.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(temp_.c_str(), 0666 & ~mask);
    if (std::rename(temp_.c_str(), path_.c_str()) != 0)
        throw Failure(ST_FILE_WRITE, "cannot rename the finished file to '" + path_ + "': " + std::strerror(errno),
                      "check that the output path is writable");
    committed_ = true;
}

std::string lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

namespace {
const char* const kPerspectives[] = {"top-left", "top-right", "bottom-right", "bottom-left",
                                     "left-top", "right-top", "right-bottom", "left-bottom"};
}

const char* perspective_name(uint32_t vp) { return vp >= 1 && vp <= 8 ? kPerspectives[vp - 1] : "?"; }

uint32_t parse_perspective(const std::string& text) {
    const std::string t = lower(text);
    for (uint32_t i = 0; i < 8; ++i)
        if (t == kPerspectives[i] || t == std::to_string(i + 1)) return i + 1;
    throw UsageError("not a view perspective: '" + text +
                     "' (1..8 or top-left, top-right, bottom-right, bottom-left, left-top, right-top, right-bottom, "
                     "left-bottom)");
}

}  // namespace zk_tool
