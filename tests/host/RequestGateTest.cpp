#include "host/RequestGate.h"

#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/BasicAuth.h"
#include "host/RouteTable.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/detail/base64.hpp>
#include <boost/beast/http.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::host {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using Kind = Verdict::Kind;
using Clock = RequestGate::Clock;

class NoFiles final : public file::v1::FileService {
public:
    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file, bool) override {
        return makeReadyFuture(file_common::v1::FileInfo(file.info.path));
    }
};

// The dispatcher the server builds: the upload routes lead to the module's provider.
std::shared_ptr<RequestDispatcher> uploadDispatcher() {
    auto routes = std::make_shared<RouteTable>();
    const Address address("upload");
    routes->addRoute("/users", address);
    routes->addRoute("/ORVANE Drive", address);
    auto dispatcher = std::make_shared<RequestDispatcher>(routes);
    dispatcher->addService(
        address,
        kestrin::http::makeServiceProvider<file_upload::v1::MultipartUploadServiceProvider>(
            std::make_shared<NoFiles>(),
            std::make_shared<file_upload::v1::MultipartUploadServiceImpl>()));
    return dispatcher;
}

// A request head as Beast reads it off the wire.
struct Head {
    http::request_parser<http::empty_body> parser;

    explicit Head(const std::string& raw) {
        parser.eager(false);
        beast::error_code ec;
        parser.put(boost::asio::buffer(raw), ec);
        EXPECT_TRUE(parser.is_header_done()) << raw << ": " << ec.message();
    }
};

Verdict decide(const RequestGate& gate, const std::string& fields,
               const std::string& start = "POST /users HTTP/1.1") {
    Head head(start + "\r\nHost: 127.0.0.1:8080\r\n" + fields + "\r\n");
    return gate.decide(head.parser.get(), head.parser.content_length());
}

std::string text(const Reply& reply) {
    return std::string(reinterpret_cast<const char*>(reply.body.bytes()), reply.body.getSize());
}

std::optional<std::string> header(const Reply& reply, const std::string& name) {
    for (const auto& [key, value] : reply.headers) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

TEST(RequestGate, anyTransferCodingButALoneChunkedIsRefusedBeforeAnythingElse) {
    const RequestGate gate(GateSettings{}, uploadDispatcher(), nullptr, nullptr);
    struct Case {
        std::string fields;
        unsigned status; // 0: goes to the service
    };
    const Case cases[] = {
        {"Transfer-Encoding: chunked\r\n", 0},
        {"Transfer-Encoding: CHUNKED \r\n", 0},
        {"Transfer-Encoding: gzip\r\n", 501},
        {"Transfer-Encoding: identity\r\n", 501},
        {"Transfer-Encoding: chunked, identity\r\n", 501},
        {"Transfer-Encoding: gzip, chunked\r\n", 501},
        {"Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n", 501},
        {"Transfer-Encoding: ,\r\n", 501},
        // Even where the route would be unknown: the connection cannot be read on.
        {"Transfer-Encoding: gzip\r\nX-Route: none\r\n", 501},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields);
        const Verdict verdict = decide(gate, c.fields);
        if (c.status == 0) {
            EXPECT_EQ(verdict.kind, Kind::service);
        } else {
            EXPECT_EQ(verdict.kind, Kind::answer);
            EXPECT_EQ(verdict.reply.status, c.status);
            EXPECT_EQ(verdict.reply.refusal, Refusal::transferCoding);
            // What follows the head cannot be framed: it must never be read as a request.
            EXPECT_TRUE(verdict.reply.close);
        }
    }
    EXPECT_EQ(decide(gate, "Transfer-Encoding: gzip\r\n", "GET /nowhere HTTP/1.1").reply.status,
              501u);
}

