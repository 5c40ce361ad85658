#pragma once

#include "host/RequestDispatcher.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace kestrin::host {

struct ServerOptions {
    std::string address = "127.0.0.1";
    unsigned short port = 8080; // 0 picks a free port
    std::uint64_t maxBody = std::uint64_t{1} << 30;
    unsigned threads = 1; // IO threads
    // Threads that run service calls. Each is held for a whole upload, file writes included,
    // so this many uploads are stored at once, however many cores there are.
    unsigned serviceThreads = 16;
    std::chrono::seconds idleTimeout{30};
    // Request-body storage kept for later requests once its request is done, in bytes: a
    // large upload then lands in memory whose pages exist already. 0 frees every body.
    std::uint64_t keptBodyBytes = std::uint64_t{512} << 20;
    // A path whose requests are read and dropped without reaching any service, answered 200:
    // the floor the upload path is measured against. Empty: no such route.
    std::string discardRoute;
};

// The HTTP side of the server: accepts connections, reads each request's header and body,
// asks the dispatcher where it goes, runs service calls on a pool of service threads (they
// block until files are stored) and writes the replies. Owned by main; run() is called once,
// from one thread, and returns after SIGINT or SIGTERM once the requests in flight are
// answered.
class Server {
public:
    // Binds and listens; throws std::runtime_error when that fails (a port in use).
    Server(const ServerOptions& options, std::shared_ptr<const RequestDispatcher> dispatcher);
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
