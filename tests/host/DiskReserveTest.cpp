#include "host/DiskReserve.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>

namespace kestrin::host {
namespace {

using Space = DiskReserve::Space;

bool operator==(const Space& a, const Space& b) {
    return a.bytes == b.bytes && a.files == b.files;
}

TEST(DiskReserve, claimsLeaveTheReserveFreeAndComeBackWhenTheyEnd) {
    std::optional<Space> free = Space{1000, 100};
    DiskReserve reserve({200, 20}, [&free] { return free; });

    std::optional<DiskReserve::Claim> first = reserve.claim({500, 10});
    ASSERT_TRUE(first);
    DiskReserve::Shortfall shortfall;
    EXPECT_FALSE(reserve.claim({301, 1}, &shortfall));
    EXPECT_TRUE(shortfall.free == (Space{1000, 100}));
    EXPECT_TRUE(shortfall.promised == (Space{500, 10}));
    EXPECT_FALSE(reserve.claim({1, 71}));         // the bytes fit, the files do not
    EXPECT_FALSE(reserve.claim({UINT64_MAX, 0})); // no wrap-around past the room
    std::optional<DiskReserve::Claim> second = reserve.claim({300, 70});
    ASSERT_TRUE(second);
    EXPECT_TRUE(reserve.promised() == (Space{800, 80}));
    EXPECT_FALSE(second->grow({1, 0}));
    EXPECT_FALSE(second->grow({0, 1}));
    EXPECT_TRUE(second->held() == (Space{300, 70}));

    // The first upload wrote its 500 bytes into 10 files and ended: what is free counts them.
    free = Space{500, 90};
    first.reset();
    EXPECT_FALSE(reserve.claim({1, 0}));
    second->release();
    EXPECT_TRUE(reserve.promised() == (Space{}));
    EXPECT_FALSE(reserve.belowReserve());

    // A body without a length starts with nothing and grows while there is room.
    DiskReserve::Claim growing = reserve.empty();
    EXPECT_TRUE(growing.grow({300, 5}));
    EXPECT_FALSE(growing.grow({1, 0}));
    DiskReserve::Claim moved = std::move(growing);
    EXPECT_TRUE(growing.held() == (Space{})); // NOLINT: checking the moved-from state
    moved = reserve.empty();                  // the 300 go back
    EXPECT_TRUE(reserve.promised() == (Space{}));

    // Less free than the reserve, of either: nothing goes in, not even an empty body's first
    // byte, and health can say why.
    free = Space{1000, 15};
    EXPECT_FALSE(reserve.claim({}));
    EXPECT_FALSE(moved.grow({1, 0}));
    ASSERT_TRUE(reserve.belowReserve());
    EXPECT_TRUE(*reserve.belowReserve() == *free);

    // Space that cannot be read refuses nobody: the writes will find out.
    free.reset();
    EXPECT_TRUE(reserve.claim({UINT64_MAX / 2, UINT64_MAX / 2}));
    EXPECT_FALSE(reserve.belowReserve());

    DiskReserve::Claim none;
    EXPECT_TRUE(none.grow({UINT64_MAX, UINT64_MAX})); // belongs to no reserve, keeps nothing
}

TEST(DiskReserve, aBodyClaimsTheFilesItHasRoomForUpToTheRequestLimit) {
    EXPECT_EQ(DiskReserve::filesIn(0, 1000), 1u);
    EXPECT_EQ(DiskReserve::filesIn(4800, 1000), 101u);
    EXPECT_EQ(DiskReserve::filesIn(UINT64_MAX, 1000), 1000u);
    // The smallest part that names a file fits the count.
    const std::uint64_t smallest =
        std::string("--b\r\nContent-Disposition: form-data; filename=a\r\n\r\n\r\n").size();
    EXPECT_GE(DiskReserve::filesIn(10 * smallest, 1000), 10u);
}

} // namespace
} // namespace kestrin::host
