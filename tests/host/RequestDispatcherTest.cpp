#include "host/RequestDispatcher.h"

#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"
#include "reactive_streams/Subscriber.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace kestrin::host {
namespace {

std::string bytesOf(const common::DataBuffer& buffer) {
    if (buffer.getSize() == 0) {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(buffer.bytes()), buffer.getSize());
}

// Takes a request body stream in, the way the module's subscriber does.
class Collector final : public reactive_streams::SubscriberAPI<common::DataBuffer> {
public:
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        if (auto locked = subscription.lock()) {
            locked->request(1);
        }
    }
    void onComplete() override { completed = true; }
    Future<bool> getStatus() override { return makeReadyFuture(true); }
    void onNext(common::DataBuffer& item) override { bytes += bytesOf(item); }
    void onError(std::exception_ptr) override {}

    std::string bytes;
    bool completed = false;
};

// A service that refuses messages while not running, as every provider must, and otherwise
// records what reached handle and answers with whatever the test chose.
class FakeProvider final : public http::HttpServiceProvider {
public:
    struct Seen {
        bool hasBody = false;
        std::string body;
        std::optional<std::string> boundary;
        size_t parameterCount = 0;
    };

    void start() override {}
    void stop() override {}
    Future<std::unique_ptr<Message>> processMessage(std::unique_ptr<Message>&& message,
                                                    Address&& address,
                                                    std::shared_ptr<Context>&& context) override {
        if (!running) {
            return makeExceptionalFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("not running")));
        }
        auto& delivered = dynamic_cast<ServiceMessage<http::HttpServiceProvider>&>(*message);
        return delivered.dispatch(weakSelf.lock(), std::move(message), std::move(address),
                                  std::move(context));
    }
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&&,
                                            std::shared_ptr<Context>&&) override {
        seen = Seen{};
        if (auto stream = request->getBody()) {
            auto collector = std::make_shared<Collector>();
            stream->subscribe(collector);
            seen.hasBody = collector->completed;
            seen.body = collector->bytes;
        }
        const auto& parameters = request->getParameters();
        seen.parameterCount = parameters.size();
        if (const auto found = parameters.find("boundary"); found != parameters.end()) {
            seen.boundary = found->second;
        }
        return answer();
    }

    std::function<Future<std::unique_ptr<Message>>()> answer = [] {
        return http::makeReadyHttpResponse(200, "page");
    };
    Seen seen;
};

class RequestDispatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        provider = http::makeServiceProvider<FakeProvider>();
        provider->running = true;
        routes->addRoute("/users", Address("upload"));
        routes->addRoute("/orphan", Address("nobody"));
        dispatcher.addService(Address("upload"), provider);
    }

    Reply call(const std::string& body, std::optional<std::string> boundary) {
        return RequestDispatcher::callService(*provider, Address("upload"), std::move(boundary),
                                              common::DataBuffer(body));
    }

    std::shared_ptr<RouteTable> routes = std::make_shared<RouteTable>();
    RequestDispatcher dispatcher{routes};
    std::shared_ptr<FakeProvider> provider;
};

TEST_F(RequestDispatcherTest, routesTheDemoPageRoutedPathsAndEverythingElse) {
    using Kind = RequestDispatcher::Destination::Kind;
    struct Case {
        const char* method;
        const char* path;
        Kind kind;
    };
    const Case cases[] = {
        {"GET", "/", Kind::demoPage},       {"POST", "/", Kind::notFound},
        {"POST", "/users", Kind::service},  {"GET", "/users", Kind::service},
        {"PUT", "/users", Kind::service},   {"POST", "/users/", Kind::notFound},
        {"GET", "/orphan", Kind::notFound}, {"GET", "/index.html", Kind::notFound},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.path);
        const auto destination = dispatcher.route(c.method, c.path);
        EXPECT_EQ(destination.kind, c.kind);
        if (c.kind == Kind::service) {
            EXPECT_EQ(destination.provider, provider);
            EXPECT_EQ(destination.address, Address("upload"));
        }
    }
}

TEST_F(RequestDispatcherTest, attachesTheBodyOnlyWhenItHasBytesAndTheBoundaryOnlyWhenGiven) {
    Reply reply = call("--b\r\nbody", std::string("b"));
    EXPECT_EQ(reply.status, 200u);
    EXPECT_EQ(reply.contentType, "text/html; charset=utf-8");
    EXPECT_EQ(bytesOf(reply.body), "page");
    EXPECT_TRUE(provider->seen.hasBody);
    EXPECT_EQ(provider->seen.body, "--b\r\nbody");
    EXPECT_EQ(provider->seen.boundary, "b");

    call("", std::string(""));
    EXPECT_FALSE(provider->seen.hasBody);
    EXPECT_EQ(provider->seen.boundary, "");

    call("x", std::nullopt);
    EXPECT_TRUE(provider->seen.hasBody);
    EXPECT_EQ(provider->seen.parameterCount, 0u);
}

TEST_F(RequestDispatcherTest, sendsAStreamedPageAndTurnsFailuresIntoHostErrors) {
    struct Case {
        const char* name;
        std::function<Future<std::unique_ptr<Message>>()> answer;
        bool running;
        unsigned status;
        std::string body;
    };
    const Case cases[] = {
        {"page from a body stream",
         [] {
             std::shared_ptr<http::HttpResponse::Body> stream =
                 std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(
                     common::DataBuffer("streamed"));
             return makeReadyFuture<std::unique_ptr<Message>>(
                 std::make_unique<http::HttpResponse>(400, stream));
         },
         true, 400, "streamed"},
        {"service not running", nullptr, false, 503,
         "Service Unavailable: the upload service is not running\n"},
        {"exception out of handle",
         []() -> Future<std::unique_ptr<Message>> { throw std::invalid_argument("boom"); }, true,
         500, "Internal Server Error\n"},
        {"failed future while running",
         [] {
             return makeExceptionalFuture<std::unique_ptr<Message>>(
                 std::make_exception_ptr(std::runtime_error("failed")));
         },
         true, 500, "Internal Server Error\n"},
        {"answer that is no response",
         [] { return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<Message>()); },
         true, 500, "Internal Server Error\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.answer) {
            provider->answer = c.answer;
        }
        provider->running = c.running;
        const Reply reply = call("body", std::string("b"));
        EXPECT_EQ(reply.status, c.status);
        EXPECT_EQ(bytesOf(reply.body), c.body);
        EXPECT_EQ(reply.contentType.rfind(c.status == 400 ? "text/html" : "text/plain", 0), 0u);
    }
}

} // namespace
} // namespace kestrin::host
