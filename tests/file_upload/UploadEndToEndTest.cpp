// Uploads driven the way the framework drives them: a message in at processMessage, its
// request dispatched to handle, files out through a file service on its own thread, and the
// response's body read through its stream. Only what needs the whole chain is checked here;
// the pipeline's and the subscriber's own rules have their tests.
#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "file_upload/StreamSubscriberImpl.h"
#include "framework/HttpRequest.h"
#include "framework/HttpResponse.h"
#include "framework/Ost.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::Address;
using kestrin::Message;
using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::file_upload::v1::MultipartUploadServiceProvider;
using kestrin::http::HttpRequest;
using kestrin::http::HttpResponse;
using kestrin::reactive_streams::PublisherAPI;
using kestrin::reactive_streams::SubscriberAPI;
using kestrin::testing::expectedPage;
using kestrin::testing::FilePart;
using kestrin::testing::makeMultipartBody;
using kestrin::testing::makeUploadMessage;
using kestrin::testing::RecordingFileService;
using HttpServiceMessage = kestrin::ServiceMessage<kestrin::http::HttpServiceProvider>;

namespace {

struct Answer {
    unsigned short status = 0;
    std::string body;
};

// A body stream that keeps its subscriber where the test can see it, and either delivers the
// body at once or throws from subscribe.
class ScriptedBody : public PublisherAPI<DataBuffer> {
public:
    explicit ScriptedBody(const std::string& body)
        : inner(DataBuffer(body)) {}

    kestrin::Future<bool> getStatus() override { return kestrin::makeReadyFuture(true); }
    void subscribe(std::shared_ptr<SubscriberAPI<DataBuffer>> newSubscriber) override {
        ++subscriptions;
        subscriber = newSubscriber;
        if (failure) {
            failure();
        }
        inner.subscribe(std::move(newSubscriber));
    }

    int subscriptions = 0;
    std::shared_ptr<SubscriberAPI<DataBuffer>> subscriber;
    std::function<void()> failure;

private:
    kestrin::reactive_streams::OneShotPublisher<DataBuffer> inner;
};

std::unique_ptr<Message> messageWith(std::shared_ptr<HttpRequest::Body> body,
                                     HttpRequest::Parameters parameters) {
    return std::make_unique<HttpServiceMessage>(
        std::make_unique<HttpRequest>(std::move(body), std::move(parameters)));
}

class UploadEndToEnd : public ::testing::Test {
protected:
    UploadEndToEnd() { provider->running = true; }

    Answer send(std::unique_ptr<Message> message) {
        return answerOf(provider->processMessage(std::move(message), Address("upload"), nullptr));
    }

    static Answer answerOf(kestrin::Future<std::unique_ptr<Message>> future) {
        std::unique_ptr<Message> message = future.get();
        auto* response = dynamic_cast<HttpResponse*>(message.get());
        if (response == nullptr) {
            ADD_FAILURE() << "the answer is not an HTTP response";
            return {};
        }
        return {response->getStatus(), kestrin::testing::bytesOf(response->takeBodyBytes())};
    }

    std::shared_ptr<RecordingFileService> files = std::make_shared<RecordingFileService>();
    std::shared_ptr<MultipartUploadServiceImpl> uploads =
        std::make_shared<MultipartUploadServiceImpl>();
    std::shared_ptr<MultipartUploadServiceProvider> provider =
        kestrin::http::makeServiceProvider<MultipartUploadServiceProvider>(files, uploads);
    std::string cwd = ost::i18n::to_string(ost::filesystem::get_current_path());
};

const std::string boundary = "----formdata7MA4YWxkTrZu0gW";

} // namespace

