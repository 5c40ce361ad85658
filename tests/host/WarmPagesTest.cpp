#include "host/WarmPages.h"

#include <gtest/gtest.h>

#include <thread>

namespace kestrin::host {
namespace {

constexpr std::size_t mib = std::size_t{1} << 20;

// Touching reaches every page, in steps it reports; a released block is never touched
// again, and a release while a touch runs waits for it to stop instead of unmapping under it.
TEST(WarmPages, touchesEveryPageAndStopsWithoutTouchingOnceReleased) {
    const std::size_t size = 5 * mib + 123;
    auto warm = WarmPages::map(size);
    ASSERT_NE(warm, nullptr);
    EXPECT_EQ(warm->touched(), 0u);
    warm->touch();
    EXPECT_EQ(warm->touched(), size);

    auto unused = WarmPages::map(size);
    ASSERT_NE(unused, nullptr);
    unused->release();
    unused->touch();
    EXPECT_EQ(unused->touched(), 0u);
    unused->release();
    EXPECT_EQ(WarmPages::map(0), nullptr);

    // Released at once, or once the first step is done. A busy machine may let a touch finish
    // before the release comes; not in every round.
    int stoppedEarly = 0;
    for (int round = 0; round < 20; ++round) {
        auto racing = WarmPages::map(64 * mib);
        ASSERT_NE(racing, nullptr);
        std::thread toucher([&] { racing->touch(); });
        while (round % 2 == 0 && racing->touched() == 0) {
            std::this_thread::yield();
        }
        racing->release();
        const std::size_t reached = racing->touched();
        toucher.join();
        EXPECT_EQ(racing->touched(), reached) << "touched after its release, round " << round;
        stoppedEarly += round % 2 == 0 && reached < 64 * mib;
    }
    EXPECT_GT(stoppedEarly, 0);
}

} // namespace
} // namespace kestrin::host
