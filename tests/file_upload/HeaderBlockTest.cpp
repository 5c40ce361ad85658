#include "file_upload/HeaderBlock.h"

#include "fuzz/support/ReferenceMultipart.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using kestrin::file_upload::v1::HeaderMap;
using kestrin::file_upload::v1::parseHeaderBlockReusingNodes;
namespace reference = kestrin::testing::reference;

TEST(HeaderBlock, reusedNodesGiveTheMapOfAFreshParseForEveryBlock) {
    // One map and one pool through many blocks, as the pipeline keeps them over a body: each
    // block must leave exactly what parsing it into an empty map gives. Blocks repeat keys,
    // drop keys the block before had, and have more or fewer fields than it.
    const std::vector<std::string> pieces = {"\r\n",
                                             "\r",
                                             "\n",
                                             ";",
                                             "; ",
                                             "=",
                                             "\"",
                                             " ",
                                             "name",
                                             "filename",
                                             "x",
                                             "a long value that does not fit in place",
                                             "=\"q\"",
                                             "Content-Disposition: form-data",
                                             "Content-Type: text/plain",
                                             "filename=\"a b\""};
    std::mt19937 random(31337);
    HeaderMap headers;
    std::vector<HeaderMap::node_type> spare;
    for (int round = 0; round < 3000; ++round) {
        std::string block;
        const size_t count = std::uniform_int_distribution<size_t>(0, 14)(random);
        for (size_t k = 0; k < count; ++k) {
            block += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
        }
        HeaderMap expected;
        reference::parseHeaderBlock(block, expected);
        parseHeaderBlockReusingNodes(block, headers, spare);
        ASSERT_EQ(headers, expected) << testing::PrintToString(block);
    }
}
