#include "host/Server.h"

#include "host/AccessLog.h"
#include "host/BlockHandOver.h"
#include "host/BodyBufferPool.h"
#include "host/ClientKey.h"
#include "host/ClientShares.h"
#include "host/ConnectionTable.h"
#include "host/DataBufferBody.h"
#include "host/DiscardBody.h"
#include "host/DiskFileService.h"
#include "host/HttpRules.h"
#include "host/MemoryBudget.h"
#include "host/Metrics.h"
#include "host/PartHeaderCheck.h"
#include "host/RateBudget.h"
#include "host/RequestGate.h"
#include "host/ServicePlacement.h"
#include "host/ServiceQueue.h"
#include "host/WarmPages.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <limits>
#include <malloc.h>
#include <mutex>
#include <openssl/err.h>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrin::host {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t headerLimit = 16 * 1024;
// The connection's read buffer holds a head, or pieces of a chunked body on their way into
// it; bodies of announced length bypass it. Bounded, so no framing (a chunk header that never
// ends) can make it grow without end.
constexpr std::size_t readBufferLimit = 64 * 1024 + headerLimit;
// Asked of the socket when waiting for a request: most heads fit; a longer one grows the
// buffer as it comes. An idle connection costs no more than this.
constexpr std::size_t firstReadSize = 4096;
// The most asked of the socket in one read straight into a body.
constexpr std::size_t directReadLimit = 4 * 1024 * 1024;
// How long a connection that is being closed may go on sending what we will not read.
constexpr std::chrono::seconds drainLimit{5};
// How long a reply may take to go out.
constexpr std::chrono::seconds writeLimit{30};
// The most a TLS record carries, and so what the TLS stream writes of a reply in one piece.
constexpr std::size_t tlsRecordLimit = 16 * 1024;
constexpr const char* serverName = "kestrin-upload-server";

