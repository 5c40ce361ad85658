#include "host/BodyBufferPool.h"
#include "host/MemoryBudget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

// Threads pass buffers through one pool as service threads do with request bodies, while the
// server's once-a-second sweep frees what sat idle. Each writes its own bytes into whatever
// it takes, so two threads handed the same storage, or storage still in use or freed, show
// up as a mismatch here (or as a race under ThreadSanitizer).
TEST(BodyBufferPoolConcurrency, neverHandsOneBufferToTwoThreadsAndStaysUnderItsLimit) {
    constexpr std::size_t size = 4096;
    MemoryBudget budget(100 * size);
    BodyBufferPool pool(3 * size, size, &budget);
    std::atomic<bool> done{false};
    std::thread sweeper([&] {
        while (!done) {
            pool.releaseIdle(std::chrono::microseconds(50));
            std::this_thread::yield();
        }
    });
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 2000; ++round) {
                common::DataBuffer body = pool.take(size);
                body.resize(size);
                const auto mark = static_cast<uint8_t>(t * 31 + round);
                std::memset(&body[0], mark, size);
                std::this_thread::yield();
                if (body[0] != mark || body[size - 1] != mark) {
                    ++mismatches;
                }
                pool.give(std::move(body));
                if (pool.keptBytes() > 3 * size) {
                    ++mismatches;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    done = true;
    sweeper.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_LE(pool.keptBytes(), 3 * size);
    // Whatever is still kept is all that is charged.
    EXPECT_EQ(budget.used(), pool.keptBytes());
}

} // namespace
} // namespace kestrin::host
