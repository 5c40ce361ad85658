// What the benchmark's helper programs share: their command lines ("--flag value" pairs, and
// --help) and how they measure their own CPU time.
#pragma once

#include <stdexcept>
#include <string>
#include <sys/resource.h>

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

// The process's CPU time so far, user and system, in seconds.
inline double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace bench
