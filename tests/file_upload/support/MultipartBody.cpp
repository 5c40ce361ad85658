#include "tests/file_upload/support/MultipartBody.h"

#include "common/DataBuffer.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"

namespace kestrin::testing {

std::string makeFilePart(const std::string& boundary, const FilePart& part) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"" +
           part.filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + part.content +
           "\r\n";
}

std::string makeMultipartBody(const std::string& boundary, const std::vector<FilePart>& parts) {
    std::string body;
    for (const FilePart& part : parts) {
        body += makeFilePart(boundary, part);
    }
    return body + "--" + boundary + "--\r\n";
}

std::unique_ptr<Message> makeUploadMessage(const std::string& body,
                                           const http::HttpRequest::Parameters& parameters) {
    auto stream = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(
        common::DataBuffer(body));
    return std::make_unique<ServiceMessage<http::HttpServiceProvider>>(
        std::make_unique<http::HttpRequest>(std::move(stream), parameters));
}

std::string expectedPage(const std::string& message) {
    return "<html>\n<head>\n<script>\nparent.postMessage(\"" + message +
           "\", \"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n";
}

} // namespace kestrin::testing
