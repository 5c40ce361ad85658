// Uploads driven the way the framework drives them: a message in at processMessage, its
// request dispatched to handle, files out through a file service on its own thread, and the
// response's body read through its stream.
#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadRouteProvider.h"
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
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::Address;
using kestrin::Message;
using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadRouteProvider;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::file_upload::v1::MultipartUploadServiceProvider;
using kestrin::http::HttpRequest;
using kestrin::http::HttpResponse;
using kestrin::reactive_streams::PublisherAPI;
using kestrin::reactive_streams::SubscriberAPI;
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

// Written out here rather than taken from the module, so a wrong page cannot agree with
// itself.
std::string pageFor(const std::string& message) {
    return "<html>\n<head>\n<script>\nparent.postMessage(\"" + message +
           "\", \"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n";
}

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

// Routes as the framework's router would, by path to the address of a service.
class MapRouter : public kestrin::http::HttpRouter {
public:
    void addRoute(const std::string& path, const Address& target) override {
        routes[path] = target.getName();
    }
    void removeRoute(const std::string& path) override { routes.erase(path); }

    std::map<std::string, std::string> routes;
};

class UploadEndToEnd : public ::testing::Test {
protected:
    UploadEndToEnd()
        : files(std::make_shared<RecordingFileService>())
        , uploads(std::make_shared<MultipartUploadServiceImpl>())
        , provider(
              kestrin::http::makeServiceProvider<MultipartUploadServiceProvider>(files, uploads))
        , cwd(ost::i18n::to_string(ost::filesystem::get_current_path())) {
        provider->running = true;
    }

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

    std::vector<std::string> storedPaths() const { return files->paths(); }

    std::shared_ptr<RecordingFileService> files;
    std::shared_ptr<MultipartUploadServiceImpl> uploads;
    std::shared_ptr<MultipartUploadServiceProvider> provider;
    std::string cwd;
};

const std::string boundary = "----formdata7MA4YWxkTrZu0gW";

} // namespace

TEST_F(UploadEndToEnd, storesEveryPartByteForByteThroughEitherRoute) {
    auto router = std::make_shared<MapRouter>();
    MultipartUploadRouteProvider routes(router, Address("upload"));
    std::map<std::string, std::shared_ptr<MultipartUploadServiceProvider>> services{
        {"upload", provider}};

    // Everything a scanner could trip on: NUL, CR LF, dashes, and the delimiter but for its
    // last character.
    std::string binary("\0\x01\xff", 3);
    binary += "\r\n--" + boundary.substr(0, boundary.size() - 1) + "X\r\n\r\n--\r\n-";
    const std::string nonAscii = "Pr\xc3\xbc"
                                 "fbericht \xe2\x9c\x93.pdf";
    const std::vector<FilePart> parts{{"plain.txt", "hello"},
                                      {"binary.bin", binary},
                                      {nonAscii, "\r\nstarts and ends with CR LF\r\n"},
                                      {"empty.txt", ""}};

    for (const char* path : {"/users", "/ORVANE Drive"}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(router->routes.count(path), 1u);
        auto& target = services.at(router->routes.at(path));
        size_t before = files->writes().size();

        Answer answer = answerOf(
            target->processMessage(makeUploadMessage(makeMultipartBody(boundary, parts), boundary),
                                   Address("upload"), nullptr));

        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.body, pageFor("SUCCESS"));
        auto writes = files->writes();
        ASSERT_EQ(writes.size(), before + parts.size());
        for (size_t i = 0; i < parts.size(); ++i) {
            SCOPED_TRACE(parts[i].filename);
            EXPECT_EQ(ost::i18n::to_string(writes[before + i].path), cwd + "/" + parts[i].filename);
            EXPECT_EQ(writes[before + i].bytes, parts[i].content);
        }
    }
}

TEST_F(UploadEndToEnd, emptyBoundaryValueIsUsedAsGiven) {
    Answer answer = send(makeUploadMessage(makeMultipartBody("", {{"e.txt", "x"}}), ""));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(storedPaths(), std::vector<std::string>{cwd + "/e.txt"});
}

