#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kestrin::host {

// The server's metrics, kept in a registry of the Prometheus client library and written in
// its text format on each scrape. The route label takes only the server's own paths (any
// other is "other"), so no client can make the series grow. Any thread.
class Metrics {
public:
    Metrics();
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // A request began or ended its time in the server. refusal names why the server itself
    // refused it ("memory_share"), and is empty when it did not.
    void requestStarted();
    void requestFinished(std::string_view route, unsigned status, std::uint64_t bytesIn,
                         std::chrono::microseconds duration, std::string_view refusal);
    // A connection refused or closed before any request of its got an answer: full tables,
    // handshakes over their rate. cause is the status it got, or would have; reason, why.
    void refused(unsigned cause, std::string_view reason);
    void filesStored(std::uint64_t files, std::uint64_t bytes);
    // An upload's call to the module began: on the IO thread that read it, or handed to the
    // service threads.
    void uploadCallPlaced(bool onIoThread);
    // A request that ended without an answer: the client left mid-body.
    void requestAbandoned(std::uint64_t bytesIn);

    // What the server has at the time of a scrape.
    struct Snapshot {
        std::uint64_t memoryInUse = 0;
        std::uint64_t memoryBudget = 0;
        std::uint64_t memoryKept = 0; // of memoryInUse: storage kept for later uploads
        std::uint64_t connections = 0;
        std::uint64_t connectionLimit = 0;
        std::uint64_t serviceRunning = 0; // upload calls on the service threads
        std::uint64_t serviceWaiting = 0; // and those waiting for one
    };
    // The text format, version 0.0.4.
    std::string scrape(const Snapshot& now);

    static constexpr std::string_view contentType = "text/plain; version=0.0.4; charset=utf-8";

private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace kestrin::host
