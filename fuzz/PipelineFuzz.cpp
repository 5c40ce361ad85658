// The upload pipeline over an input-chosen boundary and body, held against the plain
// splitter: the same parts stored, in the same order, under the same paths, and the same
// failure text, which must be one of the module's own. Input layout: one byte with the
// boundary's length, the boundary, then the body.
#include "common/DataBuffer.h"
#include "common/Future.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/UploadPipeline.h"
#include "framework/FileService.h"
#include "fuzz/support/ReferenceMultipart.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using kestrin::common::DataBuffer;
using kestrin::file_common::v1::File;
using kestrin::file_common::v1::FileInfo;
namespace reference = kestrin::testing::reference;

std::string bytesOf(const DataBuffer& buffer) {
    const uint8_t* bytes = buffer.bytes();
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes), buffer.getSize());
}

// Keeps every write in memory and resolves its future at once, on the calling thread: one
// input, no threads.
class ImmediateFileService final : public kestrin::file::v1::FileService {
public:
    kestrin::Future<FileInfo> writeFile(File&& file, bool /*overwrite*/) override {
        stored.push_back({file.info.path, bytesOf(file.content)});
        return kestrin::makeReadyFuture(FileInfo(file.info.path));
    }

    std::vector<reference::StoredPart> stored;
};

std::string workingDirectory() {
    std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
    if (!cwd) {
        std::abort();
    }
    return cwd.get();
}

std::string printable(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) {
        out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    return out;
}

[[noreturn]] void mismatch(const char* what, const reference::UploadOutcome& expected,
                           const reference::UploadOutcome& actual) {
    std::fprintf(stderr, "pipeline and plain splitter disagree: %s\n", what);
    const reference::UploadOutcome* sides[] = {&expected, &actual};
    const char* names[] = {"plain", "module"};
    for (int side = 0; side < 2; ++side) {
        std::fprintf(stderr, "  %s: failure \"%s\", %zu parts\n", names[side],
                     sides[side]->failure.c_str(), sides[side]->stored.size());
        for (const reference::StoredPart& part : sides[side]->stored) {
            std::fprintf(stderr, "    %s (%zu bytes)\n", printable(part.path).c_str(),
                         part.bytes.size());
        }
    }
    std::abort();
}

bool isModuleFailureText(const std::string& text) {
    return text == reference::malformedRequest || text == reference::noHeaderFields ||
           text == reference::noFileName || text == reference::invalidUtf8;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string cwd = workingDirectory();
    static const auto uploadService =
        std::make_shared<kestrin::file_upload::v1::MultipartUploadServiceImpl>();
    if (size == 0) {
        return 0;
    }
    const size_t boundarySize = std::min<size_t>(data[0], size - 1);
    const std::string boundary(reinterpret_cast<const char*>(data + 1), boundarySize);
    const std::string bodyText(reinterpret_cast<const char*>(data + 1 + boundarySize),
                               size - 1 - boundarySize);

    const reference::UploadOutcome expected = reference::splitUpload(boundary, bodyText, cwd);

    auto files = std::make_shared<ImmediateFileService>();
    // Tight storage, so that a read past the body's end is a read past its block.
    DataBuffer body;
    body.append(reinterpret_cast<const uint8_t*>(bodyText.data()), bodyText.size());
    reference::UploadOutcome actual;
    try {
        kestrin::file_upload::v1::runUploadPipeline(files, *uploadService,
                                                    DataBuffer("\r\n--" + boundary), body);
    } catch (const std::runtime_error& error) {
        actual.failure = error.what();
        if (!isModuleFailureText(actual.failure)) {
            actual.stored = files->stored;
            mismatch("a failure text that is not the module's own", expected, actual);
        }
    } catch (...) {
        std::fprintf(stderr, "something other than std::runtime_error escaped the pipeline\n");
        std::abort();
    }
    actual.stored = files->stored;

    if (actual.failure != expected.failure) {
        mismatch("failure text", expected, actual);
    }
    if (actual.stored.size() != expected.stored.size()) {
        mismatch("number of stored parts", expected, actual);
    }
    for (size_t k = 0; k < expected.stored.size(); ++k) {
        if (actual.stored[k].path != expected.stored[k].path) {
            mismatch("path of a stored part", expected, actual);
        }
        if (actual.stored[k].bytes != expected.stored[k].bytes) {
            mismatch("bytes of a stored part", expected, actual);
        }
    }
    if (bytesOf(body) != bodyText) {
        mismatch("the body changed", expected, actual);
    }
    return 0;
}
