#include "host/RateBudget.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

namespace kestrin::host {
namespace {

using namespace std::chrono_literals;
using Clock = RateBudget::Clock;

// "clientSpent, retryAfter" of a refusal, or "granted".
std::string said(const std::optional<RateBudget::Refusal>& refusal) {
    if (!refusal) {
        return "granted";
    }
    return (refusal->clientSpent ? "client " : "pool ") +
           std::to_string(refusal->retryAfter.count()) + "s";
}

// How spending, refusing and refilling add up is also checked through the password checks,
// which pay with this budget; here, what only one-unit takes and the client table show.
TEST(RateBudget, takesOnlyWhatIsThereAndSaysWhoseCreditRanOut) {
    const Clock::time_point start{1h};
    RateBudget budget({/*total*/ 5, /*totalPerSecond*/ 1, /*client*/ 2, /*clientPerSecond*/ 0.5},
                      start);
    EXPECT_EQ(said(budget.take("10.0.0.1", 1, start)), "granted");
    EXPECT_EQ(said(budget.take("10.0.0.1", 1, start)), "granted");
    EXPECT_EQ(said(budget.take("10.0.0.1", 1, start)), "client 1s");

    // A refused take costs nothing: the other clients still find the three units left.
    for (const char* client : {"10.0.0.2", "10.0.0.3", ""}) {
        EXPECT_EQ(said(budget.take(client, 1, start)), "granted") << client;
    }
    EXPECT_EQ(said(budget.take("10.0.0.4", 1, start)), "pool 1s");

    // A debt is paid back before the next take, at each one's own rate.
    budget.spend("10.0.0.1", 1, start);
    EXPECT_EQ(said(budget.check("10.0.0.1", start)), "client 2s");
    EXPECT_EQ(said(budget.take("10.0.0.1", 1, start + 1500ms)), "client 1s");
    EXPECT_EQ(said(budget.take("10.0.0.4", 1, start + 1500ms)), "granted");
    EXPECT_EQ(said(budget.take("10.0.0.1", 1, start + 2500ms)), "granted");
}

// What must be paid in advance (bytes a client uploads) is taken only when all of it is there:
// a client with a little credit left cannot begin something of any size and owe the rest.
TEST(RateBudget, takesWholeAmountsOnlyFromCreditThatCoversThem) {
    const Clock::time_point start{1h};
    RateBudget budget({/*total*/ 100, /*totalPerSecond*/ 10, /*client*/ 10,
                       /*clientPerSecond*/ 2},
                      start);
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 6, start)), "granted");
    // Four left: six more is two seconds away, and refusing it spends nothing.
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 6, start)), "client 1s");
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 6, start + 500ms)), "client 1s");
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 4, start + 500ms)), "granted");
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 3, start + 500ms)), "client 1s");
    EXPECT_EQ(said(budget.takeWhole("10.0.0.1", 3, start + 2s)), "granted");
    // All of a share at once is allowed, once it is full; the pool must cover it too.
    EXPECT_EQ(said(budget.takeWhole("10.0.0.2", 10, start + 2s)), "granted");
    EXPECT_EQ(said(budget.takeWhole("", 100, start + 2s)), "pool 2s");
    EXPECT_EQ(said(budget.takeWhole("", 55, start + 2s)), "granted");
}

