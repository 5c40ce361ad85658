#include "file_upload/MultipartUploadServiceImpl.h"

#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <unistd.h>

using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using Headers = std::map<std::string, std::string>;

// The scans are held against plain ones on many bodies in MultipartScanDifferentialTest; the
// cases here pin the edges by hand, so that a fault shared with the plain scans shows too.
TEST(MultipartUploadServiceImpl, scansFindMarkersAndBlankLinesAtTheEdges) {
    using BoundaryMatch = std::tuple<size_t, size_t, bool>;
    const BoundaryMatch none{SIZE_MAX, SIZE_MAX, false};
    MultipartUploadServiceImpl service;
    const struct {
        std::string body;
        size_t start;
        BoundaryMatch expected;
    } markers[] = {
        {"--xyz!!", 0, BoundaryMatch(0, 5, true)},     // the first boundary has no CR LF
        {"abc--xyz", 0, none},                         // short form in the last two positions
        {"ab\r\n--xyz", 0, BoundaryMatch(2, 9, true)}, // whole marker as the last bytes
        {"ab\r\n--xyz", 3, none},
        {"\r\n--xyz..", 1, BoundaryMatch(2, 7, true)}, // the CR LF lies before start
        {"\r--xyz..", 0, BoundaryMatch(1, 6, true)},   // half a line break
        {"\r\n--XYZ--xyz", 0, none},                   // case matters
    };
    for (const auto& c : markers) {
        SCOPED_TRACE(testing::PrintToString(c.body) + " from " + std::to_string(c.start));
        DataBuffer body(c.body);
        EXPECT_EQ(service.findBoundaryMarkerIndex(c.start, body, DataBuffer("\r\n--xyz")),
                  c.expected);
    }

    using HeaderEnd = std::tuple<size_t, bool>;
    const struct {
        std::string body;
        size_t start;
        HeaderEnd expected;
    } blankLines[] = {
        {"ab\r\n\r\n", 0, HeaderEnd(SIZE_MAX - 1, false)}, // needs a byte after it
        {"ab\r\n\r\nc", 0, HeaderEnd(2, true)},
        {"ab\r\n\r\nc", 4, HeaderEnd(SIZE_MAX, false)}, // start past size - 4
        {"\r\n\r\r\n\r\n\r\n", 0, HeaderEnd(3, true)},
    };
    for (const auto& c : blankLines) {
        SCOPED_TRACE(testing::PrintToString(c.body) + " from " + std::to_string(c.start));
        DataBuffer body(c.body);
        EXPECT_EQ(service.findHeaderFieldsIndex(c.start, body, DataBuffer("\r\n\r\n")), c.expected);
    }
}

