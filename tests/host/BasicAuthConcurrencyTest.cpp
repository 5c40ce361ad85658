#include "host/BasicAuth.h"
#include "tests/host/support/BasicAuthTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

using Outcome = BasicAuth::Outcome;
using namespace std::chrono_literals;

// IO threads check headers at once while the cache of granted headers fills and is forgotten
// over and over (room for two, five spellings in use), and while a reload replaces the users
// with the same ones: every header still gets the answer its credentials deserve, and
// ThreadSanitizer sees the users, the cache, the budget and crypt's storage.
TEST(BasicAuthConcurrency, everyThreadGetsTheRightAnswerWhileTheCacheTurnsOver) {
    FakeMeter meter;
    BasicAuth::Options options = meter.options();
    options.cacheEntries = 2;
    const std::string users = "alice:" + cheapHash("a:pw") + "\nbob:" + cheapHash("b");
    BasicAuth auth(PasswordFile::parse(users, "users"), options);
    const std::vector<std::string> right = {
        basicHeader("alice:a:pw"), basicHeader("alice:a:pw", "basic"),
        basicHeader("alice:a:pw", "BASIC"), basicHeader("bob:b"), basicHeader("bob:b", "bAsIc")};
    const std::vector<std::string> wrong = {basicHeader("alice:b"), basicHeader("bob:a:pw"),
                                            basicHeader("carol:a:pw")};
    std::atomic<int> mistakes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 60; ++round) {
                const std::size_t i = static_cast<std::size_t>(t + round);
                if (auth.check(right[i % right.size()]).outcome != Outcome::granted) {
                    ++mistakes;
                }
                if (auth.check(wrong[i % wrong.size()]).outcome != Outcome::denied) {
                    ++mistakes;
                }
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; round < 20; ++round) {
            auth.replaceUsers(PasswordFile::parse(users, "users"));
            std::this_thread::yield();
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mistakes.load(), 0);
}

// Threads guessing at once may overdraw the budget, but only by the checks that had passed the
// credit test before the last charge emptied it: one per other thread at most. A cost of 1/64 s
// keeps the arithmetic exact, so one thread alone gets exactly 64 checks out of 1 s.
TEST(BasicAuthConcurrency, guessesFromManyThreadsStayWithinTheBudget) {
    constexpr int threadCount = 4;
    FakeMeter meter;
    meter.setCost(15625us);
    BasicAuth auth(PasswordFile::parse("alice:" + cheapHash("pw"), "users"), meter.options(1s));
    std::atomic<int> denied{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            const std::string guess = basicHeader("alice:guess" + std::to_string(t));
            for (int round = 0; round < 50; ++round) {
                if (auth.check(guess).outcome == Outcome::denied) {
                    ++denied;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(denied.load(), 64);
    EXPECT_LE(denied.load(), 64 + threadCount - 1);
    EXPECT_EQ(meter.checkCount(), denied.load());
}

} // namespace
} // namespace kestrin::host
