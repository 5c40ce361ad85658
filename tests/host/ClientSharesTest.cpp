#include "host/ClientShares.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace kestrin::host
