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
// are quick; large bodies never do and never count; one slow sync sends small calls back at
// once, and only a run of quick ones brings them back.
TEST(ServicePlacement, smallCallsRunInlineOnlyWhileTheRecentOnesWereQuick) {
    ServicePlacement placement;
    EXPECT_FALSE(placement.runInline(small));
    for (int i = 0; i < 20; ++i) {
        placement.record(small, microseconds(10));
    }
    EXPECT_TRUE(placement.runInline(0));
    EXPECT_TRUE(placement.runInline(ServicePlacement::smallBody));
    EXPECT_FALSE(placement.runInline(ServicePlacement::smallBody + 1));

    placement.record(ServicePlacement::smallBody + 1, seconds(10));
    EXPECT_TRUE(placement.runInline(small));

    placement.record(small, milliseconds(2));
    EXPECT_FALSE(placement.runInline(small));
    placement.record(small, microseconds(10));
    EXPECT_FALSE(placement.runInline(small));
    for (int i = 0; i < 10; ++i) {
        placement.record(small, microseconds(10));
    }
    EXPECT_TRUE(placement.runInline(small));

    // Storage that steadily takes twice the limit keeps calls off the IO threads.
    for (int i = 0; i < 50; ++i) {
        placement.record(small, ServicePlacement::quick * 2);
    }
    EXPECT_FALSE(placement.runInline(small));
}

} // namespace
} // namespace kestrin::host
