#include "host/Server.h"

#include "host/BodyBufferPool.h"
#include "host/DataBufferBody.h"
#include "host/DiscardBody.h"
#include "host/HttpRules.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <exception>
#include <mutex>
#include <optional>
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
using tcp = net::ip::tcp;

namespace {

constexpr std::uint32_t headerLimit = 16 * 1024;
// Beast reads no more at once than the read buffer's free capacity, at least 512 bytes and
// at most 64 KiB: give it the full 64 KiB, or a large body takes a system call per 512 bytes.
constexpr std::size_t readBufferSize = 64 * 1024;
// The most asked of the socket in one read straight into a body.
constexpr std::size_t directReadLimit = 4 * 1024 * 1024;
// How long a connection that is being closed may go on sending what we will not read.
constexpr std::chrono::seconds drainLimit{5};
constexpr const char* serverName = "kestrin-upload-server";

// One write per line, so lines from several threads never interleave.
void writeLog(const std::string& line) {
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

// The one place that reports IO failures; step names what failed.
void reportFailure(std::string_view step, const beast::error_code& ec) {
    writeLog(std::string(serverName) + ": " + std::string(step) + ": " + ec.message() + "\n");
}

std::string toString(beast::string_view text) {
    return std::string(text.data(), text.size());
}

class Session;

// What every session shares with the server: its settings, the dispatcher, the service
// threads, the stop flag and the live sessions (so a stop can reach the idle ones).
struct Shared {
    Shared(const ServerOptions& serverOptions, std::shared_ptr<const RequestDispatcher> router)
        : options(serverOptions)
        , dispatcher(std::move(router))
        , services(std::max(1u, serverOptions.serviceThreads))
        , bodies(serverOptions.keptBodyBytes) {}

    ServerOptions options;
    std::shared_ptr<const RequestDispatcher> dispatcher;
    net::thread_pool services;
    BodyBufferPool bodies;
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::unordered_map<const Session*, std::weak_ptr<Session>> sessions;
};

// One connection: reads requests one after another, hands each to the dispatcher and writes
// its reply. Kept alive by the handlers of its pending operation (or of its service call),
// all of which run on the connection's strand.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket&& socket, std::shared_ptr<Shared> sharedState)
        : stream(std::move(socket))
        , shared(std::move(sharedState)) {
        buffer.reserve(readBufferSize);
    }

    ~Session() {
        std::lock_guard<std::mutex> guard(shared->mutex);
        shared->sessions.erase(this);
    }

    void run() {
        {
            std::lock_guard<std::mutex> guard(shared->mutex);
            shared->sessions.emplace(this, weak_from_this());
        }
        net::dispatch(stream.get_executor(),
                      beast::bind_front_handler(&Session::doRead, shared_from_this()));
    }

    // Server stop: a connection waiting for its next request closes now; one with a request
    // in flight answers it first and then closes.
    void stop() {
        net::dispatch(stream.get_executor(), [self = shared_from_this()] {
            if (!self->busy) {
                self->stream.cancel();
            }
        });
    }

private:
    void doRead() {
        if (shared->stopping.load()) {
            return doClose(false);
        }
        busy = false;
        bytesIn = 0;
        discardParser.reset();
        parser.emplace();
        parser->header_limit(headerLimit);
        parser->body_limit(shared->options.maxBody);
        stream.expires_after(shared->options.idleTimeout);
        http::async_read_header(
            stream, buffer, *parser,
            beast::bind_front_handler(&Session::onReadHeader, shared_from_this()));
    }

    void onReadHeader(beast::error_code ec, std::size_t) {
        if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
            ec == net::error::operation_aborted) {
            return doClose(false);
        }
        busy = true;
        started = std::chrono::steady_clock::now();
        const auto& request = parser->get();
        method = toString(request.method_string());
        target = toString(request.target());
        version = request.version() ? request.version() : 11;
        keepAlive = false;
        requestRead = false;

        if (ec == http::error::header_limit) {
            return sendReply(RequestDispatcher::plainText(431, "Request Header Fields Too Large"));
        }
        if (ec == http::error::body_limit) {
            return sendReply(RequestDispatcher::plainText(413, "Payload Too Large"));
        }
        if (ec) {
            if (ec.category() == http::make_error_code(http::error::bad_target).category() &&
                ec != http::error::partial_message) {
                return sendReply(RequestDispatcher::plainText(400, "Bad Request", ec.message()));
            }
            reportFailure("read header", ec);
            return doClose(false);
        }
        keepAlive = request.keep_alive();
        requestRead = parser->is_done();

        const std::optional<std::string> path = decodeTargetPath(target);
        if (!path) {
            return sendReply(RequestDispatcher::plainText(
                400, "Bad Request: malformed percent-escape in the request target"));
        }
        const bool expectsContinue = beast::iequals(request[http::field::expect], "100-continue");
        const std::string& discardRoute = shared->options.discardRoute;
        if (!discardRoute.empty() && *path == discardRoute) {
            // Nothing has been read into a body yet, so the parser can still change its kind.
            // The request's header moves with it.
            discardParser.emplace(std::move(*parser));
        } else {
            destination = shared->dispatcher->route(method, *path);
            switch (destination.kind) {
            case RequestDispatcher::Destination::Kind::demoPage:
                return sendReply(RequestDispatcher::demoPageReply());
            case RequestDispatcher::Destination::Kind::notFound:
                return sendReply(RequestDispatcher::plainText(404, "Not Found"));
            case RequestDispatcher::Destination::Kind::service:
                useKeptBody();
                break;
            }
        }
        if (expectsContinue) {
            return doContinue();
        }
        doReadBody();
    }

