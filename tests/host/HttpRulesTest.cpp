#include "host/HttpRules.h"

#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace kestrin::host {
namespace {

TEST(HttpRules, decodesEveryEscapeOfThePathAndRefusesBrokenOnes) {
    struct Case {
        std::string target;
        std::optional<std::string> path;
    };
    const Case cases[] = {
        {"/users", "/users"},
        {"/ORVANE%20Drive", "/ORVANE Drive"},
        {"/ORVANE%20Drive?x=%zz", "/ORVANE Drive"},
        {"/users?", "/users"},
        {"/a+b", "/a+b"},
        {"/%2e%2E/%2F", "/..//"},
        {"/%E2%82%ac", "/\xe2\x82\xac"},
        {"/%00x", std::string("/\0x", 3)},
        {"/%41%", std::nullopt},
        {"/%4", std::nullopt},
        {"/%zz", std::nullopt},
        {"/%g0", std::nullopt},
        {"/% 1", std::nullopt},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target);
        EXPECT_EQ(decodeTargetPath(c.target), c.path);
    }
}

TEST(HttpRules, findsTheBoundaryParameterQuotedOrBare) {
    struct Case {
        std::string contentType;
        std::optional<std::string> boundary;
    };
    const Case cases[] = {
        {"multipart/form-data; boundary=----WebKitFormBoundaryAb3", "----WebKitFormBoundaryAb3"},
        {"multipart/form-data;boundary=x", "x"},
        {"multipart/form-data; charset=utf-8; BOUNDARY=Mixed", "Mixed"},
        {"multipart/form-data; boundary=\"with space:and/slash\"", "with space:and/slash"},
        {"multipart/form-data; boundary=\"a\\\"b\"", "a\"b"},
        {"multipart/form-data; boundary=\"\"", ""},
        {"multipart/form-data; boundary=first; boundary=second", "first"},
        {"text/plain; boundary=any", "any"},
        {"multipart/form-data", std::nullopt},
        {"multipart/form-data; charset=utf-8", std::nullopt},
        {"multipart/form-data; boundaryx=1", std::nullopt},
        {"", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.contentType);
        EXPECT_EQ(findBoundaryParameter(c.contentType), c.boundary);
    }
}

// The server writes heads itself; a client must get the bytes Beast's serializer would write.
TEST(HttpRules, aResponseHeadIsWhatBeastWouldWrite) {
    namespace http = boost::beast::http;
    const auto beastHead = [](const http::response<http::string_body>& response) {
        http::response_serializer<http::string_body> serializer(response);
        serializer.split(true);
        std::string bytes;
        boost::beast::error_code ec;
        while (!serializer.is_header_done()) {
            serializer.next(ec, [&](boost::beast::error_code&, const auto& buffers) {
                bytes += boost::beast::buffers_to_string(buffers);
                serializer.consume(boost::asio::buffer_size(buffers));
            });
        }
        return bytes;
    };

    http::response<http::string_body> page(http::status::ok, 11);
    page.set(http::field::server, "kestrin-upload-server");
    page.set(http::field::content_type, "text/html; charset=utf-8");
    page.body() = "<html></html>";
    page.prepare_payload();
    page.keep_alive(true);
    EXPECT_EQ(responseHead(page), beastHead(page));
    EXPECT_EQ(responseHead(page), "HTTP/1.1 200 OK\r\nServer: kestrin-upload-server\r\n"
                                  "Content-Type: text/html; charset=utf-8\r\n"
                                  "Content-Length: 13\r\n\r\n");

    // HTTP/1.0 kept alive, a status with an unusual code, a field Beast does not know, and a
    // field set twice.
    http::response<http::string_body> other(http::status::service_unavailable, 10);
    other.set("X-Custom", "a b");
    other.insert(http::field::www_authenticate, "Basic realm=\"a\"");
    other.insert(http::field::www_authenticate, "Basic realm=\"b\"");
    other.set(http::field::retry_after, "1");
    other.keep_alive(true);
    other.prepare_payload();
    EXPECT_EQ(responseHead(other), beastHead(other));
    other.result(599);
    other.keep_alive(false);
    EXPECT_EQ(responseHead(other), beastHead(other));
    other.reason("Custom Reason");
    EXPECT_EQ(responseHead(other), beastHead(other));
}

} // namespace
} // namespace kestrin::host
