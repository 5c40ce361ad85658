#include "host/RequestGate.h"

#include "host/BasicAuth.h"
#include "host/ClientKey.h"
#include "host/DemoPage.h"
#include "host/HttpRules.h"

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/rfc7230.hpp>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <utility>

namespace kestrin::host {

namespace http = boost::beast::http;

namespace {

// Client text echoed in an answer or the log is cut to this many bytes.
constexpr std::size_t echoLimit = 200;

std::string echo(boost::beast::string_view text) {
    std::string shown(text.data(), std::min(text.size(), echoLimit));
    if (text.size() > echoLimit) {
        shown += "...";
    }
    return shown;
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

// host[:port] without the port that the scheme implies (http 80, https 443).
std::string withoutDefaultPort(std::string authority, std::string_view scheme) {
    const std::string_view port = scheme == "https" ? ":443" : scheme == "http" ? ":80" : "";
    if (!port.empty() && authority.size() > port.size() &&
        authority.compare(authority.size() - port.size(), port.size(), port) == 0) {
        authority.resize(authority.size() - port.size());
    }
    return authority;
}

std::string toString(boost::beast::string_view text) {
    return std::string(text.data(), text.size());
}

constexpr const char* diskFullText =
    "Insufficient Storage: the server's disk is too full to take this upload; retry later";

// detail goes to the log, why to the metrics.
Reply refuse(unsigned status, std::string text, std::string detail, Refusal why) {
    Reply reply = RequestDispatcher::plainText(status, text, std::move(detail));
    reply.refusal = why;
    return reply;
}

Reply refuseAndClose(unsigned status, std::string text, std::string detail, Refusal why) {
    Reply reply = refuse(status, std::move(text), std::move(detail), why);
    reply.close = true;
    return reply;
}

// What one client may spend in an hour, in units of what it measures.
struct HourlyQuota {
    const char* unit;  // "bytes"
    const char* verb;  // what a client does with them: "upload"
    const char* name;  // as the log names it: "upload quota"
    const char* spent; // the 503's text: "this client has uploaded all it may for now"
    Refusal refusal;
};

// Whether amount more fits the client's quota of most an hour, taking it when it does: 413 for
// an amount no hour would cover, 503 with Retry-After for one that does not fit now.
std::optional<Reply> hourlyQuotaRefusal(RateBudget& budget, std::uint64_t amount,
                                        std::uint64_t most, std::string_view client,
                                        const HourlyQuota& quota) {
    if (client.empty()) {
        return std::nullopt;
    }
    const std::string unit = std::string(" ") + quota.unit;
    if (amount > most) {
        return refuse(413,
                      "Payload Too Large: a body of " + std::to_string(amount) + unit +
                          " is more than one client may " + quota.verb + " in an hour",
                      "body of " + std::to_string(amount) + unit + " over the " + quota.name +
                          " of " + std::to_string(most) + " an hour",
                      quota.refusal);
    }
    const auto refused = budget.takeWhole(std::string(client), static_cast<double>(amount),
                                          RateBudget::Clock::now());
    if (!refused) {
        return std::nullopt;
    }
    Reply reply = refuse(503, std::string("Service Unavailable: ") + quota.spent + "; retry later",
                         (refused->sharedBy.empty() ? std::string("client's ") + quota.name + ": "
                                                    : std::string(quota.name) + " shared by " +
                                                          refused->sharedBy + ": ") +
                             std::to_string(amount) + unit + " more than it has left of " +
                             std::to_string(most) + " an hour",
                         quota.refusal);
    reply.headers.emplace_back("Retry-After", std::to_string(refused->retryAfter.count()));
    return reply;
}

} // namespace

std::optional<std::string> normalizeOrigin(std::string_view text) {
    const size_t separator = text.find("://");
    if (separator == std::string_view::npos || separator == 0) {
        return std::nullopt;
    }
    const std::string scheme = lower(text.substr(0, separator));
    const std::string authority = lower(text.substr(separator + 3));
    if (authority.empty() || authority.find_first_of("/?#@ ") != std::string::npos ||
        !std::all_of(scheme.begin(), scheme.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
        })) {
        return std::nullopt;
    }
    return scheme + "://" + withoutDefaultPort(authority, scheme);
}

RequestGate::RequestGate(GateSettings gateSettings,
                         std::shared_ptr<const RequestDispatcher> requestDispatcher,
                         MemoryBudget* memoryBudget, BasicAuth* basicAuth,
                         StatusEndpoints statusEndpoints, DiskReserve* diskReserve,
                         ClientShares* memoryShares, RateBudget* uploadQuota, RateBudget* fileQuota)
    : settings(std::move(gateSettings))
    , dispatcher(std::move(requestDispatcher))
    , budget(memoryBudget)
    , auth(basicAuth)
    , endpoints(std::move(statusEndpoints))
    , disk(diskReserve)
    , shares(memoryShares)
    , quota(uploadQuota)
    , files(fileQuota) {
    for (std::string& origin : settings.allowedOrigins) {
        origin = normalizeOrigin(origin).value_or(lower(origin));
    }
    demoPage = renderDemoPage(largestBody());
}

std::uint64_t RequestGate::largestBody() const noexcept {
    const std::uint64_t allowed = quota != nullptr && settings.uploadPerClient > 0
                                      ? std::min(settings.maxBody, settings.uploadPerClient)
                                      : settings.maxBody;
    if (budget == nullptr) {
        return allowed;
    }
    // The largest length that chargeFor keeps within the budget's limit and a client's share.
    const std::uint64_t most =
        shares != nullptr ? std::min(budget->limit(), shares->share()) : budget->limit();
    const std::uint64_t fits = most < requestOverhead ? 0 : (most - requestOverhead) / 2;
    return std::min(allowed, fits);
}

Verdict RequestGate::decide(const Head& head, boost::optional<std::uint64_t> contentLength,
                            std::string_view client) const {
    Verdict verdict;
    // A coding we do not decode leaves the body's end unknown: reading on would take the body
    // for the next request.
    if (head.count(http::field::transfer_encoding) > 0) {
        std::vector<std::string> codings;
        const auto fields = head.equal_range(http::field::transfer_encoding);
        for (auto field = fields.first; field != fields.second; ++field) {
            for (const auto coding : http::token_list(field->value())) {
                codings.push_back(lower(std::string_view(coding.data(), coding.size())));
            }
        }
        if (codings.size() != 1 || codings.front() != "chunked") {
            std::string listed = toString(head[http::field::transfer_encoding]);
            verdict.reply = refuse(501, "Not Implemented: transfer coding " + echo(listed),
                                   "transfer coding " + echo(listed), Refusal::transferCoding);
            verdict.reply.close = true;
            return verdict;
        }
    }
    // A load balancer asks for health without credentials; the answer tells nothing else.
    const std::string_view rawTarget(head.target().data(), head.target().size());
    if (std::optional<Reply> reply =
            statusEndpoint(head, rawTarget.substr(0, rawTarget.find('?')), false)) {
        verdict.reply = std::move(*reply);
        verdict.route = std::string(healthPath);
        return verdict;
    }
    if (auth != nullptr) {
        const auto authorization = head[http::field::authorization];
        const BasicAuth::Result result =
            auth->check(std::string_view(authorization.data(), authorization.size()), client);
        switch (result.outcome) {
        case BasicAuth::Outcome::granted:
            verdict.user = result.user;
            break;
        case BasicAuth::Outcome::missing:
        case BasicAuth::Outcome::denied:
            verdict.reply = refuse(401, "Unauthorized: log in to upload",
                                   result.outcome == BasicAuth::Outcome::missing
                                       ? "no credentials"
                                       : "wrong credentials for " + echo(result.user),
                                   Refusal::credentials);
            verdict.reply.headers.emplace_back("WWW-Authenticate",
                                               std::string(BasicAuth::challenge));
            // A browser's first request comes without credentials: no reason to wait.
            if (result.outcome == BasicAuth::Outcome::denied) {
                verdict.delay = refusalDelay;
            }
            return verdict;
        case BasicAuth::Outcome::throttled:
            verdict.reply = refuse(503, "Service Unavailable: too many login attempts; retry",
                                   "password checks over their budget", Refusal::passwordBudget);
            verdict.reply.headers.emplace_back(
                "Retry-After", std::to_string(std::max<long long>(1, result.retryAfter.count())));
            verdict.delay = refusalDelay;
            return verdict;
        }
    }

    const std::string target = toString(head.target());
    const std::optional<std::string> path = decodeTargetPath(target);
    if (!path) {
        verdict.reply = refuse(400, "Bad Request: malformed percent-escape in the request target",
                               "", Refusal::malformed);
        return verdict;
    }
    if (!settings.discardRoute.empty() && *path == settings.discardRoute) {
        verdict.kind = Verdict::Kind::discard;
        return verdict;
    }
    if (std::optional<Reply> reply = statusEndpoint(head, *path, true)) {
        verdict.reply = std::move(*reply);
        verdict.route = std::string(metricsPath);
        return verdict;
    }
    verdict.destination = dispatcher->route(toString(head.method_string()), *path);
    switch (verdict.destination.kind) {
    case RequestDispatcher::Destination::Kind::demoPage:
        verdict.reply = RequestDispatcher::demoPageReply(demoPage);
        verdict.route = "/";
        return verdict;
    case RequestDispatcher::Destination::Kind::notFound:
        verdict.reply = RequestDispatcher::plainText(404, "Not Found");
        return verdict;
    case RequestDispatcher::Destination::Kind::service:
        verdict.route = *path;
        break;
    }
    if (std::optional<Reply> refusal = crossSiteRefusal(head)) {
        verdict.reply = std::move(*refusal);
        return verdict;
    }
    if (contentLength && *contentLength > 0) {
        // The disk first: an upload it cannot take is refused for longer than one that waits
        // for memory, and takes no memory while it is told so.
        std::optional<Reply> refusal = diskRefusal(*contentLength, verdict);
        if (!refusal) {
            refusal = memoryRefusal(*contentLength, verdict, client);
        }
        // The quota last: it cannot be given back, so it pays only for a body that comes in.
        if (!refusal) {
            refusal = quotaRefusal(*contentLength, client);
        }
        if (refusal) {
            verdict.reply = std::move(*refusal);
            verdict.charge = MemoryBudget::Reservation();
            verdict.share = ClientShares::Hold();
            verdict.disk = DiskReserve::Claim();
            return verdict;
        }
    } else {
        if (budget != nullptr) {
            verdict.charge = budget->empty();
            if (shares != nullptr && !client.empty()) {
                verdict.share = std::move(*shares->take(client, 0));
            }
        }
        if (disk != nullptr) {
            verdict.disk = disk->empty();
        }
        if (quota != nullptr) {
            verdict.quotaClient = std::string(client);
        }
    }
    const auto contentType = head.find(http::field::content_type);
    if (contentType != head.end()) {
        const auto value = contentType->value();
        verdict.boundary = findBoundaryParameter(std::string_view(value.data(), value.size()));
    }
    verdict.kind = Verdict::Kind::service;
    return verdict;
}

std::string RequestGate::routeLabel(std::string_view method, const std::string& target) const {
    const std::optional<std::string> path = decodeTargetPath(target);
    if (!path) {
        return "other";
    }
    if (*path == healthPath || *path == metricsPath) {
        return *path;
    }
    switch (dispatcher->route(method, *path).kind) {
    case RequestDispatcher::Destination::Kind::service:
        return *path;
    case RequestDispatcher::Destination::Kind::demoPage:
        return "/";
    case RequestDispatcher::Destination::Kind::notFound:
        break;
    }
    return "other";
}

bool RequestGate::isRefusal(std::string_view route, unsigned status) noexcept {
    return status >= 400 && status != 404 && status != 405 && route != healthPath;
}

// Health before authentication, metrics after it: authenticated says which one is asked for.
std::optional<Reply> RequestGate::statusEndpoint(const Head& head, std::string_view path,
                                                 bool authenticated) const {
    const std::string_view wanted = authenticated ? metricsPath : healthPath;
    const bool served = authenticated ? static_cast<bool>(endpoints.metrics)
                                      : static_cast<bool>(endpoints.healthProblem);
    if (path != wanted || !served) {
        return std::nullopt;
    }
    if (head.method() != http::verb::get && head.method() != http::verb::head) {
        Reply reply = refuse(405, "Method Not Allowed", "", Refusal::none);
        reply.headers.emplace_back("Allow", "GET, HEAD");
        return reply;
    }
    Reply reply;
    if (authenticated) {
        const std::string text = endpoints.metrics();
        reply.status = 200;
        reply.contentType = endpoints.metricsType;
        reply.body.append(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    } else if (const std::optional<std::string> problem = endpoints.healthProblem()) {
        reply = refuse(503, "unavailable: " + *problem, *problem, Refusal::none);
    } else {
        reply = refuse(200, "ok", "", Refusal::none);
    }
    // Every answer is asked for afresh, never served from a cache.
    reply.headers.emplace_back("Cache-Control", "no-store");
    return reply;
}

std::optional<Reply> RequestGate::crossSiteRefusal(const Head& head) const {
    const auto origin = head.find(http::field::origin);
    const std::optional<std::string> normalized =
        origin != head.end()
            ? normalizeOrigin(std::string_view(origin->value().data(), origin->value().size()))
            : std::nullopt;
    if (normalized && std::find(settings.allowedOrigins.begin(), settings.allowedOrigins.end(),
                                *normalized) != settings.allowedOrigins.end()) {
        return std::nullopt;
    }
    const auto shown = [&] { return origin != head.end() ? echo(origin->value()) : "none"; };
    if (boost::beast::iequals(head["Sec-Fetch-Site"], "cross-site")) {
        return refuse(403, "Forbidden: uploads from pages of other sites are refused",
                      "cross-site request, Origin " + shown(), Refusal::crossSite);
    }
    if (origin == head.end()) {
        // Browsers name the origin of every cross-origin POST; a client without one (curl, a
        // form of our own page in an older browser) is not a page of another site.
        return std::nullopt;
    }
    // Our own origin is wherever the client reached us: the Host it sent, on the origin's
    // scheme (so a proxy that serves us over https keeps working).
    const std::string host = lower(toString(head[http::field::host]));
    if (normalized && !host.empty()) {
        const size_t separator = normalized->find("://");
        const std::string scheme = normalized->substr(0, separator);
        if (normalized->substr(separator + 3) == withoutDefaultPort(host, scheme)) {
            return std::nullopt;
        }
    }
    return refuse(403, "Forbidden: uploads from pages of other sites are refused",
                  "Origin " + shown() + " is not this server's (Host " +
                      echo(head[http::field::host]) + ")",
                  Refusal::crossSite);
}

std::optional<Reply> RequestGate::memoryRefusal(std::uint64_t length, Verdict& verdict,
                                                std::string_view client) const {
    if (budget == nullptr) {
        return std::nullopt;
    }
    const std::uint64_t needed = chargeFor(length);
    if (needed > budget->limit()) {
        return refuse(413,
                      "Payload Too Large: a body of " + std::to_string(length) +
                          " bytes needs more memory than this server may use",
                      "body of " + std::to_string(length) + " bytes needs " +
                          std::to_string(needed) + " of a budget of " +
                          std::to_string(budget->limit()),
                      Refusal::memory);
    }
    // The client's share first: a client past it waits for its own uploads, and takes nothing
    // from the others meanwhile.
    std::optional<ClientShares::Hold> share;
    if (shares != nullptr && !client.empty()) {
        if (needed > shares->share()) {
            return refuse(413,
                          "Payload Too Large: a body of " + std::to_string(length) +
                              " bytes needs more memory than one client may use",
                          "body of " + std::to_string(length) + " bytes needs " +
                              std::to_string(needed) + " of a client's share of " +
                              std::to_string(shares->share()),
                          Refusal::memoryShare);
        }
        share = shares->take(client, needed);
        if (!share) {
            const std::uint64_t own = shares->held(client);
            const std::string site = own <= shares->share() - needed ? siteOf(client) : "";
            Reply reply = refuse(
                503,
                "Service Unavailable: uploads of this client under way hold all the memory one "
                "client may use; retry once they are done",
                site.empty() ? "client's memory share: " + std::to_string(own) + " of " +
                                   std::to_string(shares->share()) + " held, " +
                                   std::to_string(needed) + " needed"
                             : "memory share of " + clientsOfSite(site) + ": " +
                                   std::to_string(shares->held(site)) + " of " +
                                   std::to_string(shares->siteShare()) + " held, " +
                                   std::to_string(needed) + " needed",
                Refusal::memoryShare);
            reply.headers.emplace_back("Retry-After", "5");
            return reply;
        }
    }
    std::optional<MemoryBudget::Reservation> charge = budget->reserve(needed);
    if (!charge) {
        Reply reply = refuse(503, "Service Unavailable: not enough memory for this body now; retry",
                             "memory budget: " + std::to_string(budget->used()) + " of " +
                                 std::to_string(budget->limit()) + " in use, " +
                                 std::to_string(needed) + " needed",
                             Refusal::memory);
        reply.headers.emplace_back("Retry-After", "5");
        verdict.waitsForMemory = true;
        return reply;
    }
    verdict.charge = std::move(*charge);
    if (share) {
        verdict.share = std::move(*share);
    }
    return std::nullopt;
}

namespace {

Reply diskFull(const DiskReserve::Space& needed, const DiskReserve& disk,
               const DiskReserve::Shortfall& shortfall) {
    const auto both = [](const DiskReserve::Space& space) {
        return std::to_string(space.bytes) + " bytes and " + std::to_string(space.files) + " files";
    };
    return refuse(507, diskFullText,
                  "disk: " + both(shortfall.free) + " free, " + both(shortfall.promised) +
                      " promised to uploads under way, " + both(needed) + " more needed, " +
                      both(disk.keep()) + " kept free",
                  Refusal::disk);
}

} // namespace

std::optional<Reply> RequestGate::diskRefusal(std::uint64_t length, Verdict& verdict) const {
    if (disk == nullptr) {
        return std::nullopt;
    }
    const DiskReserve::Space needed{length, DiskReserve::filesIn(length, settings.maxFiles)};
    DiskReserve::Shortfall shortfall;
    std::optional<DiskReserve::Claim> claim = disk->claim(needed, &shortfall);
    if (!claim) {
        return diskFull(needed, *disk, shortfall);
    }
    verdict.disk = std::move(*claim);
    return std::nullopt;
}

std::optional<Reply> RequestGate::quotaRefusal(std::uint64_t length,
                                               std::string_view client) const {
    if (quota == nullptr) {
        return std::nullopt;
    }
    return hourlyQuotaRefusal(*quota, length, settings.uploadPerClient, client,
                              {"bytes", "upload", "upload quota",
                               "this client has uploaded all it may for now",
                               Refusal::uploadQuota});
}

std::optional<Reply> RequestGate::fileQuotaRefusal(std::uint64_t parts,
                                                   std::string_view client) const {
    if (files == nullptr || parts == 0) {
        return std::nullopt;
    }
    // Past the files one request may store the module stores no more, so they cost nothing.
    return hourlyQuotaRefusal(
        *files, std::min(parts, settings.maxFiles), settings.filesPerClient, client,
        {"files", "store", "file quota", "this client has stored all the files it may for now",
         Refusal::fileQuota});
}

std::uint64_t RequestGate::defaultClientShare(std::uint64_t memoryLimit, std::uint64_t maxBody) {
    return std::max(memoryLimit / 4, std::min(memoryLimit, chargeFor(maxBody)));
}

std::uint64_t RequestGate::chargeFor(std::uint64_t bodyCapacity) {
    return 2 * bodyCapacity + requestOverhead;
}

std::optional<Reply> RequestGate::onReadError(const boost::beast::error_code& ec,
                                              Stage stage) const {
    if (ec == http::error::header_limit ||
        (stage == Stage::head && ec == http::error::buffer_overflow)) {
        return refuseAndClose(431, "Request Header Fields Too Large", "request head over 16 KiB",
                              Refusal::headTooLarge);
    }
    if (ec == http::error::body_limit || ec == http::error::buffer_overflow) {
        return refuseAndClose(413, "Payload Too Large", "body over the body limit",
                              Refusal::bodyTooLarge);
    }
    if (ec == boost::system::errc::file_too_large) {
        return refuseAndClose(
            413, "Payload Too Large: the body no longer fits in the memory of this server",
            "body without a length grew past the memory budget", Refusal::memory);
    }
    if (ec == boost::system::errc::value_too_large) {
        return refuseAndClose(
            413, "Payload Too Large: the body no longer fits in the memory one client may use",
            "body without a length grew past the client's memory share", Refusal::memoryShare);
    }
    if (ec == boost::system::errc::no_space_on_device) {
        return refuseAndClose(507, diskFullText,
                              "disk: body without a length grew past the space kept free",
                              Refusal::disk);
    }
    if (ec == boost::system::errc::resource_unavailable_try_again) {
        return refuseAndClose(
            503, "Service Unavailable: this client has uploaded all it may for now; retry later",
            "body without a length passed the client's upload quota", Refusal::uploadQuota);
    }
    if (ec == boost::system::errc::not_enough_memory) {
        Reply reply =
            refuseAndClose(503, "Service Unavailable: not enough memory for this request body",
                           "allocation failed", Refusal::memory);
        reply.headers.emplace_back("Retry-After", "5");
        return reply;
    }
    // The client's bytes are no HTTP: a bad request line, field, length or chunk. A message cut
    // off by the client closing has nobody left to answer.
    if (ec.category() == http::make_error_code(http::error::bad_target).category() &&
        ec != http::error::partial_message && ec != http::error::end_of_stream &&
        ec != http::error::need_more && ec != http::error::need_buffer) {
        return refuseAndClose(400, "Bad Request: " + ec.message(), ec.message(),
                              Refusal::malformed);
    }
    return std::nullopt;
}

Reply RequestGate::timedOut(Stage stage) const {
    if (stage == Stage::head) {
        return refuseAndClose(408,
                              "Request Timeout: the request head did not arrive within " +
                                  std::to_string(settings.headerTimeout.count()) + " s",
                              "head not complete in time", Refusal::headTimeout);
    }
    return refuseAndClose(
        408,
        "Request Timeout: the body paused for " + std::to_string(settings.idleTimeout.count()) +
            " s or arrived slower than " + std::to_string(settings.minBodyRate) + " bytes a second",
        "body stalled or below the minimum rate", Refusal::bodyTimeout);
}

std::size_t RequestGate::appendChunk(common::DataBuffer& body, std::string_view piece,
                                     Verdict& verdict, boost::beast::error_code& ec) const {
    // Paid before anything else, so that a client past its quota takes no memory or disk with
    // it; given back if the memory or the disk then refuse the piece, which is never stored.
    const bool pays = quota != nullptr && !verdict.quotaClient.empty() && !piece.empty();
    if (pays &&
        quota->takeWhole(verdict.quotaClient, static_cast<double>(piece.size()), Clock::now())) {
        ec = boost::system::errc::make_error_code(
            boost::system::errc::resource_unavailable_try_again);
        return 0;
    }
    const auto refused = [&](boost::system::errc::errc_t why) -> std::size_t {
        if (pays) {
            quota->giveBack(verdict.quotaClient, static_cast<double>(piece.size()), Clock::now());
        }
        ec = boost::system::errc::make_error_code(why);
        return 0;
    };
    MemoryBudget::Reservation& charge = verdict.charge;
    const std::size_t needed = body.getSize() + piece.size();
    if (needed > body.getCapacity()) {
        // The buffer's own growth, so the charge covers what it will really take. The disk is
        // claimed in the same steps, so a body sent in tiny chunks looks at it only a few
        // times.
        const std::size_t capacity = std::max(2 * body.getCapacity(), needed);
        const std::uint64_t due = chargeFor(capacity);
        const std::uint64_t charged = charge.bytes();
        ClientShares::Hold& share = verdict.share;
        const std::uint64_t shared = share.amount();
        if (share.counted() && due > shared && !share.grow(due - shared)) {
            return refused(boost::system::errc::value_too_large);
        }
        if (budget != nullptr && due > charged && !charge.grow(due - charged)) {
            share.shrink(share.amount() - shared);
            return refused(boost::system::errc::file_too_large);
        }
        const DiskReserve::Space held = verdict.disk.held();
        const std::uint64_t files = DiskReserve::filesIn(capacity, settings.maxFiles);
        const DiskReserve::Space more{capacity > held.bytes ? capacity - held.bytes : 0,
                                      files > held.files ? files - held.files : 0};
        if ((more.bytes > 0 || more.files > 0) && !verdict.disk.grow(more)) {
            charge.shrink(charge.bytes() - charged);
            share.shrink(share.amount() - shared);
            return refused(boost::system::errc::no_space_on_device);
        }
        try {
            body.reserve(capacity);
        } catch (const std::runtime_error&) {
            return refused(boost::system::errc::not_enough_memory);
        }
    }
    body.append(reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size());
    return piece.size();
}

RequestGate::Clock::time_point RequestGate::headDeadline(Clock::time_point firstByte) const {
    return firstByte + settings.headerTimeout;
}

RequestGate::Clock::time_point RequestGate::bodyDeadline(Clock::time_point start,
                                                         std::uint64_t received,
                                                         Clock::time_point now) const {
    const std::uint64_t rate = std::max<std::uint64_t>(settings.minBodyRate, 1);
    // Whole seconds of credit, capped so the clock cannot overflow (the idle bound comes first
    // anyway), and the rest in microseconds.
    const auto seconds = std::chrono::seconds(std::min<std::uint64_t>(received / rate, 1ULL << 32));
    const auto fraction = std::chrono::microseconds((received % rate) * 1'000'000 / rate);
    const Clock::time_point rated = start + settings.headerTimeout + seconds + fraction;
    return std::min(rated, now + settings.idleTimeout);
}

} // namespace kestrin::host
