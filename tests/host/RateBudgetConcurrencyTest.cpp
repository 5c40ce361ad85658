#include "host/RateBudget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

using namespace std::chrono_literals;

// IO threads accepting connections at once take from one client's share and the pool: with
// time standing still, exactly the credit there was is handed out, never a unit more.
TEST(RateBudgetConcurrency, racingTakesNeverHandOutMoreThanTheCredit) {
    const RateBudget::Clock::time_point frozen{1h};
    RateBudget budget({/*total*/ 300, 1, /*client*/ 100, 1}, frozen);
    std::atomic<int> granted{0};
    std::atomic<int> grantedShared{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                // Half the threads share one address; the others use addresses of their own.
                const std::string client = t % 2 == 0 ? "10.0.0.1" : "10.0.1." + std::to_string(i);
                if (!budget.take(client, 1, frozen)) {
                    ++granted;
                    grantedShared += t % 2 == 0 ? 1 : 0;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The others alone ask for more than the pool holds, so all of it goes, whoever wins.
    EXPECT_EQ(granted.load(), 300);
    EXPECT_LE(grantedShared.load(), 100);
    EXPECT_TRUE(budget.check("", frozen));
}

} // namespace
} // namespace kestrin::host
