#pragma once

#include "host/AccessLog.h"
#include "host/ClientKey.h"
#include "host/RequestDispatcher.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::file_upload::v1 {
class MultipartUploadService;
}

namespace kestrin::host {

class BasicAuth;
class DiskFileService;
class DiskReserve;

struct ServerOptions {
    // An address or a host name; empty: every interface, IPv6 and IPv4.
    std::string address = "127.0.0.1";
    unsigned short port = 8080; // 0 picks a free port
    std::uint64_t maxBody = std::uint64_t{1} << 30;
    // What request bodies, the parts cut out of them and kept bodies may take in all.
    std::uint64_t maxMemory = std::uint64_t{8} << 30;
    // What the requests of one client key may hold of it at once; 0: all of it.
    std::uint64_t maxMemoryPerClient = 0;
    // Body bytes one client key may upload in an hour, earned back evenly; 0: no limit.
    std::uint64_t maxUploadPerClient = 0;
    // Files one client key may store in an hour, earned back evenly; 0: no limit.
    std::uint64_t maxFilesPerClient = 0;
    unsigned threads = 1; // IO threads
    // Threads that run service calls. Each is held for a whole upload, file writes included,
    // so this many uploads are stored at once, however many cores there are.
    unsigned serviceThreads = 64;
    std::size_t maxConnections = 1024;
    std::size_t maxConnectionsPerClient = 32;
    // TLS handshakes begun each second, in all and from one client address, each in bursts of
    // up to handshakeBurstSeconds' worth. A handshake signs with the certificate's key: the
    // dearest thing a client can make the server do before it sends a request. Past that, a
    // new connection is closed unanswered.
    unsigned tlsHandshakes = 512;
    unsigned tlsHandshakesPerClient = 32;
    // What the /64s of one IPv6 /48 hold together of every share of one client: connections,
    // memory, the upload quota, TLS handshakes and log lines, in shares of one client.
    unsigned siteShares = defaultSiteShares;
    std::chrono::seconds idleTimeout{30};
    std::chrono::seconds headerTimeout{10};
    std::uint64_t minBodyRate = 1024; // bytes per second, after headerTimeout of grace
    std::chrono::seconds shutdownTimeout{30};
    // On SIGINT or SIGTERM, how long to keep serving, /healthz answering 503, before the
    // listener closes: a load balancer in front then stops sending requests, rather than
    // have them cut off by the close. A second signal stops at once.
    std::chrono::seconds stopDelay{0};
    std::size_t maxFiles = 1000; // files one request may store
    std::vector<std::string> allowedOrigins;
    // Proxies (ADDRESS or ADDRESS/PREFIX, checked already) whose X-Forwarded-For names the client
    // of a request: its shares of memory and password checks, and the log, count that client.
    std::vector<std::string> trustedProxies;
    // Storage of request bodies and of the parts cut out of them, kept for later requests
    // once its request is done, in bytes: a large upload then lands in memory whose pages
    // exist already. Room for one 256 MiB upload's body and part with some to spare. Storage
    // not taken again within a minute is freed. 0 frees every body and part.
    std::uint64_t keptBodyBytes = std::uint64_t{1} << 30;
    // A path whose requests are read and dropped without reaching any service, answered 200:
    // the floor the upload path is measured against. Empty: no such route.
    std::string discardRoute;
    LogFormat logFormat = LogFormat::text;
    // PEM files; both set: the server speaks HTTPS only.
    std::string tlsCertificate;
    std::string tlsKey;
};

// What the server works with, built by main the way the framework builds it.
struct ServerParts {
    std::shared_ptr<const RequestDispatcher> dispatcher;
    // Counts and limits the files of each request, and makes them durable once per request.
    std::shared_ptr<DiskFileService> files;
    // The module's scans, which the server uses to follow part headers while a body arrives.
    std::shared_ptr<file_upload::v1::MultipartUploadService> scanner;
    // Null: no authentication.
    std::shared_ptr<BasicAuth> auth;
    // On SIGHUP: gives auth the users of its file again and says what it loaded ("the 3 users
    // of FILE"); throws std::runtime_error saying why it could not. Empty: nothing to re-read.
    std::function<std::string()> reloadUsers;
    // Why uploads cannot be stored now, or nothing: GET /healthz. Empty: no such endpoint.
    std::function<std::optional<std::string>()> healthProblem;
    // The space kept free on the upload directory's filesystem. Null: none is.
    std::shared_ptr<DiskReserve> disk;
};

// The HTTP side of the server: accepts connections within their limits, reads each request's
// head and body within their deadlines, follows the request gate's verdicts, runs service calls
// on a pool of service threads (they block until files are stored) and writes the replies.
// Owned by main; run() is called once, from one thread, and returns after SIGINT or SIGTERM
// once the requests in flight are answered or the shutdown timeout has passed. SIGHUP reloads
// the TLS certificate and key and the users, for the connections that come after it.
class Server {
public:
    // Loads the TLS files, resolves the address, binds and listens; throws std::runtime_error
    // saying why when one of them fails (a port in use, a name that does not resolve).
    Server(const ServerOptions& options, ServerParts parts);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The bound port, which differs from the asked one when that was 0.
    unsigned short port() const;

    void run();

private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace kestrin::host
