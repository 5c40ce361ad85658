#include "common/DataBuffer.h"

#include "tests/common/support/BytesOf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using kestrin::common::DataBuffer;
using kestrin::testing::bytesOf;

namespace {

void expectStorage(const DataBuffer& buffer, size_t capacity, size_t size) {
    EXPECT_EQ(buffer.getCapacity(), capacity);
    EXPECT_EQ(buffer.getSize(), size);
    EXPECT_EQ(buffer.bytes() == nullptr, capacity == 0);
}

} // namespace

// The scans and the body reader depend on these exact capacities: a buffer grows the way it
// always has, and storage appears only where it is asked for.
TEST(DataBuffer, capacityFollowsTheGrowthRules) {
    DataBuffer empty;
    expectStorage(DataBuffer(""), 0, 0);
    expectStorage(DataBuffer(empty), 0, 0);
    empty.resize(0);
    empty.append(std::string());
    expectStorage(empty, 0, 0);
    EXPECT_NE(empty.getData(), nullptr);
    expectStorage(empty, 8, 0);

    const struct {
        const char* text;
        size_t capacity;
    } getData[] = {{"\r\n\r\n", 8}, {"abcde", 10}, {"abcdefghi", 9}};
    for (const auto& c : getData) {
        SCOPED_TRACE(c.text);
        DataBuffer buffer(c.text);
        uint8_t* first = buffer.getData();
        EXPECT_EQ(buffer.getData(), first) << "enough storage is not grown again";
        expectStorage(buffer, c.capacity, std::string(c.text).size());
        EXPECT_EQ(bytesOf(buffer), c.text);
    }

    DataBuffer pushed;
    const size_t expected[] = {1, 2, 4, 4, 8, 8, 8, 8, 16};
    for (size_t i = 0; i < sizeof expected / sizeof expected[0]; ++i) {
        pushed.pushBack(static_cast<uint8_t>('a' + i));
        EXPECT_EQ(pushed.getCapacity(), expected[i]) << "after push " << i + 1;
    }
    EXPECT_EQ(bytesOf(pushed), "abcdefghi");

    // Growth doubles, with the request as its floor; resize within the capacity keeps it.
    for (size_t added : {10, 40}) {
        DataBuffer buffer;
        buffer.reserve(16);
        buffer.resize(12);
        buffer.append(std::string(added, 'x'));
        expectStorage(buffer, added == 10 ? 32 : 52, 12 + added);
    }
    DataBuffer resized(std::string(52, 'x'));
    resized.resize(3);
    expectStorage(resized, 52, 3);
    resized.reserve(8);
    expectStorage(resized, 52, 3);
    resized.resize(60);
    expectStorage(resized, 104, 60);
}

TEST(DataBuffer, copiesAreTightAndMovesLeaveAnEmptyReusableBuffer) {
    const std::string bytes("01\0003", 4);
    DataBuffer source;
    source.reserve(64);
    source.append(bytes);
    DataBuffer copy(source);
    expectStorage(copy, 4, 4);
    EXPECT_EQ(bytesOf(copy), bytes);
    EXPECT_NE(copy.bytes(), source.bytes());

    const uint8_t* block = source.bytes();
    DataBuffer moved(std::move(source));
    EXPECT_EQ(moved.bytes(), block);
    EXPECT_EQ(moved.getCapacity(), 64u);
    expectStorage(source, 0, 0);
    source.append(std::string("again"));
    EXPECT_EQ(bytesOf(source), "again");
}

TEST(DataBuffer, failedAllocationThrowsAndLeavesTheBufferIntact) {
    // Opaque to the optimiser, so the request is really made at run time.
    volatile size_t tooMuch = SIZE_MAX;
    DataBuffer buffer("keep me");
    const uint8_t* block = buffer.bytes();
    try {
        buffer.reserve(tooMuch);
        FAIL() << "reserve(SIZE_MAX) succeeded";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Out of memory!");
    }
    EXPECT_EQ(buffer.bytes(), block);
    EXPECT_EQ(buffer.getCapacity(), 7u);
    EXPECT_EQ(bytesOf(buffer), "keep me");

    EXPECT_THROW(buffer.resize(tooMuch / 2 + 1), std::runtime_error);
    EXPECT_EQ(bytesOf(buffer), "keep me");

    DataBuffer empty;
    EXPECT_THROW(empty.reserve(tooMuch), std::runtime_error);
    EXPECT_EQ(empty.bytes(), nullptr);
    EXPECT_EQ(empty.getCapacity(), 0u);
}
