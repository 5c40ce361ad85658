#include "file_upload/MultipartUploadServiceImpl.h"

#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::testing::bytesOf;
using Headers = std::map<std::string, std::string>;

namespace {

using BoundaryMatch = std::tuple<size_t, size_t, bool>;
using HeaderEnd = std::tuple<size_t, bool>;
constexpr BoundaryMatch noBoundary{SIZE_MAX, SIZE_MAX, false};

DataBuffer buffer(const std::string& text) {
    return DataBuffer(text);
}

} // namespace

TEST(MultipartUploadServiceImpl, scansTakeTheUsualBodyApart) {
    MultipartUploadServiceImpl service;
    const std::string text = "--xyz\r\nContent-Disposition: form-data; name=f; filename=a.txt"
                             "\r\n\r\nDATA\r\n--xyz--\r\n";
    DataBuffer body = buffer(text);
    const DataBuffer marker("\r\n--xyz");

    // The first boundary has no line break before it: only the short form can match.
    EXPECT_EQ(service.findBoundaryMarkerIndex(0, body, marker), BoundaryMatch(0, 5, true));
    const size_t blankLine = 7 + std::string("Content-Disposition: form-data; name=f; "
                                             "filename=a.txt")
                                     .size();
    ASSERT_EQ(service.findHeaderFieldsIndex(5, body, DataBuffer("\r\n\r\n")),
              HeaderEnd(blankLine, true));
    const size_t closing = blankLine + 4 + 4;
    ASSERT_EQ(service.findBoundaryMarkerIndex(blankLine + 4, body, marker),
              BoundaryMatch(closing, closing + 7, true));
    DataBuffer content;
    service.extractDataFromRequest(blankLine + 4, closing, body, content);
    EXPECT_EQ(bytesOf(content), "DATA");
    EXPECT_EQ(body[closing + 7], '-');
    EXPECT_EQ(body[closing + 8], '-');
    EXPECT_EQ(bytesOf(body), text);
}

TEST(MultipartUploadServiceImpl, boundarySearchNearTheEndAndWithoutMatch) {
    MultipartUploadServiceImpl service;
    const DataBuffer marker("\r\n--xyz");
    struct Case {
        std::string body;
        size_t start;
        BoundaryMatch expected;
    };
    const Case cases[] = {
        {"", 0, noBoundary},
        {"--x", 0, noBoundary},
        {"0123456789", 4, noBoundary}, // start beyond size - 7
        {"abc--xyz", 0, noBoundary},   // short form in the last two positions
        {"ab--xyz", 0, noBoundary},
        {"a--xyz!", 0, noBoundary},
        {"--xyz!!", 0, BoundaryMatch(0, 5, true)},
        {"ab\r\n--xyz", 0, BoundaryMatch(2, 9, true)}, // whole marker as the last bytes
        {"ab\r\n--xyz", 2, BoundaryMatch(2, 9, true)},
        {"ab\r\n--xyz", 3, noBoundary},
        {"\r\n--xyz..", 1, BoundaryMatch(2, 7, true)}, // the CR LF lies before start
        {"\r\n--xyz..", 2, BoundaryMatch(2, 7, true)},
        {"\r--xyz..", 0, BoundaryMatch(1, 6, true)},   // half a line break
        {"\n\r--xyz..", 0, BoundaryMatch(2, 7, true)}, // reversed line break
        {"--xy\r\n--xyz", 0, BoundaryMatch(4, 11, true)},
        {"---xyz---", 0, BoundaryMatch(1, 6, true)},
        {"\r\n--XYZ--xyz", 0, noBoundary}, // case matters; short form too close to the end
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.body) + " from " + std::to_string(c.start));
        DataBuffer body = buffer(c.body);
        EXPECT_EQ(service.findBoundaryMarkerIndex(c.start, body, marker), c.expected);
    }
}

