#include "host/RateBudget.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

namespace kestrin::host {
namespace {

using namespace std::chrono_literals;
using Clock = RateBudget::Clock;

// How spending, refusing and refilling add up is also checked through the password checks,
// which pay with this budget; here, what only one-unit takes and the client table show.
TEST(RateBudget, takesOnlyWhatIsThereAndSaysWhoseCreditRanOut) {
    const Clock::time_point start{1h};
    RateBudget budget({/*total*/ 5, /*totalPerSecond*/ 1, /*client*/ 2, /*clientPerSecond*/ 0.5},
                      start);
    EXPECT_FALSE(budget.take("10.0.0.1", 1, start));
    EXPECT_FALSE(budget.take("10.0.0.1", 1, start));
    const auto own = budget.take("10.0.0.1", 1, start);
    ASSERT_TRUE(own);
    EXPECT_TRUE(own->clientSpent);
    EXPECT_EQ(own->retryAfter, 1s);

    // A refused take costs nothing: the other clients still find the three units left.
    EXPECT_FALSE(budget.take("10.0.0.2", 1, start));
    EXPECT_FALSE(budget.take("10.0.0.3", 1, start));
    EXPECT_FALSE(budget.take("", 1, start));
    const auto pool = budget.take("10.0.0.4", 1, start);
    ASSERT_TRUE(pool);
    EXPECT_FALSE(pool->clientSpent);
    EXPECT_EQ(pool->retryAfter, 1s);

    // A debt is paid back before the next take, at each one's own rate.
    budget.spend("10.0.0.1", 1, start);
    const auto indebted = budget.check("10.0.0.1", start);
    ASSERT_TRUE(indebted);
    EXPECT_EQ(indebted->retryAfter, 2s);
    EXPECT_TRUE(budget.take("10.0.0.1", 1, start + 1500ms));
    EXPECT_FALSE(budget.take("10.0.0.4", 1, start + 1500ms));
    EXPECT_FALSE(budget.take("10.0.0.1", 1, start + 2500ms));
}

TEST(RateBudget, forgetsOnlyClientsBackAtTheirFullShareWhileItsTableIsFull) {
    const Clock::time_point start{1h};
    RateBudget budget({100, 100, 2, 1, /*clientEntries*/ 2}, start);
    budget.spend("debtor", 5, start);
    EXPECT_FALSE(budget.take("once", 1, start));
    // A third client makes room: "once" earned its unit back, "debtor" did not and stays.
    EXPECT_FALSE(budget.take("new", 1, start + 1s));
    EXPECT_EQ(budget.clientsRemembered(), 2U);
    const auto refused = budget.check("debtor", start + 1s);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->retryAfter, 2s);
    // With every share in use, the table starts over rather than grow.
    EXPECT_FALSE(budget.take("another", 1, start + 1s));
    EXPECT_EQ(budget.clientsRemembered(), 1U);

    for (const RateBudget::Limits broken :
         {RateBudget::Limits{0, 1, 1, 1}, RateBudget::Limits{1, -1, 1, 1},
          RateBudget::Limits{1, 1, 1, 1.0 / 0.0}, RateBudget::Limits{1, 1, 1, 1, 0}}) {
        EXPECT_THROW(RateBudget{broken}, std::invalid_argument);
    }
}

} // namespace
} // namespace kestrin::host