TEST(RequestGate, uploadsFromPagesOfOtherSitesAreRefusedUnlessTheirOriginIsListed) {
    GateSettings settings;
    settings.allowedOrigins = {"HTTPS://Embedder.example:443"};
    const RequestGate gate(settings, uploadDispatcher(), nullptr, nullptr);
    struct Case {
        std::string fields; // the Host is 127.0.0.1:8080
        bool allowed;
    };
    const Case cases[] = {
        {"", true}, // curl and other clients that are no page
        {"Origin: http://127.0.0.1:8080\r\nSec-Fetch-Site: same-origin\r\n", true},
        {"Origin: HTTP://127.0.0.1:8080\r\n", true},
        // A proxy in front serving us over https keeps the Host.
        {"Origin: https://127.0.0.1:8080\r\n", true},
        {"Origin: http://evil.example\r\nSec-Fetch-Site: cross-site\r\n", false},
        {"Origin: http://evil.example\r\n", false},
        {"Sec-Fetch-Site: cross-site\r\n", false},
        {"Origin: http://127.0.0.1:8080\r\nSec-Fetch-Site: cross-site\r\n", false},
        {"Origin: http://127.0.0.1:8081\r\nSec-Fetch-Site: same-site\r\n", false},
        {"Origin: http://localhost:8080\r\n", false},
        {"Origin: null\r\n", false},
        {"Origin: http://127.0.0.1:8080/path\r\n", false},
        {"Origin: https://embedder.example\r\nSec-Fetch-Site: cross-site\r\n", true},
        {"Origin: http://embedder.example\r\n", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields);
        const Verdict verdict = decide(gate, c.fields);
        EXPECT_EQ(verdict.kind, c.allowed ? Kind::service : Kind::answer);
        if (!c.allowed) {
            EXPECT_EQ(verdict.reply.status, 403u);
            EXPECT_EQ(verdict.reply.refusal, Refusal::crossSite);
            EXPECT_EQ(text(verdict.reply),
                      "Forbidden: uploads from pages of other sites are refused\n");
        }
    }
    // Only uploads are guarded: another site may link to the page.
    EXPECT_EQ(decide(gate, "Origin: http://evil.example\r\n", "GET / HTTP/1.1").reply.status, 200u);
    // The port a browser leaves out is the scheme's.
    Head defaultPort("POST /users HTTP/1.1\r\nHost: upload.example:80\r\n"
                     "Origin: http://upload.example\r\n\r\n");
    EXPECT_EQ(gate.decide(defaultPort.parser.get(), boost::none).kind, Kind::service);
}

TEST(RequestGate, everyRequestNeedsCredentialsWhenAuthenticationIsOn) {
    BasicAuth auth(PasswordFile::parse("alice:" + hashPassword("s3cret: yes"), "test"));
    const RequestGate gate(GateSettings{}, uploadDispatcher(), nullptr, &auth);
    const auto basic = [](const std::string& credentials) {
        std::string encoded(beast::detail::base64::encoded_size(credentials.size()), '\0');
        encoded.resize(
            beast::detail::base64::encode(encoded.data(), credentials.data(), credentials.size()));
        return "Authorization: Basic " + encoded + "\r\n";
    };
    for (const std::string start : {"GET / HTTP/1.1", "POST /users HTTP/1.1", "GET /x HTTP/1.1"}) {
        SCOPED_TRACE(start);
        for (const std::string& fields : {std::string(), basic("alice:wrong"), basic("bob:x")}) {
            const Verdict refused = decide(gate, fields, start);
            EXPECT_EQ(refused.reply.status, 401u);
            EXPECT_EQ(refused.reply.refusal, Refusal::credentials);
            EXPECT_EQ(header(refused.reply, "WWW-Authenticate"), std::string(BasicAuth::challenge));
            // A guess waits for its answer; a browser's first request, without credentials,
            // does not.
            EXPECT_EQ(refused.delay,
                      fields.empty() ? std::chrono::milliseconds(0) : RequestGate::refusalDelay);
        }
        const Verdict granted = decide(gate, basic("alice:s3cret: yes"), start);
        EXPECT_NE(granted.reply.status, 401u);
        EXPECT_EQ(granted.user, "alice");
    }
}

