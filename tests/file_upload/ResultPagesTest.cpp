#include "file_upload/ResultPages.h"

#include <gtest/gtest.h>

#include <string>

using namespace kestrin::file_upload::v1;

namespace {

// Reads the first JavaScript string literal after "postMessage(" the way a script engine
// would, returning its decoded value and whatever follows the closing quote.
struct ScriptString {
    std::string value;
    std::string rest;
    bool closed = false;
};

ScriptString readScriptString(const std::string& page) {
    ScriptString out;
    size_t i = page.find("postMessage(\"");
    if (i == std::string::npos) {
        return out;
    }
    for (i += 13; i < page.size(); ++i) {
        char c = page[i];
        if (c == '\n' || c == '\r') {
            return out; // a raw line break ends the script with a syntax error
        }
        if (c == '"') {
            out.closed = true;
            out.rest = page.substr(i + 1);
            return out;
        }
        if (c != '\\') {
            out.value += c;
            continue;
        }
        char e = page[++i];
        switch (e) {
        case 'n':
            out.value += '\n';
            break;
        case 'r':
            out.value += '\r';
            break;
        case 'x':
            out.value += static_cast<char>(std::stoi(page.substr(i + 1, 2), nullptr, 16));
            i += 2;
            break;
        case 'u':
            out.value += "<U+" + page.substr(i + 1, 4) + ">";
            i += 4;
            break;
        default:
            out.value += e;
        }
    }
    return out;
}

} // namespace

TEST(ResultPages, fixedPagesAreTheTemplateAroundTheirMessages) {
    struct Case {
        const std::string& page;
        const char* message;
        size_t length;
    } cases[] = {
        {successPage, "SUCCESS", 100},
        {internalErrorPage, "Internal Error", 107},
        {corruptBodyPage, "Request Body is corrupted or null", 126},
        {missingBoundaryPage, "Malformed multipart request - boundary not defined", 143},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_EQ(c.page, makeResultPage(c.message));
        EXPECT_EQ(c.page.size(), c.length);
        EXPECT_EQ(c.page.substr(c.page.size() - 8), "</html>\n");
        EXPECT_EQ(c.page.find('\r'), std::string::npos);
    }
    EXPECT_EQ(resultPagePrefix.size(), 43u);
    EXPECT_EQ(resultPageSuffix.size(), 50u);
    EXPECT_EQ(successPage,
              "<html>\n<head>\n<script>\nparent.postMessage(\"SUCCESS\", \"*\");\n</script>\n"
              "</head>\n<body>\n</body>\n</html>\n");
    std::string empty = makeResultPage("");
    EXPECT_EQ(empty.size(), 93u);
    EXPECT_NE(empty.find("postMessage(\"\", \"*\")"), std::string::npos);
}

TEST(ResultPages, hostileMessagesStayOneScriptString) {
    const std::string messages[] = {
        "quote \" inside",
        "back\\slash and \\\" both",
        "line\nbreak\r\nand\ttab",
        "</script><script>alert(1)</script>",
        "<!-- comment",
        std::string("nul\0byte", 8),
        "line\xE2\x80\xA8separator\xE2\x80\xA9paragraph",
        "Malformed multi-part request, no file name found",
    };
    for (const std::string& message : messages) {
        SCOPED_TRACE(message);
        std::string page = makeResultPage(message);
        ScriptString parsed = readScriptString(page);
        ASSERT_TRUE(parsed.closed);
        EXPECT_EQ(parsed.rest, std::string(resultPageSuffix.substr(1)));
        EXPECT_EQ(page.find("</script>"), page.rfind("</script>"));
        EXPECT_EQ(page.find('<', resultPagePrefix.size()),
                  page.size() - resultPageSuffix.size() + 9);
        std::string expected = message;
        for (const char* separator : {"\xE2\x80\xA8", "\xE2\x80\xA9"}) {
            size_t at = expected.find(separator);
            if (at != std::string::npos) {
                expected.replace(at, 3, separator[2] == '\xA8' ? "<U+2028>" : "<U+2029>");
            }
        }
        EXPECT_EQ(parsed.value, expected);
    }
}
