#include "host/DataBufferBody.h"

#include "tests/common/support/BytesOf.h"

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/write.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

// The allocation-failure case asks for far more memory than exists; under AddressSanitizer
// that must come back as a null pointer, as it does from the plain allocator.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace kestrin::host {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using testing::bytesOf;

using Parser = http::request_parser<DataBufferBody>;

// A string of every byte of a literal, NUL bytes included.
template <std::size_t n> std::string bytes(const char (&text)[n]) {
    return std::string(text, n - 1);
}

// Feeds text to the parser the way a socket would: what the parser leaves unconsumed is
// presented again together with the next piece.
beast::error_code feed(Parser& parser, std::string& pending, const std::string& piece) {
    pending += piece;
    for (;;) {
        beast::error_code ec;
        const std::size_t used = parser.put(net::buffer(pending), ec);
        pending.erase(0, used);
        if (ec == http::error::need_more) {
            return {};
        }
        if (ec || parser.is_done() || used == 0) {
            return ec;
        }
    }
}

struct Outcome {
    beast::error_code ec;
    bool done = false;
    std::string body;
    std::size_t capacity = 0;
};

Outcome parseSplitAt(const std::string& request, std::size_t split) {
    Parser parser;
    parser.eager(true);
    std::string pending;
    Outcome outcome;
    outcome.ec = feed(parser, pending, request.substr(0, split));
    if (!outcome.ec) {
        outcome.ec = feed(parser, pending, request.substr(split));
    }
    outcome.done = parser.is_done();
    outcome.body = bytesOf(parser.get().body());
    outcome.capacity = parser.get().body().getCapacity();
    return outcome;
}

// A body with everything a multipart parser trips on: CR LF, "--", NUL and high bytes.
const std::string body = bytes("--xyz\r\nContent-Disposition: form-data; name=\"file\"; "
                               "filename=\"a.bin\"\r\n\r\n--\r\n\0\xff--xyz-\r\n--xyz--\r\n");

TEST(DataBufferBody, readsOneRequestIdenticallyWhereverItIsSplit) {
    const std::string sized =
        "POST /users HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    std::string chunked = "POST /users HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < body.size(); at += 30) {
        const std::string piece = body.substr(at, 30);
        std::ostringstream size;
        size << std::hex << piece.size();
        chunked += size.str() + "\r\n" + piece + "\r\n";
    }
    chunked += "0\r\n\r\n";

    const std::string* const requests[] = {&sized, &chunked};
    for (const std::string* request : requests) {
        for (std::size_t split = 0; split <= request->size(); ++split) {
            SCOPED_TRACE((request == &sized ? "sized, split at " : "chunked, split at ") +
                         std::to_string(split));
            const Outcome outcome = parseSplitAt(*request, split);
            ASSERT_FALSE(outcome.ec) << outcome.ec.message();
            ASSERT_TRUE(outcome.done);
            ASSERT_EQ(outcome.body, body);
            if (request == &sized) {
                // Reserved once, exactly: the body never moved while it was read.
                ASSERT_EQ(outcome.capacity, body.size());
            }
        }
    }
}

TEST(DataBufferBody, reportsLimitsAndAllocationFailureAsErrorCodes) {
    struct Case {
        const char* name;
        std::string header;
        boost::optional<std::uint64_t> limit;
        beast::error_code expected;
    };
    // Beast 1.74 treats an absent limit as exceeded by any Content-Length: use the largest.
    const boost::optional<std::uint64_t> unlimited = UINT64_MAX;
    const Case cases[] = {
        {"over the parser's body limit", "POST / HTTP/1.1\r\nContent-Length: 1025\r\n\r\n", 1024,
         http::error::body_limit},
        {"more than a buffer can describe",
         "POST / HTTP/1.1\r\nContent-Length: 9223372036854775808\r\n\r\n", unlimited,
         http::error::buffer_overflow},
        {"more than memory can hold",
         "POST / HTTP/1.1\r\nContent-Length: 4611686018427387904\r\n\r\n", unlimited,
         boost::system::errc::make_error_code(boost::system::errc::not_enough_memory)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parser parser;
        parser.body_limit(c.limit);
        std::string pending;
        EXPECT_EQ(feed(parser, pending, c.header + "x"), c.expected);
        EXPECT_EQ(parser.get().body().getSize(), 0u);
    }
}

TEST(DataBufferBody, writesTheBufferAsTheResponseBody) {
    http::response<DataBufferBody> response(http::status::ok, 11);
    response.set(http::field::content_type, "text/html; charset=utf-8");
    response.body() = common::DataBuffer(bytes("<p>\0</p>"));
    response.prepare_payload();
    std::ostringstream out;
    out << response;
    EXPECT_EQ(out.str(), bytes("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"
                               "Content-Length: 8\r\n\r\n<p>\0</p>"));
}

} // namespace
} // namespace kestrin::host
