#include "host/BodyBufferPool.h"

#include "host/MemoryBudget.h"

#include <gtest/gtest.h>

namespace kestrin::host {
namespace {

common::DataBuffer withCapacity(std::size_t capacity) {
    common::DataBuffer buffer;
    buffer.reserve(capacity);
    buffer.resize(capacity / 2);
    return buffer;
}

TEST(BodyBufferPool, handsOutTheSmallestFittingKeptBufferEmptied) {
    BodyBufferPool pool(1000, 10);
    common::DataBuffer large = withCapacity(400);
    common::DataBuffer small = withCapacity(100);
    const uint8_t* largeStorage = large.bytes();
    const uint8_t* smallStorage = small.bytes();
    pool.give(std::move(large));
    pool.give(std::move(small));
    EXPECT_EQ(pool.keptBytes(), 500u);

    // A size nothing fits, and a size under the smallest kept block, get no storage.
    EXPECT_EQ(pool.take(401).bytes(), nullptr);
    EXPECT_EQ(pool.take(9).bytes(), nullptr);

    common::DataBuffer taken = pool.take(50);
    EXPECT_EQ(taken.bytes(), smallStorage);
    EXPECT_EQ(taken.getSize(), 0u);
    EXPECT_EQ(taken.getCapacity(), 100u);
    taken = pool.take(50);
    EXPECT_EQ(taken.bytes(), largeStorage);
    EXPECT_EQ(pool.keptBytes(), 0u);
    EXPECT_EQ(pool.take(50).bytes(), nullptr);
}

TEST(BodyBufferPool, keepsNothingSmallNothingOverTheLimitAndNothingWithALimitOfZero) {
    BodyBufferPool pool(500, 100);
    pool.give(withCapacity(99));
    pool.give(common::DataBuffer());
    EXPECT_EQ(pool.keptBytes(), 0u);
    pool.give(withCapacity(300));
    pool.give(withCapacity(201));
    EXPECT_EQ(pool.keptBytes(), 300u);
    pool.give(withCapacity(200));
    EXPECT_EQ(pool.keptBytes(), 500u);

    BodyBufferPool none(0, 1);
    none.give(withCapacity(300));
    EXPECT_EQ(none.keptBytes(), 0u);
}

TEST(BodyBufferPool, handsBackOnlyWhatStayedUntakenForTheIdleTimeWithItsCharge) {
    using namespace std::chrono_literals;
    MemoryBudget budget(10000);
    BodyBufferPool::Clock::time_point now{};
    BodyBufferPool pool(1000, 10, &budget, [&now] { return now; });
    pool.give(withCapacity(300));
    now += 40s;
    pool.give(withCapacity(200));
    pool.give(withCapacity(100));
    EXPECT_EQ(budget.used(), 600u);

    // Taking and giving back starts a buffer's idle time again.
    now += 10s;
    common::DataBuffer again = pool.take(150);
    ASSERT_EQ(again.getCapacity(), 200u);
    pool.give(std::move(again));

    now += 20s; // kept 70 s, 30 s, 20 s
    EXPECT_EQ(pool.releaseIdle(60s), 300u);
    EXPECT_EQ(pool.keptBytes(), 300u);
    EXPECT_EQ(budget.used(), 300u);
    EXPECT_EQ(pool.take(250).bytes(), nullptr);
    EXPECT_EQ(pool.releaseIdle(30s), 100u);
    EXPECT_EQ(pool.keptBytes(), 200u);
    EXPECT_EQ(pool.take(150).getCapacity(), 200u);
    EXPECT_EQ(budget.used(), 0u);
}

} // namespace
} // namespace kestrin::host
