#include "file_upload/StreamSubscriberImpl.h"

#include "common/DataBuffer.h"
#include "framework/HttpResponse.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::common::DataBuffer;
using kestrin::reactive_streams::Subscription;
using kestrin::testing::expectedPage;
using Subscriber = kestrin::file_upload::v1::StreamSubscriberImpl<DataBuffer>;

namespace {

// Records the demand it is given; delivers nothing.
class CountingSubscription : public Subscription {
public:
    void request(uint64_t n) override { requests.push_back(n); }
    void cancel() override { ++cancels; }

    std::vector<uint64_t> requests;
    int cancels = 0;
};

// The signals below never touch the body, so no services are needed.
std::shared_ptr<Subscriber> makeSubscriber() {
    return std::make_shared<Subscriber>(nullptr, nullptr, "XyZ");
}

} // namespace

TEST(StreamSubscriberImpl, firstOfCompleteAndErrorChoosesTheAnswer) {
    const std::string success = expectedPage("SUCCESS");
    const std::string internal = expectedPage("Internal Error");
    const struct {
        std::vector<std::string> signals;
        unsigned short status;
        const std::string& page;
    } cases[] = {
        {{"complete"}, 200, success},
        {{"error"}, 400, internal},
        {{"error", "complete"}, 400, internal},
        {{"complete", "error"}, 200, success},
        {{"complete", "complete"}, 200, success},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.signals));
        auto subscriber = makeSubscriber();
        for (const std::string& signal : c.signals) {
            if (signal == "complete") {
                subscriber->onComplete();
            } else {
                subscriber->onError(std::make_exception_ptr(std::runtime_error("stream broke")));
            }
        }
        auto response = subscriber->takeResponse();
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(response->getStatus(), c.status);
        ASSERT_NE(response->getBodyStream(), nullptr) << "the page travels as a stream";
        EXPECT_EQ(kestrin::testing::bytesOf(response->takeBodyBytes()), c.page)
            << "exactly the page, no NUL";
        EXPECT_EQ(subscriber->takeResponse(), nullptr) << "taking leaves nothing behind";
    }
}

TEST(StreamSubscriberImpl, asksForOneItemOnSubscribeUnlessCompletedAndAlwaysReportsReady) {
    // Only completion stops the request; a reported error does not.
    const struct {
        std::vector<std::string> before;
        std::vector<uint64_t> requests;
    } cases[] = {
        {{}, {1}},
        {{"error"}, {1}},
        {{"complete"}, {}},
        {{"error", "complete"}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.before));
        auto subscriber = makeSubscriber();
        for (const std::string& signal : c.before) {
            if (signal == "complete") {
                subscriber->onComplete();
            } else {
                subscriber->onError(nullptr);
            }
        }
        EXPECT_TRUE(subscriber->getStatus().get());
        auto subscription = std::make_shared<CountingSubscription>();
        subscriber->onSubscribe(subscription);
        EXPECT_EQ(subscription->requests, c.requests);
        EXPECT_EQ(subscription->cancels, 0);
        EXPECT_EQ(subscription.use_count(), 1) << "the subscription is not kept";
        EXPECT_TRUE(subscriber->getStatus().get());
    }

    // A subscription that is already gone is simply not asked.
    EXPECT_NO_THROW(makeSubscriber()->onSubscribe(std::weak_ptr<Subscription>()));
}
