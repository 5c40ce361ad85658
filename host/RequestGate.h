#pragma once

#include "common/DataBuffer.h"
#include "host/ClientShares.h"
#include "host/DiskReserve.h"
#include "host/MemoryBudget.h"
#include "host/RateBudget.h"
#include "host/RequestDispatcher.h"

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::host {

class BasicAuth;

// The settings that shape what the gate lets in.
struct GateSettings {
    std::uint64_t maxBody = std::uint64_t{1} << 30;
    // Origins ("scheme://host[:port]") whose pages may post uploads to us from another site.
    std::vector<std::string> allowedOrigins;
    // A path read and dropped for benchmarks (empty: none); it stores nothing, so it needs no
    // origin check and no memory beyond the connection's.
    std::string discardRoute;
    std::chrono::seconds headerTimeout{10};
    std::uint64_t minBodyRate = 1024; // bytes per second
    // The longest a body may pause, whatever rate it kept before.
    std::chrono::seconds idleTimeout{30};
    // Files one request may store: the most an upload can claim of the disk's files.
    std::uint64_t maxFiles = 1000;
    // Body bytes one client may upload in an hour, when the gate is given a quota to keep it.
    std::uint64_t uploadPerClient = 0;
    // Files one client may store in an hour, when the gate is given a quota to keep it.
    std::uint64_t filesPerClient = 0;
};

// The server's own read-only endpoints, answered from the head alone. Each may be empty: the
// path is then not found.
struct StatusEndpoints {
    // Why the server cannot store uploads now (the directory is gone, read-only or full; the
    // service is stopped), or nothing when it can. GET /healthz, without authentication, so
    // that a load balancer can ask.
    std::function<std::optional<std::string>()> healthProblem;
    // The metrics in the text format. GET /metrics, behind authentication when it is on.
    std::function<std::string()> metrics;
    std::string metricsType = "text/plain; charset=utf-8";
};

// What the server does with a request whose head is in.
struct Verdict {
    enum class Kind {
        answer,  // send reply; a body not read by then leaves the connection closed after it
        service, // read the body, then hand it to destination's service
        discard  // read the body and drop it
    };
    Kind kind = Kind::answer;
    Reply reply;
    RequestDispatcher::Destination destination{RequestDispatcher::Destination::Kind::notFound,
                                               nullptr, Address()};
    std::optional<std::string> boundary;
    // Memory held for the body and the copy the module makes of its part, from the budget;
    // a body without a length starts with none and is charged as it grows.
    MemoryBudget::Reservation charge;
    // The part of the client's own share of memory that the request holds until it is done:
    // what charge was at the start, or as a body without a length grew.
    ClientShares::Hold share;
    // The disk space the body's files may take, claimed from the reserve kept free; a body
    // without a length claims as it grows.
    DiskReserve::Claim disk;
    // Whose upload quota a body without a length pays from as it grows; empty: nobody's.
    std::string quotaClient;
    // The authenticated user, when authentication is on.
    std::string user;
    // How long to hold an answer back: a client guessing passwords waits for each answer, so
    // each of its connections guesses at most once a second.
    std::chrono::milliseconds delay{0};
    // Refused because the memory budget is spent for now: the slowest body may have to yield.
    bool waitsForMemory = false;
    // What the metrics count the request under: one of the server's own paths, or "other",
    // so that no client can make new series.
    std::string route = "other";
};

// Decides, from a request's head alone, whether and how the server serves it: framing,
// authentication, routing, the origin of uploads and their memory; and what to answer when
// reading a request fails or falls behind. No sockets: the session does the reading and writing
// and follows the verdicts, so that tests and the HTTP fuzz target drive the same decisions. Safe
// on any thread.
class RequestGate {
public:
    using Clock = std::chrono::steady_clock;
    using Head = boost::beast::http::request_header<>;

    enum class Stage { head, body };

    // Charged for every admitted upload besides its body and the copy of its part: the parsed
    // head, the part header map, the answer page.
    static constexpr std::uint64_t requestOverhead = 64 * 1024;

    // auth may be null: no authentication. budget may be null: no memory bound. disk may be
    // null: no space is kept free. memoryShares, the memory one client's requests may hold at
    // once, may be null: a client may hold all of the budget. uploadQuota, whose share per
    // client holds settings.uploadPerClient bytes and earns them back in an hour, may be null:
    // a client may upload without end. fileQuota, the same for settings.filesPerClient files,
    // may be null too.
    RequestGate(GateSettings settings, std::shared_ptr<const RequestDispatcher> dispatcher,
                MemoryBudget* budget, BasicAuth* auth, StatusEndpoints endpoints = {},
                DiskReserve* disk = nullptr, ClientShares* memoryShares = nullptr,
                RateBudget* uploadQuota = nullptr, RateBudget* fileQuota = nullptr);

    static constexpr std::string_view healthPath = "/healthz";
    static constexpr std::string_view metricsPath = "/metrics";

    // Wrong or throttled credentials are answered this late.
    static constexpr std::chrono::milliseconds refusalDelay{1000};

    // contentLength is the parser's reading of the head's framing fields; client the key of
    // the client's shares (empty: unknown, held to no share).
    [[nodiscard]] Verdict decide(const Head& head, boost::optional<std::uint64_t> contentLength,
                                 std::string_view client = {}) const;

    // Once a body is in, before any of its files is stored: whether the client may store the
    // files its body holds (parts, as the part check counted them, at most the files one
    // request may store). A refusal when not; otherwise they are charged to its file quota.
    [[nodiscard]] std::optional<Reply> fileQuotaRefusal(std::uint64_t parts,
                                                        std::string_view client) const;

    // What a body of this capacity costs the budget: itself, the copy the module makes of its
    // part (at most the body), and the request's overhead.
    static std::uint64_t chargeFor(std::uint64_t bodyCapacity);
    // The memory one client's requests may hold when the operator does not say: a quarter of
    // the budget, or what one body of the largest size needs when that is more (and fits), so
    // that a client can always send one upload as large as the server takes.
    static std::uint64_t defaultClientShare(std::uint64_t memoryLimit, std::uint64_t maxBody);

    // The answer to a failed read, or nothing when nobody is left to answer (the client closed
    // or reset the connection). Every answer here closes the connection: after a framing error
    // nobody knows where the next request would start.
    [[nodiscard]] std::optional<Reply> onReadError(const boost::beast::error_code& ec,
                                                   Stage stage) const;
    // The answer to a client that fell behind the deadline of its head or its body.
    [[nodiscard]] Reply timedOut(Stage stage) const;

    // Appends a piece of a body without a length (a chunk), first paying for it from the
    // client's upload quota and charging the verdict's memory and disk claims for the room the
    // body grows by: such a body was admitted with nothing and must earn every byte. Returns
    // the bytes taken, as the parser's chunk callback does; on failure none, the body and the
    // claims as they were (a piece the quota paid for stays paid), and ec a failure that
    // onReadError answers (413 once the body no longer fits the budget or the client's share
    // of it, 503 when memory runs out or the client's quota for the hour did, 507 when the disk
    // could not take it and keep its reserve).
    std::size_t appendChunk(common::DataBuffer& body, std::string_view piece, Verdict& verdict,
                            boost::beast::error_code& ec) const;

    // By when a head whose first byte came at firstByte must be complete.
    Clock::time_point headDeadline(Clock::time_point firstByte) const;
    // By when a body that started at start, and of which received bytes are in by now, must
    // be complete or have gone on: within the head's allowance and a second per minBodyRate
    // bytes, and no later than an idle timeout from now.
    Clock::time_point bodyDeadline(Clock::time_point start, std::uint64_t received,
                                   Clock::time_point now) const;

    // What the metrics count a request for this target under, when no verdict says it: one of
    // the server's own paths, or "other".
    [[nodiscard]] std::string routeLabel(std::string_view method, const std::string& target) const;

    // Whether the server's own answer (not the module's) refused a client: a missing path or
    // method is no refusal, and an unhealthy /healthz answers its question rather than refusing.
    static bool isRefusal(std::string_view route, unsigned status) noexcept;

    // The largest body an upload may have: the body limit, or less when the memory budget, or
    // one client's share of it, could never hold the body and its copy. The demo page is rendered
    // with it, so a file over it is refused before any byte is sent.
    [[nodiscard]] std::uint64_t largestBody() const noexcept;

    const GateSettings& getSettings() const noexcept { return settings; }

private:
    std::optional<Reply> crossSiteRefusal(const Head& head) const;
    std::optional<Reply> memoryRefusal(std::uint64_t length, Verdict& verdict,
                                       std::string_view client) const;
    std::optional<Reply> diskRefusal(std::uint64_t length, Verdict& verdict) const;
    std::optional<Reply> quotaRefusal(std::uint64_t length, std::string_view client) const;
    std::optional<Reply> statusEndpoint(const Head& head, std::string_view path,
                                        bool authenticated) const;

    GateSettings settings;
    std::shared_ptr<const RequestDispatcher> dispatcher;
    MemoryBudget* budget;
    BasicAuth* auth;
    StatusEndpoints endpoints;
    DiskReserve* disk;
    ClientShares* shares;
    RateBudget* quota;
    RateBudget* files;
    std::string demoPage;
};

// "scheme://host[:port]" in lower case without the scheme's default port, or nothing when text
// is no such origin (a path, user info, or no scheme).
[[nodiscard]] std::optional<std::string> normalizeOrigin(std::string_view text);

} // namespace kestrin::host