TEST(RequestGate, anUploadIsAdmittedOnlyWhenItsBodyAndItsCopyFitInTheBudget) {
    const std::uint64_t length = 1000;
    const std::uint64_t needed = RequestGate::chargeFor(length);
    EXPECT_EQ(needed, 2 * length + RequestGate::requestOverhead);
    MemoryBudget budget(needed + needed / 2);
    const RequestGate gate(GateSettings{}, uploadDispatcher(), &budget, nullptr);
    const std::string announced = "Content-Length: " + std::to_string(length) + "\r\n";

    Verdict first = decide(gate, announced);
    EXPECT_EQ(first.kind, Kind::service);
    EXPECT_EQ(first.charge.bytes(), needed);
    EXPECT_EQ(budget.used(), needed);

    const Verdict second = decide(gate, announced);
    EXPECT_EQ(second.reply.status, 503u);
    EXPECT_EQ(second.reply.refusal, Refusal::memory);
    EXPECT_EQ(header(second.reply, "Retry-After"), "5");
    EXPECT_TRUE(second.waitsForMemory);
    EXPECT_EQ(budget.used(), needed);

    // A body that could never fit is told so, not to come back.
    const Verdict never =
        decide(gate, "Content-Length: " + std::to_string(budget.limit() / 2) + "\r\n");
    EXPECT_EQ(never.reply.status, 413u);
    EXPECT_EQ(never.reply.refusal, Refusal::memory);
    EXPECT_FALSE(never.waitsForMemory);

    first = Verdict();
    EXPECT_EQ(budget.used(), 0u);
    // Bodies without a length start with nothing and earn their memory as they grow; requests
    // without a body, and the discard route, take none.
    Verdict chunked = decide(gate, "Transfer-Encoding: chunked\r\n");
    EXPECT_EQ(chunked.kind, Kind::service);
    EXPECT_EQ(chunked.charge.bytes(), 0u);
    EXPECT_EQ(decide(gate, "").charge.bytes(), 0u);
    EXPECT_EQ(budget.used(), 0u);

    common::DataBuffer body;
    const std::string piece(300, 'x');
    beast::error_code ec;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(gate.appendChunk(body, piece, chunked, ec), piece.size());
        ASSERT_FALSE(ec);
        EXPECT_EQ(chunked.charge.bytes(), RequestGate::chargeFor(body.getCapacity()));
    }
    // The next growth would pass the budget: nothing changes, and the read fails with 413.
    const std::string large(budget.limit() / 2, 'y');
    const std::size_t size = body.getSize();
    const std::uint64_t charged = chunked.charge.bytes();
    EXPECT_EQ(gate.appendChunk(body, large, chunked, ec), 0u);
    EXPECT_EQ(body.getSize(), size);
    EXPECT_EQ(chunked.charge.bytes(), charged);
    EXPECT_EQ(budget.used(), charged);
    const std::optional<Reply> answer = gate.onReadError(ec, RequestGate::Stage::body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 413u);
    EXPECT_EQ(answer->refusal, Refusal::memory);
    EXPECT_EQ(text(*answer),
              "Payload Too Large: the body no longer fits in the memory of this server\n");
}

// A client sending many uploads at once waits for its own once they hold its share of the
// memory, while the others go on; a body its share could never hold is told so.
TEST(RequestGate, oneClientsUploadsHoldNoMoreThanItsShareOfTheMemory) {
    const std::uint64_t length = 1000;
    const std::uint64_t needed = RequestGate::chargeFor(length);
    MemoryBudget budget(4 * needed);
    ClientShares shares(2 * needed);
    const RequestGate gate(GateSettings{}, uploadDispatcher(), &budget, nullptr, {}, nullptr,
                           &shares);
    const auto upload = [&](const std::string& client, const std::string& fields) {
        Head head("POST /users HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n" + fields + "\r\n");
        return gate.decide(head.parser.get(), head.parser.content_length(), client);
    };
    const std::string announced = "Content-Length: " + std::to_string(length) + "\r\n";

    Verdict first = upload("10.0.0.1", announced);
    EXPECT_EQ(upload("10.0.0.1", announced).kind, Kind::service); // ends at once
    const Verdict second = upload("10.0.0.1", announced);
    EXPECT_EQ(second.kind, Kind::service);
    const Verdict third = upload("10.0.0.1", announced);
    EXPECT_EQ(third.reply.status, 503u);
    EXPECT_EQ(third.reply.refusal, Refusal::memoryShare);
    EXPECT_EQ(header(third.reply, "Retry-After"), "5");
    EXPECT_EQ(third.reply.detail, "client's memory share: " + std::to_string(2 * needed) + " of " +
                                      std::to_string(2 * needed) + " held, " +
                                      std::to_string(needed) + " needed");
    // The budget has room: no other client's body is made to yield for this one.
    EXPECT_FALSE(third.waitsForMemory);
    EXPECT_EQ(budget.used(), 2 * needed);
    Verdict other = upload("10.0.0.2", announced);
    EXPECT_EQ(other.kind, Kind::service);
    first = Verdict();
    EXPECT_EQ(upload("10.0.0.1", announced).kind, Kind::service);

    // Past the share by itself: not worth a retry.
    EXPECT_EQ(gate.largestBody(), (shares.share() - RequestGate::requestOverhead) / 2);
    const Verdict never =
        upload("10.0.0.3", "Content-Length: " + std::to_string(gate.largestBody() + 1) + "\r\n");
    EXPECT_EQ(never.reply.status, 413u);
    EXPECT_EQ(never.reply.refusal, Refusal::memoryShare);
    EXPECT_EQ(text(never.reply), "Payload Too Large: a body of " +
                                     std::to_string(gate.largestBody() + 1) +
                                     " bytes needs more memory than one client may use\n");

    // A body without a length earns its share as it grows, and stops at it.
    other = Verdict();
    Verdict chunked = upload("10.0.0.2", "Transfer-Encoding: chunked\r\n");
    common::DataBuffer body;
    beast::error_code ec;
    ASSERT_EQ(gate.appendChunk(body, std::string(2 * length, 'x'), chunked, ec), 2 * length);
    EXPECT_EQ(chunked.share.amount(), chunked.charge.bytes());
    const std::uint64_t held = shares.held("10.0.0.2");
    const std::uint64_t used = budget.used();
    EXPECT_EQ(gate.appendChunk(body, std::string(gate.largestBody(), 'y'), chunked, ec), 0u);
    EXPECT_EQ(shares.held("10.0.0.2"), held);
    EXPECT_EQ(budget.used(), used);
    const std::optional<Reply> answer = gate.onReadError(ec, RequestGate::Stage::body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 413u);
    EXPECT_EQ(answer->refusal, Refusal::memoryShare);
    EXPECT_EQ(text(*answer),
              "Payload Too Large: the body no longer fits in the memory one client may use\n");

    // Where the pool runs out before the share, the share goes back to what it held too.
    const std::optional<MemoryBudget::Reservation> rest =
        budget.reserve(budget.limit() - budget.used());
    ASSERT_TRUE(rest);
    Verdict starved = upload("10.0.0.4", "Transfer-Encoding: chunked\r\n");
    common::DataBuffer starvedBody;
    EXPECT_EQ(gate.appendChunk(starvedBody, std::string(length, 'z'), starved, ec), 0u);
    EXPECT_EQ(shares.held("10.0.0.4"), 0u);

    // By default: a quarter of the memory, or what one largest body needs, if that fits.
    EXPECT_EQ(RequestGate::defaultClientShare(1000 * needed, length), 250 * needed);
    EXPECT_EQ(RequestGate::defaultClientShare(2 * needed, length), needed);
    EXPECT_EQ(RequestGate::defaultClientShare(needed / 2, length), needed / 2);
}

