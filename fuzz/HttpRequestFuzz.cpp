// Raw client bytes through the server's request handling, in process: Beast's reads into a
// request parser with the server's DataBuffer body type and limits, then the server's
// decisions (status for parser errors, path decoding, routing, boundary parameter, the
// service call through the dispatcher into the real upload module). Every reply must
// serialize into a well-formed response that says what the server meant to send, a service
// call must never end in 500, and keep-alive requests are read one after another from the
// same bytes, as a connection does.
//
// The connection steps mirror the session in host/Server.cpp; keep the two in step.
//
// Input layout: byte 0 picks how many bytes each read returns (1 to 256, so requests arrive
// split at every offset), byte 1 the body limit (0: the server's 1 GiB default, otherwise
// that many times 64 bytes), then the bytes the client sends.
#include "common/DataBuffer.h"
#include "common/Future.h"
#include "file_upload/MultipartUploadRouteProvider.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "framework/FileService.h"
#include "framework/HttpServiceProvider.h"
#include "host/DataBufferBody.h"
#include "host/HttpRules.h"
#include "host/RequestDispatcher.h"
#include "host/RouteTable.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using kestrin::common::DataBuffer;
using kestrin::host::Reply;
using kestrin::host::RequestDispatcher;

// The server's settings that shape what is read.
constexpr std::uint32_t headerLimit = 16 * 1024;
constexpr std::uint64_t defaultMaxBody = std::uint64_t{1} << 30;
constexpr const char* serverName = "kestrin-upload-server";

// Stores nothing and resolves at once, on the calling thread: the module's answer does not
// depend on where bytes go, and the fuzzer must not fill a disk.
class DiscardingFileService final : public kestrin::file::v1::FileService {
public:
    kestrin::Future<kestrin::file_common::v1::FileInfo>
    writeFile(kestrin::file_common::v1::File&& file, bool /*overwrite*/) override {
        return kestrin::makeReadyFuture(kestrin::file_common::v1::FileInfo(file.info.path));
    }
};

// The client's side of a connection: its bytes, handed out at most chunk bytes per read,
// then end of stream.
class ClientBytes {
public:
    ClientBytes(std::string_view clientBytes, size_t chunkSize)
        : bytes(clientBytes)
        , chunk(chunkSize) {}

    template <class MutableBufferSequence>
    std::size_t read_some(const MutableBufferSequence& buffers, boost::system::error_code& ec) {
        ec = {};
        if (bytes.empty()) {
            ec = net::error::eof;
            return 0;
        }
        const std::size_t count = net::buffer_copy(
            buffers, net::const_buffer(bytes.data(), std::min(chunk, bytes.size())));
        bytes.remove_prefix(count);
        return count;
    }

    template <class MutableBufferSequence>
    std::size_t read_some(const MutableBufferSequence& buffers) {
        boost::system::error_code ec;
        const std::size_t count = read_some(buffers, ec);
        if (ec) {
            throw boost::system::system_error(ec);
        }
        return count;
    }

private:
    std::string_view bytes;
    size_t chunk;
};

// The objects the server builds at start, built the same way.
struct Services {
    Services() {
        auto provider = kestrin::http::makeServiceProvider<
            kestrin::file_upload::v1::MultipartUploadServiceProvider>(
            std::make_shared<DiscardingFileService>(),
            std::make_shared<kestrin::file_upload::v1::MultipartUploadServiceImpl>());
        provider->running = true;
        const kestrin::Address address("kestrin.file_upload.v1.MultipartUploadServiceProvider");
        auto routeTable = std::make_shared<kestrin::host::RouteTable>();
        routes = std::make_unique<kestrin::file_upload::v1::MultipartUploadRouteProvider>(
            routeTable, address);
        auto router = std::make_shared<RequestDispatcher>(routeTable);
        router->addService(address, provider);
        dispatcher = std::move(router);
    }

    std::unique_ptr<kestrin::file_upload::v1::MultipartUploadRouteProvider> routes;
    std::shared_ptr<const RequestDispatcher> dispatcher;
};

[[noreturn]] void fail(const std::string& what, const std::string& wire) {
    std::fprintf(stderr, "bad response: %s\n--- response bytes:\n%.2000s\n---\n", what.c_str(),
                 wire.c_str());
    std::abort();
}

template <class Body> std::string serialize(const http::response<Body>& response) {
    std::ostringstream out;
    out << response;
    return out.str();
}

// Reads the response back as a client would and checks that it says what was meant.
void expectWellFormed(const std::string& wire, unsigned status, unsigned version,
                      const std::string& contentType, const std::string& body, bool keepAlive) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    parser.body_limit(boost::none);
    beast::error_code ec;
    const std::size_t used = parser.put(net::buffer(wire), ec);
    if (ec || !parser.is_done() || used != wire.size()) {
        fail("does not parse as exactly one response: " + ec.message(), wire);
    }
    const auto& response = parser.get();
    if (response.result_int() != status || response.version() != version) {
        fail("status or version changed", wire);
    }
    if (status == 100) {
        return;
    }
    if (response[http::field::content_type] != contentType ||
        response[http::field::server] != serverName || response.body() != body ||
        response[http::field::content_length] != std::to_string(body.size()) ||
        response.keep_alive() != keepAlive) {
        fail("headers or body differ from the reply", wire);
    }
}

