#include "file_upload/UploadPipeline.h"

#include "file_upload/MultipartUploadServiceImpl.h"
#include "framework/Ost.h"
#include "tests/file_upload/support/MultipartBody.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>
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

// Bytes as readable text: CR, LF and other bytes outside printable ASCII as escapes.
std::string visible(const DataBuffer& buffer, size_t from, size_t count) {
    std::string out;
    for (size_t i = from; i < from + count && i < buffer.getSize(); ++i) {
        const auto byte = static_cast<unsigned char>(buffer[i]);
        if (byte == '\r') {
            out += "\\r";
        } else if (byte == '\n') {
            out += "\\n";
        } else if (byte < 0x20 || byte > 0x7E) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
        } else {
            out += static_cast<char>(byte);
        }
    }
    return out;
}

// Logs each call the pipeline makes, with the bytes it points at, then does what the real
// service does. The pipeline only knows the interface, so every call must show up here.
class LoggingService : public MultipartUploadServiceImpl {
public:
    std::tuple<size_t, size_t, bool> findBoundaryMarkerIndex(size_t start, DataBuffer& body,
                                                             DataBuffer marker) override {
        log.push_back("boundary from " + visible(body, start, 8));
        return MultipartUploadServiceImpl::findBoundaryMarkerIndex(start, body, std::move(marker));
    }
    std::tuple<size_t, bool> findHeaderFieldsIndex(size_t start, DataBuffer& body,
                                                   DataBuffer terminator) override {
        log.push_back("blank line from " + visible(body, start, 8));
        return MultipartUploadServiceImpl::findHeaderFieldsIndex(start, body,
                                                                 std::move(terminator));
    }
    void parseHeaders(DataBuffer& body, std::map<std::string, std::string>& headers, size_t offset,
                      size_t length) override {
        log.push_back("headers " + visible(body, offset, length));
        MultipartUploadServiceImpl::parseHeaders(body, headers, offset, length);
    }
    void extractDataFromRequest(size_t start, size_t end, DataBuffer& request,
                                DataBuffer& data) override {
        log.push_back("cut " + visible(request, start, end - start));
        MultipartUploadServiceImpl::extractDataFromRequest(start, end, request, data);
    }
    void writeFileToDisk(std::shared_ptr<kestrin::file::v1::FileService> files, DataBuffer& data,
                         std::u16string path) override {
        log.push_back("write " + ost::i18n::to_string(path.substr(path.rfind(u'/') + 1)));
        MultipartUploadServiceImpl::writeFileToDisk(std::move(files), data, std::move(path));
    }

    std::vector<std::string> log;
};

// Runs a hook once, right after the first write has been handed over.
class HookedFileService : public RecordingFileService {
public:
    kestrin::Future<kestrin::file_common::v1::FileInfo>
    writeFile(kestrin::file_common::v1::File&& file, bool overwrite) override {
        auto written = RecordingFileService::writeFile(std::move(file), overwrite);
        if (afterFirstWrite) {
            std::exchange(afterFirstWrite, nullptr)();
        }
        return written;
    }

    std::function<void()> afterFirstWrite;
};

std::string currentDirectory() {
    char path[PATH_MAX];
    return ::getcwd(path, sizeof path) != nullptr ? path : "";
}

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

TEST(UploadPipeline, callsTheServiceThroughItsInterfaceOnTheBlocksOfABrowserBody) {
    // Two files as a browser posts them.
    const std::string boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW";
    const std::string text =
        "--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"files\"; filename=\"notes.txt\"\r\n"
        "Content-Type: text/plain\r\n\r\nfirst line\r\nsecond line\r\n\r\n--" +
        boundary +
        "\r\nContent-Disposition: form-data; name=\"files\"; filename=\"pixel.png\"\r\n"
        "Content-Type: image/png\r\n\r\n\x89PNG\r\n\x1A\n\r\n--" +
        boundary + "--\r\n";
    auto files = std::make_shared<RecordingFileService>();
    LoggingService service;
    DataBuffer body(text);
    runUploadPipeline(files, service, DataBuffer("\r\n--" + boundary), body);
    EXPECT_EQ(service.log, (Names{
                               "boundary from ------We",
                               "blank line from \\r\\nConten",
                               "headers \\r\\nContent-Disposition: form-data; name=\"files\"; "
                               "filename=\"notes.txt\"\\r\\nContent-Type: text/plain",
                               "boundary from first li",
                               "cut first line\\r\\nsecond line\\r\\n",
                               "write notes.txt",
                               "blank line from \\r\\nConten",
                               "headers \\r\\nContent-Disposition: form-data; name=\"files\"; "
                               "filename=\"pixel.png\"\\r\\nContent-Type: image/png",
                               "boundary from \\x89PNG\\r\\n\\x1A\\n",
                               "cut \\x89PNG\\r\\n\\x1A\\n",
                               "write pixel.png",
                           }));
    EXPECT_EQ(files->writes().size(), 2u);
}