// One write per line, so lines from several threads never interleave.
void writeLog(const std::string& line) {
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

void writeEvent(const AccessLog& log, LogLevel level, std::string_view message) {
    writeLog(log.event(std::chrono::system_clock::now(), level, message));
}

std::string toString(beast::string_view text) {
    return std::string(text.data(), text.size());
}

// Connection events that a hostile client can cause by the thousand a second. Each is counted
// and reported at most once a second, with its count, so no client can flood the log.
class EventLog {
public:
    enum Kind {
        acceptFailed,
        headTimedOut,
        bodyTimedOut,
        evicted,
        bodyAbandoned,
        clientOverLimit,
        tableFull,
        refusalNotLogged,
        tlsFailed,
        tlsThrottled,
        renegotiationRefused,
        answerNotLogged,
        kinds
    };

    EventLog(LogFormat format, unsigned siteShares)
        : log(format)
        , refusalLines{RateBudget::Limits{200, 50, 20, 5, 4096, static_cast<double>(siteShares)}}
        , answerLines{
              RateBudget::Limits{1000, 200, 100, 10, 4096, static_cast<double>(siteShares)}} {}

    void count(Kind kind, std::string detail = {}) {
        counts[kind].fetch_add(1, std::memory_order_relaxed);
        if (!detail.empty()) {
            std::lock_guard<std::mutex> guard(mutex);
            details[kind] = std::move(detail);
        }
    }

    // Writes one line for what happened since the last call, if anything did.
    void flush(Clock::duration period) {
        static constexpr std::array<const char*, kinds> what = {
            "accept failed",
            "heads not complete in time",
            "bodies stalled or below the minimum rate",
            "connections closed to make room",
            "clients gone mid-body",
            "connections refused: client over its limit",
            "connections refused: server full",
            "refused requests not logged one by one",
            "TLS handshakes failed",
            "TLS handshakes refused: over their rate",
            "TLS renegotiations refused",
            "answers not logged one by one: a client over its lines a second"};
        std::string line;
        for (int kind = 0; kind < kinds; ++kind) {
            const std::uint64_t n = counts[kind].exchange(0, std::memory_order_relaxed);
            if (n == 0) {
                continue;
            }
            line += line.empty() ? "" : "; ";
            line += std::string(what[kind]) + " x" + std::to_string(n);
            std::lock_guard<std::mutex> guard(mutex);
            if (!details[kind].empty()) {
                line += " (" + std::exchange(details[kind], {}) + ")";
            }
        }
        if (!line.empty()) {
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(period).count();
            writeEvent(log, LogLevel::warn, "in the last " + std::to_string(ms) + " ms: " + line);
        }
    }

    // Whether a refused request from this client key gets its line, and whether the answer to
    // a request of the server's own pages does. Both cost a client next to nothing to cause, and
    // a line costs disk that no upload budget covers, so past a few a second they are counted,
    // not written. Each client has a share of its own, so that one flooding client cannot
    // silence the lines of the others.
    bool mayLogRefusal(const std::string& key) {
        return !refusalLines.take(key, 1, RateBudget::Clock::now());
    }
    bool mayLogAnswer(const std::string& key) {
        return !answerLines.take(key, 1, RateBudget::Clock::now());
    }

    const AccessLog log;

private:
    // Refusals: twenty lines at once and five a second for each client; all clients together
    // two hundred at once and fifty a second. Answers: a hundred at once and ten a second for
    // each; a thousand and two hundred for all.
    RateBudget refusalLines;
    RateBudget answerLines;
    std::array<std::atomic<std::uint64_t>, kinds> counts{};
    std::mutex mutex;
    std::array<std::string, kinds> details;
};

// What a TLS connection's own callbacks need to know of it: where to count what its client did,
// and who the client is. Kept by the connection, which outlives its TLS state.
struct TlsWatch {
    EventLog* events;
    std::string client;
};

int tlsWatchIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

// Called by the TLS library as a connection's state changes. A client that asks for a second
// handshake is told no with an alert, and goes on; the alert is counted here, so that a client
// asking again and again shows in the log.
void onTlsInfo(const SSL* connection, int where, int alert) {
    if ((where & SSL_CB_WRITE_ALERT) == 0 || (alert & 0xff) != SSL_AD_NO_RENEGOTIATION) {
        return;
    }
    if (const auto* watch =
            static_cast<const TlsWatch*>(SSL_get_ex_data(connection, tlsWatchIndex()))) {
        watch->events->count(EventLog::renegotiationRefused, watch->client);
    }
}

class SessionBase;
struct Shared;

// Closes the connection the table took a slot or memory from, if it is still there.
void evictSession(Shared& shared, ConnectionTable::Id id);

// While uploads wait for memory, a body that would hold its share longer than this at the pace
// it keeps is closed: at the minimum rate, one announced large body held memory for days.
constexpr std::chrono::minutes slowBodyHorizon{10};

// TLS handshakes may come this many seconds' worth at once: a browser opens several
// connections together, and the clients behind one address (an office, a carrier's NAT) start
// theirs when they please.
constexpr double handshakeBurstSeconds = 4;

// Each client key may spend perClient units (body bytes, files) in an hour, earned back evenly;
// the pool is no bound of its own. Null for 0: no quota.
std::unique_ptr<RateBudget> hourlyQuotaFor(std::uint64_t perClient, unsigned siteShares) {
    if (perClient == 0) {
        return nullptr;
    }
    const double units = static_cast<double>(perClient);
    const double unbounded = std::numeric_limits<double>::max() / 4;
    return std::make_unique<RateBudget>(RateBudget::Limits{
        unbounded, unbounded, units, units / 3600, 4096, static_cast<double>(siteShares)});
}

// What every session shares with the server: its settings, the gate, the service threads,
// the memory budget, the connection table, the stop flag and the live sessions (so a stop, or
// a new connection that needs a slot, can reach them).
struct Shared {
    Shared(net::io_context& context, const ServerOptions& serverOptions, ServerParts serverParts)
        : options(serverOptions)
        , parts(std::move(serverParts))
        , budget(serverOptions.maxMemory)
        , memoryShares(serverOptions.maxMemoryPerClient > 0 ? serverOptions.maxMemoryPerClient
                                                            : serverOptions.maxMemory,
                       serverOptions.siteShares)
        , uploadQuota(hourlyQuotaFor(serverOptions.maxUploadPerClient, serverOptions.siteShares))
        , fileQuota(hourlyQuotaFor(serverOptions.maxFilesPerClient, serverOptions.siteShares))
        , bodies(serverOptions.keptBodyBytes, BodyBufferPool::defaultSmallest, &budget)
        , gate(GateSettings{serverOptions.maxBody, serverOptions.allowedOrigins,
                            serverOptions.discardRoute, serverOptions.headerTimeout,
                            serverOptions.minBodyRate, serverOptions.idleTimeout,
                            serverOptions.maxFiles, serverOptions.maxUploadPerClient,
                            serverOptions.maxFilesPerClient},
               parts.dispatcher, &budget, parts.auth.get(), endpoints(), parts.disk.get(),
               &memoryShares, uploadQuota.get(), fileQuota.get())
        , table(ConnectionTable::Limits{
              serverOptions.maxConnections, serverOptions.maxConnectionsPerClient,
              serverOptions.minBodyRate, ConnectionTable::Limits{}.evictableAfter,
              serverOptions.siteShares})
        , events(serverOptions.logFormat, serverOptions.siteShares)
        , handshakes(
              RateBudget::Limits{handshakeBurstSeconds * serverOptions.tlsHandshakes,
                                 static_cast<double>(serverOptions.tlsHandshakes),
                                 handshakeBurstSeconds * serverOptions.tlsHandshakesPerClient,
                                 static_cast<double>(serverOptions.tlsHandshakesPerClient), 4096,
                                 static_cast<double>(serverOptions.siteShares)})
        , services(std::max(1u, serverOptions.serviceThreads))
        , serviceOrder(std::max(1u, serverOptions.serviceThreads), serverOptions.siteShares)
        , control(net::make_strand(context))
        , drainTimer(control)
        , reportTimer(control)
        , stopDelayTimer(control) {
        for (const std::string& network : serverOptions.trustedProxies) {
            proxies.add(network);
        }
        // Kept bodies are a cache: they give way to a request that needs their memory.
        budget.setReclaimer([this](std::uint64_t needed) { bodies.reclaim(needed); });
        if (secure) {
            tls = loadTls(serverOptions.tlsCertificate, serverOptions.tlsKey);
        }
    }

    // A request's service call, for a service thread: it starts when one is free for it, and
    // the call that takes its thread after it starts as it ends.
    template <typename Call> void callOnServiceThread(const std::string& client, Call&& call) {
        auto held = std::make_shared<std::decay_t<Call>>(std::forward<Call>(call));
        startOnServiceThread(serviceOrder.submit(client, [held] { (*held)(); }));
    }

    void startOnServiceThread(std::optional<ServiceQueue::Start> start) {
        if (!start) {
            return;
        }
        net::post(services, [this, start = std::move(*start)] {
            // Its end is told however the call ends, or its thread would be gone for good.
            struct Ended {
                Shared& shared;
                const std::string& client;
                ~Ended() { shared.startOnServiceThread(shared.serviceOrder.finished(client)); }
            } ended{*this, start.client};
            start.call();
        });
    }

    // The TLS settings a new connection starts with; each keeps the ones it started with.
    std::shared_ptr<ssl::context> currentTls() {
        std::lock_guard<std::mutex> guard(mutex);
        return tls;
    }

    // Health is the caller's to judge; metrics are the server's own and what it holds now.
    StatusEndpoints endpoints() {
        StatusEndpoints served;
        if (parts.healthProblem) {
            served.healthProblem = [this]() -> std::optional<std::string> {
                if (draining.load()) {
                    return "the server is stopping";
                }
                return parts.healthProblem();
            };
        }
        served.metrics = [this] {
            const ServiceQueue::Counts calls = serviceOrder.counts();
            return metrics.scrape(
                Metrics::Snapshot{budget.used(), budget.limit(), bodies.keptBytes(), table.size(),
                                  options.maxConnections, calls.running, calls.waiting});
        };
        served.metricsType = std::string(Metrics::contentType);
        return served;
    }

    static std::shared_ptr<ssl::context> loadTls(const std::string& certificate,
                                                 const std::string& key) {
        auto made = std::make_shared<ssl::context>(ssl::context::tls_server);
        ssl::context& context = *made;
        // TLS 1.2 and later only; each connection gets fresh key exchange values.
        context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                            ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                            ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
        // A TLS 1.2 client may not ask for handshake after handshake on one connection: each
        // would cost a signature that the budget of handshakes, counted per connection, never
        // sees. Said here, not left to the library's default.
        SSL_CTX_set_options(context.native_handle(), SSL_OP_NO_RENEGOTIATION);
        SSL_CTX_set_info_callback(context.native_handle(), &onTlsInfo);
        const auto load = [&](const std::string& what, const std::string& file, auto&& step) {
            if (::access(file.c_str(), R_OK) != 0) {
                throw std::runtime_error(what + " " + file +
                                         ": cannot read it: " + std::strerror(errno));
            }
            ::ERR_clear_error();
            beast::error_code ec;
            step(ec);
            if (ec) {
                throw std::runtime_error(what + " " + file + ": not a usable PEM file (" +
                                         ec.message() + ")");
            }
        };
        load("--tls-cert", certificate,
             [&](beast::error_code& ec) { context.use_certificate_chain_file(certificate, ec); });
        load("--tls-key", key, [&](beast::error_code& ec) {
            context.use_private_key_file(key, ssl::context::pem, ec);
        });
        if (SSL_CTX_check_private_key(context.native_handle()) != 1) {
            throw std::runtime_error("--tls-key " + key + " does not match --tls-cert " +
                                     certificate);
        }
        return made;
    }

    ServerOptions options;
    ServerParts parts;
    MemoryBudget budget;
    ClientShares memoryShares;               // of the budget, held by each client key's requests
    std::unique_ptr<RateBudget> uploadQuota; // null when the uploads of a client are not bounded
    std::unique_ptr<RateBudget> fileQuota;   // the same for the files a client stores
    BodyBufferPool bodies;
    RequestGate gate;
    ConnectionTable table;
    EventLog events;
    RateBudget handshakes; // one unit per TLS connection
    TrustedProxies proxies;
    Metrics metrics;
    const bool secure = !options.tlsCertificate.empty(); // serving HTTPS
    net::thread_pool services;
    // Which waiting call gets a service thread next; every call for one passes through it.
    ServiceQueue serviceOrder;
    ServicePlacement placement;
    // The server-wide timers run on one strand: a stop, the last session leaving and the
    // report may come from any IO thread.
    net::strand<net::io_context::executor_type> control;
    net::steady_timer drainTimer;
    net::steady_timer reportTimer;
    net::steady_timer stopDelayTimer;
    std::atomic<bool> draining{false}; // a stop is coming: still serving, but not healthy
    std::atomic<bool> stopping{false};
    std::atomic<int> inService{0};
    std::atomic<bool> trimDue{false};
    std::mutex mutex;
    std::unordered_map<ConnectionTable::Id, std::weak_ptr<SessionBase>> sessions;
    std::shared_ptr<ssl::context> tls; // under mutex; replaced whole on SIGHUP
};

// What the server asks of every connection, whatever its stream.
class SessionBase {
public:
    virtual ~SessionBase() = default;
    virtual void stop() = 0;
    virtual void abort() = 0;
    virtual void evict() = 0;
};

// Plain TCP, or TLS over it.
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// One connection: reads requests one after another, asks the gate what to do with each and
// does it, and writes the replies. Kept alive by the handlers of its pending operations (or of
// its service call), all of which run on the one thread of the connection's IO context: that
// context is the connection's strand, and what other threads ask of it (a stop, an eviction, a
// service's answer) is posted there. Its deadlines run on a timer of its own, which cancels
// the pending read when one passes, so that the client still gets its 408.
template <class Stream>
class Session : public SessionBase, public std::enable_shared_from_this<Session<Stream>> {
    static constexpr bool secure = std::is_same_v<Stream, TlsStream>;
    using std::enable_shared_from_this<Session<Stream>>::shared_from_this;
    using std::enable_shared_from_this<Session<Stream>>::weak_from_this;

public:
    template <class... StreamArguments>
    Session(std::shared_ptr<Shared> sharedState, ConnectionTable::Id slot,
            std::string clientAddress, std::string clientShares,
            std::shared_ptr<ssl::context> tlsContext, StreamArguments&&... streamArguments)
        : tls(std::move(tlsContext))
        , watch{&sharedState->events, secure ? clientAddress : std::string()}
        , stream(std::forward<StreamArguments>(streamArguments)...)
        , buffer(readBufferLimit)
        , shared(std::move(sharedState))
        , id(slot)
        , client(std::move(clientAddress))
        , shares(std::move(clientShares))
        , timer(stream.get_executor())
        , holdBack(stream.get_executor()) {
        if constexpr (secure) {
            SSL_set_ex_data(stream.native_handle(), tlsWatchIndex(), &watch);
        }
    }

    ~Session() override {
        abandonCount();
        shared->table.remove(id);
        std::lock_guard<std::mutex> guard(shared->mutex);
        shared->sessions.erase(id);
        if (shared->stopping.load() && shared->sessions.empty()) {
            // The last one out ends the drain early.
            net::post(shared->control, [state = shared] { state->drainTimer.cancel(); });
        }
    }

    void run() {
        {
            std::lock_guard<std::mutex> guard(shared->mutex);
            shared->sessions.emplace(id, weak_from_this());
        }
        if constexpr (secure) {
            net::post(stream.get_executor(),
                      beast::bind_front_handler(&Session::doHandshake, shared_from_this()));
        } else {
            net::post(stream.get_executor(),
                      beast::bind_front_handler(&Session::doRead, shared_from_this()));
        }
    }

    // Server stop: a connection waiting for its next request closes now; one with a request
    // in flight answers it first and then closes.
    void stop() override {
        net::post(stream.get_executor(), [self = shared_from_this()] {
            if (self->phase == ConnectionTable::Phase::idle) {
                self->cancelRead(Cut::closed);
            }
        });
    }

    // The shutdown timeout has passed: whatever is left is closed now.
    void abort() override {
        net::post(stream.get_executor(), [self = shared_from_this()] {
            self->clearDeadline();
            beast::error_code ignored;
            self->socket().close(ignored);
        });
    }

    // The connection table gave this connection's slot to a new one.
    void evict() override {
        net::post(stream.get_executor(), [self = shared_from_this()] {
            self->shared->events.count(EventLog::evicted);
            if (self->phase == ConnectionTable::Phase::busy) {
                self->closeAfterReply = true;
            } else {
                self->cancelRead(Cut::evicted);
            }
        });
    }

private:
    // Why a pending read was cut short.
    enum class Cut { none, deadline, evicted, closed };

    tcp::socket& socket() { return beast::get_lowest_layer(stream).socket(); }
    beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream); }

    // Reads straight from the connection: the socket itself, or the TLS layer above it.
    template <class Buffers, class Handler>
    void readSome(const Buffers& buffers, Handler&& handler) {
        if constexpr (secure) {
            stream.async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            socket().async_read_some(buffers, std::forward<Handler>(handler));
        }
    }

    // A TLS connection first agrees on its keys, within the time a head has: a client that
    // never finishes it holds its slot no longer than one that never finishes a head.
    void doHandshake() {
        enter(ConnectionTable::Phase::head);
        armDeadline(shared->gate.headDeadline(Clock::now()));
        if constexpr (secure) {
            stream.async_handshake(
                ssl::stream_base::server, [self = shared_from_this()](beast::error_code ec) {
                    self->clearDeadline();
                    if (ec || self->cut != Cut::none) {
                        if (self->cut != Cut::closed) {
                            self->shared->events.count(EventLog::tlsFailed, ec.message());
                        }
                        return self->doClose(false);
                    }
                    self->doRead();
                });
        }
    }

    void enter(ConnectionTable::Phase next) {
        phase = next;
        shared->table.enter(id, next, Clock::now());
    }

    // ---- deadlines

    // The pending read is cancelled once `when` passes. Moving a deadline later costs nothing:
    // the timer wakes at the old time and waits on.
    void armDeadline(Clock::time_point when) {
        deadline = when;
        if (timerWaiting && timer.expiry() <= when) {
            return;
        }
        timer.expires_at(when);
        timerWaiting = true;
        // Weak: the timer must not keep a closed connection, and its slot, alive.
        timer.async_wait(
            [weak = weak_from_this(), generation = ++timerGeneration](beast::error_code) {
                if (const auto self = weak.lock()) {
                    self->onTimer(generation);
                }
            });
    }

    void clearDeadline() { deadline = Clock::time_point::max(); }

    void onTimer(std::uint64_t generation) {
        if (generation != timerGeneration) {
            return;
        }
        timerWaiting = false;
        if (deadline == Clock::time_point::max()) {
            return;
        }
        if (Clock::now() < deadline) {
            armDeadline(deadline);
            return;
        }
        cancelRead(Cut::deadline);
    }

    void cancelRead(Cut why) {
        if (cut == Cut::none) {
            cut = why;
        }
        clearDeadline();
        beast::error_code ignored;
        socket().cancel(ignored);
    }

    // ---- reading a head

    void doRead() {
        if (shared->stopping.load() || closeAfterReply) {
            return doClose(false);
        }
        enter(ConnectionTable::Phase::idle);
        cut = Cut::none;
        bytesIn = 0;
        method.clear();
        target.clear();
        directLength = 0;
        directRead = 0;
        partMemoryUnused();
        verdict = Verdict();
        origin.clear();
        originShares.clear();
        partCheck.reset();
        discardParser.reset();
        parser.emplace();
        parser->header_limit(headerLimit);
        parser->body_limit(shared->options.maxBody);
        parser->on_chunk_body(chunkBody);
        lowest().expires_never();
        if (buffer.size() > 0) {
            return startHead();
        }
        armDeadline(Clock::now() + shared->options.idleTimeout);
        readSome(buffer.prepare(firstReadSize),
                 beast::bind_front_handler(&Session::onFirstBytes, shared_from_this()));
    }

    void onFirstBytes(beast::error_code ec, std::size_t count) {
        // Nothing of a request yet: an idle or evicted connection just closes.
        if (ec || cut != Cut::none) {
            return doClose(false);
        }
        buffer.commit(count);
        startHead();
    }

    void startHead() {
        enter(ConnectionTable::Phase::head);
        started = Clock::now();
        // Most heads come whole with their first bytes: parsed here, they go on at once rather
        // than through another turn of the IO queue, which is what reading them would take.
        beast::error_code ec;
        parser->eager(false);
        const std::size_t used = parser->put(buffer.data(), ec);
        buffer.consume(used);
        if (ec != http::error::need_more && (ec || parser->is_header_done())) {
            return onReadHeader(ec, used);
        }
        armDeadline(shared->gate.headDeadline(started));
        http::async_read_header(
            stream, buffer, *parser,
            beast::bind_front_handler(&Session::onReadHeader, shared_from_this()));
    }

    void onReadHeader(beast::error_code ec, std::size_t) {
        clearDeadline();
        enter(ConnectionTable::Phase::busy);
        const auto& request = parser->get();
        method = toString(request.method_string());
        target = toString(request.target());
        version = request.version() ? request.version() : 11;
        keepAlive = false;
        requestRead = false;
        if (cut != Cut::none) {
            return onCut(RequestGate::Stage::head);
        }
        if (ec) {
            // A head refused by its framing (a body over the limit) still counts under its path.
            verdict.route = shared->gate.routeLabel(method, target);
            return onReadFailure(ec, RequestGate::Stage::head);
        }
        keepAlive = request.keep_alive();
        requestRead = parser->is_done();
        countStart();

        const bool expectsContinue = beast::iequals(request[http::field::expect], "100-continue");
        findOrigin(request);
        verdict = shared->gate.decide(request, parser->content_length(), originShares);
        switch (verdict.kind) {
        case Verdict::Kind::answer:
            if (verdict.waitsForMemory) {
                if (const auto slowest =
                        shared->table.evictSlowestBody(Clock::now(), slowBodyHorizon)) {
                    evictSession(*shared, *slowest);
                }
            }
            if (verdict.delay.count() > 0) {
                return sendLater(verdict.delay);
            }
            return sendReply(std::move(verdict.reply));
        case Verdict::Kind::discard:
            // Nothing has been read into a body yet, so the parser can still change its kind.
            // The request's header moves with it.
            discardParser.emplace(std::move(*parser));
            break;
        case Verdict::Kind::service:
            if (verdict.boundary && shared->parts.scanner) {
                partCheck.emplace(*shared->parts.scanner, *verdict.boundary);
            }
            useKeptBody();
            break;
        }
        if (expectsContinue) {
            return doContinue();
        }
        startBody();
    }

    // Storage kept from an earlier body of at least the announced size takes the body's place,
    // and its charge replaces the one for a fresh block.
    void useKeptBody() {
        const boost::optional<std::uint64_t> length = parser->content_length();
        common::DataBuffer& body = parser->get().body();
        if (!length || body.getSize() != 0) {
            return;
        }
        common::DataBuffer kept =
            shared->bodies.take(static_cast<std::size_t>(*length), &verdict.charge);
        if (kept.getCapacity() >= *length) {
            body.swap(kept);
            verdict.charge.shrink(*length);
        }
    }

    // Clients that wait for a go-ahead before sending a large body get it only here, after
    // the head passed every check.
    void doContinue() {
        auto interim =
            std::make_shared<http::response<http::empty_body>>(http::status::continue_, version);
        lowest().expires_after(writeLimit);
        http::async_write(stream, *interim,
                          [self = shared_from_this(), interim](beast::error_code ec, std::size_t) {
                              if (ec) {
                                  return self->doClose(false);
                              }
                              self->startBody();
                          });
    }

    // ---- reading a body

    void startBody() {
        enter(ConnectionTable::Phase::body);
        if (const auto length =
                discardParser ? discardParser->content_length() : parser->content_length()) {
            shared->table.expect(id, *length);
        }
        bodyStarted = Clock::now();
        lowest().expires_never();
        doReadBody();
    }

    void armBodyDeadline() {
        armDeadline(shared->gate.bodyDeadline(bodyStarted, bytesIn, Clock::now()));
    }

    // Bodies of announced length are read straight into place; others piece by piece through
    // the parser, which takes chunked framing apart.
    void doReadBody() {
        auto& base = discardParser ? static_cast<http::basic_parser<true>&>(*discardParser)
                                   : static_cast<http::basic_parser<true>&>(*parser);
        if (base.is_done()) {
            return bodyDone();
        }
        if (!base.chunked() && base.content_length()) {
            return startDirect(static_cast<std::size_t>(*base.content_length()));
        }
        if (buffer.capacity() < 64 * 1024) {
            // Beast reads no more at once than the buffer's free room.
            buffer.reserve(64 * 1024);
        }
        armBodyDeadline();
        const auto handler = beast::bind_front_handler(&Session::onReadBody, shared_from_this());
        if (discardParser) {
            http::async_read_some(stream, buffer, *discardParser, handler);
        } else {
            http::async_read_some(stream, buffer, *parser, handler);
        }
    }

    void onReadBody(beast::error_code ec, std::size_t count) {
        if (cut != Cut::none) {
            return onCut(RequestGate::Stage::body);
        }
        if (ec) {
            return onReadFailure(ec, RequestGate::Stage::body);
        }
        bytesIn += count;
        shared->table.received(id, count);
        if (!checkParts()) {
            return;
        }
        doReadBody();
    }

    // A body of announced length is received straight into its buffer, from the socket, in
    // pieces as large as the socket has ready: the parser would first read each piece into
    // the connection's small buffer and then copy it. The parser has nothing left to check in
    // such a body; it only hands over the message once the bytes are in.
    void startDirect(std::size_t length) {
        if (!discardParser) {
            try {
                // A no-op when kept storage took the body's place.
                parser->get().body().reserve(length);
            } catch (const std::runtime_error&) {
                return onReadFailure(
                    boost::system::errc::make_error_code(boost::system::errc::not_enough_memory),
                    RequestGate::Stage::body);
            }
        }
        directLength = length;
        directRead = 0;
        if (!discardParser && length >= WarmPages::worthFrom) {
            readyPartMemory(length);
        }
        doReadDirect();
    }

    // The module cuts a large part into a fresh block once the body is in, and a fresh page
    // costs a fault; on a virtual machine, a page the system has not used for a while costs
    // several times more, as the host must back it again. So while the body arrives, memory of
    // about the part's size is made ready: kept storage of a finished part when there is some,
    // else fresh pages touched by a service thread. Either is handed back just before the
    // module cuts the part (partMemoryDue), and its pages, just freed and still backed, are the
    // ones the part's block gets. It holds the part's place in the request's memory charge.
    void readyPartMemory(std::size_t length) {
        standIn = shared->bodies.take(length / 2, &verdict.charge);
        if (standIn.getCapacity() > 0) {
            return;
        }
        warm = WarmPages::map(length);
        if (warm) {
            net::post(shared->services, [pages = warm] { pages->touch(); });
        }
    }

    // The part is about to be cut. Warm pages go back to the system now; kept storage is
    // returned, still charged, to be offered for the part's block on the thread that runs the
    // module.
    common::DataBuffer partMemoryDue() {
        if (warm) {
            warm->release();
            warm.reset();
        }
        return std::move(standIn);
    }

    // The request ended without a part: kept storage goes back where it came from.
    void partMemoryUnused() {
        if (warm) {
            warm->release();
            warm.reset();
        }
        shared->bodies.give(std::move(standIn), &verdict.charge);
    }

    // Where the next body bytes go: their place in the body, or, on the discard route, a
    // scratch block that every piece overwrites.
    net::mutable_buffer directTarget() {
        const std::size_t left = std::min(directLength - directRead, directReadLimit);
        if (discardParser) {
            if (!scratch) {
                scratch = std::make_unique<std::uint8_t[]>(directReadLimit);
            }
            return net::buffer(scratch.get(), left);
        }
        return net::buffer(&parser->get().body()[directRead], left);
    }

    // The body's size is what has arrived, so the part check sees only real bytes.
    void directArrived(std::size_t count) {
        directRead += count;
        bytesIn = directRead;
        shared->table.received(id, count);
        if (!discardParser) {
            parser->get().body().resize(directRead);
        }
    }

    void doReadDirect() {
        // Bytes that came in with the head are the body's first ones.
        if (directRead < directLength && buffer.size() > 0) {
            const std::size_t early = net::buffer_copy(directTarget(), buffer.data());
            buffer.consume(early);
            directArrived(early);
            if (!checkParts()) {
                return;
            }
        }
        if (directRead == directLength) {
            return bodyDone();
        }
        armBodyDeadline();
        readSome(directTarget(),
                 beast::bind_front_handler(&Session::onReadDirect, shared_from_this()));
    }

    void onReadDirect(beast::error_code ec, std::size_t count) {
        if (cut != Cut::none) {
            return onCut(RequestGate::Stage::body);
        }
        if (ec) {
            // The client went away mid-body: nobody is left to answer.
            shared->events.count(EventLog::bodyAbandoned);
            return doClose(false);
        }
        directArrived(count);
        if (!checkParts()) {
            return;
        }
        doReadDirect();
    }

    // False, with the refusal on its way, once the body shows a part header block the module
    // must not be given.
    bool checkParts() {
        if (!partCheck || partCheck->advance(parser->get().body())) {
            return true;
        }
        Reply reply = RequestDispatcher::plainText(
            400,
            "Bad Request: a part's header block is longer than " +
                std::to_string(PartHeaderCheck::defaultLimit) + " bytes",
            "part header block over the limit");
        reply.refusal = Refusal::partHeader;
        sendReply(std::move(reply));
        return false;
    }

    void bodyDone() {
        clearDeadline();
        enter(ConnectionTable::Phase::busy);
        requestRead = true;
        if (discardParser) {
            keepAlive = discardParser->get().keep_alive();
            const std::uint64_t count =
                directLength > 0 ? directLength : discardParser->get().body();
            bytesIn = count;
            return sendReply(RequestDispatcher::plainText(
                200, "Discarded " + std::to_string(count) + " body bytes"));
        }
        // Known only now that the body is in, and still before any file is stored.
        if (std::optional<Reply> refusal =
                shared->gate.fileQuotaRefusal(partCheck ? partCheck->parts() : 0, originShares)) {
            return sendReply(std::move(*refusal));
        }
        callService();
    }

    // ---- serving

    void callService() {
        http::request<DataBufferBody> request = parser->release();
        keepAlive = request.keep_alive();
        bytesIn = request.body().getSize();
        shared->inService.fetch_add(1);
        common::DataBuffer partBlock = partMemoryDue();
        // Header blocks the check saw whole: the files the call will store, near enough.
        const std::size_t parts = partCheck ? partCheck->parts() : 0;

        // The guard keeps the IO threads running until the reply has been handed back.
        auto call = [self = shared_from_this(), work = net::make_work_guard(stream.get_executor()),
                     parts, destination = verdict.destination,
                     boundary = std::move(verdict.boundary), charge = std::move(verdict.charge),
                     share = std::move(verdict.share), disk = std::move(verdict.disk),
                     partBlock = std::move(partBlock), body = std::move(request.body())]() mutable {
            Shared& state = *self->shared;
            const std::size_t bodyBytes = body.getSize();
            const auto started = Clock::now();
            common::DataBuffer returned;
            // The one part block worth keeping: a later upload needs a single stand-in, and
            // the largest serves the most sizes.
            common::DataBuffer largestPart;
            Reply reply;
            Stored stored;
            {
                std::optional<DiskFileService::RequestScope> scope;
                if (state.parts.files) {
                    scope.emplace(*state.parts.files, state.options.maxFiles);
                    scope->keepStorage([&largestPart](common::DataBuffer&& block) {
                        if (block.getCapacity() > largestPart.getCapacity()) {
                            largestPart.swap(block);
                        }
                    });
                }
                // Whatever the module did not take is freed on the way out, however it ends.
                struct Withdraw {
                    ~Withdraw() { blockHandOver::withdraw(); }
                } withdrawAfter;
                // The block leaves the charge as the part, charged already, takes its place.
                charge.shrink(partBlock.getCapacity());
                blockHandOver::offer(std::move(partBlock));
                reply =
                    RequestDispatcher::callService(*destination.provider, destination.address,
                                                   std::move(boundary), std::move(body), &returned);
                // The answer may say the files are stored only once they are durable.
                try {
                    if (scope) {
                        scope->finish();
                    }
                } catch (const std::exception& error) {
                    reply =
                        RequestDispatcher::plainText(500, "Internal Server Error", error.what());
                }
                if (scope) {
                    stored = self->collectStored(*scope);
                }
            }
            // The files are written, or never will be: the free space counts them now.
            disk.release();
            state.placement.record(bodyBytes, parts, Clock::now() - started);
            // The body's storage, then the part's, stay charged while kept for later requests.
            state.bodies.give(std::move(returned), &charge);
            state.bodies.give(std::move(largestPart), &charge);
            charge.release();
            share.release();
            state.inService.fetch_sub(1);
            state.trimDue.store(true);
            // Queued behind whatever else this IO thread has ready, never sent straight from
            // a call that ran here. The answer wakes its client, and a socket's wake-up tells
            // the system the waker will sleep next, so the client may run on this core; sent
            // mid-round, it takes the core from the requests still waiting here. Sent at the
            // end of the round it finds the thread done (measured: more uploads a second).
            net::post(self->stream.get_executor(),
                      [self, reply = std::move(reply), stored = std::move(stored)]() mutable {
                          self->fromService = true;
                          self->stored = std::move(stored);
                          self->sendReply(std::move(reply));
                      });
        };
        const bool onIoThread = shared->placement.runInline(bytesIn, parts);
        shared->metrics.uploadCallPlaced(onIoThread);
        if (onIoThread) {
            call();
        } else {
            shared->callOnServiceThread(originShares, std::move(call));
        }
    }

    // ---- answering and closing

    // A read ended by a deadline or by making room: a request under way gets its 408; a
    // connection with nothing under way just closes.
    void onCut(RequestGate::Stage stage) {
        const Cut why = cut;
        if (why == Cut::closed) {
            return doClose(false);
        }
        shared->events.count(why == Cut::evicted                 ? EventLog::evicted
                             : stage == RequestGate::Stage::head ? EventLog::headTimedOut
                                                                 : EventLog::bodyTimedOut);
        quiet = true;
        Reply reply = shared->gate.timedOut(stage);
        if (why == Cut::evicted) {
            reply.refusal = Refusal::evicted;
        }
        sendReply(std::move(reply));
    }

    // Holds the verdict's answer back; the connection is busy meanwhile, so it is never taken
    // for room, and a stop waits for it like any answer.
    void sendLater(std::chrono::milliseconds delay) {
        holdBack.expires_after(delay);
        holdBack.async_wait([self = shared_from_this()](beast::error_code) {
            self->sendReply(std::move(self->verdict.reply));
        });
    }

    void onReadFailure(const beast::error_code& ec, RequestGate::Stage stage) {
        if (std::optional<Reply> reply = shared->gate.onReadError(ec, stage)) {
            return sendReply(std::move(*reply));
        }
        if (stage == RequestGate::Stage::body) {
            shared->events.count(EventLog::bodyAbandoned);
        }
        doClose(false);
    }

    // An answer on its way: the message, and its head as it goes out.
    struct Outgoing {
        http::response<DataBufferBody> response;
        std::string head;
    };

    void sendReply(Reply&& reply) {
        clearDeadline();
        if (phase != ConnectionTable::Phase::busy) {
            enter(ConnectionTable::Phase::busy);
        }
        // A request whose body was not read leaves the connection at an unknown point of the
        // byte stream: answer and close. So does one whose framing the gate could not trust.
        if (reply.close) {
            requestRead = false;
        }
        // While the stop is coming, clients are sent to reconnect, maybe elsewhere.
        const bool close = !keepAlive || !requestRead || closeAfterReply ||
                           shared->stopping.load() || shared->draining.load();
        auto outgoing = std::make_shared<Outgoing>();
        http::response<DataBufferBody>* response = &outgoing->response;
        response->version(version);
        response->result(reply.status);
        response->set(http::field::server, serverName);
        response->set(http::field::content_type, reply.contentType);
        for (const auto& [name, value] : reply.headers) {
            response->set(name, value);
        }
        countEnd(reply);
        if (!quiet) {
            logRequest(reply);
        }
        stored = Stored();
        fromService = false;
        if (method == "HEAD") {
            // The head of the answer GET would get: its length, without its bytes.
            response->content_length(reply.body.getSize());
        } else {
            response->body() = std::move(reply.body);
            response->prepare_payload();
        }
        response->keep_alive(!close);

        outgoing->head = responseHead(*response);
        const common::DataBuffer& body = response->body();
        const std::array<net::const_buffer, 2> bytes{
            net::buffer(outgoing->head), net::const_buffer(body.bytes(), body.getSize())};
        lowest().expires_after(writeLimit);
        // This Boost's TLS stream drops the rest of a sequence of buffers once a write has
        // taken only part of it, which it does whenever they do not fit one TLS record
        // together (the upload page would lose its body). Such a reply goes as two writes of
        // one buffer each.
        if (secure && outgoing->head.size() + body.getSize() > tlsRecordLimit) {
            net::async_write(
                stream, net::buffer(outgoing->head),
                [self = shared_from_this(), outgoing, close](beast::error_code ec, std::size_t) {
                    if (ec) {
                        return self->onWrite(close, ec);
                    }
                    const common::DataBuffer& rest = outgoing->response.body();
                    net::async_write(self->stream, net::const_buffer(rest.bytes(), rest.getSize()),
                                     [self, outgoing, close](beast::error_code ec, std::size_t) {
                                         self->onWrite(close, ec);
                                     });
                });
            return;
        }
        net::async_write(stream, bytes,
                         [self = shared_from_this(), outgoing,
                          close](beast::error_code ec, std::size_t) { self->onWrite(close, ec); });
    }

    void onWrite(bool close, beast::error_code ec) {
        if (ec) {
            return doClose(false);
        }
        if (close) {
            // A hostile client cut off by a deadline gets no time to send more.
            return doClose(!requestRead && !quiet);
        }
        quiet = false;
        doRead();
    }

    // Half-closes, then optionally reads and drops whatever the client still sends: closing
    // a socket with unread input resets the connection, and the client might lose the reply.
    // A draining connection holds its slot as an idle one, first to go when room is needed.
    void doClose(bool drain) {
        clearDeadline();
        beast::error_code ignored;
        // Under TLS too the connection just ends, without a closing alert: every answer has
        // its length, so the client knows it got all of it, and a client that stopped reading
        // cannot hold us waiting for the alert to go out.
        socket().shutdown(tcp::socket::shutdown_send, ignored);
        if (!drain) {
            socket().close(ignored);
            return;
        }
        enter(ConnectionTable::Phase::idle);
        // Nothing of this request is needed any more: its body and its memory go now, not
        // after the drain.
        parser.reset();
        discardParser.reset();
        partCheck.reset();
        verdict = Verdict();
        buffer.consume(buffer.size());
        lowest().expires_after(drainLimit);
        doDrain();
    }

    void doDrain() {
        stream.async_read_some(buffer.prepare(std::min<std::size_t>(64 * 1024, buffer.max_size())),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (!ec && self->cut == Cut::none) {
                                       self->doDrain();
                                   }
                               });
    }

    // Metrics count every request once, from its head (or from whatever came instead of one)
    // to its answer, or to the connection's end when it gets none.
    void countStart() {
        if (!counting) {
            counting = true;
            shared->metrics.requestStarted();
        }
    }

    // Why the server refused, for answers it gave instead of serving: not the service's own
    // pages, and not a path or method that simply is not there. Empty for any other answer.
    std::string_view refusalOf(const Reply& reply) const {
        if (fromService || !RequestGate::isRefusal(verdict.route, reply.status)) {
            return {};
        }
        return reply.refusal == Refusal::none ? "other" : refusalLabel(reply.refusal);
    }

    void countEnd(const Reply& reply) {
        countStart();
        counting = false;
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);
        shared->metrics.requestFinished(verdict.route, reply.status, bytesIn, elapsed,
                                        refusalOf(reply));
        if (!stored.files.empty() || stored.notListed > 0) {
            std::uint64_t bytes = 0;
            for (const auto& file : stored.files) {
                bytes += file.second;
            }
            shared->metrics.filesStored(stored.files.size() + stored.notListed,
                                        bytes + stored.bytesNotListed);
        }
    }

    // What a request stored, for the log and the metrics; its failures go to the log now.
    struct Stored {
        std::vector<std::pair<std::string, std::uint64_t>> files;
        std::size_t notListed = 0;
        std::uint64_t bytesNotListed = 0;
    };

    Stored collectStored(const DiskFileService::RequestScope& scope) const {
        // Enough names for a person to read; the rest are counted.
        static constexpr std::size_t listed = 20;
        Stored result;
        for (const StoredFile& file : scope.stored()) {
            if (result.files.size() < listed) {
                result.files.emplace_back(file.name, file.size);
            } else {
                ++result.notListed;
                result.bytesNotListed += file.size;
            }
        }
        for (const std::string& failure : scope.failures()) {
            writeEvent(shared->events.log, LogLevel::error, failure);
        }
        return result;
    }

    // Behind a trusted proxy a request is the client's the proxy names: that client's shares
    // and log lines count it, not the proxy's.
    void findOrigin(const http::request_header<>& head) {
        origin = client;
        originShares = shares;
        if (shared->proxies.empty()) {
            return;
        }
        const std::string hops = forwardedFor(head);
        boost::system::error_code ec;
        const net::ip::address peer = net::ip::make_address(client, ec);
        if (ec || hops.empty()) {
            return;
        }
        const net::ip::address named = forwardedClient(peer, hops, shared->proxies);
        origin = named.to_string();
        originShares = clientKey(named);
    }

    void logRequest(const Reply& reply) {
        // Every upload the service answered gets its line; a flood of refusals, or of requests
        // for the server's own pages, is counted instead.
        if (reply.status >= 400) {
            if (!shared->events.mayLogRefusal(originShares)) {
                shared->events.count(EventLog::refusalNotLogged, origin.empty() ? client : origin);
                return;
            }
        } else if (!fromService && !shared->events.mayLogAnswer(originShares)) {
            shared->events.count(EventLog::answerNotLogged, origin.empty() ? client : origin);
            return;
        }
        // A refusal from the service is its result page: its message is the reason.
        const std::string reason = fromService && reply.status >= 400
                                       ? RequestDispatcher::pageMessage(reply.body)
                                       : reply.detail;
        RequestRecord record;
        record.time = std::chrono::system_clock::now();
        record.client = origin.empty() ? client : origin;
        record.method = method.empty() ? std::string_view("-") : std::string_view(method);
        record.target = target;
        record.status = reply.status;
        record.bytesIn = bytesIn;
        record.duration =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);
        record.user = verdict.user;
        record.reason = reason;
        record.files = &stored.files;
        record.filesNotListed = stored.notListed;
        writeLog(shared->events.log.request(record));
    }

    // A request that gets no answer (the client left mid-body) leaves the count of those in
    // flight.
    void abandonCount() {
        if (counting) {
            counting = false;
            shared->metrics.requestAbandoned(bytesIn);
        }
    }

    // The TLS settings the connection started with, kept as long as its stream: a reload
    // only changes those of connections that come after it.
    const std::shared_ptr<ssl::context> tls;
    TlsWatch watch; // before the stream, so that it outlives the TLS state that points to it
    Stream stream;
    beast::flat_buffer buffer;
    std::shared_ptr<Shared> shared;
    const ConnectionTable::Id id;
    const std::string client; // the peer's address
    const std::string shares; // the key of the client's shares of the server's budgets
    // The client the current request speaks for, and its key: the peer, or the client a
    // trusted proxy names. Empty until the request's head is in.
    std::string origin;
    std::string originShares;
    net::steady_timer timer;
    net::steady_timer holdBack; // for answers the gate holds back
    Clock::time_point deadline = Clock::time_point::max();
    std::uint64_t timerGeneration = 0;
    bool timerWaiting = false;
    Cut cut = Cut::none;
    ConnectionTable::Phase phase = ConnectionTable::Phase::idle;

    std::optional<http::request_parser<DataBufferBody>> parser;
    // Takes over from parser for a request to the discard route.
    std::optional<http::request_parser<DiscardBody>> discardParser;
    // Beast holds the chunk callback by reference: it lives as long as the session.
    std::function<std::size_t(std::uint64_t, beast::string_view, beast::error_code&)> chunkBody =
        [this](std::uint64_t, beast::string_view piece, beast::error_code& ec) {
            return shared->gate.appendChunk(
                parser->get().body(), std::string_view(piece.data(), piece.size()), verdict, ec);
        };
    Verdict verdict;
    std::optional<PartHeaderCheck> partCheck;

    std::string method;
    std::string target;
    Clock::time_point started = Clock::now();
    Clock::time_point bodyStarted;
    std::uint64_t bytesIn = 0;
    std::size_t directLength = 0;            // size of a body read straight from the socket
    std::size_t directRead = 0;              // how much of it has arrived
    std::unique_ptr<std::uint8_t[]> scratch; // where the discard route drops its bytes
    std::shared_ptr<WarmPages> warm;         // the coming part's memory, made ready
    common::DataBuffer standIn;              // or kept storage standing in for it
    unsigned version = 11;
    bool keepAlive = false;
    bool requestRead = false;     // the whole request, body included, has been consumed
    bool closeAfterReply = false; // evicted while busy: finish this request, then close
    bool quiet = false;           // a refusal counted in the event log, not logged alone
    bool counting = false;        // the metrics count this request as in flight
    bool fromService = false;     // the answer being sent is the service's
    Stored stored;                // what the service stored for this request
};