// What one client uploads in an hour is bounded: a body is let in only while what the client
// has left covers all of it, and a refused one keeps no memory; other clients have their own.
TEST(RequestGate, aClientsUploadsInAnHourAreHeldToItsQuota) {
    GateSettings settings;
    settings.uploadPerClient = 3000;
    RateBudget quota({1e12, 1e12, 3000, 3000.0 / 3600});
    MemoryBudget budget(1 << 20);
    const RequestGate gate(settings, uploadDispatcher(), &budget, nullptr, {}, nullptr, nullptr,
                           &quota);
    const auto upload = [&](const std::string& client, const std::string& fields) {
        Head head("POST /users HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n" + fields + "\r\n");
        return gate.decide(head.parser.get(), head.parser.content_length(), client);
    };
    const Verdict first = upload("10.0.0.1", "Content-Length: 2000\r\n");
    EXPECT_EQ(first.kind, Kind::service);
    const Verdict second = upload("10.0.0.1", "Content-Length: 2000\r\n");
    EXPECT_EQ(second.reply.status, 503u);
    EXPECT_EQ(second.reply.refusal, Refusal::uploadQuota);
    // A thousand bytes short, at 3000 an hour.
    EXPECT_EQ(header(second.reply, "Retry-After"), "1200");
    EXPECT_EQ(budget.used(), RequestGate::chargeFor(2000));
    EXPECT_EQ(upload("10.0.0.2", "Content-Length: 2000\r\n").kind, Kind::service);
    // A body over the quota itself is told not to come back, and the page says so first.
    const Verdict never = upload("10.0.0.3", "Content-Length: 3001\r\n");
    EXPECT_EQ(never.reply.status, 413u);
    EXPECT_EQ(never.reply.refusal, Refusal::uploadQuota);
    EXPECT_EQ(gate.largestBody(), 3000u);

    // A body without a length pays for each piece before it takes memory for it.
    Verdict chunked = upload("10.0.0.1", "Transfer-Encoding: chunked\r\n");
    EXPECT_EQ(chunked.kind, Kind::service);
    common::DataBuffer body;
    beast::error_code ec;
    EXPECT_EQ(gate.appendChunk(body, std::string(900, 'x'), chunked, ec), 900u);
    const std::uint64_t used = budget.used();
    EXPECT_EQ(gate.appendChunk(body, std::string(200, 'y'), chunked, ec), 0u);
    EXPECT_EQ(body.getSize(), 900u);
    EXPECT_EQ(budget.used(), used);
    const std::optional<Reply> answer = gate.onReadError(ec, RequestGate::Stage::body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 503u);
    EXPECT_EQ(answer->refusal, Refusal::uploadQuota);
    EXPECT_TRUE(answer->close);

    // A piece the memory refuses is never stored, and costs the client none of its quota.
    MemoryBudget small(RequestGate::chargeFor(1000));
    const RequestGate tight(settings, uploadDispatcher(), &small, nullptr, {}, nullptr, nullptr,
                            &quota);
    Head head("POST /users HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nTransfer-Encoding: chunked\r\n\r\n");
    Verdict large = tight.decide(head.parser.get(), head.parser.content_length(), "10.0.0.4");
    common::DataBuffer refusedBody;
    EXPECT_EQ(tight.appendChunk(refusedBody, std::string(2000, 'z'), large, ec), 0u);
    EXPECT_EQ(ec, boost::system::errc::file_too_large);
    EXPECT_FALSE(quota.takeWhole("10.0.0.4", 3000, RateBudget::Clock::now()));
}

