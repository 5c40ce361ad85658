#include "common/DataBuffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using kestrin::common::DataBuffer;

namespace {

std::string text(const DataBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.bytes()), buffer.getSize());
}

} // namespace

TEST(DataBuffer, buffersWithoutBytesHaveNoStorage) {
    DataBuffer empty;
    EXPECT_EQ(empty.getSize(), 0u);
    EXPECT_EQ(empty.getCapacity(), 0u);
    EXPECT_EQ(empty.bytes(), nullptr);
    EXPECT_EQ(DataBuffer("").getCapacity(), 0u);
    DataBuffer copy(empty);
    EXPECT_EQ(copy.getCapacity(), 0u);
    EXPECT_EQ(copy.bytes(), nullptr);
    // Appending nothing allocates nothing, even with no storage.
    copy.append(std::string());
    EXPECT_EQ(copy.bytes(), nullptr);
}

TEST(DataBuffer, getDataGuaranteesEightBytesAndKeepsContents) {
    DataBuffer empty;
    EXPECT_NE(empty.getData(), nullptr);
    EXPECT_EQ(empty.getCapacity(), 8u);
    EXPECT_EQ(empty.getSize(), 0u);

    DataBuffer terminator("\r\n\r\n");
    EXPECT_EQ(terminator.getSize(), 4u);
    EXPECT_EQ(terminator.getCapacity(), 4u);
    terminator.getData();
    EXPECT_EQ(terminator.getCapacity(), 8u);
    EXPECT_EQ(text(terminator), "\r\n\r\n");

    DataBuffer five("abcde");
    five.getData();
    EXPECT_EQ(five.getCapacity(), 10u);
    DataBuffer nine("abcdefghi");
    uint8_t* before = nine.getData();
    EXPECT_EQ(nine.getCapacity(), 9u);
    EXPECT_EQ(nine.getData(), before);
}

TEST(DataBuffer, growthDoublesWithTheRequestAsFloor) {
    DataBuffer pushed;
    const size_t expected[] = {1, 2, 4, 4, 8, 8, 8, 8, 16};
    for (size_t i = 0; i < sizeof expected / sizeof expected[0]; ++i) {
        pushed.pushBack(static_cast<uint8_t>('a' + i));
        EXPECT_EQ(pushed.getCapacity(), expected[i]) << "after push " << i + 1;
    }
    EXPECT_EQ(text(pushed), "abcdefghi");

    auto sixteenWithTwelve = [] {
        DataBuffer buffer;
        buffer.reserve(16);
        buffer.resize(12);
        return buffer;
    };
    std::string forty(40, 'x');
    DataBuffer small = sixteenWithTwelve();
    small.append(std::string(10, 'x'));
    EXPECT_EQ(small.getCapacity(), 32u);
    EXPECT_EQ(small.getSize(), 22u);
    DataBuffer large = sixteenWithTwelve();
    large.append(forty);
    EXPECT_EQ(large.getCapacity(), 52u);
    EXPECT_EQ(large.getSize(), 52u);

    // resize within the capacity never allocates, also without storage.
    DataBuffer none;
    none.resize(0);
    EXPECT_EQ(none.bytes(), nullptr);
    large.resize(3);
    EXPECT_EQ(large.getCapacity(), 52u);
    EXPECT_EQ(large.getSize(), 3u);
    large.resize(60);
    EXPECT_EQ(large.getCapacity(), 104u);
}

TEST(DataBuffer, copiesAreTightAndMovesLeaveAnEmptyReusableBuffer) {
    DataBuffer source;
    source.reserve(64);
    source.append(std::string("0123456789"));
    DataBuffer copy(source);
    EXPECT_EQ(copy.getCapacity(), 10u);
    EXPECT_EQ(text(copy), "0123456789");
    EXPECT_NE(copy.bytes(), source.bytes());
    EXPECT_EQ(source.getCapacity(), 64u);

    const uint8_t* block = source.bytes();
    DataBuffer moved(std::move(source));
    EXPECT_EQ(moved.bytes(), block);
    EXPECT_EQ(moved.getCapacity(), 64u);
    EXPECT_EQ(source.bytes(), nullptr);
    EXPECT_EQ(source.getSize(), 0u);
    EXPECT_EQ(source.getCapacity(), 0u);
    source.append(std::string("again"));
    EXPECT_EQ(text(source), "again");

    // NUL is ordinary content.
    DataBuffer binary(std::string("a\0b", 3));
    EXPECT_EQ(binary.getSize(), 3u);
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
    EXPECT_EQ(text(buffer), "keep me");

    EXPECT_THROW(buffer.resize(tooMuch / 2 + 1), std::runtime_error);
    EXPECT_EQ(text(buffer), "keep me");

    DataBuffer empty;
    EXPECT_THROW(empty.reserve(tooMuch), std::runtime_error);
    EXPECT_EQ(empty.bytes(), nullptr);
    EXPECT_EQ(empty.getCapacity(), 0u);
}