// Addresses are cheap: a client that sprays new ones must neither wipe out what the others owe
// nor get a share of its own for each one.
TEST(RateBudget, aFullTableForgetsOnlyFullSharesAndPutsNewcomersOnOneShare) {
    const Clock::time_point start{1h};
    RateBudget budget({100, 100, 2, 1, /*clientEntries*/ 2}, start);
    budget.spend("debtor", 5, start);
    EXPECT_FALSE(budget.take("once", 0.5, start));
    // Both owe: a third client draws from the newcomers' share, and the debts stand.
    EXPECT_EQ(said(budget.take("early", 2, start)), "granted");
    EXPECT_EQ(budget.clientsRemembered(), 2U);
    EXPECT_EQ(said(budget.check("debtor", start)), "client 3s");
    // A second later, a fourth client makes room: "once" earned its half unit back, "debtor" did
    // not and stays.
    EXPECT_FALSE(budget.take("new", 0.5, start + 1s));
    EXPECT_EQ(budget.clientsRemembered(), 2U);
    // Within a second of that search the table is not searched again, though "new" is back at
    // its full share: newcomers go on drawing from one share together.
    EXPECT_EQ(said(budget.take("another", 2, start + 1500ms)), "granted");
    const auto refused = budget.take("third", 1, start + 1500ms);
    EXPECT_EQ(said(refused), "client 1s");
    EXPECT_EQ(refused ? refused->sharedBy : "", "clients past the full table");
    EXPECT_EQ(said(budget.check("debtor", start + 1500ms)), "client 2s");
    // The next search forgets "new" and remembers "third" with a share of its own; the debt
    // still stands.
    EXPECT_EQ(said(budget.take("third", 1, start + 2500ms)), "granted");
    EXPECT_EQ(budget.clientsRemembered(), 2U);
    EXPECT_EQ(said(budget.check("debtor", start + 2500ms)), "client 1s");

    for (const RateBudget::Limits broken :
         {RateBudget::Limits{0, 1, 1, 1}, RateBudget::Limits{1, -1, 1, 1},
          RateBudget::Limits{1, 1, 1, 1.0 / 0.0}, RateBudget::Limits{1, 1, 1, 1, 0},
          RateBudget::Limits{1, 1, 1, 1, 1, 0.5}}) {
        EXPECT_THROW(RateBudget{broken}, std::invalid_argument);
    }
}

// A client given a /48 picks among 65,536 /64s: together they have the shares of a few
// clients, while each still has no more than its own.
TEST(RateBudget, theSlash64sOfOneSlash48DrawFromTheirSitesShareToo) {
    const Clock::time_point start{1h};
    RateBudget budget({100, 100, 2, 1, 4096, /*siteShares*/ 2}, start);
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:1::/64", 2, start)), "granted");
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:2::/64", 2, start)), "granted");
    const auto refused = budget.takeWhole("2001:db8:1:3::/64", 1, start);
    EXPECT_EQ(said(refused), "client 1s");
    EXPECT_EQ(refused ? refused->sharedBy : "", "the /64s of 2001:db8:1::/48");
    // Another site and an IPv4 client are untouched.
    EXPECT_EQ(said(budget.takeWhole("2001:db8:2:1::/64", 2, start)), "granted");
    EXPECT_EQ(said(budget.takeWhole("192.0.2.7", 2, start)), "granted");
    // Given back, the site's credit serves its other /64s at once.
    budget.giveBack("2001:db8:1:1::/64", 1, start);
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:3::/64", 1, start)), "granted");
    // The site earns back twice as fast as a client: a second later it holds two, while the
    // /64 that spent its own share whole can take only the one it earned.
    const Clock::time_point later = start + 1s;
    const auto own = budget.takeWhole("2001:db8:1:2::/64", 2, later);
    EXPECT_EQ(said(own), "client 1s");
    EXPECT_EQ(own ? own->sharedBy : "x", "");
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:2::/64", 1, later)), "granted");
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:4::/64", 1, later)), "granted");
    EXPECT_EQ(said(budget.takeWhole("2001:db8:1:5::/64", 1, later)), "client 1s");

    // Past a full table, a newcomer whose site is left out too pays the one shared share once.
    RateBudget full({100, 100, 2, 1, /*clientEntries*/ 1, 2}, start);
    full.spend("192.0.2.9", 5, start);
    EXPECT_EQ(said(full.take("2001:db8:3:1::/64", 1, start)), "granted");
    EXPECT_EQ(said(full.take("2001:db8:3:2::/64", 1, start)), "granted");
    const auto strangers = full.take("2001:db8:4:1::/64", 1, start);
    EXPECT_EQ(strangers ? strangers->sharedBy : "", "clients past the full table");
}

} // namespace
} // namespace kestrin::host