// The files one client stores in an hour are bounded the same way, counted once its body is in:
// files past the most one request may store are not charged, a refusal costs nothing, and
// another client has its own.
TEST(RequestGate, aClientsFilesInAnHourAreHeldToItsQuota) {
    GateSettings settings;
    settings.filesPerClient = 100;
    settings.maxFiles = 60;
    RateBudget files({1e12, 1e12, 100, 100.0 / 3600});
    const RequestGate gate(settings, uploadDispatcher(), nullptr, nullptr, {}, nullptr, nullptr,
                           nullptr, &files);
    EXPECT_FALSE(gate.fileQuotaRefusal(60, "10.0.0.1"));
    // Past the request's 60, the 500 parts cost 60 and leave nothing of the hundred.
    const std::optional<Reply> over = gate.fileQuotaRefusal(500, "10.0.0.1");
    ASSERT_TRUE(over);
    EXPECT_EQ(over->status, 503u);
    EXPECT_EQ(over->refusal, Refusal::fileQuota);
    // Twenty files short, at a hundred an hour.
    EXPECT_EQ(header(*over, "Retry-After"), "720");
    EXPECT_FALSE(gate.fileQuotaRefusal(40, "10.0.0.1"));
    EXPECT_TRUE(gate.fileQuotaRefusal(1, "10.0.0.1"));
    EXPECT_FALSE(gate.fileQuotaRefusal(60, "10.0.0.2"));
    // A body of no parts stores nothing, and one of more files than the quota never could.
    EXPECT_FALSE(gate.fileQuotaRefusal(0, "10.0.0.1"));
    GateSettings small = settings;
    small.filesPerClient = 50;
    const RequestGate tight(small, uploadDispatcher(), nullptr, nullptr, {}, nullptr, nullptr,
                            nullptr, &files);
    const std::optional<Reply> never = tight.fileQuotaRefusal(51, "10.0.0.3");
    ASSERT_TRUE(never);
    EXPECT_EQ(never->status, 413u);
    EXPECT_EQ(never->refusal, Refusal::fileQuota);
    // Without a quota, or for a request of no known client, nothing is counted.
    const RequestGate open(settings, uploadDispatcher(), nullptr, nullptr);
    EXPECT_FALSE(open.fileQuotaRefusal(1000, "10.0.0.1"));
    EXPECT_FALSE(gate.fileQuotaRefusal(1000, ""));
}

