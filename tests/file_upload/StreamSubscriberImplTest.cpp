#include "file_upload/StreamSubscriberImpl.h"

#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/ResultPages.h"
#include "framework/HttpResponse.h"
#include "framework/Ost.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadService;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::reactive_streams::PublisherAPI;
using kestrin::reactive_streams::SubscriberAPI;
using kestrin::reactive_streams::Subscription;
using kestrin::testing::bytesOf;
using kestrin::testing::RecordingFileService;
using Subscriber = kestrin::file_upload::v1::StreamSubscriberImpl<DataBuffer>;

namespace {

std::shared_ptr<Subscriber> makeSubscriber(std::shared_ptr<MultipartUploadService> uploads,
                                           const std::string& boundary = "XyZ") {
    return std::make_shared<Subscriber>(nullptr, std::move(uploads), boundary);
}

// Counts the requests made on it; delivers nothing.
class CountingSubscription : public Subscription {
public:
    void request(uint64_t n) override { requests.push_back(n); }
    void cancel() override { ++cancels; }

    std::vector<uint64_t> requests;
    int cancels = 0;
};

// An upload service whose boundary search records the marker it is given and finds nothing,
// so the pipeline stops at once with "Malformed multi-part request".
class MarkerRecordingService : public MultipartUploadService {
public:
    void parseHeaders(DataBuffer&, std::map<std::string, std::string>&, size_t, size_t) override {}
    void writeFileToDisk(std::shared_ptr<kestrin::file::v1::FileService>, DataBuffer&,
                         std::u16string) override {}
    std::tuple<size_t, size_t, bool> findBoundaryMarkerIndex(size_t, DataBuffer&,
                                                             DataBuffer marker) override {
        markers.push_back(bytesOf(marker));
        return {SIZE_MAX, SIZE_MAX, false};
    }
    std::tuple<size_t, bool> findHeaderFieldsIndex(size_t, DataBuffer&, DataBuffer) override {
        return {SIZE_MAX, false};
    }
    void extractDataFromRequest(size_t, size_t, DataBuffer&, DataBuffer&) override {}
    std::shared_ptr<MultipartUploadService> getPtr() override { return nullptr; }

    std::vector<std::string> markers;
};

// A body stream that honours demand: one item per unit of demand, then completion.
class SplitPublisher : public PublisherAPI<DataBuffer>,
                       public Subscription,
                       public std::enable_shared_from_this<SplitPublisher> {
public:
    explicit SplitPublisher(std::vector<std::string> parts) {
        for (const std::string& part : parts) {
            items.emplace_back(part);
        }
    }
    kestrin::Future<bool> getStatus() override { return kestrin::makeReadyFuture(true); }
    void subscribe(std::shared_ptr<SubscriberAPI<DataBuffer>> newSubscriber) override {
        subscriber = std::move(newSubscriber);
        subscriber->onSubscribe(std::shared_ptr<Subscription>(shared_from_this()));
    }
    void request(uint64_t n) override {
        requests.push_back(n);
        demand += n;
        while (demand > 0 && next < items.size()) {
            --demand;
            subscriber->onNext(items[next++]);
        }
        if (next == items.size() && !completed) {
            completed = true;
            subscriber->onComplete();
        }
    }
    void cancel() override {}

    std::vector<uint64_t> requests;

private:
    std::vector<DataBuffer> items;
    std::shared_ptr<SubscriberAPI<DataBuffer>> subscriber;
    size_t next = 0;
    uint64_t demand = 0;
    bool completed = false;
};

} // namespace

