// What the upload directory's filesystem allows for many small files stored at once, with no
// HTTP and no server: each thread writes files the way the server stores an upload (a new
// unnamed file, one write, fsync, link to the file's name, close, fsync of the directory; on a
// filesystem without unnamed files a temporary name and a rename instead) as fast as it can.
// The server cannot store small uploads faster than this on the same disk.
//
//   small_file_floor --dir D [--count 2000] [--threads 16] [--size 4096] [--prefix floor]
//                    [--directory-sync each|none]
//
// --directory-sync none leaves the directory sync out: the most any sharing of directory syncs
// between requests could gain. Prints one JSON object: count, elapsed, rate (files/s) and
// cpu_us (the process's CPU time per file, the kernel's included). The files stay in D.
#include "Tool.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Options {
    std::string dir;
    std::size_t count = 2000;
    std::size_t threads = 16;
    std::size_t size = 4096;
    std::string prefix = "floor";
    bool directorySync = true;
};

[[noreturn]] void usage(const std::string& why) {
    std::fprintf(stderr,
                 "small_file_floor: %s\nusage: small_file_floor --dir D [--count 2000] "
                 "[--threads 16] [--size 4096] [--prefix floor] [--directory-sync each|none]\n",
                 why.c_str());
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    bench::forEachFlag(
        argc, argv, "small files stored as the server stores uploads, with nothing else", usage,
        [&](const std::string& flag, const std::string& value) {
            if (flag == "--dir") {
                options.dir = value;
            } else if (flag == "--count") {
                options.count = std::stoul(value);
            } else if (flag == "--threads") {
                options.threads = std::stoul(value);
            } else if (flag == "--size") {
                options.size = std::stoul(value);
            } else if (flag == "--prefix") {
                options.prefix = value;
            } else if (flag == "--directory-sync" && (value == "each" || value == "none")) {
                options.directorySync = value == "each";
            } else {
                return false;
            }
            return true;
        });
    if (options.dir.empty() || options.count == 0 || options.threads == 0) {
        usage("--dir is required; --count and --threads must be positive");
    }
    options.threads = std::min(options.threads, options.count);
    return options;
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "small_file_floor: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void writeAndSync(int file, const std::string& content, const std::string& what) {
    if (::write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        ::fsync(file) != 0) {
        fail("cannot write " + what);
    }
}

void storeOne(const Options& options, const std::string& content, std::size_t index) {
    const std::string name = options.dir + "/" + options.prefix + "-" + std::to_string(index);
    const int unnamed = ::open(options.dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
    if (unnamed >= 0) {
        writeAndSync(unnamed, content, name);
        const std::string self = "/proc/self/fd/" + std::to_string(unnamed);
        if (::linkat(unnamed, "", AT_FDCWD, name.c_str(), AT_EMPTY_PATH) != 0 &&
            ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            fail("cannot link " + name);
        }
        ::close(unnamed);
    } else {
        const std::string temp = options.dir + "/." + options.prefix + "-" + std::to_string(index);
        const int file = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (file < 0) {
            fail("cannot create " + temp);
        }
        writeAndSync(file, content, temp);
        if (::close(file) != 0 || ::rename(temp.c_str(), name.c_str()) != 0) {
            fail("cannot rename " + temp);
        }
    }
    if (options.directorySync) {
        const int directory = ::open(options.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (directory < 0 || ::fsync(directory) != 0 || ::close(directory) != 0) {
            fail("cannot sync " + options.dir);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const std::string content(options.size, 'f');
    std::atomic<std::size_t> next{0};
    const double cpuBefore = bench::cpuSeconds();
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < options.threads; ++t) {
        threads.emplace_back([&] {
            for (std::size_t i = next++; i < options.count; i = next++) {
                storeOne(options, content, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double cpu = bench::cpuSeconds() - cpuBefore;
    std::printf("{\"count\": %zu, \"elapsed\": %.6f, \"rate\": %.1f, \"cpu_us\": %.1f}\n",
                options.count, elapsed, static_cast<double>(options.count) / elapsed,
                cpu * 1e6 / static_cast<double>(options.count));
    return 0;
}