TEST(MultipartUploadServiceImpl, headerSearchNeedsOneByteAfterTheBlankLine) {
    MultipartUploadServiceImpl service;
    struct Case {
        std::string body;
        size_t start;
        HeaderEnd expected;
    };
    const Case cases[] = {
        {"", 0, HeaderEnd(SIZE_MAX, false)},
        {"ab\r\n\r\n", 0, HeaderEnd(SIZE_MAX - 1, false)}, // the last four bytes
        {"ab\r\n\r\nc", 0, HeaderEnd(2, true)},
        {"ab\r\n\r\nc", 2, HeaderEnd(2, true)},
        {"ab\r\n\r\nc", 3, HeaderEnd(SIZE_MAX - 1, false)},
        {"ab\r\n\r\nc", 4, HeaderEnd(SIZE_MAX, false)}, // start past size - 4
        {"\r\n\r\r\n\r\n\r\n", 0, HeaderEnd(3, true)},
        {"\n\r\n\r\nx", 0, HeaderEnd(1, true)},
        {"\r\n\n\r\n\r\r\nx", 0, HeaderEnd(SIZE_MAX - 1, false)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.body) + " from " + std::to_string(c.start));
        DataBuffer body = buffer(c.body);
        EXPECT_EQ(service.findHeaderFieldsIndex(c.start, body, DataBuffer("\r\n\r\n")), c.expected);
    }
    // Only the terminator's size counts, not its bytes.
    DataBuffer body = buffer("ab\r\n\r\nc");
    EXPECT_EQ(service.findHeaderFieldsIndex(0, body, DataBuffer("wxyz")), HeaderEnd(2, true));
    EXPECT_EQ(service.findHeaderFieldsIndex(0, body, DataBuffer("123456")),
              HeaderEnd(SIZE_MAX - 1, false));
}

TEST(MultipartUploadServiceImpl, scansGiveTheBodyEightBytesOfStorage) {
    MultipartUploadServiceImpl service;
    DataBuffer empty;
    EXPECT_EQ(service.findBoundaryMarkerIndex(0, empty, DataBuffer("\r\n--xyz")), noBoundary);
    EXPECT_EQ(empty.getCapacity(), 8u);
    EXPECT_EQ(empty.getSize(), 0u);

    DataBuffer alsoEmpty;
    EXPECT_EQ(service.findHeaderFieldsIndex(0, alsoEmpty, DataBuffer("\r\n\r\n")),
              HeaderEnd(SIZE_MAX, false));
    EXPECT_EQ(alsoEmpty.getCapacity(), 8u);

    // Capacity 5 doubles to 10, even when the start alone rules out a match.
    DataBuffer small("--xyz");
    EXPECT_EQ(service.findBoundaryMarkerIndex(100, small, DataBuffer("\r\n--xyz")), noBoundary);
    EXPECT_EQ(small.getCapacity(), 10u);
    EXPECT_EQ(bytesOf(small), "--xyz");
}

TEST(MultipartUploadServiceImpl, extractionCopiesTheRangeAsIfByteByByte) {
    MultipartUploadServiceImpl service;
    DataBuffer request("0123456789");
    DataBuffer none;
    service.extractDataFromRequest(3, 3, request, none);
    EXPECT_EQ(none.getCapacity(), 0u);
    EXPECT_EQ(none.getSize(), 0u);

    const struct {
        size_t start;
        size_t end;
        size_t capacity;
    } cases[] = {{2, 3, 1}, {2, 4, 2}, {0, 4, 4}, {2, 7, 8}, {1, 10, 16}, {0, 8, 8}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + ".." + std::to_string(c.end));
        DataBuffer data;
        service.extractDataFromRequest(c.start, c.end, request, data);
        EXPECT_EQ(bytesOf(data), std::string("0123456789").substr(c.start, c.end - c.start));
        EXPECT_EQ(data.getCapacity(), c.capacity);
    }
    // A buffer that already held bytes keeps them at the front and ends at the range's size.
    DataBuffer used("abc");
    service.extractDataFromRequest(0, 5, request, used);
    EXPECT_EQ(bytesOf(used), "abc01");
    EXPECT_EQ(used.getCapacity(), 12u);
}