std::string bytesOf(const DataBuffer& buffer) {
    return buffer.bytes() == nullptr
               ? std::string()
               : std::string(reinterpret_cast<const char*>(buffer.bytes()), buffer.getSize());
}

// What the session does with one reply: the response it writes, checked. Returns whether the
// connection goes on to the next request.
bool sendReply(Reply&& reply, unsigned version, bool keepAlive, bool requestRead) {
    switch (reply.status) {
    case 200:
    case 400:
    case 404:
    case 413:
    case 431:
    case 503:
        break;
    default:
        fail("unexpected status " + std::to_string(reply.status) + " (" + reply.detail + ")", "");
    }
    const bool close = !keepAlive || !requestRead;
    const std::string body = bytesOf(reply.body);
    http::response<kestrin::host::DataBufferBody> response;
    response.version(version);
    response.result(reply.status);
    response.set(http::field::server, serverName);
    response.set(http::field::content_type, reply.contentType);
    response.body() = std::move(reply.body);
    response.keep_alive(!close);
    response.prepare_payload();
    expectWellFormed(serialize(response), reply.status, version, reply.contentType, body, !close);
    return !close;
}

// One request from the connection, as the session reads and answers it. Returns whether the
// connection goes on to the next request.
bool serveOne(ClientBytes& client, beast::flat_buffer& buffer, std::uint64_t maxBody,
              const RequestDispatcher& dispatcher) {
    http::request_parser<kestrin::host::DataBufferBody> parser;
    parser.header_limit(headerLimit);
    parser.body_limit(maxBody);
    beast::error_code ec;
    http::read_header(client, buffer, parser, ec);
    if (ec == http::error::end_of_stream) {
        return false;
    }
    const auto& request = parser.get();
    const std::string target(request.target());
    const unsigned version = request.version() ? request.version() : 11;

    if (ec == http::error::header_limit) {
        return sendReply(RequestDispatcher::plainText(431, "Request Header Fields Too Large"),
                         version, false, false);
    }
    if (ec == http::error::body_limit) {
        return sendReply(RequestDispatcher::plainText(413, "Payload Too Large"), version, false,
                         false);
    }
    if (ec) {
        if (ec.category() == http::make_error_code(http::error::bad_target).category() &&
            ec != http::error::partial_message) {
            return sendReply(RequestDispatcher::plainText(400, "Bad Request", ec.message()),
                             version, false, false);
        }
        return false;
    }
    bool keepAlive = request.keep_alive();
    const bool headerOnly = parser.is_done();

    const std::optional<std::string> path = kestrin::host::decodeTargetPath(target);
    if (!path) {
        return sendReply(RequestDispatcher::plainText(
                             400, "Bad Request: malformed percent-escape in the request target"),
                         version, keepAlive, headerOnly);
    }
    const RequestDispatcher::Destination destination =
        dispatcher.route(std::string(request.method_string()), *path);
    switch (destination.kind) {
    case RequestDispatcher::Destination::Kind::demoPage:
        return sendReply(RequestDispatcher::demoPageReply(), version, keepAlive, headerOnly);
    case RequestDispatcher::Destination::Kind::notFound:
        return sendReply(RequestDispatcher::plainText(404, "Not Found"), version, keepAlive,
                         headerOnly);
    case RequestDispatcher::Destination::Kind::service:
        break;
    }
    if (beast::iequals(request[http::field::expect], "100-continue")) {
        http::response<http::empty_body> interim(http::status::continue_, version);
        expectWellFormed(serialize(interim), 100, version, "", "", true);
    }
    while (!parser.is_done()) {
        http::read_some(client, buffer, parser, ec);
        if (ec == http::error::body_limit || ec == http::error::buffer_overflow) {
            return sendReply(RequestDispatcher::plainText(413, "Payload Too Large"), version,
                             keepAlive, false);
        }
        if (ec == boost::system::errc::not_enough_memory) {
            return sendReply(RequestDispatcher::plainText(503, "Service Unavailable"), version,
                             keepAlive, false);
        }
        if (ec) {
            return false;
        }
    }

    http::request<kestrin::host::DataBufferBody> whole = parser.release();
    keepAlive = whole.keep_alive();
    std::optional<std::string> boundary;
    const auto contentType = whole.find(http::field::content_type);
    if (contentType != whole.end()) {
        const beast::string_view value = contentType->value();
        boundary =
            kestrin::host::findBoundaryParameter(std::string_view(value.data(), value.size()));
    }
    Reply reply = RequestDispatcher::callService(*destination.provider, destination.address,
                                                 std::move(boundary), std::move(whole.body()));
    if (reply.status != 200 && reply.status != 400) {
        fail("the upload service answered " + std::to_string(reply.status) + " (" + reply.detail +
                 ")",
             "");
    }
    return sendReply(std::move(reply), version, keepAlive, true);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Services services;
    if (size < 2) {
        return 0;
    }
    const size_t chunk = size_t{data[0]} + 1;
    const std::uint64_t maxBody = data[1] == 0 ? defaultMaxBody : std::uint64_t{data[1]} * 64;
    ClientBytes client(std::string_view(reinterpret_cast<const char*>(data + 2), size - 2), chunk);
    beast::flat_buffer buffer;
    while (serveOne(client, buffer, maxBody, *services.dispatcher)) {
    }
    return 0;
}