    // The parser has just reserved a block for the announced body, which no byte has touched
    // yet; storage kept from an earlier body of at least that size replaces it.
    void useKeptBody() {
        const boost::optional<std::uint64_t> length = parser->content_length();
        common::DataBuffer& body = parser->get().body();
        if (!length || body.getSize() != 0) {
            return;
        }
        common::DataBuffer kept = shared->bodies.take(static_cast<std::size_t>(*length));
        if (kept.getCapacity() >= *length) {
            body.swap(kept);
        }
    }

    // Clients that wait for a go-ahead before sending a large body get it only here, after
    // the header passed every check.
    void doContinue() {
        auto interim =
            std::make_shared<http::response<http::empty_body>>(http::status::continue_, version);
        stream.expires_after(shared->options.idleTimeout);
        http::async_write(stream, *interim,
                          [self = shared_from_this(), interim](beast::error_code ec, std::size_t) {
                              if (ec) {
                                  reportFailure("write 100-continue", ec);
                                  return self->doClose(false);
                              }
                              self->doReadBody();
                          });
    }

    // Reads the body piece by piece, so the idle timeout counts from the last bytes that
    // arrived rather than from the start of a long upload.
    void doReadBody() {
        if (discardParser) {
            return doReadDiscarded();
        }
        if (parser->is_done()) {
            return callService();
        }
        const common::DataBuffer& body = parser->get().body();
        if (!parser->chunked() && parser->content_length() && body.getSize() == 0 &&
            body.getCapacity() >= *parser->content_length()) {
            return startDirect(static_cast<std::size_t>(*parser->content_length()));
        }
        stream.expires_after(shared->options.idleTimeout);
        http::async_read_some(stream, buffer, *parser,
                              beast::bind_front_handler(&Session::onReadBody, shared_from_this()));
    }

