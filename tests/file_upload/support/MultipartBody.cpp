#include "tests/file_upload/support/MultipartBody.h"

#include "common/DataBuffer.h"
#include "framework/HttpRequest.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"

namespace kestrin::testing {

std::string makeMultipartBody(const std::string& boundary, const std::vector<FilePart>& parts) {
    std::string body;
    for (const FilePart& part : parts) {
        body += "--" + boundary + "\r\n";
        body += "Content-Disposition: form-data; name=\"upload\"; filename=\"" + part.filename +
                "\"\r\n";
        body += "Content-Type: application/octet-stream\r\n\r\n";
        body += part.content + "\r\n";
    }
    body += "--" + boundary + "--\r\n";
    return body;
}

std::unique_ptr<Message> makeUploadMessage(const std::string& body, const std::string& boundary) {
    return makeUploadMessage(body, {{"boundary", boundary}});
}

std::unique_ptr<Message>
makeUploadMessage(const std::string& body,
                  const std::unordered_map<std::string, std::string>& parameters) {
    auto stream = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(
        common::DataBuffer(body));
    return std::make_unique<ServiceMessage<http::HttpServiceProvider>>(
        std::make_unique<http::HttpRequest>(std::move(stream), parameters));
}

} // namespace kestrin::testing
