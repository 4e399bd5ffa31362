// Shared pieces of the zk command-line tool: the command table entry, the
// parsed command line, failures, bitmap ownership and temporary-then-rename
// output files. The tool uses the library only through include/zkernel.h.
#pragma once

#include <zkernel.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace zk_tool {

// A failure: the library status (0 when the tool refused on its own), what
// failed and what the user can do about it. main() prints it and exits 1.
struct Failure : std::runtime_error {
    Failure(int32_t status, std::string what, std::string hint)
        : std::runtime_error(what), status(status), hint(std::move(hint)) {}
    int32_t status;
    std::string hint;
};

// A command-line mistake: printed with the command's usage, exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws a Failure when status is not ST_OK.
void check(int32_t status, const std::string& what, const std::string& hint = "");

// One option a command accepts: "--name" with a value placeholder (empty for
// a switch) and a line of help.
struct OptionInfo {
    const char* name;
    const char* value;
    const char* help;
};

// The parsed command line of one command: options and positional arguments.
struct Args {
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback = "") const;
    long long get_int(const std::string& name, long long fallback, long long min, long long max) const;
};

// A subcommand: one file defines the run function and its table entry lives
// in main.cpp.
struct Command {
    const char* name;
    const char* synopsis;  // "IN OUT" etc.
    const char* summary;   // one line
    std::vector<OptionInfo> options;
    const char* example;
    int (*run)(const Args& args);
};

// Options every command takes, set from the command line before run().
struct GlobalOptions {
    bool quiet = false;
    std::string temp_dir;
    long long memory_limit = 0;  // bytes, 0: the library's defaults
};
GlobalOptions& globals();

// Parses a size such as 64M, 1G, 4096 (bytes) or 512K.
long long parse_size(const std::string& text);

// Owns a BitmapHandle: Z_FreeBitmap on destruction when it was allocated.
class Bitmap {
public:
    Bitmap();
    ~Bitmap();
    Bitmap(const Bitmap&) = delete;
    Bitmap& operator=(const Bitmap&) = delete;
    BitmapHandle* operator->() { return &h_; }
    const BitmapHandle* operator->() const { return &h_; }
    BitmapHandle* get() { return &h_; }
    const BitmapHandle* get() const { return &h_; }
    bool allocated() const { return (h_.Flags & BF_ALLOCATED) != 0; }
    void reset();

private:
    BitmapHandle h_;
};

// An output written under a temporary name in the destination's directory and
// renamed over the destination only by commit(); destroyed uncommitted, the
// temporary file is removed, so a failure never leaves a partial file under
// the output name.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    const std::string& temp_path() const { return temp_; }
    const std::string& path() const { return path_; }
    int fd() const { return fd_; }
    void commit();

private:
    std::string path_, temp_;
    int fd_ = -1;
    bool committed_ = false;
};

// Lower-case copy of an ASCII string.
std::string lower(std::string text);

// Name of a view perspective value ("top-left", ...), "?" outside 1..8.
const char* perspective_name(uint32_t vp);
// Parses a perspective given as 1..8 or its name; throws UsageError.
uint32_t parse_perspective(const std::string& text);

}  // namespace zk_tool