    // A body of announced length is received straight into its buffer, from the socket, in
    // pieces as large as the socket has ready: the parser would first read each piece into
    // the connection's small buffer and then copy it. The parser has nothing left to check in
    // such a body; it only hands over the message once the bytes are in.
    void startDirect(std::size_t length) {
        if (!discardParser) {
            parser->get().body().resize(length);
        }
        directLength = length;
        directRead = 0;
        doReadDirect();
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

    void doReadDirect() {
        // Bytes that came in with the header are the body's first ones.
        if (directRead < directLength && buffer.size() > 0) {
            const std::size_t early = net::buffer_copy(directTarget(), buffer.data());
            buffer.consume(early);
            directRead += early;
        }
        if (directRead == directLength) {
            return discardParser ? sendDiscarded(directLength) : callService();
        }
        stream.expires_after(shared->options.idleTimeout);
        stream.async_read_some(
            directTarget(), beast::bind_front_handler(&Session::onReadDirect, shared_from_this()));
    }

    void onReadDirect(beast::error_code ec, std::size_t count) {
        if (ec) {
            // The client went away or stalled mid-body: nobody is left to answer.
            reportFailure("read body", ec);
            return doClose(false);
        }
        directRead += count;
        doReadDirect();
    }

    void onReadBody(beast::error_code ec, std::size_t) {
        if (ec == http::error::body_limit || ec == http::error::buffer_overflow) {
            return sendReply(RequestDispatcher::plainText(413, "Payload Too Large"));
        }
        if (ec == boost::system::errc::not_enough_memory) {
            return sendReply(RequestDispatcher::plainText(
                503, "Service Unavailable: not enough memory for this request body"));
        }
        if (ec) {
            // The client went away or stalled mid-body: nobody is left to answer.
            reportFailure("read body", ec);
            return doClose(false);
        }
        doReadBody();
    }

    // Reads the way the upload path reads: a slower read here would make the floor the upload
    // is measured against slower than the machine, and flatter the upload.
    void doReadDiscarded() {
        if (discardParser->is_done()) {
            return sendDiscarded(discardParser->get().body());
        }
        if (!discardParser->chunked() && discardParser->content_length()) {
            return startDirect(static_cast<std::size_t>(*discardParser->content_length()));
        }
        stream.expires_after(shared->options.idleTimeout);
        http::async_read_some(stream, buffer, *discardParser,
                              beast::bind_front_handler(&Session::onReadBody, shared_from_this()));
    }

    void sendDiscarded(std::uint64_t count) {
        requestRead = true;
        keepAlive = discardParser->get().keep_alive();
        bytesIn = count;
        sendReply(RequestDispatcher::plainText(200, "Discarded " + std::to_string(bytesIn) +
                                                        " body bytes"));
    }

    void callService() {
        requestRead = true;
        http::request<DataBufferBody> request = parser->release();
        keepAlive = request.keep_alive();
        std::optional<std::string> boundary;
        const auto contentType = request.find(http::field::content_type);
        if (contentType != request.end()) {
            const beast::string_view value = contentType->value();
            boundary = findBoundaryParameter(std::string_view(value.data(), value.size()));
        }
        bytesIn = request.body().getSize();

        // The guard keeps the IO threads running until the reply has been handed back.
        net::post(shared->services, [self = shared_from_this(),
                                     work = net::make_work_guard(stream.get_executor()),
                                     provider = destination.provider, address = destination.address,
                                     boundary = std::move(boundary),
                                     body = std::move(request.body())]() mutable {
            common::DataBuffer returned;
            Reply reply = RequestDispatcher::callService(*provider, address, std::move(boundary),
                                                         std::move(body), &returned);
            self->shared->bodies.give(std::move(returned));
            net::post(self->stream.get_executor(), [self, reply = std::move(reply)]() mutable {
                self->sendReply(std::move(reply));
            });
        });
    }

    void sendReply(Reply&& reply) {
        // A request whose body was not read leaves the connection at an unknown point of the
        // byte stream: answer and close.
        const bool close = !keepAlive || !requestRead || shared->stopping.load();
        auto response = std::make_shared<http::response<DataBufferBody>>();
        response->version(version);
        response->result(reply.status);
        response->set(http::field::server, serverName);
        response->set(http::field::content_type, reply.contentType);
        response->body() = std::move(reply.body);
        response->keep_alive(!close);
        response->prepare_payload();
        logRequest(reply.status, reply.detail);

        stream.expires_after(shared->options.idleTimeout);
        http::async_write(stream, *response,
                          [self = shared_from_this(), response,
                           close](beast::error_code ec, std::size_t) { self->onWrite(close, ec); });
    }

    void onWrite(bool close, beast::error_code ec) {
        if (ec) {
            reportFailure("write", ec);
            return doClose(false);
        }
        if (close) {
            return doClose(!requestRead);
        }
        doRead();
    }

    // Half-closes, then optionally reads and drops whatever the client still sends: closing
    // a socket with unread input resets the connection, and the client might lose the reply.
    void doClose(bool drain) {
        beast::error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        if (!drain) {
            return;
        }
        busy = true;
        stream.expires_after(drainLimit);
        doDrain();
    }

    void doDrain() {
        stream.async_read_some(buffer.prepare(64 * 1024),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (!ec) {
                                       self->doDrain();
                                   }
                               });
    }

