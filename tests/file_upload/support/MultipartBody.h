#pragma once

#include "framework/Message.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrin::testing {

struct FilePart {
    std::string filename;
    std::string content;
};

// A multipart/form-data body as a browser sends it: each part a file field with its
// Content-Disposition and Content-Type lines, CR LF line ends, and the closing delimiter.
std::string makeMultipartBody(const std::string& boundary, const std::vector<FilePart>& parts);

// The framework's message for an HTTP request whose body stream publishes body in one item,
// with the boundary filed under "boundary".
std::unique_ptr<Message> makeUploadMessage(const std::string& body, const std::string& boundary);

// The same with parameters of the caller's choosing.
std::unique_ptr<Message>
makeUploadMessage(const std::string& body,
                  const std::unordered_map<std::string, std::string>& parameters);

} // namespace kestrin::testing
