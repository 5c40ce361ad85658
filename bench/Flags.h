// The command lines of the benchmark's helper programs: "--flag value" pairs, and --help.
#pragma once

#include <stdexcept>
#include <string>

namespace bench {

// Hands each "--flag value" pair of the command line to handle(flag, value), which returns
// false for a flag it does not know and may throw std::logic_error (as std::stoul does) for a
// value it cannot read. --help, a flag without a value, an unknown flag and an unreadable
// value go to usage(why), which must not return.
template <typename Handle>
void forEachFlag(int argc, char** argv, const char* summary, void (*usage)(const std::string&),
                 Handle&& handle) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help") {
            usage(summary);
        }
        if (i + 1 >= argc) {
            usage("no value for " + flag);
        }
        const std::string value = argv[++i];
        bool known = false;
        try {
            known = handle(flag, value);
        } catch (const std::logic_error&) {
            usage(flag + " " + value + ": not a number");
        }
        if (!known) {
            usage("unknown option or value: " + flag + " " + value);
        }
    }
}

} // namespace bench
