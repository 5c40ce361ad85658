#include "framework/HttpResponse.h"

#include "reactive_streams/Subscriber.h"

#include <cstdint>
#include <stdexcept>

namespace kestrin::http {

namespace {

// Takes every item of a body stream in, on the thread that delivers it.
class BodyCollector final : public reactive_streams::SubscriberAPI<common::DataBuffer> {
public:
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        if (auto locked = subscription.lock()) {
            locked->request(UINT64_MAX);
        }
    }
    void onComplete() override { completed = true; }
    Future<bool> getStatus() override { return makeReadyFuture(true); }
    void onNext(common::DataBuffer& item) override { bytes.append(item); }
    void onError(std::exception_ptr failure) override { error = failure; }

    common::DataBuffer bytes;
    std::exception_ptr error;
    bool completed = false;
};

} // namespace

HttpResponse::HttpResponse(unsigned short statusCode, std::string bodyText)
    : status(statusCode)
    , text(std::move(bodyText)) {}

HttpResponse::HttpResponse(unsigned short statusCode, std::shared_ptr<Body> bodyStream)
    : status(statusCode)
    , body(std::move(bodyStream)) {}

HttpResponse::~HttpResponse() = default;

common::DataBuffer HttpResponse::takeBodyBytes() {
    if (!body) {
        return common::DataBuffer(text);
    }
    auto collector = std::make_shared<BodyCollector>();
    body->subscribe(collector);
    if (collector->error) {
        std::rethrow_exception(collector->error);
    }
    if (!collector->completed) {
        throw std::runtime_error("Response body stream did not complete when subscribed to.");
    }
    return std::move(collector->bytes);
}

Future<std::unique_ptr<Message>> makeReadyHttpResponse(unsigned short status,
                                                       const std::string& text) {
    return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<HttpResponse>(status, text));
}

} // namespace kestrin::http