TEST_F(UploadEndToEnd, answersEachFailureWithItsPageAndStatus) {
    const std::string wellFormed = makeMultipartBody("b", {{"a.txt", "x"}});
    using Params = HttpRequest::Parameters;
    struct Case {
        const char* name;
        std::function<std::unique_ptr<Message>()> message;
        std::string page;
        size_t stored;
    };
    auto withoutBody = [](Params parameters) {
        return [parameters] {
            return std::unique_ptr<Message>(std::make_unique<HttpServiceMessage>(
                std::make_unique<HttpRequest>(nullptr, parameters)));
        };
    };
    auto upload = [](std::string body, Params parameters) {
        return [body, parameters] { return makeUploadMessage(body, parameters); };
    };
    const std::vector<Case> cases{
        {"no body stream", withoutBody({{"boundary", "b"}}),
         pageFor("Request Body is corrupted or null"), 0},
        {"no body stream and no boundary", withoutBody({}),
         pageFor("Request Body is corrupted or null"), 0},
        {"no boundary parameter", upload(wellFormed, {}),
         pageFor("Malformed multipart request - boundary not defined"), 0},
        {"boundary under another case", upload(wellFormed, {{"Boundary", "b"}}),
         pageFor("Malformed multipart request - boundary not defined"), 0},
        {"boundary absent from the body", upload(wellFormed, {{"boundary", "other"}}),
         pageFor("Malformed multi-part request"), 0},
        {"delimiter without a header block", upload("--b\r\nno blank line", {{"boundary", "b"}}),
         pageFor("Malformed multi-part request, no header fields found"), 0},
        {"part without a file name",
         upload("--b\r\nContent-Disposition: form-data; name=\"field\"\r\n\r\nvalue\r\n--b--\r\n",
                {{"boundary", "b"}}),
         pageFor("Malformed multi-part request, no file name found"), 0},
        {"truncated after the first part",
         upload(wellFormed.substr(0, wellFormed.size() - 7) +
                    "--b\r\nContent-Disposition: form-data; filename=\"lost.txt\"\r\n\r\nhal",
                {{"boundary", "b"}}),
         pageFor("Malformed multi-part request"), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        size_t before = files->writes().size();
        Answer answer = send(c.message());
        EXPECT_EQ(answer.status, 400);
        EXPECT_EQ(answer.body, c.page);
        EXPECT_EQ(files->writes().size(), before + c.stored);
    }
}

TEST_F(UploadEndToEnd, failedWriteKeepsEarlierFilesAndAnswersWithItsText) {
    files->failWrite(2, [] { return std::make_exception_ptr(std::runtime_error("disk full")); });
    Answer answer = send(makeUploadMessage(
        makeMultipartBody(boundary, {{"1.txt", "a"}, {"2.txt", "b"}, {"3.txt", "c"}}), boundary));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, pageFor("disk full"));
    EXPECT_EQ(storedPaths(), std::vector<std::string>{cwd + "/1.txt"});
}

TEST_F(UploadEndToEnd, onlyRuntimeErrorsFromTheBodyStreamBecomePages) {
    auto message = [](std::shared_ptr<ScriptedBody> body) {
        return std::unique_ptr<Message>(std::make_unique<HttpServiceMessage>(
            std::make_unique<HttpRequest>(body, HttpRequest::Parameters{{"boundary", "b"}})));
    };

    auto broken = std::make_shared<ScriptedBody>("");
    broken->failure = [] { throw std::runtime_error("connection reset"); };
    Answer answer = send(message(broken));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, pageFor("connection reset"));

    auto misused = std::make_shared<ScriptedBody>("");
    misused->failure = [] { throw std::invalid_argument("not a body"); };
    EXPECT_THROW(send(message(misused)), std::invalid_argument);

    // A body stream that was already taken refuses the upload's subscriber as misuse too.
    auto taken = std::make_shared<ScriptedBody>(makeMultipartBody("b", {{"a.txt", "x"}}));
    taken->subscribe(std::make_shared<kestrin::file_upload::v1::StreamSubscriberImpl<DataBuffer>>(
        files, uploads, "b"));
    size_t before = files->writes().size();
    EXPECT_THROW(send(message(taken)), std::invalid_argument);
    EXPECT_EQ(files->writes().size(), before);
}

TEST_F(UploadEndToEnd, callerKeepsItsRequestAndTheSubscribersAnswerIsMovedOut) {
    auto body = std::make_shared<ScriptedBody>(makeMultipartBody("b", {{"kept.txt", "x"}}));
    auto request = std::make_unique<HttpRequest>(body, HttpRequest::Parameters{{"boundary", "b"}});
    const HttpRequest* requestRaw = request.get();
    std::unique_ptr<Message> message = std::make_unique<HttpServiceMessage>(std::move(request));
    Message* messageRaw = message.get();

    auto future = provider->processMessage(std::move(message), Address("upload"), nullptr);

    ASSERT_EQ(message.get(), messageRaw) << "the message stays with the caller";
    const HttpRequest& kept = static_cast<HttpServiceMessage&>(*message).getRequest();
    EXPECT_EQ(&kept, requestRaw);
    EXPECT_EQ(kept.getBody(), body);
    EXPECT_EQ(kept.getParameters(), (HttpRequest::Parameters{{"boundary", "b"}}));
    EXPECT_EQ(body->subscriptions, 1);

    Answer answer = answerOf(std::move(future));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, pageFor("SUCCESS"));
    auto subscriber =
        std::dynamic_pointer_cast<kestrin::file_upload::v1::StreamSubscriberImpl<DataBuffer>>(
            body->subscriber);
    ASSERT_NE(subscriber, nullptr);
    EXPECT_EQ(subscriber->takeResponse(), nullptr) << "handle took the answer, not a copy";
}
