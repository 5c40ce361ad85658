#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/DiskFileService.h"
#include "host/RequestDispatcher.h"
#include "tests/common/support/BytesOf.h"
#include "tests/host/support/UploadDirectoryTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace kestrin::host {
namespace {

using file_common::v1::File;
using file_common::v1::FileInfo;

// Passes writes on to the disk, except the chosen one: that one is refused before anything
// is written, or lets the disk fill up halfway through the file (a file size limit makes the
// real write fail with EFBIG), or is passed on too, for the disk to refuse as one file more
// than the request may store. The module calls it on the request's thread.
class FailingFileService final : public file::v1::FileService {
public:
    enum class Fault { refused, diskFullMidFile, overFileLimit };

    FailingFileService(std::shared_ptr<file::v1::FileService> disk, size_t failingWrite,
                       Fault failure)
        : inner(std::move(disk))
        , nth(failingWrite)
        , fault(failure) {}

    Future<FileInfo> writeFile(File&& file, bool overwrite) override {
        if (++count != nth || fault == Fault::overFileLimit) {
            return inner->writeFile(std::move(file), overwrite);
        }
        if (fault == Fault::refused) {
            return makeExceptionalFuture<FileInfo>(
                std::make_exception_ptr(std::runtime_error("No space left on device")));
        }
        rlimit saved{};
        ::getrlimit(RLIMIT_FSIZE, &saved);
        rlimit limited = saved;
        limited.rlim_cur = file.content.getSize() / 2;
        ::setrlimit(RLIMIT_FSIZE, &limited);
        try {
            FileInfo info = inner->writeFile(std::move(file), overwrite).get();
            ::setrlimit(RLIMIT_FSIZE, &saved);
            return makeReadyFuture(std::move(info));
        } catch (...) {
            ::setrlimit(RLIMIT_FSIZE, &saved);
            return makeExceptionalFuture<FileInfo>(std::current_exception());
        }
    }

private:
    std::shared_ptr<file::v1::FileService> inner;
    size_t nth;
    Fault fault;
    size_t count = 0;
};

// The module stores under the working directory, so each test works from the upload
// directory; a file written anywhere else shows up in root.
class UploadFaultTest : public UploadDirectoryTest {
protected:
    void SetUp() override {
        UploadDirectoryTest::SetUp();
        previous = std::filesystem::current_path();
        std::filesystem::current_path(uploads);
        // With a file size limit, an oversized write fails instead of killing the process.
        previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    }
    void TearDown() override {
        std::signal(SIGXFSZ, previousHandler);
        std::filesystem::current_path(previous);
        UploadDirectoryTest::TearDown();
    }

    std::filesystem::path previous;
    void (*previousHandler)(int) = SIG_DFL;
};

TEST_F(UploadFaultTest, aFailedWriteKeepsEarlierFilesWholeLeavesNoPartOfItAndNamesTheCause) {
    using file_upload::v1::MultipartUploadServiceImpl;
    using file_upload::v1::MultipartUploadServiceProvider;
    using Fault = FailingFileService::Fault;
    struct Part {
        std::string name;
        std::string bytes;
    };
    const std::vector<Part> parts = {
        {"first.bin", std::string(64 * 1024, 'a') + "\r\n--not-the-boundary\r\n"},
        {"second.bin", std::string(1 << 20, 'b')},
        {"third.bin", "c"},
    };
    std::string body;
    for (const Part& part : parts) {
        body += "--fault\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
                part.name + "\"\r\n\r\n" + part.bytes + "\r\n";
    }
    body += "--fault--\r\n";

    struct Case {
        size_t failingWrite;
        Fault fault;
        std::string message;
    };
    const Case cases[] = {
        {1, Fault::refused, "No space left on device"},
        {2, Fault::refused, "No space left on device"},
        {2, Fault::diskFullMidFile, "write failed: File too large"},
        {3, Fault::diskFullMidFile, "write failed: File too large"},
        {3, Fault::overFileLimit,
         "Refused file 'third.bin': this request already stored 2 files, the most one request "
         "may store"},
        {1, Fault::overFileLimit,
         "Refused file 'first.bin': this request already stored 0 files, the most one request "
         "may store"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("write " + std::to_string(c.failingWrite) + ": " + c.message);
        std::filesystem::remove_all(uploads);
        std::filesystem::create_directory(uploads);
        std::filesystem::current_path(uploads);
        auto disk = std::make_shared<DiskFileService>(uploads.string());
        auto provider = http::makeServiceProvider<MultipartUploadServiceProvider>(
            std::make_shared<FailingFileService>(disk, c.failingWrite, c.fault),
            std::make_shared<MultipartUploadServiceImpl>());
        provider->running = true;

        // As the server runs a request: the module writes on this thread, so the scope sees
        // its files.
        DiskFileService::RequestScope scope(
            *disk, c.fault == Fault::overFileLimit ? c.failingWrite - 1 : parts.size());
        const Reply reply = RequestDispatcher::callService(
            *provider, Address("uploads"), std::string("fault"), common::DataBuffer(body));
        scope.finish();

        EXPECT_EQ(reply.status, 400u);
        EXPECT_EQ(testing::bytesOf(reply.body),
                  "<html>\n<head>\n<script>\nparent.postMessage(\"" + c.message +
                      "\", \"*\");\n</script>\n</head>\n<body>\n</body>\n</html>\n");
        std::set<std::string> expected;
        for (size_t i = 0; i + 1 < c.failingWrite; ++i) {
            expected.insert(parts[i].name);
            EXPECT_EQ(contents(uploads / parts[i].name), parts[i].bytes);
        }
        EXPECT_EQ(names(uploads), expected);
        EXPECT_EQ(names(root), std::set<std::string>{"uploads"});
    }
}

} // namespace
} // namespace kestrin::host
