#include "reactive_streams/OneShotPublisher.h"

#include "common/DataBuffer.h"
#include "tests/common/support/BytesOf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::common::DataBuffer;
using kestrin::reactive_streams::OneShotPublisher;
using kestrin::reactive_streams::SubscriberAPI;
using kestrin::reactive_streams::Subscription;

namespace {

using Events = std::vector<std::string>;

// Logs every signal; each hook lets a test act from inside a signal.
class RecordingSubscriber : public SubscriberAPI<DataBuffer> {
public:
    void onSubscribe(std::weak_ptr<Subscription> given) override {
        events.push_back("subscribe");
        subscription = given;
        if (whenSubscribed) {
            whenSubscribed(*given.lock());
        }
    }
    void onComplete() override {
        events.push_back("complete");
        if (whenCompleted) {
            whenCompleted(*subscription.lock());
        }
    }
    kestrin::Future<bool> getStatus() override { return kestrin::makeReadyFuture(true); }
    void onNext(DataBuffer& item) override {
        events.push_back("next:" + kestrin::testing::bytesOf(item));
        if (whenNext) {
            whenNext(*subscription.lock());
        }
    }
    void onError(std::exception_ptr /*error*/) override { events.push_back("error"); }

    void request(uint64_t n) { subscription.lock()->request(n); }

    Events events;
    std::weak_ptr<Subscription> subscription;
    std::function<void(Subscription&)> whenSubscribed;
    std::function<void(Subscription&)> whenNext;
    std::function<void(Subscription&)> whenCompleted;
};

std::shared_ptr<OneShotPublisher<DataBuffer>> makePublisher(const std::string& text = "page") {
    return std::make_shared<OneShotPublisher<DataBuffer>>(DataBuffer(text));
}

const Events delivered{"subscribe", "next:page", "complete"};

} // namespace

TEST(OneShotPublisher, requestInsideOnSubscribeDeliversOnceBeforeSubscribeReturns) {
    for (const std::string text : {"page", ""}) {
        SCOPED_TRACE("item '" + text + "'");
        auto publisher = makePublisher(text);
        auto subscriber = std::make_shared<RecordingSubscriber>();
        // Requests from inside every signal must not lead to a second delivery.
        subscriber->whenSubscribed = [](Subscription& s) { s.request(1); };
        subscriber->whenNext = [](Subscription& s) { s.request(1); };
        subscriber->whenCompleted = [](Subscription& s) { s.request(1); };

        EXPECT_TRUE(publisher->getStatus().get());
        publisher->subscribe(subscriber);
        EXPECT_TRUE(publisher->getStatus().get());
        const Events once{"subscribe", "next:" + text, "complete"};
        EXPECT_EQ(subscriber->events, once);

        subscriber->request(1);
        subscriber->request(UINT64_MAX);
        EXPECT_EQ(subscriber->events, once) << "one item, one completion, whatever the demand";

        // The publisher owns the subscription and keeps its subscriber for its whole life.
        EXPECT_EQ(subscriber.use_count(), 2);
        publisher.reset();
        EXPECT_EQ(subscriber.use_count(), 1);
        EXPECT_TRUE(subscriber->subscription.expired());
    }
}

TEST(OneShotPublisher, laterRequestDeliversInsideThatCallOnlyOnceDemandIsNotZero) {
    auto publisher = makePublisher();
    auto subscriber = std::make_shared<RecordingSubscriber>();
    publisher->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, Events{"subscribe"}) << "no demand, no delivery";

    subscriber->request(0);
    EXPECT_EQ(subscriber->events, Events{"subscribe"}) << "request(0) adds no demand";

    subscriber->request(2);
    EXPECT_EQ(subscriber->events, delivered);
    subscriber->request(1);
    EXPECT_EQ(subscriber->events, delivered);
}

TEST(OneShotPublisher, cancelSilencesEverySignalForGood) {
    struct Case {
        const char* name;
        bool cancelInsideOnSubscribe;
    };
    for (const Case& c : {Case{"cancel after subscribe returned", false},
                          Case{"cancel inside onSubscribe", true}}) {
        SCOPED_TRACE(c.name);
        auto publisher = makePublisher();
        auto subscriber = std::make_shared<RecordingSubscriber>();
        if (c.cancelInsideOnSubscribe) {
            subscriber->whenSubscribed = [](Subscription& s) {
                s.cancel();
                s.request(1);
            };
        }
        publisher->subscribe(subscriber);
        if (!c.cancelInsideOnSubscribe) {
            subscriber->subscription.lock()->cancel();
        }
        subscriber->request(1);
        subscriber->request(5);
        EXPECT_EQ(subscriber->events, Events{"subscribe"})
            << "no onNext, no onComplete, no onError";
    }
}

TEST(OneShotPublisher, secondSubscriberIsRefusedForLifeAndGetsNoSignal) {
    for (bool afterDelivery : {false, true}) {
        SCOPED_TRACE(afterDelivery ? "after delivery" : "before any request");
        auto publisher = makePublisher();
        auto first = std::make_shared<RecordingSubscriber>();
        publisher->subscribe(first);
        if (afterDelivery) {
            first->request(1);
        }
        auto second = std::make_shared<RecordingSubscriber>();
        second->whenSubscribed = [](Subscription& s) { s.request(1); };
        try {
            publisher->subscribe(second);
            ADD_FAILURE() << "second subscribe did not throw";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "Only one subscription allowed.");
        }
        EXPECT_TRUE(second->events.empty());
        EXPECT_EQ(second.use_count(), 1) << "the refused subscriber is not kept";

        // The first subscriber is still the one the item goes to.
        first->request(1);
        EXPECT_EQ(first->events, delivered);
    }
}

TEST(OneShotPublisher, throwingOnNextEscapesTheDeliveringCallAndEndsTheStream) {
    for (bool fromOnSubscribe : {false, true}) {
        SCOPED_TRACE(fromOnSubscribe ? "request inside onSubscribe" : "request after subscribe");
        auto publisher = makePublisher();
        auto subscriber = std::make_shared<RecordingSubscriber>();
        subscriber->whenNext = [](Subscription&) { throw std::runtime_error("bad body"); };
        if (fromOnSubscribe) {
            subscriber->whenSubscribed = [](Subscription& s) { s.request(1); };
            EXPECT_THROW(publisher->subscribe(subscriber), std::runtime_error);
        } else {
            publisher->subscribe(subscriber);
            EXPECT_THROW(subscriber->request(1), std::runtime_error);
        }
        subscriber->whenNext = nullptr;
        subscriber->request(1);
        EXPECT_EQ(subscriber->events, (Events{"subscribe", "next:page"}))
            << "no completion, no error signal, no second delivery";
    }
}
