#include "file_upload/MultipartUploadServiceProvider.h"

#include "common/DataBuffer.h"
#include "file_upload/ResultPages.h"
#include "file_upload/StreamSubscriberImpl.h"
#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace kestrin::file_upload::v1 {

using HttpServiceMessage = ServiceMessage<http::HttpServiceProvider>;

MultipartUploadServiceProvider::MultipartUploadServiceProvider(
    std::shared_ptr<file::v1::FileService> files, std::shared_ptr<MultipartUploadService> uploads)
    : fileService(std::move(files))
    , uploadService(std::move(uploads)) {}

MultipartUploadServiceProvider::~MultipartUploadServiceProvider() = default;

// The framework owns the running flag; there is nothing of our own to start or stop.
void MultipartUploadServiceProvider::start() {}

void MultipartUploadServiceProvider::stop() {}

Future<std::unique_ptr<Message>> MultipartUploadServiceProvider::processMessage(
    std::unique_ptr<Message>&& message, Address&& address, std::shared_ptr<Context>&& context) {
    if (!running) {
        return makeExceptionalFuture<std::unique_ptr<Message>>(
            std::make_exception_ptr(std::runtime_error("Service exists but is not running.")));
    }
    // Through a raw pointer: typeid of a null pointer's referent throws std::bad_typeid, where
    // dereferencing an empty unique_ptr would be undefined.
    Message* delivered = message.get();
    const std::type_info& foundType = typeid(*delivered);
    auto* httpMessage = dynamic_cast<HttpServiceMessage*>(delivered);
    if (httpMessage == nullptr) {
        return makeExceptionalFuture<std::unique_ptr<Message>>(std::make_exception_ptr(
            std::invalid_argument(std::string("Incorrect message type. Expected: ") +
                                  typeid(HttpServiceMessage).name() + " but found " +
                                  foundType.name())));
    }
    // Throws std::bad_weak_ptr when the framework no longer owns this provider.
    std::shared_ptr<http::HttpServiceProvider> self(weakSelf);
    return httpMessage->dispatch(self, std::move(message), std::move(address), std::move(context));
}

Future<std::unique_ptr<Message>>
MultipartUploadServiceProvider::handle(std::unique_ptr<http::HttpRequest>&& request,
                                       Address&& /*address*/,
                                       std::shared_ptr<Context>&& /*context*/) {
    std::shared_ptr<http::HttpRequest::Body> body = request->getBody();
    if (!body) {
        return http::makeReadyHttpResponse(400, corruptBodyPage);
    }
    const http::HttpRequest::Parameters& parameters = request->getParameters();
    auto boundary = parameters.find("boundary");
    if (boundary == parameters.end()) {
        return http::makeReadyHttpResponse(400, missingBoundaryPage);
    }

    auto subscriber = std::make_shared<StreamSubscriberImpl<common::DataBuffer>>(
        fileService, uploadService, boundary->second);
    try {
        // The whole exchange, storing included, runs inside this call.
        body->subscribe(subscriber);
    } catch (const std::runtime_error& failure) {
        // Malformed bodies and failed writes; misuse (std::invalid_argument and the like)
        // is not an upload failure and goes on to the caller.
        return http::makeReadyHttpResponse(400, makeResultPage(failure.what()));
    }
    return makeReadyFuture<std::unique_ptr<Message>>(subscriber->takeResponse());
}

} // namespace kestrin::file_upload::v1
