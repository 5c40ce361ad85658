#include "common/Future.h"
#include "tests/common/support/ThrownText.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using kestrin::Future;
using kestrin::Promise;
using kestrin::testing::thrownText;

TEST(SharedFutureState, blockedConsumerIsWokenByProducerOnAnotherThread) {
    Promise<std::unique_ptr<std::string>> promise;
    Future<std::unique_ptr<std::string>> future = promise.getFuture();
    std::atomic<bool> waiting{false};
    std::unique_ptr<std::string> received;
    std::thread consumer([&] {
        waiting = true;
        received = future.get();
    });
    while (!waiting) {
        std::this_thread::yield();
    }
    promise.setValue(std::make_unique<std::string>("from producer"));
    consumer.join();
    ASSERT_TRUE(received);
    EXPECT_EQ(*received, "from producer");

    // An exception set on one thread is rethrown on another.
    Promise<int> failing;
    Future<int> failingFuture = failing.getFuture();
    std::string text;
    std::thread waiter(
        [&] { text = thrownText<std::runtime_error>([&] { failingFuture.get(); }); });
    // Built first, so that no copy of the exception is released here while the waiter reads
    // it: the standard library's reference counts are invisible to the race detector.
    std::exception_ptr failure = std::make_exception_ptr(std::runtime_error("write failed"));
    failing.setException(std::move(failure));
    waiter.join();
    EXPECT_EQ(text, "write failed");

    // Cancelling wakes a waiter, which then reports the cancellation.
    Promise<int> cancelled;
    Future<int> cancelledFuture = cancelled.getFuture();
    std::thread cancelWaiter(
        [&] { text = thrownText<std::runtime_error>([&] { cancelledFuture.get(); }); });
    cancelledFuture.cancel();
    cancelWaiter.join();
    EXPECT_EQ(text, "Future has been cancelled.");
}

TEST(SharedFutureState, continuationAttachedWhileAnotherThreadResolvesRunsExactlyOnce) {
    // Attach and resolve race on purpose: whichever comes second must run the continuation,
    // and never both.
    constexpr int rounds = 500;
    std::vector<int> runs(rounds, 0);
    std::vector<int> values(rounds, 0);
    for (int round = 0; round < rounds; ++round) {
        Promise<int> promise;
        Future<int> future = promise.getFuture();
        std::thread producer([&promise, round] { promise.setValue(round); });
        future.then([&, round](Future<int>& resolved) {
            runs[round]++;
            values[round] = resolved.get();
        });
        producer.join();
    }
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(runs[round], 1) << "round " << round;
        ASSERT_EQ(values[round], round);
    }
}