TEST(RequestGate, anUploadTheDiskCannotTakeAndKeepItsReserveIsRefusedBeforeItsBody) {
    DiskReserve::Space free{10'000, 1'000};
    DiskReserve disk({2'000, 100}, [&free] { return std::optional<DiskReserve::Space>(free); });
    MemoryBudget budget(1 << 20);
    GateSettings settings;
    settings.maxFiles = 500;
    const RequestGate gate(settings, uploadDispatcher(), &budget, nullptr, {}, &disk);
    const std::string insufficient =
        "Insufficient Storage: the server's disk is too full to take this upload; retry later\n";

    // A body claims its length, and the files it has room for up to the request limit.
    Verdict first = decide(gate, "Content-Length: 6000\r\n");
    EXPECT_EQ(first.kind, Kind::service);
    EXPECT_EQ(first.disk.held().bytes, 6000u);
    EXPECT_EQ(first.disk.held().files, DiskReserve::filesIn(6000, 500));
    // The second would fit the free space alone, not beside what the first may still write;
    // it is told so without taking any memory.
    const Verdict second = decide(gate, "Content-Length: 2001\r\n");
    EXPECT_EQ(second.kind, Kind::answer);
    EXPECT_EQ(second.reply.status, 507u);
    EXPECT_EQ(second.reply.refusal, Refusal::disk);
    EXPECT_EQ(text(second.reply), insufficient);
    EXPECT_EQ(second.reply.detail,
              "disk: 10000 bytes and 1000 files free, 6000 bytes and 126 files promised to "
              "uploads under way, 2001 bytes and 42 files more needed, 2000 bytes and 100 files "
              "kept free");
    EXPECT_EQ(budget.used(), first.charge.bytes());
    EXPECT_EQ(decide(gate, "Content-Length: 2000\r\n").kind, Kind::service);
    first = Verdict();
    EXPECT_EQ(disk.promised().bytes, 0u);
    // Requests without a body claim nothing.
    EXPECT_EQ(decide(gate, "").disk.held().bytes, 0u);
    EXPECT_EQ(decide(gate, "", "GET / HTTP/1.1").reply.status, 200u);
    // Room for the bytes is not enough: a body of many small parts needs files too.
    free.files = 500;
    EXPECT_EQ(decide(gate, "Content-Length: 20000\r\n").reply.status, 507u);
    EXPECT_EQ(decide(gate, "Content-Length: 8000\r\n").kind, Kind::service);

    // A body without a length claims as it grows; once it cannot, the read fails with 507 and
    // its memory charge is as it was.
    free = {10'000, 1'000};
    Verdict chunked = decide(gate, "Transfer-Encoding: chunked\r\n");
    common::DataBuffer body;
    beast::error_code ec;
    const std::string piece(3000, 'x');
    ASSERT_EQ(gate.appendChunk(body, piece, chunked, ec), piece.size());
    EXPECT_GE(chunked.disk.held().bytes, body.getSize());
    EXPECT_EQ(chunked.disk.held().files, DiskReserve::filesIn(body.getCapacity(), 500));
    free.bytes = 6'000;
    const std::uint64_t charged = chunked.charge.bytes();
    EXPECT_EQ(gate.appendChunk(body, piece + piece, chunked, ec), 0u);
    EXPECT_EQ(chunked.charge.bytes(), charged);
    EXPECT_EQ(budget.used(), charged);
    const std::optional<Reply> answer = gate.onReadError(ec, RequestGate::Stage::body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 507u);
    EXPECT_TRUE(answer->close);
    EXPECT_EQ(text(*answer), insufficient);
}

TEST(RequestGate, routesTheRestAsBeforeAndReadsTheBoundary) {
    GateSettings settings;
    settings.discardRoute = "/sink";
    const RequestGate gate(settings, uploadDispatcher(), nullptr, nullptr);
    EXPECT_EQ(decide(gate, "", "GET / HTTP/1.1").reply.status, 200u);
    EXPECT_EQ(decide(gate, "", "POST / HTTP/1.1").reply.status, 404u);
    EXPECT_EQ(decide(gate, "", "POST /users/ HTTP/1.1").reply.status, 404u);
    EXPECT_EQ(decide(gate, "", "GET /bad%zz HTTP/1.1").reply.status, 400u);
    EXPECT_EQ(decide(gate, "", "PUT /sink HTTP/1.1").kind, Kind::discard);
    const Verdict upload = decide(gate, "Content-Type: multipart/form-data; boundary=\"a b\"\r\n",
                                  "POST /ORVANE%20Drive HTTP/1.1");
    EXPECT_EQ(upload.kind, Kind::service);
    EXPECT_EQ(upload.boundary, "a b");
    EXPECT_EQ(decide(gate, "Content-Type: text/plain\r\n").boundary, std::nullopt);
}

// The page is rendered with the largest body the gate admits, so that a file over it is
// refused before it is sent: the body limit, or less where the memory budget could never hold a
// larger body with its copy.
TEST(RequestGate, theDemoPageNamesTheLargestBodyItAdmits) {
    const auto largestOnPage = [](const RequestGate& gate) {
        const std::string page = text(decide(gate, "", "GET / HTTP/1.1").reply);
        const std::string key = "data-largest-body=\"";
        const std::size_t start = page.find(key) + key.size();
        return page.substr(start, page.find('"', start) - start);
    };
    GateSettings settings;
    settings.maxBody = 256 * 1024;
    EXPECT_EQ(largestOnPage(RequestGate(settings, uploadDispatcher(), nullptr, nullptr)), "262144");

    MemoryBudget budget(RequestGate::chargeFor(1000) + 1);
    const RequestGate tight(settings, uploadDispatcher(), &budget, nullptr);
    EXPECT_EQ(largestOnPage(tight), "1000");
    EXPECT_EQ(decide(tight, "Content-Length: 1000\r\n").kind, Kind::service);
    EXPECT_EQ(decide(tight, "Content-Length: 1001\r\n").reply.status, 413u);

    MemoryBudget tiny(RequestGate::requestOverhead - 1);
    EXPECT_EQ(largestOnPage(RequestGate(settings, uploadDispatcher(), &tiny, nullptr)), "0");
}

// A load balancer asks for health without credentials; metrics say who uploads how much, so
// they need them. Either endpoint answers GET and HEAD only, never from a cache, and every
// request is counted under a label from a fixed set, whatever path a client makes up.
TEST(RequestGate, healthAndMetricsAnswerFromTheHeadAndRoutesLabelFromAFixedSet) {
    BasicAuth auth(PasswordFile::parse("alice:" + hashPassword("pw"), "test"));
    std::optional<std::string> problem;
    StatusEndpoints endpoints;
    endpoints.healthProblem = [&problem] { return problem; };
    endpoints.metrics = [] { return std::string("kestrin_up 1\n"); };
    endpoints.metricsType = "text/plain; version=0.0.4";
    const RequestGate gate(GateSettings{}, uploadDispatcher(), nullptr, &auth, endpoints);
    const std::string login = "Authorization: Basic YWxpY2U6cHc=\r\n"; // alice:pw

    struct Case {
        std::string start;
        std::string fields;
        unsigned status;
        std::string body;
        std::string route;
    };
    const std::vector<Case> cases = {
        {"GET /healthz HTTP/1.1", "", 200, "ok\n", "/healthz"},
        {"HEAD /healthz?probe=1 HTTP/1.1", "", 200, "ok\n", "/healthz"},
        {"POST /healthz HTTP/1.1", "", 405, "Method Not Allowed\n", "/healthz"},
        {"GET /metrics HTTP/1.1", "", 401, "Unauthorized: log in to upload\n", "other"},
        {"GET /metrics HTTP/1.1", login, 200, "kestrin_up 1\n", "/metrics"},
        {"HEAD / HTTP/1.1", login, 200, "", "/"},
        {"GET /made-up-path-1 HTTP/1.1", login, 404, "Not Found\n", "other"},
        {"POST /ORVANE%20Drive HTTP/1.1", login, 0, "", "/ORVANE Drive"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.start + " " + c.fields);
        const Verdict verdict = decide(gate, c.fields, c.start);
        EXPECT_EQ(verdict.route, c.route);
        if (c.status == 0) {
            EXPECT_EQ(verdict.kind, Kind::service);
            continue;
        }
        EXPECT_EQ(verdict.reply.status, c.status);
        if (!c.body.empty()) {
            EXPECT_EQ(text(verdict.reply), c.body);
        }
    }
    EXPECT_EQ(decide(gate, "", "POST /healthz HTTP/1.1").reply.headers.front().second, "GET, HEAD");
    const Verdict scrape = decide(gate, login, "GET /metrics HTTP/1.1");
    EXPECT_EQ(scrape.reply.contentType, "text/plain; version=0.0.4");
    EXPECT_EQ(header(scrape.reply, "Cache-Control"), "no-store");

    problem = "the upload directory is gone";
    const Verdict sick = decide(gate, "", "GET /healthz HTTP/1.1");
    EXPECT_EQ(sick.reply.status, 503u);
    EXPECT_EQ(text(sick.reply), "unavailable: the upload directory is gone\n");
    EXPECT_EQ(sick.reply.detail, "the upload directory is gone");
    // Monitoring that alerts on refusals must not hear an unhealthy directory as clients refused.
    EXPECT_FALSE(RequestGate::isRefusal(sick.route, sick.reply.status));
    EXPECT_TRUE(RequestGate::isRefusal("/users", 503));
    EXPECT_TRUE(RequestGate::isRefusal("/metrics", 401));
    EXPECT_FALSE(RequestGate::isRefusal("other", 404));
    EXPECT_FALSE(RequestGate::isRefusal("/users", 405));

    // Without the endpoints, the paths are nobody's.
    const RequestGate bare(GateSettings{}, uploadDispatcher(), nullptr, nullptr);
    EXPECT_EQ(decide(bare, "", "GET /healthz HTTP/1.1").reply.status, 404u);
    EXPECT_EQ(decide(bare, "", "GET /metrics HTTP/1.1").reply.status, 404u);
}

TEST(RequestGate, readFailuresAreAnsweredWhileSomeoneListensAndTheirDeadlinesHold) {
    GateSettings settings;
    settings.headerTimeout = std::chrono::seconds(10);
    settings.minBodyRate = 1000;
    settings.idleTimeout = std::chrono::seconds(30);
    const RequestGate gate(settings, uploadDispatcher(), nullptr, nullptr);
    using Stage = RequestGate::Stage;
    using boost::system::errc::make_error_code;
    namespace errc = boost::system::errc;
    struct Case {
        beast::error_code ec;
        Stage stage;
        unsigned status; // 0: nobody to answer
        Refusal why;     // what the metrics count it under
    };
    const Case cases[] = {
        {http::error::header_limit, Stage::head, 431, Refusal::headTooLarge},
        {http::error::buffer_overflow, Stage::head, 431, Refusal::headTooLarge},
        {http::error::buffer_overflow, Stage::body, 413, Refusal::bodyTooLarge},
        {http::error::body_limit, Stage::body, 413, Refusal::bodyTooLarge},
        {http::error::bad_chunk, Stage::body, 400, Refusal::malformed},
        {http::error::bad_transfer_encoding, Stage::head, 400, Refusal::malformed},
        {http::error::bad_content_length, Stage::head, 400, Refusal::malformed},
        {http::error::bad_method, Stage::head, 400, Refusal::malformed},
        {make_error_code(errc::not_enough_memory), Stage::body, 503, Refusal::memory},
        {make_error_code(errc::no_space_on_device), Stage::body, 507, Refusal::disk},
        {http::error::partial_message, Stage::body, 0, Refusal::none},
        {http::error::end_of_stream, Stage::head, 0, Refusal::none},
        {boost::asio::error::connection_reset, Stage::body, 0, Refusal::none},
        {boost::asio::error::eof, Stage::head, 0, Refusal::none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ec.message());
        const std::optional<Reply> reply = gate.onReadError(c.ec, c.stage);
        ASSERT_EQ(reply.has_value(), c.status != 0);
        if (reply) {
            EXPECT_EQ(reply->status, c.status);
            EXPECT_EQ(reply->refusal, c.why);
            EXPECT_TRUE(reply->close);
        }
    }
    for (const Stage stage : {Stage::head, Stage::body}) {
        EXPECT_EQ(gate.timedOut(stage).status, 408u);
        EXPECT_TRUE(gate.timedOut(stage).close);
    }
    EXPECT_EQ(gate.timedOut(Stage::head).refusal, Refusal::headTimeout);
    EXPECT_EQ(gate.timedOut(Stage::body).refusal, Refusal::bodyTimeout);

    const Clock::time_point start{};
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    EXPECT_EQ(gate.headDeadline(start), start + seconds(10));
    // A body earns a second for every 1000 bytes after the head's allowance...
    EXPECT_EQ(gate.bodyDeadline(start, 0, start), start + seconds(10));
    EXPECT_EQ(gate.bodyDeadline(start, 2500, start + seconds(1)), start + milliseconds(12500));
    // ...but may never pause for longer than the idle timeout, whatever it earned.
    EXPECT_EQ(gate.bodyDeadline(start, 1'000'000, start + seconds(5)), start + seconds(35));
    EXPECT_EQ(gate.bodyDeadline(start, UINT64_MAX, start), start + seconds(30));
}

TEST(RequestGate, originsAreComparedInOneSpelling) {
    struct Case {
        std::string text;
        std::optional<std::string> origin;
    };
    const Case cases[] = {
        {"http://Example.COM", "http://example.com"},
        {"http://example.com:80", "http://example.com"},
        {"https://example.com:443", "https://example.com"},
        {"https://example.com:80", "https://example.com:80"},
        {"http://[::1]:8080", "http://[::1]:8080"},
        {"null", std::nullopt},
        {"example.com", std::nullopt},
        {"http://", std::nullopt},
        {"http://user@example.com", std::nullopt},
        {"http://example.com/", std::nullopt},
        {"ht tp://example.com", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(normalizeOrigin(c.text), c.origin);
    }
}

} // namespace
} // namespace kestrin::host