void evictSession(Shared& shared, ConnectionTable::Id id) {
    std::shared_ptr<SessionBase> victim;
    {
        std::lock_guard<std::mutex> guard(shared.mutex);
        const auto found = shared.sessions.find(id);
        if (found != shared.sessions.end()) {
            victim = found->second.lock();
        }
    }
    if (victim) {
        victim->evict();
    }
}

// Accepts connections and starts a session for each, within the connection table's limits:
// when there is no slot and none worth taking, it stops accepting until one frees, and when
// accept itself fails it backs off instead of retrying at once.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    // Connections are spread over contexts in turn; the first also runs the acceptor.
    Listener(std::vector<net::io_context*> connectionContexts, const tcp::endpoint& endpoint,
             std::shared_ptr<Shared> sharedState)
        : contexts(std::move(connectionContexts))
        , acceptor(net::make_strand(*contexts.front()))
        , shared(std::move(sharedState))
        , pause(acceptor.get_executor()) {
        beast::error_code ec;
        const auto check = [&](std::string_view step) {
            if (ec) {
                throw std::runtime_error("cannot " + std::string(step) + " " +
                                         endpoint.address().to_string() + ":" +
                                         std::to_string(endpoint.port()) + ": " + ec.message());
            }
        };
        acceptor.open(endpoint.protocol(), ec);
        check("open a socket for");
        acceptor.set_option(net::socket_base::reuse_address(true), ec);
        check("set options on");
        acceptor.bind(endpoint, ec);
        check("listen on");
        acceptor.listen(net::socket_base::max_listen_connections, ec);
        check("listen on");
    }

    unsigned short port() const { return acceptor.local_endpoint().port(); }

    void run() {
        net::dispatch(acceptor.get_executor(),
                      beast::bind_front_handler(&Listener::doAccept, shared_from_this()));
    }

    void stop() {
        net::dispatch(acceptor.get_executor(), [self = shared_from_this()] {
            beast::error_code ignored;
            self->acceptor.close(ignored);
            self->pause.cancel();
            ++self->waitGeneration;
        });
    }

