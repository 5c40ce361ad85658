#include "file_upload/ResultPages.h"

namespace kestrin::file_upload::v1 {

const std::string_view resultPagePrefix = "<html>\n<head>\n<script>\nparent.postMessage(\"";
const std::string_view resultPageSuffix =
    "\", \"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n";

const std::string successPage =
    "<html>\n<head>\n<script>\nparent.postMessage(\"SUCCESS\", \"*\");\n</script>\n</head>\n"
    "<body>\n</body>\n</html>\n";
const std::string internalErrorPage =
    "<html>\n<head>\n<script>\nparent.postMessage(\"Internal Error\", \"*\");\n</script>\n"
    "</head>\n<body>\n</body>\n</html>\n";
const std::string corruptBodyPage =
    "<html>\n<head>\n<script>\nparent.postMessage(\"Request Body is corrupted or null\", "
    "\"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n";
const std::string missingBoundaryPage =
    "<html>\n<head>\n<script>\nparent.postMessage(\"Malformed multipart request - boundary not "
    "defined\", \"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n";

namespace {

void appendEscaped(std::string& out, std::string_view message) {
    static constexpr char hex[] = "0123456789ABCDEF";
    for (size_t i = 0; i < message.size(); ++i) {
        auto byte = static_cast<unsigned char>(message[i]);
        switch (byte) {
        case '\\':
            out += "\\\\";
            break;
        case '"':
            out += "\\\"";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\n':
            out += "\\n";
            break;
        case '<':
            // No text can close the script element.
            out += "\\x3C";
            break;
        default:
            if (byte < 0x20) {
                out += "\\x";
                out += hex[byte >> 4];
                out += hex[byte & 0xF];
            } else if (byte == 0xE2 && i + 2 < message.size() &&
                       static_cast<unsigned char>(message[i + 1]) == 0x80 &&
                       (static_cast<unsigned char>(message[i + 2]) & 0xFE) == 0xA8) {
                // U+2028 and U+2029 end a line in older script engines.
                out += static_cast<unsigned char>(message[i + 2]) == 0xA8 ? "\\u2028" : "\\u2029";
                i += 2;
            } else {
                out += static_cast<char>(byte);
            }
        }
    }
}

} // namespace

std::string makeResultPage(std::string_view message) {
    std::string page;
    page.reserve(resultPagePrefix.size() + message.size() + resultPageSuffix.size());
    page += resultPagePrefix;
    appendEscaped(page, message);
    page += resultPageSuffix;
    return page;
}

} // namespace kestrin::file_upload::v1
