#include "host/ClientShares.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

// IO threads admit one client's uploads at once while service threads end others: whatever
// the interleaving, the client never holds more than its share, and what ends comes back.
TEST(ClientSharesConcurrency, racingHoldsNeverPassTheShareAndAllComeBack) {
    ClientShares shares(1000);
    std::vector<std::vector<ClientShares::Hold>> kept(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                // Each thread keeps some of its holds and ends the rest at once.
                std::optional<ClientShares::Hold> hold = shares.take("10.0.0.1", 7);
                if (hold && hold->grow(3) && i % 3 == 0) {
                    kept[t].push_back(std::move(*hold));
                }
                EXPECT_LE(shares.held("10.0.0.1"), 1000u);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::uint64_t held = 0;
    for (const auto& holds : kept) {
        held += holds.size() * 10;
    }
    EXPECT_EQ(shares.held("10.0.0.1"), held);
    EXPECT_LE(held, 1000u);
    kept.clear();
    EXPECT_EQ(shares.clients(), 0u);
}

} // namespace
} // namespace kestrin::host
