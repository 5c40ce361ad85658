#pragma once

#include "common/DataBuffer.h"
#include "common/Future.h"
#include "file_upload/MultipartUploadService.h"
#include "file_upload/ResultPages.h"
#include "file_upload/UploadPipeline.h"
#include "framework/FileService.h"
#include "framework/HttpResponse.h"
#include "reactive_streams/OneShotPublisher.h"
#include "reactive_streams/Subscriber.h"
#include "reactive_streams/Subscription.h"

#include <memory>
#include <string>

namespace kestrin::file_upload::v1 {

// Takes one upload request's body in as a single item, runs the upload pipeline on it and
// chooses the answer: the first of onComplete (200, success page) and onError (400,
// internal-error page) decides. Created by handle for one request, shared with the body
// stream; its signals come one at a time on the thread that runs handle. No lock.
template <typename T> class StreamSubscriberImpl : public reactive_streams::SubscriberAPI<T> {
public:
    StreamSubscriberImpl(std::shared_ptr<file::v1::FileService> files,
                         std::shared_ptr<MultipartUploadService> uploads, std::string boundary);

    // Asks for exactly one item, the whole body; never asks again and never cancels.
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override;
    void onComplete() override;
    Future<bool> getStatus() override;
    // Malformed bodies and failed writes leave here as exceptions, through the publisher's
    // delivery call, back to whoever subscribed.
    void onNext(T& item) override;
    // The error itself is not read: every stream failure gets the same page.
    void onError(std::exception_ptr error) override;

    // Moves the answer out, leaving none behind. handle calls it on its own thread once
    // subscribe has returned; empty if the stream has not ended by then.
    std::unique_ptr<http::HttpResponse> takeResponse() noexcept { return std::move(response); }

private:
    static std::unique_ptr<http::HttpResponse> createResponse(unsigned short status,
                                                              const std::string& page);

    std::shared_ptr<file::v1::FileService> fileService;
    std::shared_ptr<MultipartUploadService> uploadService;
    // Set once by whichever of onComplete and onError comes first; never replaced here.
    std::unique_ptr<http::HttpResponse> response;
    // "\r\n--" + boundary: the delimiter the pipeline searches for.
    common::DataBuffer boundaryMarker;
    bool completed = false;
};

// ----------------------------------------------------------------------------------------

template <typename T>
StreamSubscriberImpl<T>::StreamSubscriberImpl(std::shared_ptr<file::v1::FileService> files,
                                              std::shared_ptr<MultipartUploadService> uploads,
                                              std::string boundary)
    : fileService(std::move(files))
    , uploadService(std::move(uploads)) {
    boundaryMarker.reserve(2);
    boundaryMarker.append(std::string("\r\n"));
    boundaryMarker.append(std::string("--"));
    boundaryMarker.append(boundary);
}

template <typename T>
void StreamSubscriberImpl<T>::onSubscribe(
    std::weak_ptr<reactive_streams::Subscription> subscription) {
    if (completed) {
        return;
    }
    // Held for this call only: the publisher owns the subscription. A subscription that is
    // already gone cannot deliver anything, so there is nobody to ask.
    if (auto locked = subscription.lock()) {
        locked->request(1);
    }
}

template <typename T> void StreamSubscriberImpl<T>::onComplete() {
    completed = true;
    if (!response) {
        response = createResponse(200, successPage);
    }
}

template <typename T> Future<bool> StreamSubscriberImpl<T>::getStatus() {
    return makeReadyFuture(true);
}

template <typename T> void StreamSubscriberImpl<T>::onNext(T& item) {
    runUploadPipeline(fileService, *uploadService, boundaryMarker, item);
}

template <typename T> void StreamSubscriberImpl<T>::onError(std::exception_ptr /*error*/) {
    if (!response) {
        response = createResponse(400, internalErrorPage);
    }
}

template <typename T>
std::unique_ptr<http::HttpResponse>
StreamSubscriberImpl<T>::createResponse(unsigned short status, const std::string& page) {
    auto body = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(
        common::DataBuffer(page));
    return std::make_unique<http::HttpResponse>(
        status,
        std::shared_ptr<reactive_streams::PublisherAPI<common::DataBuffer>>(std::move(body)));
}

} // namespace kestrin::file_upload::v1