TEST(MultipartUploadServiceImpl, parsesEveryFieldShapeTheSameOldWay) {
    MultipartUploadServiceImpl service;
    const struct {
        std::string block;
        Headers expected;
    } cases[] = {
        {"\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"report.pdf\"\r\n"
         "Content-Type: application/pdf",
         {{"name", "upload"},
          {"filename", "report.pdf"},
          {"Content-Type: application/pdf", "Content-Type: application/pd"}}},
        {"content-disposition: form-data",
         {{"content-disposition: form-data", "content-disposition: form-dat"}}},
        {"x-Content-Disposition-y=1; filename=z", {{"filename", "z"}}},
        {"filename=\"x=y.txt\"", {{"filename", "x=y.txt"}}},
        {"filename=\"a;b.txt\"", {{"filename", "a"}, {"b.txt", "b.txt"}}},
        {"FILENAME=\"c.txt\"", {{"FILENAME", "c.txt"}}},
        {"=abc", {{"", "abc"}}},
        {"filename=\"a.txt\t\"", {{"filename", "a.txt\t"}}},
        {"filename=  \" spaced name \"  ", {{"filename", " spaced name "}}},
        {" \"file\"name\" = a\"b\"c ", {{"filename", "abc"}}},
        {"name=a\rfilename=b\n\nsize=3", {{"name", "a"}, {"filename", "b"}, {"size", "3"}}},
        {"name=a;  ;", {{"name", "a"}, {"", ""}}},
        {"\r\n\r\n\n\r", {}},
        {"filename=one; filename=two", {{"filename", "two"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.block));
        // Bytes around the block must not leak into it.
        DataBuffer body("--b" + c.block + "\r\n\r\nPDF");
        Headers headers;
        service.parseHeaders(body, headers, 3, c.block.size());
        EXPECT_EQ(headers, c.expected);
    }

    // Entries are only added or replaced: a later block without a filename keeps the old one.
    Headers headers{{"filename", "report.pdf"}};
    DataBuffer second("Content-Disposition: form-data; name=\"other\"");
    service.parseHeaders(second, headers, 0, second.getSize());
    EXPECT_EQ(headers, (Headers{{"filename", "report.pdf"}, {"name", "other"}}));
}

namespace {

// A file service that hands back a future without a state.
class StatelessFileService : public kestrin::file::v1::FileService {
public:
    kestrin::Future<kestrin::file_common::v1::FileInfo>
    writeFile(kestrin::file_common::v1::File&& /*file*/, bool /*overwrite*/) override {
        return kestrin::Future<kestrin::file_common::v1::FileInfo>(nullptr);
    }
};

} // namespace

TEST(MultipartUploadServiceImpl, writeFileToDiskEmptiesTheBufferWhateverTheOutcome) {
    MultipartUploadServiceImpl service;
    auto files = std::make_shared<kestrin::testing::RecordingFileService>();
    files->failWrite(2, [] { return std::make_exception_ptr(std::runtime_error("disk full")); });

    DataBuffer stored("line\r\n\r\n");
    service.writeFileToDisk(files, stored, u"/srv/a.txt");
    EXPECT_EQ(stored.getCapacity(), 0u);
    ASSERT_EQ(files->writes().size(), 1u);
    EXPECT_EQ(files->writes()[0].path, u"/srv/a.txt");
    EXPECT_EQ(files->writes()[0].bytes, "line\r\n\r\n");
    EXPECT_TRUE(files->writes()[0].overwrite) << "an upload replaces a file of the same name";

    const struct {
        std::shared_ptr<kestrin::file::v1::FileService> files;
        const char* error;
    } failures[] = {{files, "disk full"},
                    {std::make_shared<StatelessFileService>(), "Future state isn't valid!"}};
    for (const auto& c : failures) {
        SCOPED_TRACE(c.error);
        DataBuffer refused("xyz");
        try {
            service.writeFileToDisk(c.files, refused, u"/srv/b.txt");
            ADD_FAILURE() << "the failed write did not throw";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), c.error);
        }
        EXPECT_EQ(refused.getCapacity(), 0u);
    }
    EXPECT_EQ(files->writes().size(), 1u);
}

TEST(MultipartUploadServiceImpl, getPtrSharesOwnershipWithTheExistingOwners) {
    auto service = std::make_shared<MultipartUploadServiceImpl>();
    std::shared_ptr<kestrin::file_upload::v1::MultipartUploadService> same = service->getPtr();
    EXPECT_EQ(same.get(), service.get());
    EXPECT_EQ(service.use_count(), 2);
    EXPECT_FALSE(same.owner_before(service) || service.owner_before(same)) << "one control block";

    MultipartUploadServiceImpl unowned;
    EXPECT_THROW(unowned.getPtr(), std::bad_weak_ptr);
}

// In a child process under an alarm, so that a loop which never ends fails instead of hanging.
// Both an empty buffer, as the pipeline passes it, and one already holding bytes.
TEST(MultipartUploadServiceImplDeathTest, extractionWithStartAfterEndFailsInsteadOfSpinning) {
    EXPECT_EXIT(
        {
            ::alarm(20);
            MultipartUploadServiceImpl service;
            DataBuffer request("0123456789");
            for (const char* before : {"", "kept"}) {
                DataBuffer data(before);
                try {
                    service.extractDataFromRequest(5, 3, request, data);
                    std::_Exit(1);
                } catch (const std::runtime_error& error) {
                    if (std::string(error.what()) != "Out of memory!" ||
                        data.getSize() != std::string(before).size() ||
                        (data.getSize() > 0 && data[0] != 'k')) {
                        std::_Exit(2);
                    }
                }
            }
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}