private:
    // Waiting connections stay in the kernel's queue meanwhile.
    static constexpr std::chrono::milliseconds roomCheck{250};
    static constexpr std::chrono::milliseconds firstBackoff{5};
    static constexpr std::chrono::milliseconds lastBackoff{1000};

    void doAccept() {
        if (shared->stopping.load() || !acceptor.is_open()) {
            return;
        }
        if (!shared->table.hasRoom(Clock::now())) {
            return waitForRoom();
        }
        net::io_context& context = *contexts[nextContext];
        nextContext = (nextContext + 1) % contexts.size();
        acceptor.async_accept(context.get_executor(),
                              beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
    }

    // Resumes when a slot frees, or, at the latest, when a held connection may have become
    // worth closing.
    void waitForRoom() {
        const std::uint64_t generation = ++waitGeneration;
        // Weak: the table may hold the callback for as long as the server runs.
        const auto resume = [weak = weak_from_this(), generation] {
            const std::shared_ptr<Listener> self = weak.lock();
            if (!self) {
                return;
            }
            net::dispatch(self->acceptor.get_executor(), [self, generation] {
                if (generation == self->waitGeneration) {
                    ++self->waitGeneration;
                    self->pause.cancel();
                    self->doAccept();
                }
            });
        };
        shared->table.whenRoom(resume);
        pause.expires_after(roomCheck);
        pause.async_wait([resume](beast::error_code ec) {
            if (!ec) {
                resume();
            }
        });
    }

    void onAccept(beast::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        if (ec) {
            // Out of descriptors or memory: retrying at once would only fail again, as fast
            // as the processor allows. Out of descriptors, a connection worth closing gives
            // one back, whatever the connection limit says.
            shared->events.count(EventLog::acceptFailed, ec.message());
            if (ec == net::error::no_descriptors ||
                ec == boost::system::errc::too_many_files_open_in_system) {
                if (const auto victim = shared->table.evictOne(Clock::now())) {
                    evictSession(*shared, victim->first);
                }
            }
            backoff = std::clamp(backoff * 2, firstBackoff, lastBackoff);
            pause.expires_after(backoff);
            pause.async_wait([self = shared_from_this()](beast::error_code waited) {
                if (!waited) {
                    self->doAccept();
                }
            });
            return;
        }
        backoff = std::chrono::milliseconds(0);
        beast::error_code peerError;
        const tcp::endpoint peer = socket.remote_endpoint(peerError);
        if (!peerError) {
            admit(std::move(socket), peer.address());
        }
        doAccept();
    }

    // Budgets count a client by its key (an IPv6 one by its /64); logs name its address.
    void admit(tcp::socket&& socket, const net::ip::address& peer) {
        const std::string client = clientKey(peer);
        // Before a slot is taken: a connection refused here costs no other connection its slot.
        if (shared->secure) {
            if (const auto refused = shared->handshakes.take(client, 1, Clock::now())) {
                shared->events.count(EventLog::tlsThrottled,
                                     !refused->sharedBy.empty() ? refused->sharedBy
                                     : refused->clientSpent     ? client
                                                                : "all clients");
                shared->metrics.refused(503, refusalLabel(Refusal::tlsHandshakes));
                beast::error_code ignored;
                socket.close(ignored);
                return;
            }
        }
        const ConnectionTable::Admission admission = shared->table.admit(client, Clock::now());
        if (admission.outcome != ConnectionTable::Admission::Outcome::admitted) {
            const bool clientFull =
                admission.outcome == ConnectionTable::Admission::Outcome::clientFull;
            shared->events.count(clientFull ? EventLog::clientOverLimit : EventLog::tableFull,
                                 !clientFull                   ? std::string()
                                 : !admission.sharedBy.empty() ? admission.sharedBy
                                                               : client);
            shared->metrics.refused(
                503, refusalLabel(clientFull ? Refusal::clientConnections : Refusal::connections));
            // A TLS client would take plain text for a broken handshake: it is just closed.
            if (shared->secure) {
                beast::error_code ignored;
                socket.close(ignored);
                return;
            }
            return refuse(std::move(socket), clientFull, !admission.sharedBy.empty());
        }
        if (admission.victim) {
            evictSession(*shared, *admission.victim);
        }
        if (shared->secure) {
            std::shared_ptr<ssl::context> tls = shared->currentTls();
            ssl::context& settings = *tls;
            std::make_shared<Session<TlsStream>>(shared, admission.id, peer.to_string(), client,
                                                 std::move(tls), std::move(socket), settings)
                ->run();
        } else {
            std::make_shared<Session<PlainStream>>(shared, admission.id, peer.to_string(), client,
                                                   nullptr, std::move(socket))
                ->run();
        }
    }

    // A connection with no slot gets a short answer without its request being read, and is
    // closed: it costs one write, not a session.
    static void refuse(tcp::socket&& socket, bool clientFull, bool siteFull) {
        static const std::string overClient =
            reply("Service Unavailable: too many connections from your address; retry\n");
        static const std::string overSite =
            reply("Service Unavailable: too many connections from your network; retry\n");
        static const std::string full = reply("Service Unavailable: server busy; retry\n");
        auto connection = std::make_shared<tcp::socket>(std::move(socket));
        const std::string& bytes = siteFull ? overSite : clientFull ? overClient : full;
        net::async_write(*connection, net::buffer(bytes),
                         [connection](beast::error_code, std::size_t) {
                             beast::error_code ignored;
                             connection->shutdown(tcp::socket::shutdown_both, ignored);
                             connection->close(ignored);
                         });
    }

    static std::string reply(std::string_view text) {
        http::response<http::string_body> response(http::status::service_unavailable, 11);
        response.set(http::field::server, serverName);
        response.set(http::field::content_type, "text/plain; charset=utf-8");
        response.set(http::field::retry_after, "1");
        response.keep_alive(false);
        response.body() = std::string(text);
        response.prepare_payload();
        std::ostringstream out;
        out << response;
        return out.str();
    }

    const std::vector<net::io_context*> contexts;
    std::size_t nextContext = 0; // on the acceptor's strand
    tcp::acceptor acceptor;
    std::shared_ptr<Shared> shared;
    net::steady_timer pause;
    std::uint64_t waitGeneration = 0;
    std::chrono::milliseconds backoff{0};
};

} // namespace

