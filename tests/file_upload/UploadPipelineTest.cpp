#include "file_upload/UploadPipeline.h"

#include "file_upload/MultipartUploadServiceImpl.h"
#include "framework/Ost.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::file_upload::v1::runUploadPipeline;
using kestrin::testing::RecordingFileService;

namespace {

std::string filePart(const std::string& filename, const std::string& content) {
    return kestrin::testing::makeFilePart("XyZ", {filename, content});
}

// One upload with boundary XyZ, as the body subscriber runs it.
struct Upload {
    std::shared_ptr<RecordingFileService> files = std::make_shared<RecordingFileService>();
    MultipartUploadServiceImpl service;

    void run(const std::string& text) {
        DataBuffer body(text);
        runUploadPipeline(files, service, DataBuffer("\r\n--XyZ"), body);
    }

    // The text of the runtime_error the upload fails with, or "" when it succeeds.
    std::string failure(const std::string& text) {
        try {
            run(text);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return {};
    }

    // Stored names relative to the working directory, in the order they were written.
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        const std::string prefix = ost::i18n::to_string(ost::filesystem::get_current_path()) + "/";
        for (const std::string& path : files->paths()) {
            out.push_back(path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size())
                                                                      : "outside: " + path);
        }
        return out;
    }
};

using Names = std::vector<std::string>;

} // namespace

TEST(UploadPipeline, storesEveryPartInBodyOrderWithItsExactBytes) {
    Upload upload;
    // The first file is full of near-delimiters; the second ends in its own CR LF.
    const std::string tricky = "\r\n-XyZ--Xy-\r\n--XYZ\r\n--Xy\r\n\r\n-\r\n--X";
    upload.run("This is the preamble.\r\n" + filePart("a.bin", tricky) +
               filePart("b.txt", "line\r\n") + filePart("empty", "") + "--XyZ--\r\n");
    EXPECT_EQ(upload.names(), (Names{"a.bin", "b.txt", "empty"}));
    const auto writes = upload.files->writes();
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[0].bytes, tricky);
    EXPECT_EQ(writes[1].bytes, "line\r\n");
    EXPECT_EQ(writes[2].bytes, "");
}

TEST(UploadPipeline, malformedBodiesFailWithTheirTextAndKeepEarlierParts) {
    const std::string malformed = "Malformed multi-part request";
    const std::string noFileName = "Malformed multi-part request, no file name found";
    const std::string noHeaders = "Malformed multi-part request, no header fields found";
    const std::string field =
        "--XyZ\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nhi\r\n";
    const struct {
        std::string body;
        std::string error;
        Names stored;
    } cases[] = {
        // Bodies that end before any part: nothing to store, nothing wrong.
        {"", "", {}},
        {"--XyZ--", "", {}},
        {"preamble\r\n--XyZ--junk", "", {}},
        {"just some text", malformed, {}},
        {"--xyz\r\n\r\nx\r\n--xyz--", malformed, {}}, // boundary of another case
        {filePart("a", "1") + filePart("b", "2 and no end"), malformed, Names{"a"}},
        {"--XyZ\r\nno blank line\r\n", noHeaders, {}},
        {"--XyZ\r\nname=a\r\n\r\n", noHeaders, {}}, // blank line ends the body
        {"ab\r\n--XyZ-", noHeaders, {}},
        {field + filePart("a", "1") + "--XyZ--", noFileName, {}},
        // The name of the part before must not be reused.
        {filePart("a", "1") + field + "--XyZ--", noFileName, Names{"a"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.body));
        Upload upload;
        EXPECT_EQ(upload.failure(c.body), c.error);
        EXPECT_EQ(upload.names(), c.stored);
    }
}

TEST(UploadPipeline, aFailedWriteStopsTheUploadWithTheServiceText) {
    Upload upload;
    upload.files->failWrite(
        2, [] { return std::make_exception_ptr(std::runtime_error("No space left on device")); });
    EXPECT_EQ(upload.failure(filePart("one", "1") + filePart("two", "2") + filePart("three", "3") +
                             "--XyZ--"),
              "No space left on device");
    EXPECT_EQ(upload.names(), Names{"one"});
}

TEST(UploadPipeline, namesAreUtf8AndReachTheServiceAsUtf16) {
    Upload upload;
    upload.run(filePart("r\xC3\xA9sum\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80.txt", "x") + "--XyZ--");
    ASSERT_EQ(upload.files->writes().size(), 1u);
    EXPECT_EQ(upload.files->writes()[0].path,
              ost::filesystem::get_current_path() + u"/r\u00E9sum\u00E9 \u20AC \U0001F600.txt");

    Upload invalid;
    EXPECT_THROW(invalid.run(filePart("bad\xFF\xFE.txt", "x") + "--XyZ--"), std::runtime_error);
    EXPECT_TRUE(invalid.files->writes().empty());
}
