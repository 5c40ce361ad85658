#include "common/Future.h"

#include "tests/common/support/ThrownText.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

using kestrin::Future;
using kestrin::makeExceptionalFuture;
using kestrin::makeReadyFuture;
using kestrin::Promise;
using kestrin::detail::SharedFutureState;
using kestrin::testing::thrownText;

namespace {

const char* const alreadyRetrieved =
    "Future already returned it's value or has an associated continuation.";

} // namespace

TEST(Future, readyFutureYieldsItsValueOnceAndOnlyOnce) {
    Future<bool> ready = makeReadyFuture(true);
    EXPECT_TRUE(ready.isValid());
    EXPECT_TRUE(ready.get());
    EXPECT_EQ(thrownText<std::runtime_error>([&] { ready.get(); }), alreadyRetrieved);

    Future<std::unique_ptr<int>> owning = makeReadyFuture(std::make_unique<int>(7));
    EXPECT_EQ(*owning.get(), 7);

    Future<int> stateless{std::shared_ptr<SharedFutureState<int>>()};
    EXPECT_FALSE(stateless.isValid());
    EXPECT_EQ(thrownText<std::runtime_error>([&] { stateless.get(); }),
              "Future state isn't valid!");
}

TEST(Future, exceptionalFutureRethrowsTheStoredExceptionUnwrappingANestedPointer) {
    auto failed =
        makeExceptionalFuture<int>(std::make_exception_ptr(std::invalid_argument("wrong type")));
    EXPECT_EQ(thrownText<std::invalid_argument>([&] { failed.get(); }), "wrong type");
    // The failed get() still counts as the one retrieval.
    EXPECT_EQ(thrownText<std::runtime_error>([&] { failed.get(); }), alreadyRetrieved);

    auto inner = std::make_exception_ptr(std::runtime_error("disk full"));
    auto nested = makeExceptionalFuture<int>(std::make_exception_ptr(inner));
    EXPECT_EQ(thrownText<std::runtime_error>([&] { nested.get(); }), "disk full");
}

TEST(Promise, resolvesOnceAndIgnoresResolutionAfterCancel) {
    Promise<std::string> promise;
    Future<std::string> future = promise.getFuture();
    promise.setValue("first");
    EXPECT_EQ(thrownText<std::runtime_error>([&] { promise.setValue("second"); }),
              "Promise already resolved.");
    EXPECT_EQ(thrownText<std::runtime_error>(
                  [&] { promise.setException(std::make_exception_ptr(std::logic_error("x"))); }),
              "Promise already resolved.");
    EXPECT_EQ(future.get(), "first");

    Promise<int> cancelled;
    Future<int> cancelledFuture = cancelled.getFuture();
    cancelledFuture.cancel();
    EXPECT_NO_THROW(cancelled.setValue(1));
    EXPECT_NO_THROW(cancelled.setException(std::make_exception_ptr(std::logic_error("x"))));
    EXPECT_EQ(thrownText<std::runtime_error>([&] { cancelledFuture.get(); }),
              "Future has been cancelled.");
}

TEST(Promise, droppedWhilePendingFailsTheFutureInsteadOfBlockingForever) {
    std::unique_ptr<Future<int>> future;
    {
        Promise<int> promise;
        future = std::make_unique<Future<int>>(promise.getFuture());
    }
    EXPECT_EQ(thrownText<std::runtime_error>([&] { future->get(); }),
              "Promise destroyed before it was resolved.");
}

TEST(SharedFutureState, continuationRunsOnceWhetherAttachedBeforeOrAfterValue) {
    struct Counting {
        std::atomic<int> runs{0};
        std::atomic<int> destroyed{0};
    } counts;
    struct Tracker {
        Counting* counts;
        ~Tracker() { counts->destroyed++; }
    };

    Promise<int> before;
    Future<int> beforeFuture = before.getFuture();
    int seen = 0;
    std::shared_ptr<Tracker> tracker(new Tracker{&counts});
    beforeFuture.then([&counts, &seen, tracker](Future<int>& resolved) {
        counts.runs++;
        seen = resolved.get();
    });
    tracker.reset();
    EXPECT_EQ(thrownText<std::runtime_error>([&] { beforeFuture.get(); }), alreadyRetrieved);
    EXPECT_EQ(counts.runs, 0);
    before.setValue(41);
    EXPECT_EQ(counts.runs, 1);
    EXPECT_EQ(seen, 41);
    EXPECT_EQ(counts.destroyed, 1) << "the continuation is deleted after it ran";

    // Attached after the value: runs at once, on the attaching thread.
    Future<int> after = makeReadyFuture(42);
    after.then([&](Future<int>& resolved) {
        counts.runs++;
        seen = resolved.get();
    });
    EXPECT_EQ(counts.runs, 2);
    EXPECT_EQ(seen, 42);

    // The continuation runs outside the state's lock: it may touch the state again.
    Promise<int> reentrant;
    Future<int> reentrantFuture = reentrant.getFuture();
    std::string secondGet;
    reentrantFuture.then([&](Future<int>& resolved) {
        resolved.get();
        secondGet = thrownText<std::runtime_error>([&] { resolved.get(); });
    });
    reentrant.setValue(1);
    EXPECT_EQ(secondGet, alreadyRetrieved);
}

TEST(SharedFutureState, pendingStateDestroyedWithContinuationDropsItUnrun) {
    int runs = 0;
    bool destroyed = false;
    struct Flag {
        bool* destroyed;
        ~Flag() { *destroyed = true; }
    };
    {
        auto state = std::make_shared<SharedFutureState<int>>();
        Future<int> future{std::shared_ptr<SharedFutureState<int>>(state)};
        auto flag = std::make_shared<Flag>(Flag{&destroyed});
        future.then([&runs, flag](Future<int>&) { runs++; });
    }
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(destroyed);
}