TEST(StreamSubscriberImpl, firstOfCompleteAndErrorChoosesTheAnswer) {
    struct Case {
        const char* name;
        std::vector<const char*> signals;
        unsigned short status;
        const std::string& page;
    };
    const std::vector<Case> cases{
        {"complete", {"complete"}, 200, kestrin::file_upload::v1::successPage},
        {"error", {"error"}, 400, kestrin::file_upload::v1::internalErrorPage},
        {"error then complete",
         {"error", "complete"},
         400,
         kestrin::file_upload::v1::internalErrorPage},
        {"complete then error", {"complete", "error"}, 200, kestrin::file_upload::v1::successPage},
        {"complete twice", {"complete", "complete"}, 200, kestrin::file_upload::v1::successPage},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto subscriber = makeSubscriber(std::make_shared<MarkerRecordingService>());
        for (const std::string signal : c.signals) {
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
        EXPECT_EQ(bytesOf(response->takeBodyBytes()), c.page) << "exactly the page, no NUL";
        EXPECT_THROW(response->takeBodyBytes(), std::invalid_argument) << "a one-shot body";

        EXPECT_EQ(subscriber->takeResponse(), nullptr) << "taking leaves nothing behind";
        // Once taken, a later completion answers afresh.
        subscriber->onComplete();
        auto again = subscriber->takeResponse();
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(again->getStatus(), 200);
    }
}

TEST(StreamSubscriberImpl, asksForOneItemOnSubscribeAndNothingOnceCompleted) {
    auto subscriber = makeSubscriber(std::make_shared<MarkerRecordingService>());
    auto subscription = std::make_shared<CountingSubscription>();
    subscriber->onSubscribe(subscription);
    EXPECT_EQ(subscription->requests, std::vector<uint64_t>{1});
    EXPECT_EQ(subscription.use_count(), 1) << "the subscription is not kept";

    subscriber->onComplete();
    auto late = std::make_shared<CountingSubscription>();
    subscriber->onSubscribe(late);
    EXPECT_TRUE(late->requests.empty());
    EXPECT_EQ(late->cancels + subscription->cancels, 0);

    // A subscription that is already gone is simply not asked.
    auto fresh = makeSubscriber(std::make_shared<MarkerRecordingService>());
    EXPECT_NO_THROW(fresh->onSubscribe(std::weak_ptr<Subscription>()));
    EXPECT_TRUE(fresh->getStatus().get());
}

TEST(StreamSubscriberImpl, searchesForCrLfDashDashBoundaryAndSkipsEmptyBodies) {
    const std::string longBoundary(70, 'b');
    struct Case {
        std::string boundary;
        std::string marker;
    };
    for (const Case& c : {Case{"abc", "\r\n--abc"}, Case{"", "\r\n--"},
                          Case{longBoundary, "\r\n--" + longBoundary}}) {
        SCOPED_TRACE("boundary '" + c.boundary + "'");
        auto uploads = std::make_shared<MarkerRecordingService>();
        auto subscriber = makeSubscriber(uploads, c.boundary);

        DataBuffer empty;
        EXPECT_NO_THROW(subscriber->onNext(empty));
        EXPECT_TRUE(uploads->markers.empty()) << "an empty body is not scanned";

        DataBuffer body("no delimiter in here");
        try {
            subscriber->onNext(body);
            ADD_FAILURE() << "a body without its boundary was accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Malformed multi-part request");
        }
        EXPECT_EQ(uploads->markers, std::vector<std::string>{c.marker});
        EXPECT_EQ(subscriber->takeResponse(), nullptr) << "a failed body sets no answer";
    }
}

TEST(StreamSubscriberImpl, takesOnlyTheFirstItemOfABodySplitOverTwo) {
    auto files = std::make_shared<RecordingFileService>();
    auto subscriber =
        std::make_shared<Subscriber>(files, std::make_shared<MultipartUploadServiceImpl>(), "XyZ");
    auto body = std::make_shared<SplitPublisher>(std::vector<std::string>{
        kestrin::testing::makeMultipartBody("XyZ", {{"first.txt", "one"}}),
        kestrin::testing::makeMultipartBody("XyZ", {{"second.txt", "two"}})});

    body->subscribe(subscriber);

    EXPECT_EQ(body->requests, std::vector<uint64_t>{1});
    std::string cwd = ost::i18n::to_string(ost::filesystem::get_current_path());
    EXPECT_EQ(files->paths(), std::vector<std::string>{cwd + "/first.txt"});
    EXPECT_EQ(subscriber->takeResponse(), nullptr) << "the stream never completed";
}