TEST_F(UploadEndToEnd, answersEachFailureWithItsPageAnd400) {
    const std::string wellFormed = makeMultipartBody("b", {{"a.txt", "x"}});
    const struct {
        const char* name;
        std::function<std::unique_ptr<Message>()> message;
        std::string page;
    } cases[] = {
        {"no body stream",
         [] {
             return messageWith(nullptr, {{"boundary", "b"}});
         },
         expectedPage("Request Body is corrupted or null")},
        {"no body stream and no boundary", [] { return messageWith(nullptr, {}); },
         expectedPage("Request Body is corrupted or null")},
        {"no boundary parameter", [&] { return makeUploadMessage(wellFormed, {}); },
         expectedPage("Malformed multipart request - boundary not defined")},
        {"boundary under another case",
         [&] {
             return makeUploadMessage(wellFormed, {{"Boundary", "b"}});
         },
         expectedPage("Malformed multipart request - boundary not defined")},
        {"malformed body: its text on the page",
         [&] {
             return makeUploadMessage(wellFormed, {{"boundary", "other"}});
         },
         expectedPage("Malformed multi-part request")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Answer answer = send(c.message());
        EXPECT_EQ(answer.status, 400);
        EXPECT_EQ(answer.body, c.page);
    }
    EXPECT_TRUE(files->writes().empty());
}

TEST_F(UploadEndToEnd, onlyRuntimeErrorsFromTheBodyStreamBecomePages) {
    auto broken = std::make_shared<ScriptedBody>("");
    broken->failure = [] { throw std::runtime_error("connection <reset>"); };
    Answer answer = send(messageWith(broken, {{"boundary", "b"}}));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, expectedPage("connection \\x3Creset>"));

    // Misuse, like a body stream that refuses the subscriber, is thrown to the caller, not
    // returned in the future.
    auto misused = std::make_shared<ScriptedBody>("");
    misused->failure = [] { throw std::invalid_argument("Only one subscription allowed."); };
    EXPECT_THROW(provider->processMessage(messageWith(misused, {{"boundary", "b"}}),
                                          Address("upload"), nullptr),
                 std::invalid_argument);
}

TEST_F(UploadEndToEnd, storesTheFilesKeepsTheCallersRequestAndMovesTheAnswerOut) {
    // A browser-shaped boundary, and content one dash short of the delimiter.
    const std::vector<FilePart> parts{{"a.txt", "\r\n--" + boundary.substr(1) + "\r\n"},
                                      {"b.txt", "hello"}};
    auto body = std::make_shared<ScriptedBody>(makeMultipartBody(boundary, parts));
    auto request =
        std::make_unique<HttpRequest>(body, HttpRequest::Parameters{{"boundary", boundary}});
    const HttpRequest* requestRaw = request.get();
    std::unique_ptr<Message> message = std::make_unique<HttpServiceMessage>(std::move(request));
    Message* messageRaw = message.get();

    auto future = provider->processMessage(std::move(message), Address("upload"), nullptr);

    ASSERT_EQ(message.get(), messageRaw) << "the message stays with the caller";
    const HttpRequest& kept = static_cast<HttpServiceMessage&>(*message).getRequest();
    EXPECT_EQ(&kept, requestRaw);
    EXPECT_EQ(kept.getBody(), body);
    EXPECT_EQ(kept.getParameters(), (HttpRequest::Parameters{{"boundary", boundary}}));
    EXPECT_EQ(body->subscriptions, 1);

    Answer answer = answerOf(std::move(future));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, expectedPage("SUCCESS"));
    const auto writes = files->writes();
    ASSERT_EQ(writes.size(), 2u);
    for (size_t i = 0; i < parts.size(); ++i) {
        EXPECT_EQ(ost::i18n::to_string(writes[i].path), cwd + "/" + parts[i].filename);
        EXPECT_EQ(writes[i].bytes, parts[i].content);
    }
    auto subscriber =
        std::dynamic_pointer_cast<kestrin::file_upload::v1::StreamSubscriberImpl<DataBuffer>>(
            body->subscriber);
    ASSERT_NE(subscriber, nullptr);
    EXPECT_EQ(subscriber->takeResponse(), nullptr) << "handle took the answer, not a copy";

    // An empty boundary value is used as given.
    answer = send(makeUploadMessage(makeMultipartBody("", {{"e.txt", "x"}}), {{"boundary", ""}}));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(files->paths().back(), cwd + "/e.txt");
}
