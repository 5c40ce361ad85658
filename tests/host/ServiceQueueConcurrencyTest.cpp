#include "host/ServiceQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

// IO threads handing in calls while service threads end theirs: every call runs exactly once,
// never more at once than there are threads, and once all have ended nothing is held.
TEST(ServiceQueueConcurrency, everyCallRunsOnceAndNeverMoreAtOnceThanTheThreads) {
    constexpr std::size_t threads = 3;
    constexpr int submitters = 6;
    constexpr int callsEach = 300;
    ServiceQueue queue(threads, 2);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> ran{0};
    // Whoever is handed a call runs it, and then whatever takes its thread, as a service thread
    // would.
    const auto runFrom = [&](std::optional<ServiceQueue::Start> start) {
        while (start) {
            start->call();
            start = queue.finished(start->client);
        }
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < submitters; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < callsEach; ++i) {
                const std::string client = t % 2 == 0
                                               ? "192.0.2." + std::to_string(t)
                                               : "2001:db8:1:" + std::to_string(i % 5) + "::/64";
                runFrom(queue.submit(client, [&] {
                    const int now = ++inside;
                    int seen = most.load();
                    while (now > seen && !most.compare_exchange_weak(seen, now)) {
                    }
                    std::this_thread::yield();
                    ++ran;
                    --inside;
                }));
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(ran.load(), submitters * callsEach);
    EXPECT_LE(most.load(), static_cast<int>(threads));
    EXPECT_EQ(queue.counts().running, 0u);
    EXPECT_EQ(queue.counts().waiting, 0u);
}

} // namespace
} // namespace kestrin::host
