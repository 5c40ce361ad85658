#include "file_upload/MultipartUploadServiceProvider.h"

#include "common/DataBuffer.h"
#include "framework/HttpRequest.h"
#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
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
        if (failure) {
            throw std::runtime_error(failure);
        }
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
    const char* failure = nullptr;
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
    // The framework never took this provider into shared ownership, so the self reference is
    // checked last only if the message faults come out first.
    MultipartUploadServiceProvider unowned(nullptr, nullptr);
    unowned.running = true;

    std::unique_ptr<Message> empty;
    EXPECT_THROW(deliver(unowned, empty), std::bad_typeid);

    std::unique_ptr<Message> other = std::make_unique<OtherMessage>();
    EXPECT_EQ(failureOf<std::invalid_argument>(deliver(unowned, other)),
              std::string("Incorrect message type. Expected: ") +
                  "N7kestrin14ServiceMessageINS_4http19HttpServiceProviderEEE but found " +
                  typeid(OtherMessage).name());
    EXPECT_NE(other, nullptr) << "a refused message stays with the caller";

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

    // What dispatch throws passes through the entry as it is, not as a failed future.
    auto failing = std::make_unique<RecordingServiceMessage>();
    failing->failure = "dispatch failed";
    message = std::move(failing);
    EXPECT_THROW(deliver(*provider, message), std::runtime_error);
    EXPECT_EQ(provider.use_count(), 1);
}

namespace {

// Lets the process map only extra more bytes than it has mapped now.
bool limitAddressSpace(size_t extra) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmSize:", 0) == 0) {
            const rlim_t mapped = std::strtoull(line.c_str() + 7, nullptr, 10) * 1024;
            rlimit limit{};
            if (::getrlimit(RLIMIT_AS, &limit) != 0) {
                return false;
            }
            limit.rlim_cur = mapped + extra;
            return ::setrlimit(RLIMIT_AS, &limit) == 0;
        }
    }
    return false;
}

} // namespace

// Running out of memory while the subscriber builds its boundary marker is no upload failure:
// handle throws instead of answering with a page. In a child process whose address space
// leaves room for one copy of a huge boundary (the one handed to the subscriber) but not for
// a second (the marker).
TEST(MultipartUploadServiceProviderDeathTest, outOfMemoryBuildingTheSubscriberLeavesHandle) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer needs address space of its own";
#endif
    EXPECT_EXIT(
        {
            const size_t boundarySize = size_t{64} << 20;
            auto provider = kestrin::http::makeServiceProvider<MultipartUploadServiceProvider>(
                nullptr, nullptr);
            auto request = std::make_unique<HttpRequest>(
                std::make_shared<
                    kestrin::reactive_streams::OneShotPublisher<kestrin::common::DataBuffer>>(
                    kestrin::common::DataBuffer()),
                HttpRequest::Parameters{{"boundary", std::string(boundarySize, 'b')}});
            if (!limitAddressSpace(boundarySize + boundarySize / 2)) {
                std::_Exit(4);
            }
            try {
                provider->handle(std::move(request), Address("upload"), nullptr);
            } catch (const std::runtime_error& error) {
                std::_Exit(std::string(error.what()) == "Out of memory!" ? 0 : 2);
            } catch (...) {
                std::_Exit(3);
            }
            std::_Exit(1);
        },
        ::testing::ExitedWithCode(0), "");
}