struct Server::State {
    State(const ServerOptions& options, ServerParts parts)
        : ioc(1)
        , signals(ioc, SIGINT, SIGTERM)
        , reloads(ioc, SIGHUP)
        , shared(std::make_shared<Shared>(ioc, options, std::move(parts))) {
        std::vector<net::io_context*> contexts{&ioc};
        for (unsigned i = 1; i < std::max(1u, options.threads); ++i) {
            contexts.push_back(
                connectionContexts.emplace_back(std::make_unique<net::io_context>(1)).get());
        }
        listener = std::make_shared<Listener>(std::move(contexts), endpointOf(options), shared);
    }

    // An address as it is; a name, its first address; nothing, every IPv4 interface.
    tcp::endpoint endpointOf(const ServerOptions& options) {
        if (options.address.empty()) {
            return tcp::endpoint(tcp::v4(), options.port);
        }
        beast::error_code ec;
        const auto address = net::ip::make_address(options.address, ec);
        if (!ec) {
            return tcp::endpoint(address, options.port);
        }
        tcp::resolver resolver(ioc);
        const auto found =
            resolver.resolve(options.address, std::to_string(options.port),
                             tcp::resolver::numeric_service | tcp::resolver::passive, ec);
        if (ec || found.empty()) {
            throw std::runtime_error("cannot resolve " + options.address + ": " +
                                     (ec ? ec.message() : std::string("no address")));
        }
        return found.begin()->endpoint();
    }

