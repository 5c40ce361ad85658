#include "host/ClientShares.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <utility>

namespace kestrin::host {
namespace {

TEST(ClientShares, aClientHoldsNoMoreThanItsShareAndTheOthersKeepTheirs) {
    ClientShares shares(100);
    std::optional<ClientShares::Hold> first = shares.take("a", 60);
    ASSERT_TRUE(first);
    EXPECT_FALSE(shares.take("a", 41));
    EXPECT_TRUE(shares.take("b", 100)); // ends at once, giving its 100 back
    EXPECT_EQ(shares.held("b"), 0u);

    // Growing is taking: within the share it holds more, past it nothing changes.
    EXPECT_TRUE(first->grow(40));
    EXPECT_FALSE(first->grow(1));
    EXPECT_EQ(first->amount(), 100u);
    EXPECT_EQ(shares.held("a"), 100u);
    first->shrink(30);
    EXPECT_EQ(shares.held("a"), 70u);

    // A hold gives back what it holds once, wherever it was moved to.
    ClientShares::Hold moved = std::move(*first);
    first.reset();
    EXPECT_EQ(shares.held("a"), 70u);
    ClientShares::Hold other = *shares.take("a", 30);
    other = std::move(moved);
    EXPECT_EQ(shares.held("a"), 70u);
    other.release();
    EXPECT_EQ(shares.held("a"), 0u);
    // A client that holds nothing is forgotten.
    EXPECT_EQ(shares.clients(), 0u);

    // A hold of nobody never grows.
    ClientShares::Hold nobody;
    EXPECT_FALSE(nobody.counted());
    EXPECT_FALSE(nobody.grow(1));
}

// A client given a /48 picks among 65,536 /64s: together they hold what four clients may.
TEST(ClientShares, theSlash64sOfOneSlash48HoldFourSharesInAll) {
    ClientShares shares(100, 4);
    EXPECT_EQ(shares.siteShare(), 400u);
    std::optional<ClientShares::Hold> a = shares.take("2001:db8:1:1::/64", 100);
    std::optional<ClientShares::Hold> b = shares.take("2001:db8:1:2::/64", 100);
    std::optional<ClientShares::Hold> c = shares.take("2001:db8:1:3::/64", 100);
    std::optional<ClientShares::Hold> d = shares.take("2001:db8:1:4::/64", 50);
    ASSERT_TRUE(a && b && c && d);
    EXPECT_EQ(shares.held("2001:db8:1::/48"), 350u);
    EXPECT_FALSE(shares.take("2001:db8:1:5::/64", 51));
    EXPECT_FALSE(d->grow(51));
    EXPECT_TRUE(shares.take("2001:db8:2:1::/64", 100)); // another site
    EXPECT_TRUE(shares.take("192.0.2.7", 100));
    // What one of them gives back, another may take.
    a->shrink(60);
    std::optional<ClientShares::Hold> e = shares.take("2001:db8:1:5::/64", 100);
    ASSERT_TRUE(e);
    EXPECT_FALSE(shares.take("2001:db8:1:6::/64", 11));
    a.reset();
    b.reset();
    c.reset();
    d.reset();
    e.reset();
    EXPECT_EQ(shares.clients(), 0u);
    // A share too large to multiply holds everything.
    EXPECT_EQ(ClientShares(~std::uint64_t{0} / 2).siteShare(), ~std::uint64_t{0});
}

} // namespace
} // namespace kestrin::host