TEST(MultipartUploadServiceImpl, parsesTheUsualHeaderBlock) {
    MultipartUploadServiceImpl service;
    const std::string block = "\r\nContent-Disposition: form-data; name=\"upload\"; "
                              "filename=\"report.pdf\"\r\nContent-Type: application/pdf";
    // Bytes around the block must not leak into it.
    DataBuffer body = buffer("--b" + block + "\r\n\r\nPDF");
    Headers headers;
    service.parseHeaders(body, headers, 3, block.size());
    EXPECT_EQ(headers,
              (Headers{{"name", "upload"},
                       {"filename", "report.pdf"},
                       {"Content-Type: application/pdf", "Content-Type: application/pd"}}));

    // Entries are only added or replaced: a later block without a filename keeps the old one.
    DataBuffer second = buffer("\r\nContent-Disposition: form-data; name=\"other\"");
    service.parseHeaders(second, headers, 0, second.getSize());
    EXPECT_EQ(headers["filename"], "report.pdf");
    EXPECT_EQ(headers["name"], "other");

    DataBuffer empty;
    service.parseHeaders(empty, headers, 0, 0);
    EXPECT_EQ(empty.getCapacity(), 8u);
    EXPECT_EQ(headers.size(), 3u);
}

TEST(MultipartUploadServiceImpl, parsesEveryFieldShapeTheSameOldWay) {
    MultipartUploadServiceImpl service;
    const struct {
        std::string block;
        Headers expected;
    } cases[] = {
        {"Content-Disposition: form-data; name=\"a\"; filename=\"b.txt\"",
         {{"name", "a"}, {"filename", "b.txt"}}},
        {"content-disposition: form-data",
         {{"content-disposition: form-data", "content-disposition: form-dat"}}},
        {"x-Content-Disposition-y=1; filename=z", {{"filename", "z"}}},
        {"filename=\"x=y.txt\"", {{"filename", "x=y.txt"}}},
        {"filename=\"a;b.txt\"", {{"filename", "a"}, {"b.txt", "b.txt"}}},
        {"FILENAME=\"c.txt\"", {{"FILENAME", "c.txt"}}},
        {"filename=", {{"filename", ""}}},
        {"=abc", {{"", "abc"}}},
        {"filename=\"a.txt\t\"", {{"filename", "a.txt\t"}}},
        {"filename=  \" spaced name \"  ", {{"filename", " spaced name "}}},
        {" \"file\"name\" = a\"b\"c ", {{"filename", "abc"}}},
        {"name=a\rfilename=b\n\nsize=3", {{"name", "a"}, {"filename", "b"}, {"size", "3"}}},
        {";;name=a;;", {{"name", "a"}}},
        {"name=a;  ;", {{"name", "a"}, {"", ""}}},
        {"x", {{"x", ""}}},
        {"\r\n\r\n\n\r", {}},
        {"filename=one; filename=two", {{"filename", "two"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.block));
        DataBuffer body = buffer(c.block);
        Headers headers;
        service.parseHeaders(body, headers, 0, c.block.size());
        EXPECT_EQ(headers, c.expected);
    }
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

    DataBuffer stored = buffer("line\r\n\r\n");
    service.writeFileToDisk(files, stored, u"/srv/a.txt");
    EXPECT_EQ(stored.getSize(), 0u);
    EXPECT_EQ(stored.getCapacity(), 0u);
    ASSERT_EQ(files->writes().size(), 1u);
    EXPECT_EQ(files->writes()[0].path, u"/srv/a.txt");
    EXPECT_EQ(files->writes()[0].bytes, "line\r\n\r\n");

    DataBuffer refused = buffer("xyz");
    try {
        service.writeFileToDisk(files, refused, u"/srv/b.txt");
        ADD_FAILURE() << "the failed write did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "disk full");
    }
    EXPECT_EQ(refused.getCapacity(), 0u);
    EXPECT_EQ(files->writes().size(), 1u);

    DataBuffer lost = buffer("xyz");
    try {
        service.writeFileToDisk(std::make_shared<StatelessFileService>(), lost, u"/srv/c.txt");
        ADD_FAILURE() << "a future without state did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Future state isn't valid!");
    }
    EXPECT_EQ(lost.getCapacity(), 0u);
}
