// zk: the zkernel command-line tool. Each subcommand lives in its own
// cmd_*.cpp and is one entry of kCommands below.
#include <sys/stat.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

#include "zk.h"

namespace zk_tool {
extern const Command kDemo, kInfo, kConvert, kFlip, kMirror, kRotate, kOrient, kResize, kGray, kRle, kAlpha;
}

namespace {

using namespace zk_tool;

const Command* const kCommands[] = {
    &kDemo, &kInfo, &kConvert, &kFlip, &kMirror, &kRotate, &kOrient, &kResize, &kGray, &kRle, &kAlpha,
};

const OptionInfo kGlobalOptions[] = {
    {"quiet", "", "no progress bar (it is also off when standard error is not a terminal)"},
    {"temp-dir", "DIR", "directory for the temporary files of tiled and disk storage"},
    {"memory-limit", "SIZE",
     "keep about this much image data in memory (e.g. 256M, 2G); the rest goes to tiles on disk"},
    {"help", "", "show help"},
};

const Command* find_command(const std::string& name) {
    for (const Command* c : kCommands)
        if (name == c->name) return c;
    return nullptr;
}

void print_option(std::FILE* out, const OptionInfo& o) {
    std::string left = std::string("--") + o.name + (o.value[0] ? std::string(" ") + o.value : "");
    std::fprintf(out, "  %-24s %s\n", left.c_str(), o.help);
}

void print_usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: zk [OPTIONS] COMMAND [ARGS]\n\nzkernel's command-line tool: PNG and TIFF images through the "
                 "zkernel imaging library.\n\ncommands:\n");
    for (const Command* c : kCommands) std::fprintf(out, "  %-10s %s\n", c->name, c->summary);
    std::fprintf(out, "\noptions for every command:\n");
    for (const OptionInfo& o : kGlobalOptions) print_option(out, o);
    std::fprintf(out, "\nexamples:\n");
    for (const Command* c : kCommands) std::fprintf(out, "  %s\n", c->example);
    std::fprintf(out, "\n'zk COMMAND --help' lists the options of a command.\n");
}

void print_command_help(std::FILE* out, const Command& c) {
    std::fprintf(out, "usage: zk %s [OPTIONS] %s\n\n%s\n", c.name, c.synopsis, c.summary);
    if (!c.options.empty()) {
        std::fprintf(out, "\noptions:\n");
        for (const OptionInfo& o : c.options) print_option(out, o);
    }
    std::fprintf(out, "\noptions for every command:\n");
    for (const OptionInfo& o : kGlobalOptions) print_option(out, o);
    std::fprintf(out, "\nexample:\n  %s\n", c.example);
}

const OptionInfo* find_option(const Command* c, const std::string& name) {
    for (const OptionInfo& o : kGlobalOptions)
        if (name == o.name) return &o;
    if (c)
        for (const OptionInfo& o : c->options)
            if (name == o.name) return &o;
    return nullptr;
}

void apply_globals(const Args& args) {
    GlobalOptions& g = globals();
    g.quiet = args.has("quiet");
    if (args.has("temp-dir")) {
        g.temp_dir = args.get("temp-dir");
        struct stat st {};
        if (stat(g.temp_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            throw Failure(ST_TEMP_FILE, "the temporary directory '" + g.temp_dir + "' does not exist",
                          "create it or pass another --temp-dir");
        std::vector<wchar_t> wide(g.temp_dir.size() + 1);
        if (std::mbstowcs(wide.data(), g.temp_dir.c_str(), wide.size()) == static_cast<size_t>(-1))
            throw UsageError("--temp-dir is not a valid file name in this locale");
        check(Z_SetTempDirectory(wide.data()), "setting the temporary directory to '" + g.temp_dir + "'",
              "use a shorter path (at most " + std::to_string(Z_MAX_PATH - 2) + " characters)");
    }
    if (args.has("memory-limit")) {
        g.memory_limit = parse_size(args.get("memory-limit"));
        if (g.memory_limit < (4 << 20)) throw UsageError("--memory-limit must be at least 4M");
        const long long limit = std::min<long long>(g.memory_limit, 0x7FFFFFFF);
        const long long tile = std::clamp<long long>(limit / 8, 1 << 20, 16 << 20);
        const long long tiles = std::max<long long>(1, limit / 2 / tile);
        check(Z_SetMemoryThresholds(0, static_cast<int32_t>(limit / 2), static_cast<int32_t>(tile),
                                    static_cast<int32_t>(tiles), 1, 2 | 4 | 8),
              "setting the memory thresholds");
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    const Command* command = nullptr;
    Args args;
    try {
        bool only_positional = false;
        for (int i = 1; i < argc; ++i) {
            std::string a = argv[i];
            if (!only_positional && a == "--") {
                only_positional = true;
                continue;
            }
            if (!only_positional && a.size() > 1 && a[0] == '-') {
                std::string name = a == "-h" ? "help" : a == "-q" ? "quiet" : a.substr(a[1] == '-' ? 2 : 1);
                std::string value;
                bool has_value = false;
                if (auto eq = name.find('='); eq != std::string::npos) {
                    value = name.substr(eq + 1);
                    name = name.substr(0, eq);
                    has_value = true;
                }
                const OptionInfo* known = find_option(command, name);
                if (!known)
                    throw UsageError("unknown option '" + a + "'" +
                                     (command ? std::string(" for zk ") + command->name : std::string()));
                if (known->value[0] && !has_value) {
                    if (i + 1 >= argc) throw UsageError("option --" + name + " needs a value (" + known->value + ")");
                    value = argv[++i];
                } else if (!known->value[0] && has_value) {
                    throw UsageError("option --" + name + " takes no value");
                }
                args.options[name] = value;
                continue;
            }
            if (!command) {
                command = find_command(a);
                if (!command) throw UsageError("unknown command '" + a + "'");
            } else {
                args.positional.push_back(a);
            }
        }
        if (args.has("help")) {
            if (command)
                print_command_help(stdout, *command);
            else
                print_usage(stdout);
            return 0;
        }
        if (!command) {
            print_usage(stderr);
            return 2;
        }
        apply_globals(args);
        return command->run(args);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "zk%s%s: %s\n", command ? " " : "", command ? command->name : "", e.what());
        std::fprintf(stderr, "  see 'zk %s--help'\n", command ? (std::string(command->name) + " ").c_str() : "");
        return 2;
    } catch (const Failure& e) {
        std::fprintf(stderr, "zk%s%s: %s\n", command ? " " : "", command ? command->name : "", e.what());
        std::fprintf(stderr, "  status: %s\n", Z_StatusName(e.status));
        if (!e.hint.empty()) std::fprintf(stderr, "  what to do: %s\n", e.hint.c_str());
        return 1;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr,
                     "zk: out of memory\n  status: %s\n  what to do: pass --memory-limit to keep less in memory\n",
                     Z_StatusName(ST_NO_MEMORY));
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zk: %s\n", e.what());
        return 1;
    }
}
