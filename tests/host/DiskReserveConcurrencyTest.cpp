#include "host/DiskReserve.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

// Uploads admitted at once must not together promise more than the room above the reserve,
// however their claims interleave.
TEST(DiskReserveConcurrency, claimsMadeAtOnceNeverTogetherPassTheRoom) {
    constexpr std::uint64_t free = 1'000'000;
    constexpr std::uint64_t keep = 200'000;
    DiskReserve reserve({keep, 0}, [=] { return std::optional<DiskReserve::Space>({free, 1}); });
    std::atomic<std::uint64_t> held{0};
    std::atomic<std::uint64_t> most{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed);
            for (int i = 0; i < 20'000; ++i) {
                const std::uint64_t bytes = 1 + random() % 300'000;
                std::optional<DiskReserve::Claim> claim = reserve.claim({bytes, 0});
                if (!claim) {
                    refused.fetch_add(1);
                    continue;
                }
                // Grown in a second step now and then, as a body without a length is.
                if (i % 3 == 0 && claim->grow({bytes, 0})) {
                    held.fetch_add(bytes);
                }
                const std::uint64_t now = held.fetch_add(bytes) + bytes;
                std::uint64_t seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::yield(); // held a while, as an upload holds its claim
                held.fetch_sub(claim->held().bytes);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(most.load(), free - keep);
    EXPECT_GT(refused.load(), 0); // the room was contended
    EXPECT_EQ(reserve.promised().bytes, 0u);
}

} // namespace
} // namespace kestrin::host
