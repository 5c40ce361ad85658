#include "file_upload/ResultPages.h"

#include "tests/file_upload/support/MultipartBody.h"

#include <gtest/gtest.h>

#include <string>

using namespace kestrin::file_upload::v1;
using kestrin::testing::expectedPage;

TEST(ResultPages, fixedPagesAreTheTemplateAroundTheirMessagesByteForByte) {
    const struct {
        const std::string& page;
        const char* message;
    } cases[] = {
        {successPage, "SUCCESS"},
        {internalErrorPage, "Internal Error"},
        {corruptBodyPage, "Request Body is corrupted or null"},
        {missingBoundaryPage, "Malformed multipart request - boundary not defined"},
        // makeResultPage builds the other pages from the same template.
        {makeResultPage("Malformed multi-part request"), "Malformed multi-part request"},
        {makeResultPage(""), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_EQ(c.page, expectedPage(c.message));
    }
}

TEST(ResultPages, hostileMessagesStayOneScriptString) {
    const struct {
        std::string message;
        std::string escaped;
    } cases[] = {
        {"quote \" inside", "quote \\\" inside"},
        {"back\\slash and \\\"", "back\\\\slash and \\\\\\\""},
        {"line\nbreak\r\nand\ttab", "line\\nbreak\\r\\nand\\x09tab"},
        {"</script><!--", "\\x3C/script>\\x3C!--"},
        {std::string("nul\0\x1F", 5), "nul\\x00\\x1F"},
        {"a\xE2\x80\xA8"
         "b\xE2\x80\xA9"
         "c",
         "a\\u2028b\\u2029c"},
        // Other bytes at or above 0x80 stay as they are, also a lone start of a separator.
        {"\xC3\xBC \xE2\x80\xA7 \xE2\x80", "\xC3\xBC \xE2\x80\xA7 \xE2\x80"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.message));
        EXPECT_EQ(makeResultPage(c.message), expectedPage(c.escaped));
    }
}
