// Header parsing against the plain parser: two consecutive header blocks of an input-chosen
// body parsed into one map, which already holds an entry, must give the same whole map.
//
// Input layout: bytes 0-1 the first block's offset, bytes 2-3 the blocks' total length,
// byte 4 where the second block begins (all reduced to fit the body), then the body.
#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "fuzz/support/ReferenceMultipart.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

namespace {

using kestrin::common::DataBuffer;
namespace reference = kestrin::testing::reference;
using Headers = std::map<std::string, std::string>;

void print(const char* side, const Headers& headers) {
    std::fprintf(stderr, "  %s, %zu entries:\n", side, headers.size());
    for (const auto& [key, value] : headers) {
        std::fprintf(stderr, "    [%s] = [%s]\n", key.c_str(), value.c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto service =
        std::make_shared<kestrin::file_upload::v1::MultipartUploadServiceImpl>();
    constexpr size_t headerSize = 5;
    if (size < headerSize) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + headerSize), size - headerSize);
    const size_t offset = (size_t{data[0]} << 8 | data[1]) % (text.size() + 1);
    const size_t length = (size_t{data[2]} << 8 | data[3]) % (text.size() - offset + 1);
    const size_t split = offset + data[4] % (length + 1);

    // An entry from an earlier part: parsing adds and overwrites, it never clears.
    Headers expected{{"filename", "earlier.txt"}};
    reference::parseHeaderBlock(text.substr(offset, split - offset), expected);
    reference::parseHeaderBlock(text.substr(split, offset + length - split), expected);

    DataBuffer body(text);
    Headers actual{{"filename", "earlier.txt"}};
    service->parseHeaders(body, actual, offset, split - offset);
    service->parseHeaders(body, actual, split, offset + length - split);

    if (actual != expected) {
        std::fprintf(stderr, "header parsing and the plain parser disagree\n");
        print("plain", expected);
        print("module", actual);
        std::abort();
    }
    return 0;
}