    // SIGHUP re-reads the files that are replaced while the server runs: the TLS certificate
    // and key, and the users. Connections already open keep what they started with.
    void awaitReload() {
        reloads.async_wait([this](beast::error_code ec, int) {
            if (!ec) {
                net::dispatch(shared->control, [this] {
                    reload();
                    if (!shared->stopping.load()) {
                        awaitReload();
                    }
                });
            }
        });
    }

    // On the control strand. A file that cannot be used changes nothing: what was loaded
    // before stays in use, and the log says why.
    void reload() {
        const ServerOptions& options = shared->options;
        if (shared->secure) {
            try {
                std::shared_ptr<ssl::context> loaded =
                    Shared::loadTls(options.tlsCertificate, options.tlsKey);
                {
                    std::lock_guard<std::mutex> guard(shared->mutex);
                    shared->tls = std::move(loaded);
                }
                writeEvent(shared->events.log, LogLevel::info,
                           "reloaded the TLS certificate " + options.tlsCertificate + " and key " +
                               options.tlsKey + " for new connections");
            } catch (const std::exception& error) {
                writeEvent(shared->events.log, LogLevel::error,
                           std::string("cannot reload the TLS certificate: ") + error.what() +
                               "; new connections still get the one loaded before");
            }
        }
        if (shared->parts.reloadUsers) {
            try {
                writeEvent(shared->events.log, LogLevel::info,
                           "reloaded " + shared->parts.reloadUsers());
            } catch (const std::exception& error) {
                writeEvent(shared->events.log, LogLevel::error,
                           std::string("cannot reload the users: ") + error.what() +
                               "; the ones loaded before still apply");
            }
        }
        if (!shared->secure && !shared->parts.reloadUsers) {
            writeEvent(shared->events.log, LogLevel::info,
                       "SIGHUP: nothing to reload without --tls-cert or --auth-file");
        }
    }

