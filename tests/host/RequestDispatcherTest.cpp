#include "host/RequestDispatcher.h"

#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"
#include "reactive_streams/Subscriber.h"
#include "tests/common/support/BytesOf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrin::host {
namespace {

using Answer = std::function<Future<std::unique_ptr<Message>>()>;

// A service that refuses messages while not running, as every provider must, and otherwise
// answers with whatever the test chose. How bodies and boundaries reach the real module is
// checked end to end; here are the failures the module never produces.
class FakeProvider final : public http::HttpServiceProvider {
public:
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
        if (keepBody) {
            keptBody = request->getBody();
        }
        return answer();
    }

    Answer answer;
    bool keepBody = false;
    std::shared_ptr<http::HttpRequest::Body> keptBody;
};

// What a subscriber receives from a body stream.
std::string readStream(http::HttpRequest::Body& stream) {
    struct Reader final : reactive_streams::SubscriberAPI<common::DataBuffer> {
        void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
            subscription.lock()->request(1);
        }
        void onNext(common::DataBuffer& item) override { text = testing::bytesOf(item); }
        void onError(std::exception_ptr) override {}
        void onComplete() override {}
        Future<bool> getStatus() override { return makeReadyFuture(true); }
        std::string text;
    };
    auto reader = std::make_shared<Reader>();
    stream.subscribe(reader);
    return reader->text;
}

TEST(RequestDispatcher, routesOnlyRoutedPathsWithAServiceAndTheDemoPage) {
    auto provider = http::makeServiceProvider<FakeProvider>();
    auto routes = std::make_shared<RouteTable>();
    routes->addRoute("/users", Address("upload"));
    routes->addRoute("/orphan", Address("nobody"));
    RequestDispatcher dispatcher(routes);
    dispatcher.addService(Address("upload"), provider);
    using Kind = RequestDispatcher::Destination::Kind;
    const std::tuple<const char*, const char*, Kind> cases[] = {
        {"GET", "/", Kind::demoPage},       {"POST", "/", Kind::notFound},
        {"PUT", "/users", Kind::service},   {"POST", "/users/", Kind::notFound},
        {"GET", "/orphan", Kind::notFound},
    };
    for (const auto& [method, path, kind] : cases) {
        SCOPED_TRACE(std::string(method) + " " + path);
        const auto destination = dispatcher.route(method, path);
        EXPECT_EQ(destination.kind, kind);
        if (kind == Kind::service) {
            EXPECT_EQ(destination.provider, provider);
            EXPECT_EQ(destination.address, Address("upload"));
        }
    }
}

TEST(RequestDispatcher, sendsAStreamedPageAndTurnsFailuresIntoHostErrors) {
    const std::string internalError = "Internal Server Error\n";
    struct Case {
        const char* name;
        Answer answer;
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
         500, internalError},
        {"failed future while running",
         [] {
             return makeExceptionalFuture<std::unique_ptr<Message>>(
                 std::make_exception_ptr(std::runtime_error("failed")));
         },
         true, 500, internalError},
        {"status that fits no status line",
         [] { return http::makeReadyHttpResponse(1000, "page"); }, true, 500, internalError},
        {"answer that is no response",
         [] { return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<Message>()); },
         true, 500, internalError},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto provider = http::makeServiceProvider<FakeProvider>();
        provider->answer = c.answer;
        provider->running = c.running;
        const Reply reply = RequestDispatcher::callService(
            *provider, Address("upload"), std::string("b"), common::DataBuffer("body"));
        EXPECT_EQ(reply.status, c.status);
        EXPECT_EQ(testing::bytesOf(reply.body), c.body);
        EXPECT_EQ(reply.contentType.rfind(c.status == 400 ? "text/html" : "text/plain", 0), 0u);
    }
}

TEST(RequestDispatcher, handsTheBodyBackOnlyOnceTheServiceHasLetGoOfIt) {
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails ? "service failed" : "service answered");
        auto provider = http::makeServiceProvider<FakeProvider>();
        provider->running = true;
        provider->answer = [fails]() -> Future<std::unique_ptr<Message>> {
            if (fails) {
                throw std::runtime_error("failed");
            }
            return http::makeReadyHttpResponse(200, "page");
        };
        common::DataBuffer body("body bytes");
        const uint8_t* storage = body.bytes();
        common::DataBuffer returned;
        RequestDispatcher::callService(*provider, Address("upload"), std::nullopt, std::move(body),
                                       &returned);
        EXPECT_EQ(returned.bytes(), storage);
        EXPECT_EQ(returned.getSize(), 10u);
    }

    // A service that still holds the stream may still read it: the bytes stay where they are.
    auto provider = http::makeServiceProvider<FakeProvider>();
    provider->running = true;
    provider->keepBody = true;
    provider->answer = [] { return http::makeReadyHttpResponse(200, "page"); };
    common::DataBuffer returned;
    RequestDispatcher::callService(*provider, Address("upload"), std::nullopt,
                                   common::DataBuffer("body bytes"), &returned);
    EXPECT_EQ(returned.bytes(), nullptr);
    ASSERT_NE(provider->keptBody, nullptr);
    EXPECT_EQ(readStream(*provider->keptBody), "body bytes");
}

// Each reason is a series of its own in the metrics, named as a Prometheus label value should
// be; a reason that borrowed another's name would count its refusals there.
TEST(RequestDispatcher, eachRefusalHasAMetricsNameOfItsOwn) {
    std::set<std::string_view> names;
    for (int value = 1; value < 64; ++value) {
        const std::string_view name = refusalLabel(static_cast<Refusal>(value));
        if (name == "other") {
            break;
        }
        SCOPED_TRACE(name);
        EXPECT_TRUE(std::all_of(name.begin(), name.end(),
                                [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; }));
        EXPECT_TRUE(names.insert(name).second);
    }
    EXPECT_EQ(names.count("none"), 0u);
    EXPECT_EQ(names.size(), static_cast<std::size_t>(Refusal::tlsHandshakes));
}

} // namespace
} // namespace kestrin::host
