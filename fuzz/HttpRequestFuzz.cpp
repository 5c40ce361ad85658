// Raw client bytes through the server's request handling, in process: Beast's reads into a
// request parser with the server's DataBuffer body type and limits, the request gate's verdicts
// (framing, routing, origin, memory budget and client shares, read failures), the client a
// trusted proxy names in X-Forwarded-For, the part header check while a body
// arrives, then the service call through the dispatcher into the real upload module. Every
// reply must serialize into a well-formed response that says what the server meant to send, a
// service call must never end in 500, a body the part check let through must never make the
// module parse a header block over the check's limit, and keep-alive requests are read one
// after another from the same bytes, as a connection does.
//
// The decisions are the gate's and the check's own code; only the order of reads mirrors the
// session in host/Server.cpp.
//
// Input layout: byte 0 picks how many bytes each read returns (1 to 256, so requests arrive
// split at every offset); byte 1's low seven bits the body limit (0: the server's 1 GiB default,
// otherwise that many times 64 bytes) and its high bit a memory budget that admits bodies of a
// few KiB; then the bytes the client sends.
#include "common/DataBuffer.h"
#include "common/Future.h"
#include "file_upload/MultipartUploadRouteProvider.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "framework/FileService.h"
#include "framework/HttpServiceProvider.h"
#include "host/ClientKey.h"
#include "host/ClientShares.h"
#include "host/DataBufferBody.h"
#include "host/DiskReserve.h"
#include "host/MemoryBudget.h"
#include "host/PartHeaderCheck.h"
#include "host/RateBudget.h"
#include "host/RequestDispatcher.h"
#include "host/RequestGate.h"
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
#include <vector>

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::MultipartUploadService;
using kestrin::host::Refusal;
using kestrin::host::Reply;
using kestrin::host::RequestDispatcher;
using kestrin::host::RequestGate;
using kestrin::host::Verdict;

// The server's settings that shape what is read.
constexpr std::uint32_t headerLimit = 16 * 1024;
constexpr std::uint64_t defaultMaxBody = std::uint64_t{1} << 30;
// Admits one body of a few KiB besides the request's overhead.
constexpr std::uint64_t smallBudget = RequestGate::requestOverhead + 8 * 1024;
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

// The module's scans, with the longest header block the module parsed written down.
class RecordingScanner final : public MultipartUploadService {
public:
    void parseHeaders(DataBuffer& body, std::map<std::string, std::string>& headers, size_t offset,
                      size_t length) override {
        longestBlock = std::max(longestBlock, length);
        inner.parseHeaders(body, headers, offset, length);
    }
    void writeFileToDisk(std::shared_ptr<kestrin::file::v1::FileService> files, DataBuffer& data,
                         std::u16string path) override {
        inner.writeFileToDisk(std::move(files), data, std::move(path));
    }
    std::tuple<size_t, size_t, bool> findBoundaryMarkerIndex(size_t start, DataBuffer& body,
                                                             DataBuffer marker) override {
        return inner.findBoundaryMarkerIndex(start, body, std::move(marker));
    }
    std::tuple<size_t, bool> findHeaderFieldsIndex(size_t start, DataBuffer& body,
                                                   DataBuffer terminator) override {
        return inner.findHeaderFieldsIndex(start, body, std::move(terminator));
    }
    void extractDataFromRequest(size_t start, size_t end, DataBuffer& request,
                                DataBuffer& data) override {
        inner.extractDataFromRequest(start, end, request, data);
    }
    std::shared_ptr<MultipartUploadService> getPtr() override { return nullptr; }

    size_t longestBlock = 0;

private:
    kestrin::file_upload::v1::MultipartUploadServiceImpl inner;
};