    // Signals are waited for one at a time: the first begins the stop, after the stop delay if
    // there is one; a second one during the delay stops at once.
    void awaitSignal() {
        signals.async_wait([this](beast::error_code ec, int) {
            if (!ec) {
                net::dispatch(shared->control, [this] { onSignal(); });
            }
        });
    }

    // On the control strand.
    void onSignal() {
        if (shared->stopping.load()) {
            return;
        }
        const std::chrono::seconds delay = shared->options.stopDelay;
        if (delay.count() == 0 || shared->draining.load()) {
            shared->stopDelayTimer.cancel();
            beginStop();
            return;
        }
        shared->draining.store(true);
        writeEvent(shared->events.log, LogLevel::info,
                   "stopping in " + std::to_string(delay.count()) +
                       " s; /healthz answers 503 until then");
        shared->stopDelayTimer.expires_after(delay);
        shared->stopDelayTimer.async_wait([this](beast::error_code ec) {
            if (!ec && !shared->stopping.load()) {
                beginStop();
            }
        });
        awaitSignal();
    }

    // On the control strand.
    void beginStop() {
        shared->stopping.store(true);
        // A wait for a further signal would keep the threads running.
        signals.cancel();
        reloads.cancel();
        listener->stop();
        shared->reportTimer.cancel();
        // Requests in flight get until the shutdown timeout; then what is left is closed. The
        // last session to go cancels the wait (after this, on this strand), unless none is left
        // by now.
        shared->drainTimer.expires_after(shared->options.shutdownTimeout);
        shared->drainTimer.async_wait([this](beast::error_code ec) {
            if (ec) {
                return;
            }
            // Uploads still waiting for a service thread will not start: each would store its
            // files for a client whose connection is being closed, and a deep queue would hold
            // the stop for as long as all of them take. Their clients got no answer, so none
            // of them was told its files were stored. Those under way finish.
            const std::vector<ServiceQueue::Call> dropped = shared->serviceOrder.close();
            const std::vector<std::shared_ptr<SessionBase>> left = liveSessions();
            writeEvent(shared->events.log, LogLevel::warn,
                       "shutdown timeout: closing " + std::to_string(left.size()) + " connections" +
                           (dropped.empty() ? std::string()
                                            : ", dropping " + std::to_string(dropped.size()) +
                                                  " uploads that waited for a service thread"));
            for (const auto& session : left) {
                session->abort();
            }
        });
        const std::vector<std::shared_ptr<SessionBase>> live = liveSessions();
        for (const auto& session : live) {
            session->stop();
        }
        if (live.empty()) {
            shared->drainTimer.cancel();
        }
    }

