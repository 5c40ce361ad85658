// Many small uploads at once, from a client that costs far less than the server it measures:
// every request is built before the clock starts, each connection is one thread with a
// blocking socket, and the timed loop only writes a prepared buffer and reads the answer.
//
//   small_upload_client --port P [--path /users] [--count 2000] [--connections 16]
//                       [--size 4096] [--prefix small] [--timeout 120]
//
// Prints one JSON object: count, ok, elapsed, rate (uploads/s), p50 and p99 latency (s), and
// ceiling, the uploads per second of the client's own CPU time: what the client could drive
// with a core to itself. A rate near the ceiling means the client, not the server, was the
// limit. Exits 1 when any upload did not get a 200.
#include "Tool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int port = 0;
    std::string path = "/users";
    std::size_t count = 2000;
    std::size_t connections = 16;
    std::size_t size = 4096;
    std::string prefix = "small";
    double timeout = 120;
};

[[noreturn]] void usage(const std::string& why) {
    std::fprintf(stderr,
                 "small_upload_client: %s\nusage: small_upload_client --port P [--path /users] "
                 "[--count 2000] [--connections 16] [--size 4096] [--prefix small] "
                 "[--timeout 120]\n",
                 why.c_str());
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    bench::forEachFlag(argc, argv, "many small multipart uploads over keep-alive connections",
                       usage, [&](const std::string& flag, const std::string& value) {
                           if (flag == "--port") {
                               options.port = std::stoi(value);
                           } else if (flag == "--path") {
                               options.path = value;
                           } else if (flag == "--count") {
                               options.count = std::stoul(value);
                           } else if (flag == "--connections") {
                               options.connections = std::stoul(value);
                           } else if (flag == "--size") {
                               options.size = std::stoul(value);
                           } else if (flag == "--prefix") {
                               options.prefix = value;
                           } else if (flag == "--timeout") {
                               options.timeout = std::stod(value);
                           } else {
                               return false;
                           }
                           return true;
                       });
    if (options.port <= 0 || options.port > 65535 || options.count == 0 ||
        options.connections == 0) {
        usage("--port, --count and --connections must be positive");
    }
    options.connections = std::min(options.connections, options.count);
    return options;
}

std::vector<std::string> buildRequests(const Options& options) {
    const std::string boundary = "----SmallUploadClient7MA4YWxkTrZu0gW";
    std::mt19937_64 random(1);
    std::string content(options.size, '\0');
    for (char& c : content) {
        c = static_cast<char>(random());
    }
    std::vector<std::string> requests;
    requests.reserve(options.count);
    for (std::size_t i = 0; i < options.count; ++i) {
        const std::string body = "--" + boundary +
                                 "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
                                 options.prefix + "-" + std::to_string(i) +
                                 ".bin\"\r\nContent-Type: application/octet-stream\r\n\r\n" +
                                 content + "\r\n--" + boundary + "--\r\n";
        requests.push_back("POST " + bench::requestTarget(options.path) +
                           " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(options.port) +
                           "\r\nContent-Type: multipart/form-data; boundary=" + boundary +
                           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                           body);
    }
    return requests;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const std::vector<std::string> requests = buildRequests(options);

    std::vector<std::unique_ptr<bench::Connection>> connections;
    try {
        for (std::size_t i = 0; i < options.connections; ++i) {
            connections.push_back(
                std::make_unique<bench::Connection>(options.port, options.timeout));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "small_upload_client: %s\n", error.what());
        return 1;
    }

    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> ok{0};
    std::mutex lock;
    std::vector<double> latencies;
    std::string firstFailure;
    const auto deadline = Clock::now() + std::chrono::duration<double>(options.timeout);

    const double cpuBefore = bench::cpuSeconds();
    const auto started = Clock::now();
    std::vector<std::thread> threads;
    for (std::size_t c = 0; c < options.connections; ++c) {
        threads.emplace_back([&, c] {
            std::vector<double> mine;
            std::unique_ptr<bench::Connection> connection = std::move(connections[c]);
            for (std::size_t i; (i = next.fetch_add(1)) < requests.size();) {
                if (Clock::now() > deadline) {
                    break;
                }
                const auto sent = Clock::now();
                int status = connection->exchange(requests[i]);
                if (status == 0) {
                    try {
                        connection =
                            std::make_unique<bench::Connection>(options.port, options.timeout);
                        status = connection->exchange(requests[i]);
                    } catch (const std::exception&) {
                        status = 0;
                    }
                }
                mine.push_back(std::chrono::duration<double>(Clock::now() - sent).count());
                if (status == 200) {
                    ok.fetch_add(1);
                } else {
                    std::lock_guard<std::mutex> guard(lock);
                    if (firstFailure.empty()) {
                        firstFailure = "upload " + std::to_string(i) + ": " +
                                       (status == 0 ? std::string("no answer")
                                                    : "status " + std::to_string(status));
                    }
                    if (status == 0) {
                        break;
                    }
                }
            }
            std::lock_guard<std::mutex> guard(lock);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    const double cpu = bench::cpuSeconds() - cpuBefore;

    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](std::size_t percent) {
        return latencies.empty()
                   ? 0.0
                   : latencies[std::min(latencies.size() - 1, latencies.size() * percent / 100)];
    };
    const std::size_t done = ok.load();
    std::printf("{\"count\": %zu, \"ok\": %zu, \"elapsed\": %.6f, \"rate\": %.1f, \"p50\": %.6f, "
                "\"p99\": %.6f, \"ceiling\": %.1f, \"failure\": \"%s\"}\n",
                options.count, done, elapsed, static_cast<double>(done) / elapsed, at(50), at(99),
                cpu > 0 ? static_cast<double>(latencies.size()) / cpu : 0.0, firstFailure.c_str());
    return done == options.count ? 0 : 1;
}
