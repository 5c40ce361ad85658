#include "file_upload/MultipartUploadServiceProvider.h"

#include "framework/HttpRequest.h"
#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

using kestrin::Address;
using kestrin::Context;
using kestrin::Future;
using kestrin::Message;
using kestrin::file_upload::v1::MultipartUploadServiceProvider;
using kestrin::http::HttpRequest;
using kestrin::http::HttpServiceProvider;
using HttpServiceMessage = kestrin::ServiceMessage<HttpServiceProvider>;

namespace {

class OtherMessage : public Message {};

// A proper HTTP message (through a derived type) that records what dispatch is given
// instead of handling it.
class RecordingServiceMessage : public HttpServiceMessage {
public:
    RecordingServiceMessage()
        : HttpServiceMessage(std::make_unique<HttpRequest>(nullptr, HttpRequest::Parameters{})) {}

    Future<std::unique_ptr<Message>> dispatch(std::shared_ptr<HttpServiceProvider> provider,
                                              std::unique_ptr<Message>&& self, Address&& address,
                                              std::shared_ptr<Context>&& context) override {
        ++dispatched;
        seen = {provider.get(), self.get(), address.getName(), context.get()};
        return kestrin::makeReadyFuture<std::unique_ptr<Message>>(std::move(answer));
    }

    struct Seen {
        HttpServiceProvider* provider;
        Message* self;
        std::string address;
        Context* context;
    };
    int dispatched = 0;
    Seen seen{};
    std::unique_ptr<Message> answer = std::make_unique<OtherMessage>();
};

std::shared_ptr<MultipartUploadServiceProvider> makeRunningProvider() {
    auto provider =
        kestrin::http::makeServiceProvider<MultipartUploadServiceProvider>(nullptr, nullptr);
    provider->running = true;
    return provider;
}

Future<std::unique_ptr<Message>> deliver(HttpServiceProvider& provider,
                                         std::unique_ptr<Message>& message) {
    return provider.processMessage(std::move(message), Address("upload"),
                                   std::make_shared<Context>());
}

template <typename Exception> std::string failureOf(Future<std::unique_ptr<Message>> future) {
    try {
        future.get();
    } catch (const Exception& e) {
        return e.what();
    }
    return "(no failure of the expected type)";
}

} // namespace

TEST(MultipartUploadServiceProvider, stoppedServiceRefusesEveryMessageWithoutLookingAtIt) {
    auto provider = makeRunningProvider();
    provider->running = false;
    auto proper = std::make_unique<RecordingServiceMessage>();
    RecordingServiceMessage* properRaw = proper.get();

    std::vector<std::pair<const char*, std::unique_ptr<Message>>> messages;
    messages.emplace_back("empty message", nullptr);
    messages.emplace_back("message of another type", std::make_unique<OtherMessage>());
    messages.emplace_back("proper message", std::move(proper));
    for (auto& [name, message] : messages) {
        SCOPED_TRACE(name);
        Message* before = message.get();
        EXPECT_EQ(failureOf<std::runtime_error>(deliver(*provider, message)),
                  "Service exists but is not running.");
        EXPECT_EQ(message.get(), before) << "the caller keeps its message";
    }
    EXPECT_EQ(properRaw->dispatched, 0);
}

TEST(MultipartUploadServiceProvider, runningServiceChecksEmptinessThenTypeThenOwnership) {
    auto provider = makeRunningProvider();

    std::unique_ptr<Message> empty;
    EXPECT_THROW(deliver(*provider, empty), std::bad_typeid);

    std::unique_ptr<Message> other = std::make_unique<OtherMessage>();
    EXPECT_EQ(failureOf<std::invalid_argument>(deliver(*provider, other)),
              std::string("Incorrect message type. Expected: ") +
                  "N7kestrin14ServiceMessageINS_4http19HttpServiceProviderEEE but found " +
                  typeid(OtherMessage).name());
    EXPECT_NE(other, nullptr) << "a refused message stays with the caller";

    // The framework never took this provider into shared ownership.
    MultipartUploadServiceProvider unowned(nullptr, nullptr);
    unowned.running = true;
    auto proper = std::make_unique<RecordingServiceMessage>();
    RecordingServiceMessage* properRaw = proper.get();
    std::unique_ptr<Message> message = std::move(proper);
    EXPECT_THROW(deliver(unowned, message), std::bad_weak_ptr);
    EXPECT_EQ(properRaw->dispatched, 0);
}

TEST(MultipartUploadServiceProvider, derivedMessageIsDispatchedToTheProviderAndItsFutureReturned) {
    auto provider = makeRunningProvider();
    // The framework owns the running flag: the provider's own hooks, in any order, refuse nothing.
    provider->stop();
    provider->start();
    provider->stop();
    auto proper = std::make_unique<RecordingServiceMessage>();
    RecordingServiceMessage* properRaw = proper.get();
    Message* answer = properRaw->answer.get();
    auto context = std::make_shared<Context>();

    std::unique_ptr<Message> message = std::move(proper);
    auto future = provider->processMessage(std::move(message), Address("upload"),
                                           std::shared_ptr<Context>(context));

    EXPECT_EQ(properRaw->dispatched, 1);
    EXPECT_EQ(properRaw->seen.provider, provider.get());
    EXPECT_EQ(properRaw->seen.self, properRaw) << "dispatch sees the message it came in";
    EXPECT_EQ(properRaw->seen.address, "upload");
    EXPECT_EQ(properRaw->seen.context, context.get());
    EXPECT_EQ(future.get().get(), answer) << "dispatch's future comes back unchanged";
    EXPECT_EQ(provider.use_count(), 1) << "no reference to the provider is kept";
}
