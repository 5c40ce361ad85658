// One provider driven from many threads at once, as the framework's service threads do.
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "file_upload/ResultPages.h"
#include "framework/HttpResponse.h"
#include "framework/Ost.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using kestrin::Address;
using kestrin::Message;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::file_upload::v1::MultipartUploadServiceProvider;
using kestrin::http::HttpResponse;
using kestrin::testing::FilePart;

namespace {

constexpr int threadCount = 8;
constexpr int requestsPerThread = 25;

// Distinct per file, with the bytes a scanner could trip on, and a length that varies.
std::string contentFor(const std::string& name) {
    std::string content = "begin " + name + "\r\n--\r\n";
    content.append(name.size() * 7 % 300, static_cast<char>(name.size()));
    return content + "\r\nend " + name;
}

} // namespace

TEST(ProviderConcurrency, everyFileOfEveryConcurrentUploadIsStoredOnceAndIntact) {
    auto files = std::make_shared<kestrin::testing::RecordingFileService>();
    auto provider = kestrin::http::makeServiceProvider<MultipartUploadServiceProvider>(
        files, std::make_shared<MultipartUploadServiceImpl>());
    provider->running = true;

    std::promise<void> startGate;
    std::shared_future<void> started = startGate.get_future().share();
    std::vector<std::vector<std::string>> failures(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            started.wait();
            for (int r = 0; r < requestsPerThread; ++r) {
                std::string tag = "t" + std::to_string(t) + "-r" + std::to_string(r);
                std::string boundary = "bound-" + tag;
                std::vector<FilePart> parts{{tag + "-a.bin", contentFor(tag + "-a.bin")},
                                            {tag + "-b.bin", contentFor(tag + "-b.bin")}};
                auto future = provider->processMessage(
                    kestrin::testing::makeUploadMessage(
                        kestrin::testing::makeMultipartBody(boundary, parts),
                        {{"boundary", boundary}}),
                    Address("upload"), nullptr);
                std::unique_ptr<Message> answer = future.get();
                auto* response = dynamic_cast<HttpResponse*>(answer.get());
                if (response == nullptr || response->getStatus() != 200 ||
                    kestrin::testing::bytesOf(response->takeBodyBytes()) !=
                        kestrin::file_upload::v1::successPage) {
                    failures[t].push_back(tag);
                }
            }
        });
    }
    startGate.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (int t = 0; t < threadCount; ++t) {
        EXPECT_TRUE(failures[t].empty())
            << "thread " << t << " got a wrong answer for " << failures[t].size() << " requests";
    }
    const std::string prefix = ost::i18n::to_string(ost::filesystem::get_current_path()) + "/";
    std::map<std::string, int> seen;
    for (const auto& write : files->writes()) {
        std::string name = ost::i18n::to_string(write.path).substr(prefix.size());
        ++seen[name];
        EXPECT_EQ(write.bytes, contentFor(name)) << name;
    }
    EXPECT_EQ(seen.size(), size_t{threadCount * requestsPerThread * 2});
    for (const auto& [name, count] : seen) {
        EXPECT_EQ(count, 1) << name;
    }
}