// The objects the server builds at start, built the same way, the scans recorded.
struct Services {
    Services() {
        auto provider = kestrin::http::makeServiceProvider<
            kestrin::file_upload::v1::MultipartUploadServiceProvider>(
            std::make_shared<DiscardingFileService>(), scanner);
        provider->running = true;
        const kestrin::Address address("kestrin.file_upload.v1.MultipartUploadServiceProvider");
        auto routeTable = std::make_shared<kestrin::host::RouteTable>();
        routes = std::make_unique<kestrin::file_upload::v1::MultipartUploadRouteProvider>(
            routeTable, address);
        auto router = std::make_shared<RequestDispatcher>(routeTable);
        router->addService(address, provider);
        dispatcher = std::move(router);
    }

    std::shared_ptr<RecordingScanner> scanner = std::make_shared<RecordingScanner>();
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

// The metrics count every refusal of the server's own under its reason.
void expectReason(const Reply& reply, std::string_view route) {
    if (RequestGate::isRefusal(route, reply.status) && reply.refusal == Refusal::none) {
        fail("a refusal without a reason for the metrics (" + reply.detail + ")", "");
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
    case 403:
    case 404:
    case 413:
    case 431:
    case 501:
    case 503:
    case 507:
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
    for (const auto& [name, value] : reply.headers) {
        response.set(name, value);
    }
    response.body() = std::move(reply.body);
    response.keep_alive(!close);
    response.prepare_payload();
    expectWellFormed(serialize(response), reply.status, version, reply.contentType, body, !close);
    return !close;
}

// One request from the connection, as the session reads and answers it. Returns whether the
// connection goes on to the next request.
bool serveOne(ClientBytes& client, beast::flat_buffer& buffer, std::uint64_t maxBody,
              const RequestGate& gate, RecordingScanner& scanner) {
    using Stage = RequestGate::Stage;
    Verdict verdict;
    http::request_parser<kestrin::host::DataBufferBody> parser;
    std::function<std::size_t(std::uint64_t, beast::string_view, beast::error_code&)> chunkBody =
        [&](std::uint64_t, beast::string_view piece, beast::error_code& ec) {
            return gate.appendChunk(parser.get().body(),
                                    std::string_view(piece.data(), piece.size()), verdict, ec);
        };
    parser.header_limit(headerLimit);
    parser.body_limit(maxBody);
    parser.on_chunk_body(chunkBody);
    beast::error_code ec;
    http::read_header(client, buffer, parser, ec);
    if (ec == http::error::end_of_stream) {
        return false;
    }
    const auto& request = parser.get();
    const unsigned version = request.version() ? request.version() : 11;
    if (ec) {
        if (std::optional<Reply> reply = gate.onReadError(ec, Stage::head)) {
            expectReason(*reply, "other");
            sendReply(std::move(*reply), version, false, false);
        }
        return false;
    }
    bool keepAlive = request.keep_alive();
    const bool expectsContinue = beast::iequals(request[http::field::expect], "100-continue");
    // The peer is a trusted proxy; whatever it forwards, a peer that is none names itself.
    static const kestrin::host::TrustedProxies proxies = [] {
        kestrin::host::TrustedProxies trusted;
        trusted.add("10.0.0.0/8");
        trusted.add("2001:db8::/32");
        return trusted;
    }();
    const std::string hops = kestrin::host::forwardedFor(request);
    const auto stranger = boost::asio::ip::make_address("192.0.2.1");
    if (kestrin::host::forwardedClient(stranger, hops, proxies) != stranger) {
        fail("a peer that is no proxy was taken for another client", hops);
    }
    const auto origin =
        kestrin::host::forwardedClient(boost::asio::ip::make_address("10.0.0.1"), hops, proxies);
    verdict = gate.decide(request, parser.content_length(), kestrin::host::clientKey(origin));
    switch (verdict.kind) {
    case Verdict::Kind::answer:
        expectReason(verdict.reply, verdict.route);
        return sendReply(std::move(verdict.reply), version, keepAlive, parser.is_done());
    case Verdict::Kind::discard:
        fail("a discard verdict without a discard route", "");
    case Verdict::Kind::service:
        break;
    }
    std::optional<kestrin::host::PartHeaderCheck> partCheck;
    if (verdict.boundary) {
        partCheck.emplace(scanner, *verdict.boundary);
    }
    if (expectsContinue) {
        http::response<http::empty_body> interim(http::status::continue_, version);
        expectWellFormed(serialize(interim), 100, version, "", "", true);
    }
    while (!parser.is_done()) {
        http::read_some(client, buffer, parser, ec);
        if (ec) {
            if (std::optional<Reply> reply = gate.onReadError(ec, Stage::body)) {
                expectReason(*reply, verdict.route);
                sendReply(std::move(*reply), version, keepAlive, false);
            }
            return false;
        }
        if (partCheck && !partCheck->advance(parser.get().body())) {
            return sendReply(RequestDispatcher::plainText(400, "part header block over the limit"),
                             version, keepAlive, false);
        }
    }

    http::request<kestrin::host::DataBufferBody> whole = parser.release();
    keepAlive = whole.keep_alive();
    scanner.longestBlock = 0;
    Reply reply =
        RequestDispatcher::callService(*verdict.destination.provider, verdict.destination.address,
                                       std::move(verdict.boundary), std::move(whole.body()));
    if (reply.status != 200 && reply.status != 400) {
        fail("the upload service answered " + std::to_string(reply.status) + " (" + reply.detail +
                 ")",
             "");
    }
    if (partCheck && scanner.longestBlock > kestrin::host::PartHeaderCheck::defaultLimit) {
        fail("the part check let through a header block of " +
                 std::to_string(scanner.longestBlock) + " bytes",
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
    const unsigned limitChoice = data[1] & 0x7f;
    const std::uint64_t maxBody =
        limitChoice == 0 ? defaultMaxBody : std::uint64_t{limitChoice} * 64;
    // The bounded runs bound the disk too: little room, so that claims are refused and grow.
    std::optional<kestrin::host::MemoryBudget> budget;
    std::optional<kestrin::host::DiskReserve> disk;
    std::optional<kestrin::host::ClientShares> shares;
    // The bounded runs give each client a quota of a few bodies, so that uploads past it, with
    // a length or in chunks, are refused too.
    std::optional<kestrin::host::RateBudget> quota;
    kestrin::host::GateSettings settings;
    if ((data[1] & 0x80) != 0) {
        settings.uploadPerClient = 4 * 1024;
        quota.emplace(kestrin::host::RateBudget::Limits{1e12, 1e12, 4 * 1024, 1});
        budget.emplace(smallBudget);
        // A little less than the pool, so that some bodies fit the pool but not the share.
        shares.emplace(smallBudget - 1024);
        disk.emplace(kestrin::host::DiskReserve::Space{8 * 1024, 8}, [] {
            return std::optional<kestrin::host::DiskReserve::Space>({smallBudget / 2, 64});
        });
    }
    settings.maxBody = maxBody;
    const RequestGate gate(settings, services.dispatcher, budget ? &*budget : nullptr, nullptr, {},
                           disk ? &*disk : nullptr, shares ? &*shares : nullptr,
                           quota ? &*quota : nullptr);
    ClientBytes client(std::string_view(reinterpret_cast<const char*>(data + 2), size - 2), chunk);
    // Bounded as the server's is, so no framing can make it grow without end.
    beast::flat_buffer buffer(64 * 1024 + headerLimit);
    while (serveOne(client, buffer, maxBody, gate, *services.scanner)) {
        // Every request gives its memory back, whatever its end.
        if (budget && budget->used() != 0) {
            fail("memory still charged after a request: " + std::to_string(budget->used()), "");
        }
        if (shares && shares->clients() != 0) {
            fail("a client's share still held after a request", "");
        }
        if (disk && (disk->promised().bytes != 0 || disk->promised().files != 0)) {
            fail("disk still claimed after a request: " + std::to_string(disk->promised().bytes) +
                     " bytes, " + std::to_string(disk->promised().files) + " files",
                 "");
        }
    }
    return 0;
}