TEST(UploadPipeline, partsCutWhileSearchingAreThosePassedThroughEveryCall) {
    // Long parts full of near-delimiters, so that the one-pass search and cut our own service
    // gets copies many blocks; a logging service gets the separate calls. Both must store the
    // same bytes and fail the same way.
    std::string nearMisses;
    for (size_t k = 0; nearMisses.size() < 70000; ++k) {
        // Any byte after a piece of the delimiter, except the one that would complete it.
        const char next = static_cast<char>(k * 131);
        nearMisses += std::string("\r\n--XyZ").substr(0, k % 7) + (next == 'Z' ? 'z' : next);
    }
    ASSERT_EQ(nearMisses.find("--XyZ"), std::string::npos);
    const std::string bodies[] = {
        filePart("near", nearMisses) + filePart("small", "x") + "--XyZ--",
        filePart("crlf", nearMisses + "\r\n") + "--XyZ--\r\n",
        filePart("power", nearMisses.substr(0, 65536)) + "--XyZ--",
        // The delimiter without its line break in front ends the part all the same.
        "--XyZ\r\nContent-Disposition: form-data; filename=bare\r\n\r\n" +
            nearMisses.substr(0, 40000) + "x--XyZ--",
        filePart("cut short", nearMisses),
        filePart("last bytes", nearMisses) + "--XyZ",
    };
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body.substr(0, 60));
        Upload fused;
        const std::string fusedFailure = fused.failure(body);
        auto files = std::make_shared<RecordingFileService>();
        LoggingService separate;
        std::string separateFailure;
        try {
            DataBuffer buffer(body);
            runUploadPipeline(files, separate, DataBuffer("\r\n--XyZ"), buffer);
        } catch (const std::runtime_error& error) {
            separateFailure = error.what();
        }
        EXPECT_EQ(fusedFailure, separateFailure);
        ASSERT_EQ(fused.files->writes().size(), files->writes().size());
        for (size_t k = 0; k < files->writes().size(); ++k) {
            EXPECT_EQ(fused.files->writes()[k].path, files->writes()[k].path);
            EXPECT_TRUE(fused.files->writes()[k].bytes == files->writes()[k].bytes) << k;
        }
    }
}

TEST(UploadPipeline, eachPartGoesWhereTheWorkingDirectoryIsWhenItIsStored) {
    // Back to where the test started, and no directory left behind, however it ends.
    struct Directories {
        std::string original = currentDirectory();
        char first[24] = "/tmp/kestrin-cwd-XXXXXX";
        char second[24] = "/tmp/kestrin-cwd-XXXXXX";
        ~Directories() {
            EXPECT_EQ(::chdir(original.c_str()), 0);
            ::rmdir(first);
            ::rmdir(second);
        }
    } directories;
    ASSERT_NE(::mkdtemp(directories.first), nullptr);
    ASSERT_NE(::mkdtemp(directories.second), nullptr);
    const std::string first = directories.first;
    const std::string second = directories.second;
    const std::string body = filePart("a", "1") + filePart("b", "2") + "--XyZ--";
    MultipartUploadServiceImpl service;

    // Moved to another directory while the first part was written.
    ASSERT_EQ(::chdir(first.c_str()), 0);
    auto moved = std::make_shared<HookedFileService>();
    moved->afterFirstWrite = [&] { ASSERT_EQ(::chdir(second.c_str()), 0); };
    DataBuffer movedBody(body);
    runUploadPipeline(moved, service, DataBuffer("\r\n--XyZ"), movedBody);
    EXPECT_EQ(moved->paths(), (Names{first + "/a", second + "/b"}));

    // The directory removed under the upload: the next part fails, the first stays stored.
    auto removed = std::make_shared<HookedFileService>();
    removed->afterFirstWrite = [&] { ASSERT_EQ(::rmdir(second.c_str()), 0); };
    DataBuffer removedBody(body);
    try {
        runUploadPipeline(removed, service, DataBuffer("\r\n--XyZ"), removedBody);
        ADD_FAILURE() << "a part was stored in a directory that is gone";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).rfind("Cannot read the working directory", 0), 0u)
            << error.what();
    }
    EXPECT_EQ(removed->paths(), Names{second + "/a"});
}
