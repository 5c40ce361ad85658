#include "host/PartHeaderCheck.h"

#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/RequestDispatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace kestrin::host {
namespace {

using file_upload::v1::MultipartUploadServiceImpl;

constexpr std::size_t limit = 32;

// The module's own scans, with the length of every header block it parses written down.
class RecordingScanner final : public MultipartUploadServiceImpl {
public:
    void parseHeaders(common::DataBuffer& body, std::map<std::string, std::string>& headers,
                      size_t offset, size_t length) override {
        parsed.push_back(length);
        MultipartUploadServiceImpl::parseHeaders(body, headers, offset, length);
    }

    std::vector<std::size_t> parsed;
};

class NoFiles final : public file::v1::FileService {
public:
    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file, bool) override {
        return makeReadyFuture(file_common::v1::FileInfo(file.info.path));
    }
};

// The longest header block the module parses in body, when the body goes to it whole.
std::size_t longestParsedBlock(const std::string& body, const std::string& boundary) {
    auto scanner = std::make_shared<RecordingScanner>();
    auto provider = http::makeServiceProvider<file_upload::v1::MultipartUploadServiceProvider>(
        std::make_shared<NoFiles>(), scanner);
    provider->running = true;
    common::DataBuffer bytes(body);
    RequestDispatcher::callService(*provider, Address("scanner"), boundary, std::move(bytes));
    return scanner->parsed.empty()
               ? 0
               : *std::max_element(scanner->parsed.begin(), scanner->parsed.end());
}

struct Outcome {
    bool passed;
    std::size_t parts;
    std::size_t seenWhenRefused; // bytes in when the check said no
};

// Feeds body to a check `step` bytes at a time, as reads deliver it.
Outcome feed(const std::string& body, const std::string& boundary, std::size_t step) {
    MultipartUploadServiceImpl scanner;
    PartHeaderCheck check(scanner, boundary, limit);
    common::DataBuffer received;
    received.reserve(std::max<std::size_t>(body.size(), 8));
    for (std::size_t at = 0; at < body.size();) {
        const std::size_t count = std::min(step, body.size() - at);
        std::memcpy(&received[at], body.data() + at, count);
        at += count;
        received.resize(at);
        if (!check.advance(received)) {
            return Outcome{false, check.parts(), at};
        }
    }
    return Outcome{true, check.parts(), body.size()};
}

std::string part(const std::string& headers, const std::string& content) {
    return "--b\r\n" + headers + "\r\n\r\n" + content + "\r\n";
}

TEST(PartHeaderCheck, refusesAHeaderBlockOverTheLimitHoweverTheBodyArrives) {
    // The block parsed starts at the CR LF that ends the boundary line.
    const std::string fits(limit - 2, 'h');
    const std::string over(limit - 1, 'h');
    struct Case {
        const char* label;
        std::string body;
        bool passes;
        std::size_t parts;
    };
    const Case cases[] = {
        {"one part", part("filename=a", "abc") + "--b--\r\n", true, 1},
        {"a block of exactly the limit", part(fits, "x") + "--b--\r\n", true, 1},
        {"one byte over", part(over, "x") + "--b--\r\n", false, 0},
        {"the second part over", part("filename=a", "x") + part(over, "y") + "--b--\r\n", false, 1},
        {"a block that never ends", "--b\r\n" + std::string(500, 'h'), false, 0},
        {"a preamble", "preamble -b\r\n" + part("f=1", "") + "--b--", true, 1},
        {"a marker cut at the end", part("f=1", "") + "--", true, 1},
        // What follows the closing delimiter is not read by the module, nor here.
        {"the epilogue", part("f=1", "") + "--b--" + std::string(500, 'e'), true, 1},
        // The short form inside content ends the part for the module too; what follows it is
        // a header block.
        {"the short form inside content", part("f=1", "ab--b" + std::string(100, 'c')), false, 1},
        {"no marker at all", std::string(500, 'x'), true, 0},
    };
    for (const Case& c : cases) {
        for (const std::size_t step :
             {std::size_t{1}, std::size_t{3}, std::size_t{64}, c.body.size()}) {
            SCOPED_TRACE(std::string(c.label) + ", reads of " + std::to_string(step));
            const Outcome outcome = feed(c.body, "b", step);
            EXPECT_EQ(outcome.passed, c.passes);
            EXPECT_EQ(outcome.parts, c.parts);
        }
    }
    // A block that will not end is refused once a limit's worth of it is in, not at the end.
    EXPECT_LE(feed("--b\r\n" + std::string(100'000, 'h'), "b", 1).seenWhenRefused, 3 + limit + 5);
}

// Whatever the body, a body the check lets through never makes the module parse a header
// block over the limit: the check follows the module's walk. Bodies are drawn from the bytes
// that matter to that walk, so markers, blank lines and closings are common.
TEST(PartHeaderCheck, letsThroughNoBodyInWhichTheModuleParsesABlockOverTheLimit) {
    const std::string alphabet[] = {"-", "--b", "\r\n",  "\r\n\r\n",
                                    "x", "b",   "--b--", std::string(20, 'n')};
    std::mt19937 random(20261123);
    int refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string body;
        const int pieces = std::uniform_int_distribution<int>(0, 40)(random);
        for (int i = 0; i < pieces; ++i) {
            body += alphabet[std::uniform_int_distribution<std::size_t>(0, 7)(random)];
        }
        const Outcome outcome = feed(body, "b", 1 + round % 7);
        SCOPED_TRACE(::testing::PrintToString(body));
        if (outcome.passed) {
            EXPECT_LE(longestParsedBlock(body, "b"), limit);
        } else {
            ++refused;
        }
    }
    // Both answers come up, or the property says little.
    EXPECT_GT(refused, 100);
    EXPECT_LT(refused, 2900);
}

} // namespace
} // namespace kestrin::host