    void logRequest(unsigned status, const std::string& detail) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - started);
        std::string line = method + " " + target + " " + std::to_string(status) + " " +
                           std::to_string(bytesIn) + " " + std::to_string(elapsed.count()) + "ms";
        if (!detail.empty()) {
            line += " (" + detail + ")";
        }
        line += "\n";
        writeLog(line);
    }

    beast::tcp_stream stream;
    beast::flat_buffer buffer;
    std::shared_ptr<Shared> shared;
    std::optional<http::request_parser<DataBufferBody>> parser;
    // Takes over from parser for a request to the discard route.
    std::optional<http::request_parser<DiscardBody>> discardParser;
    RequestDispatcher::Destination destination{RequestDispatcher::Destination::Kind::notFound,
                                               nullptr, Address()};
    std::string method;
    std::string target;
    std::chrono::steady_clock::time_point started;
    std::uint64_t bytesIn = 0;
    std::size_t directLength = 0;            // size of a body read straight from the socket
    std::size_t directRead = 0;              // how much of it has arrived
    std::unique_ptr<std::uint8_t[]> scratch; // where the discard route drops its bytes
    unsigned version = 11;
    bool keepAlive = false;
    bool requestRead = false; // the whole request, body included, has been consumed
    bool busy = false;        // a request is in flight: a stop lets it finish
};

// Accepts connections and starts a session for each, until the server stops.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    Listener(net::io_context& context, const tcp::endpoint& endpoint,
             std::shared_ptr<Shared> sharedState)
        : ioc(context)
        , acceptor(net::make_strand(context))
        , shared(std::move(sharedState)) {
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
        });
    }

private:
    void doAccept() {
        acceptor.async_accept(net::make_strand(ioc),
                              beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
    }

    void onAccept(beast::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        if (ec) {
            reportFailure("accept", ec);
        } else {
            std::make_shared<Session>(std::move(socket), shared)->run();
        }
        if (!shared->stopping.load()) {
            doAccept();
        }
    }

    net::io_context& ioc;
    tcp::acceptor acceptor;
    std::shared_ptr<Shared> shared;
};

} // namespace

struct Server::State {
    State(const ServerOptions& options, std::shared_ptr<const RequestDispatcher> dispatcher)
        : ioc(static_cast<int>(options.threads))
        , signals(ioc, SIGINT, SIGTERM)
        , shared(std::make_shared<Shared>(options, std::move(dispatcher))) {
        beast::error_code ec;
        const auto address = net::ip::make_address(options.address, ec);
        if (ec) {
            throw std::runtime_error("invalid listen address " + options.address + ": " +
                                     ec.message());
        }
        listener = std::make_shared<Listener>(ioc, tcp::endpoint(address, options.port), shared);
    }

    void beginStop() {
        shared->stopping.store(true);
        listener->stop();
        std::vector<std::shared_ptr<Session>> live;
        {
            std::lock_guard<std::mutex> guard(shared->mutex);
            for (const auto& entry : shared->sessions) {
                if (auto session = entry.second.lock()) {
                    live.push_back(std::move(session));
                }
            }
        }
        for (const auto& session : live) {
            session->stop();
        }
    }

    // A handler that throws must not take an IO thread down with it.
    void runIo() {
        for (;;) {
            try {
                ioc.run();
                return;
            } catch (const std::exception& error) {
                writeLog(std::string(serverName) + ": unexpected failure: " + error.what() + "\n");
            }
        }
    }

    net::io_context ioc;
    // Installed with the listening socket, so a signal that comes as soon as the server
    // says it listens is already ours.
    net::signal_set signals;
    std::shared_ptr<Shared> shared;
    std::shared_ptr<Listener> listener;
};

Server::Server(const ServerOptions& options, std::shared_ptr<const RequestDispatcher> dispatcher)
    : state(std::make_unique<State>(options, std::move(dispatcher))) {}

Server::~Server() = default;

unsigned short Server::port() const {
    return state->listener->port();
}

void Server::run() {
    // Signals wait only once: after the first, the server is already on its way out.
    state->signals.async_wait([this](beast::error_code ec, int) {
        if (!ec) {
            state->beginStop();
        }
    });
    state->listener->run();

    std::vector<std::thread> threads;
    const unsigned count = std::max(1u, state->shared->options.threads);
    threads.reserve(count - 1);
    for (unsigned i = 1; i < count; ++i) {
        threads.emplace_back([this] { state->runIo(); });
    }
    state->runIo();
    for (std::thread& thread : threads) {
        thread.join();
    }
    state->shared->services.join();
}

} // namespace kestrin::host
