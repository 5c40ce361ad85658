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
    // An empty exception would leave get() nothing to throw: refused, the state stays pending.
    EXPECT_THROW(promise.setException(nullptr), std::invalid_argument);
    EXPECT_THROW(makeExceptionalFuture<int>(nullptr), std::invalid_argument);
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

TEST(Promise, droppedOrOverwrittenWhilePendingFailsTheFutureInsteadOfBlockingForever) {
    const struct {
        const char* name;
        void (*end)(std::unique_ptr<Promise<int>>&);
    } cases[] = {
        {"destroyed", [](std::unique_ptr<Promise<int>>& promise) { promise.reset(); }},
        {"moved onto", [](std::unique_ptr<Promise<int>>& promise) { *promise = Promise<int>(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto promise = std::make_unique<Promise<int>>();
        Future<int> future = promise->getFuture();
        // Read through a continuation: a future nobody fails would block get() for good.
        std::string seen = "<still pending>";
        future.then([&](Future<int>& resolved) {
            seen = thrownText<std::runtime_error>([&] { resolved.get(); });
        });
        c.end(promise);
        EXPECT_EQ(seen, "Promise destroyed before it was resolved.");
    }

    // Overwriting a resolved promise leaves its value alone.
    Promise<int> resolved;
    Future<int> kept = resolved.getFuture();
    resolved.setValue(3);
    resolved = Promise<int>();
    EXPECT_EQ(kept.get(), 3);
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

TEST(SharedFutureState, continuationIsDeletedWhenItsStateDiesPendingOrWhenItThrows) {
    struct Flag {
        bool* destroyed;
        ~Flag() { *destroyed = true; }
    };
    int runs = 0;
    bool destroyed = false;
    {
        auto state = std::make_shared<SharedFutureState<int>>();
        Future<int> future{std::shared_ptr<SharedFutureState<int>>(state)};
        std::shared_ptr<Flag> flag(new Flag{&destroyed});
        future.then([&runs, flag](Future<int>&) { runs++; });
    }
    EXPECT_EQ(runs, 0) << "a state that dies pending drops its continuation unrun";
    EXPECT_TRUE(destroyed);

    // A throwing continuation: its exception leaves the resolving call, it is deleted all the
    // same, and the state stays resolved.
    destroyed = false;
    Promise<int> promise;
    Future<int> future = promise.getFuture();
    std::shared_ptr<Flag> flag(new Flag{&destroyed});
    future.then([flag](Future<int>&) { throw std::logic_error("continuation failed"); });
    flag.reset();
    EXPECT_EQ(thrownText<std::logic_error>([&] { promise.setValue(1); }), "continuation failed");
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(thrownText<std::runtime_error>([&] { promise.setValue(2); }),
              "Promise already resolved.");
}
