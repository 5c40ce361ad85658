#include "host/ServicePlacement.h"

#include <gtest/gtest.h>

#include <chrono>

namespace kestrin::host {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t small = 4096;

// Calls start on the service threads and move to the IO thread once small ones have shown they
// are quick; large bodies and bodies of many parts never do and never count; one slow sync
// sends small calls back at once, and only a run of quick ones brings them back.
TEST(ServicePlacement, smallCallsRunInlineOnlyWhileTheRecentOnesWereQuick) {
    ServicePlacement placement;
    EXPECT_FALSE(placement.runInline(small, 1));
    for (int i = 0; i < 20; ++i) {
        placement.record(small, 1, microseconds(10));
    }
    EXPECT_TRUE(placement.runInline(0, 0));
    EXPECT_TRUE(placement.runInline(ServicePlacement::smallBody, 1));
    EXPECT_FALSE(placement.runInline(ServicePlacement::smallBody + 1, 1));

    placement.record(ServicePlacement::smallBody + 1, 1, seconds(10));
    EXPECT_TRUE(placement.runInline(small, 1));
    // A small body of many tiny files stores each on its own: never inline, and its time says
    // nothing of the small calls'.
    EXPECT_TRUE(placement.runInline(small, ServicePlacement::fewParts));
    EXPECT_FALSE(placement.runInline(small, ServicePlacement::fewParts + 1));
    placement.record(small, ServicePlacement::fewParts + 1, seconds(1));
    EXPECT_TRUE(placement.runInline(small, 1));

    placement.record(small, 1, milliseconds(2));
    EXPECT_FALSE(placement.runInline(small, 1));
    placement.record(small, 1, microseconds(10));
    EXPECT_FALSE(placement.runInline(small, 1));
    for (int i = 0; i < 10; ++i) {
        placement.record(small, 1, microseconds(10));
    }
    EXPECT_TRUE(placement.runInline(small, 1));

    // Storage that steadily takes twice the limit keeps calls off the IO threads.
    for (int i = 0; i < 50; ++i) {
        placement.record(small, 1, ServicePlacement::quick * 2);
    }
    EXPECT_FALSE(placement.runInline(small, 1));
}

} // namespace
} // namespace kestrin::host