    std::vector<std::shared_ptr<SessionBase>> liveSessions() {
        std::vector<std::shared_ptr<SessionBase>> live;
        std::lock_guard<std::mutex> guard(shared->mutex);
        for (const auto& entry : shared->sessions) {
            if (auto session = entry.second.lock()) {
                live.push_back(std::move(session));
            }
        }
        return live;
    }

    // Once a second: the counted connection events go to the log, kept storage unused for a
    // minute is freed, and after a burst of uploads or such a release, once none is in
    // service, the allocator hands its free memory back. On the control strand.
    void report(Clock::time_point last) {
        const Clock::time_point now = Clock::now();
        shared->events.flush(now - last);
        // Kept blocks under the allocator's mapping threshold live in its heap, and freeing
        // them alone leaves their pages with the process.
        if (shared->bodies.releaseIdle(std::chrono::minutes(1)) > 0) {
            shared->trimDue.store(true);
        }
        if (shared->inService.load() == 0 && shared->trimDue.exchange(false)) {
            net::post(shared->services, [] { ::malloc_trim(0); });
        }
        if (shared->stopping.load()) {
            return;
        }
        shared->reportTimer.expires_after(std::chrono::seconds(1));
        shared->reportTimer.async_wait([this, now](beast::error_code ec) {
            if (!ec) {
                report(now);
            }
        });
    }

    // A handler that throws must not take an IO thread down with it.
    void runIo(net::io_context& context) {
        for (;;) {
            try {
                context.run();
                return;
            } catch (const std::exception& error) {
                writeEvent(shared->events.log, LogLevel::error,
                           std::string("unexpected failure: ") + error.what());
            }
        }
    }

    // Each IO thread runs one context of its own, so that the threads never contend for one
    // queue of events: ioc, which also runs the server-wide work, and one more per further
    // thread.
    net::io_context ioc;
    std::vector<std::unique_ptr<net::io_context>> connectionContexts;
    // Installed with the listening socket, so a signal that comes as soon as the server
    // says it listens is already ours.
    net::signal_set signals;
    net::signal_set reloads;
    std::shared_ptr<Shared> shared;
    std::shared_ptr<Listener> listener;
};

Server::Server(const ServerOptions& options, ServerParts parts)
    : state(std::make_unique<State>(options, std::move(parts))) {}

Server::~Server() = default;

unsigned short Server::port() const {
    return state->listener->port();
}

void Server::run() {
    state->awaitSignal();
    state->awaitReload();
    state->listener->run();
    net::dispatch(state->shared->control, [this] { state->report(Clock::now()); });

    // The further contexts may be without a connection at times; they run until ioc is done,
    // which is once the stop has seen every session go.
    std::vector<net::executor_work_guard<net::io_context::executor_type>> keep;
    std::vector<std::thread> threads;
    threads.reserve(state->connectionContexts.size());
    for (const auto& context : state->connectionContexts) {
        keep.push_back(net::make_work_guard(*context));
        threads.emplace_back([this, &context = *context] { state->runIo(context); });
    }
    state->runIo(state->ioc);
    keep.clear();
    for (std::thread& thread : threads) {
        thread.join();
    }
    state->shared->services.join();
    state->shared->events.flush(std::chrono::seconds(0));
}

} // namespace kestrin::host
