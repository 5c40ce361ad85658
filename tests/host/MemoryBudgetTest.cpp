#include "host/MemoryBudget.h"

#include "host/BodyBufferPool.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>
#include <vector>

namespace kestrin::host {
namespace {

common::DataBuffer withCapacity(std::size_t capacity) {
    common::DataBuffer buffer;
    buffer.reserve(capacity);
    return buffer;
}

TEST(MemoryBudget, chargesNeverPassTheLimitAndComeBackWhenReleased) {
    MemoryBudget budget(1000);
    std::optional<MemoryBudget::Reservation> first = budget.reserve(600);
    ASSERT_TRUE(first);
    EXPECT_FALSE(budget.reserve(401));
    EXPECT_FALSE(budget.reserve(UINT64_MAX)); // no wrap-around past the limit
    std::optional<MemoryBudget::Reservation> second = budget.reserve(400);
    ASSERT_TRUE(second);
    EXPECT_EQ(budget.used(), 1000u);

    EXPECT_FALSE(second->grow(1));
    EXPECT_EQ(second->bytes(), 400u);
    second->shrink(150);
    EXPECT_TRUE(first->grow(150));
    EXPECT_EQ(budget.used(), 1000u);

    // Moving a charge between owners leaves the total alone; moving more than is held moves
    // what is held.
    MemoryBudget::Reservation third = budget.empty();
    first->moveTo(third, 10'000);
    EXPECT_EQ(first->bytes(), 0u);
    EXPECT_EQ(third.bytes(), 750u);
    EXPECT_EQ(budget.used(), 1000u);

    MemoryBudget::Reservation moved = std::move(third);
    EXPECT_EQ(third.bytes(), 0u); // NOLINT: checking the moved-from state
    moved = std::move(*second);   // the 750 go back, the 250 come over
    EXPECT_EQ(budget.used(), 250u);
    first.reset();
    second.reset();
    EXPECT_EQ(budget.used(), 250u);
    moved.release();
    EXPECT_EQ(budget.used(), 0u);

    MemoryBudget::Reservation none;
    EXPECT_FALSE(none.grow(1)); // belongs to no budget
}

TEST(MemoryBudget, asksTheReclaimerForWhatIsMissingUnlessTold) {
    MemoryBudget budget(1000);
    std::vector<std::uint64_t> asked;
    std::optional<MemoryBudget::Reservation> cache = budget.reserve(700);
    budget.setReclaimer([&](std::uint64_t needed) {
        asked.push_back(needed);
        cache->shrink(needed);
    });
    std::optional<MemoryBudget::Reservation> request = budget.reserve(500);
    ASSERT_TRUE(request);
    EXPECT_EQ(asked, std::vector<std::uint64_t>{200});
    EXPECT_EQ(cache->bytes(), 500u);

    EXPECT_FALSE(request->grow(1, false));
    EXPECT_EQ(asked.size(), 1u);
    EXPECT_TRUE(request->grow(1));
    EXPECT_EQ(asked.back(), 1u);
    // More than the whole budget is refused without bothering the reclaimer.
    EXPECT_FALSE(budget.reserve(1001));
    EXPECT_EQ(asked.size(), 2u);
}

TEST(MemoryBudget, keptBodiesAreChargedAndTheirChargeTravelsWithTheStorage) {
    MemoryBudget budget(1000);
    BodyBufferPool pool(800, 100, &budget);
    budget.setReclaimer([&](std::uint64_t needed) { pool.reclaim(needed); });

    // A request's body goes to the pool with the request's charge.
    std::optional<MemoryBudget::Reservation> request = budget.reserve(500);
    pool.give(withCapacity(300), &*request);
    EXPECT_EQ(request->bytes(), 200u);
    EXPECT_EQ(budget.used(), 500u);
    request.reset();
    EXPECT_EQ(budget.used(), 300u);
    pool.give(withCapacity(200)); // no charge to take from: charged anew
    EXPECT_EQ(budget.used(), 500u);

    // Taken storage brings its charge to the taker.
    MemoryBudget::Reservation taker = budget.empty();
    common::DataBuffer taken = pool.take(150, &taker);
    EXPECT_EQ(taken.getCapacity(), 200u);
    EXPECT_EQ(taker.bytes(), 200u);
    EXPECT_EQ(budget.used(), 500u);
    pool.give(std::move(taken), &taker);
    EXPECT_EQ(taker.bytes(), 0u);

    // A request that needs the memory gets it from the pool, largest blocks first.
    std::optional<MemoryBudget::Reservation> large = budget.reserve(700);
    ASSERT_TRUE(large);
    EXPECT_EQ(pool.keptBytes(), 200u);
    EXPECT_EQ(budget.used(), 900u);
    // Nor can the pool keep what the budget has no room for.
    pool.give(withCapacity(150));
    EXPECT_EQ(pool.keptBytes(), 200u);
    EXPECT_EQ(budget.used(), 900u);
}

} // namespace
} // namespace kestrin::host
