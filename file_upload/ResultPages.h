#pragma once

#include <string>
#include <string_view>

namespace kestrin::file_upload::v1 {

// Every answer of the upload endpoint is one of these pages: loaded in a frame of the
// submitting page, its script hands one message to the enclosing page.

extern const std::string_view resultPagePrefix;
extern const std::string_view resultPageSuffix;

// Sent with 200 once the body has been stored.
extern const std::string successPage;
// Sent with 400 when the body stream reported a failure.
extern const std::string internalErrorPage;
// Sent with 400 when the request has no body stream.
extern const std::string corruptBodyPage;
// Sent with 400 when the request has no "boundary" parameter.
extern const std::string missingBoundaryPage;

// prefix + message + suffix. The message is escaped so that it always stays one JavaScript
// string inside the script element: \ " CR LF become \\ \" \r \n, '<' becomes \x3C, other
// control bytes \xNN, and U+2028/U+2029 \u2028/\u2029. Messages without such bytes are
// inserted unchanged.
std::string makeResultPage(std::string_view message);

} // namespace kestrin::file_upload::v1
