#include "host/DiskReserve.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>

namespace kestrin::host {
namespace {

TEST(DiskReserve, claimsLeaveTheReserveFreeAndComeBackWhenTheyEnd) {
    std::optional<std::uint64_t> free = 1000;
    DiskReserve reserve(200, [&free] { return free; });

    std::optional<DiskReserve::Claim> first = reserve.claim(500);
    ASSERT_TRUE(first);
    DiskReserve::Shortfall shortfall;
    EXPECT_FALSE(reserve.claim(301, &shortfall));
    EXPECT_EQ(shortfall.free, 1000u);
    EXPECT_EQ(shortfall.promised, 500u);
    EXPECT_FALSE(reserve.claim(UINT64_MAX)); // no wrap-around past the room
    std::optional<DiskReserve::Claim> second = reserve.claim(300);
    ASSERT_TRUE(second);
    EXPECT_EQ(reserve.promised(), 800u);
    EXPECT_FALSE(second->grow(1));
    EXPECT_EQ(second->bytes(), 300u);

    // The first upload wrote its 500 bytes and ended: the free space counts them now.
    free = 500;
    first.reset();
    EXPECT_FALSE(reserve.claim(1));
    second->release();
    EXPECT_EQ(reserve.promised(), 0u);
    EXPECT_FALSE(reserve.belowReserve());

    // A body without a length starts with nothing and grows while there is room.
    DiskReserve::Claim growing = reserve.empty();
    EXPECT_TRUE(growing.grow(300));
    EXPECT_FALSE(growing.grow(1));
    DiskReserve::Claim moved = std::move(growing);
    EXPECT_EQ(growing.bytes(), 0u); // NOLINT: checking the moved-from state
    moved = reserve.empty();        // the 300 go back
    EXPECT_EQ(reserve.promised(), 0u);

    // Less free than the reserve: nothing goes in, not even an empty body's first byte, and
    // health can say why.
    free = 150;
    EXPECT_FALSE(reserve.claim(0));
    EXPECT_FALSE(moved.grow(1));
    EXPECT_EQ(reserve.belowReserve(), std::optional<std::uint64_t>(150));

    // Space that cannot be read refuses nobody: the writes will find out.
    free.reset();
    EXPECT_TRUE(reserve.claim(UINT64_MAX / 2));
    EXPECT_FALSE(reserve.belowReserve());

    DiskReserve::Claim none;
    EXPECT_TRUE(none.grow(UINT64_MAX)); // belongs to no reserve, keeps nothing
}

} // namespace
} // namespace kestrin::host
