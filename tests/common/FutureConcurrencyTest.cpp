#include "common/Future.h"
#include "tests/common/support/ThrownText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
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

TEST(SharedFutureState, secondGetFailsAtOnceWhileTheFirstStillWaits) {
    const std::string alreadyRetrieved =
        "Future already returned it's value or has an associated continuation.";
    Promise<int> promise;
    Future<int> first = promise.getFuture();
    Future<int> second = promise.getFuture();
    std::mutex mutex;
    std::condition_variable ended;
    std::vector<std::string> outcomes;
    auto consume = [&](Future<int>& future) {
        std::string outcome;
        try {
            outcome = std::to_string(future.get());
        } catch (const std::runtime_error& error) {
            outcome = error.what();
        }
        std::lock_guard<std::mutex> guard(mutex);
        outcomes.push_back(outcome);
        ended.notify_all();
    };
    std::thread one(consume, std::ref(first));
    std::thread other(consume, std::ref(second));
    {
        // Nothing resolves the state until one get() has given up. Bounded, so that two gets
        // that both block fail the test instead of hanging it.
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait_for(lock, std::chrono::seconds(10), [&] { return !outcomes.empty(); });
        EXPECT_EQ(outcomes, std::vector<std::string>{alreadyRetrieved});
    }
    promise.setValue(7);
    one.join();
    other.join();
    std::sort(outcomes.begin(), outcomes.end());
    EXPECT_EQ(outcomes, (std::vector<std::string>{"7", alreadyRetrieved}));
}
