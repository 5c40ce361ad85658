// A block kept from an earlier part goes back into the next part cut on the same thread: the
// thread's next large allocation takes it when it fits closely and clears it when it does not.
#include "host/BlockHandOver.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <malloc.h>
#include <string>
#include <thread>

namespace kestrin::host {
namespace {

using common::DataBuffer;
namespace handOver = blockHandOver;

constexpr std::size_t mib = std::size_t{1} << 20;

DataBuffer blockOf(std::size_t bytes) {
    DataBuffer buffer;
    buffer.reserve(bytes);
    return buffer;
}

// A block more than a thirty-second too large would hold memory the request is not charged for.
TEST(BlockHandOver, anAllocationTakesOnlyABlockItFillsClosely) {
    EXPECT_TRUE(handOver::takes(8 * mib, 8 * mib));
    EXPECT_TRUE(handOver::takes(8 * mib - mib / 4, 8 * mib));
    EXPECT_FALSE(handOver::takes(8 * mib - mib / 4 - 1, 8 * mib));
    EXPECT_FALSE(handOver::takes(8 * mib + 1, 8 * mib));
}

// The module's cut starts a part with a few bytes and then reserves the whole part: that growth
// lands in the offered block, bytes kept, and takes it once only. Small allocations in between
// leave the offer alone.
TEST(BlockHandOver, aPartGrowingToItsSizeLandsInTheOfferedBlockWithItsBytes) {
    if (!handOver::available()) {
        GTEST_SKIP() << "a sanitizer's allocator is not wrapped";
    }
    DataBuffer kept = blockOf(4 * mib);
    const std::uint8_t* block = kept.bytes();
    handOver::offer(std::move(kept));
    EXPECT_EQ(kept.bytes(), nullptr);
    EXPECT_EQ(kept.getCapacity(), 0u);

    DataBuffer small(std::string(1000, 's'));
    EXPECT_TRUE(handOver::onOffer());
    DataBuffer part("first bytes of the part");
    part.reserve(4 * mib);
    EXPECT_EQ(part.bytes(), block);
    EXPECT_FALSE(handOver::onOffer());
    EXPECT_EQ(std::string(part.bytes(), part.bytes() + part.getSize()), "first bytes of the part");

    DataBuffer fresh = blockOf(4 * mib);
    EXPECT_NE(fresh.bytes(), block);
    EXPECT_EQ(std::string(small.bytes(), small.bytes() + 3), "sss");
}

// An offer belongs to the thread that made it; a large allocation that does not fit frees it
// before allocating, so the two never hold memory at once; withdrawing frees what is left.
TEST(BlockHandOver, anOfferStaysOnItsThreadAndAMisfitClearsIt) {
    if (!handOver::available()) {
        GTEST_SKIP() << "a sanitizer's allocator is not wrapped";
    }
    DataBuffer kept = blockOf(4 * mib);
    const std::uint8_t* block = kept.bytes();
    handOver::offer(std::move(kept));
    std::thread([block] {
        EXPECT_FALSE(handOver::onOffer());
        DataBuffer other = blockOf(4 * mib);
        EXPECT_NE(other.bytes(), block);
    }).join();
    EXPECT_TRUE(handOver::onOffer());

    DataBuffer smaller = blockOf(2 * mib);
    EXPECT_FALSE(handOver::onOffer());
    EXPECT_LT(::malloc_usable_size(const_cast<std::uint8_t*>(smaller.bytes())), 3 * mib);

    handOver::offer(blockOf(4 * mib));
    EXPECT_TRUE(handOver::onOffer());
    handOver::withdraw();
    EXPECT_FALSE(handOver::onOffer());
    handOver::offer(DataBuffer());
    EXPECT_FALSE(handOver::onOffer());
}

} // namespace
} // namespace kestrin::host
