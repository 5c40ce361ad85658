#pragma once

#include "framework/HttpRequest.h"
#include "framework/Message.h"

#include <memory>
#include <string>
#include <vector>

namespace kestrin::testing {

struct FilePart {
    std::string filename;
    std::string content;
};

// One file part as a browser sends it: delimiter line, Content-Disposition and Content-Type
// lines, blank line, content, CR LF. No preamble and no closing delimiter.
std::string makeFilePart(const std::string& boundary, const FilePart& part);

// A whole multipart/form-data body: every part, then the closing delimiter.
std::string makeMultipartBody(const std::string& boundary, const std::vector<FilePart>& parts);

// The framework's message for an HTTP request whose body stream publishes body in one item.
std::unique_ptr<Message> makeUploadMessage(const std::string& body,
                                           const http::HttpRequest::Parameters& parameters);

// A result page written out by hand rather than taken from the module, so that a wrong page
// cannot agree with itself.
std::string expectedPage(const std::string& message);

} // namespace kestrin::testing
