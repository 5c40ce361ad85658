#include "file_upload/HeaderBlock.h"

#include "fuzz/support/ReferenceMultipart.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using kestrin::file_upload::v1::findLastParameter;
using kestrin::file_upload::v1::HeaderMap;
namespace reference = kestrin::testing::reference;

TEST(HeaderBlock, theParameterFoundIsWhatTheMapOfTheBlockHolds) {
    // Blocks that name the key more than once, quote it, pad it with blanks, or only come
    // close to it; the scratch strings are reused from block to block, as the pipeline does.
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
                                             "file\"name",
                                             "filenames",
                                             "x",
                                             "a long value that does not fit in place",
                                             "=\"q\"",
                                             "Content-Disposition: form-data",
                                             "Content-Type: text/plain",
                                             "filename=\"a b\""};
    std::mt19937 random(31337);
    std::string value;
    std::string scratch;
    for (int round = 0; round < 4000; ++round) {
        std::string block;
        const size_t count = std::uniform_int_distribution<size_t>(0, 14)(random);
        for (size_t k = 0; k < count; ++k) {
            block += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
        }
        HeaderMap expected;
        reference::parseHeaderBlock(block, expected);
        const auto named = expected.find("filename");
        const bool found = findLastParameter(block, "filename", value, scratch);
        ASSERT_EQ(found, named != expected.end()) << testing::PrintToString(block);
        if (found) {
            ASSERT_EQ(value, named->second) << testing::PrintToString(block);
        }
    }
}
