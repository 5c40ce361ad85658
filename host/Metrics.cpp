#include "host/Metrics.h"

#include <mutex>
#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <sstream>
#include <vector>

namespace kestrin::host {

struct Metrics::State {
    prometheus::Registry registry;
    prometheus::Family<prometheus::Counter>& requests =
        prometheus::BuildCounter()
            .Name("kestrin_http_requests_total")
            .Help("Requests answered, by route and status")
            .Register(registry);
    prometheus::Family<prometheus::Counter>& refusals =
        prometheus::BuildCounter()
            .Name("kestrin_refusals_total")
            .Help("Requests and connections the server itself refused, by the status they got "
                  "and the reason")
            .Register(registry);
    prometheus::Counter& received = prometheus::BuildCounter()
                                        .Name("kestrin_received_bytes_total")
                                        .Help("Request body bytes received")
                                        .Register(registry)
                                        .Add({});
    prometheus::Counter& files = prometheus::BuildCounter()
                                     .Name("kestrin_files_stored_total")
                                     .Help("Files stored")
                                     .Register(registry)
                                     .Add({});
    prometheus::Counter& fileBytes = prometheus::BuildCounter()
                                         .Name("kestrin_stored_bytes_total")
                                         .Help("Bytes of the files stored")
                                         .Register(registry)
                                         .Add({});
    prometheus::Gauge& inFlight = prometheus::BuildGauge()
                                      .Name("kestrin_requests_in_flight")
                                      .Help("Requests read and not yet answered")
                                      .Register(registry)
                                      .Add({});
    prometheus::Histogram& duration =
        prometheus::BuildHistogram()
            .Name("kestrin_request_duration_seconds")
            .Help("Time from a request's first byte to its answer")
            .Register(registry)
            .Add({},
                 prometheus::Histogram::BucketBoundaries{0.001, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                         0.5, 1, 2.5, 5, 10, 30, 60, 300});
    prometheus::Family<prometheus::Gauge>& memory =
        prometheus::BuildGauge()
            .Name("kestrin_memory_bytes")
            .Help("Memory of request bodies and their parts: in use, of that kept for later "
                  "uploads, and the budget")
            .Register(registry);
    prometheus::Gauge& memoryInUse = memory.Add({{"kind", "in_use"}});
    prometheus::Gauge& memoryBudget = memory.Add({{"kind", "budget"}});
    prometheus::Gauge& memoryKept = memory.Add({{"kind", "kept"}});
    prometheus::Family<prometheus::Gauge>& connections =
        prometheus::BuildGauge()
            .Name("kestrin_connections")
            .Help("Open connections, and the limit")
            .Register(registry);
    prometheus::Gauge& connectionsOpen = connections.Add({{"kind", "open"}});
    prometheus::Gauge& connectionLimit = connections.Add({{"kind", "limit"}});
    prometheus::Family<prometheus::Gauge>& serviceCalls =
        prometheus::BuildGauge()
            .Name("kestrin_service_calls")
            .Help("Uploads on the service threads: running, and waiting for a thread")
            .Register(registry);
    prometheus::Gauge& serviceRunning = serviceCalls.Add({{"state", "running"}});
    prometheus::Gauge& serviceWaiting = serviceCalls.Add({{"state", "waiting"}});
    prometheus::Family<prometheus::Counter>& uploadCalls =
        prometheus::BuildCounter()
            .Name("kestrin_upload_calls_total")
            .Help("Uploads handed to the module: on the IO thread that read them, or on a "
                  "service thread")
            .Register(registry);
    prometheus::Counter& callsOnIo = uploadCalls.Add({{"thread", "io"}});
    prometheus::Counter& callsOnService = uploadCalls.Add({{"thread", "service"}});

    // The request counter of a route and status. The family would build and hash the labels
    // on every request; the pairs seen are few (the routes are the server's own), so they are
    // remembered and found by a look down a short list.
    prometheus::Counter& requestsOf(std::string_view route, unsigned status) {
        std::lock_guard<std::mutex> guard(seenMutex);
        for (const Seen& pair : seen) {
            if (pair.status == status && pair.route == route) {
                return *pair.counter;
            }
        }
        prometheus::Counter& counter =
            requests.Add({{"route", std::string(route)}, {"status", std::to_string(status)}});
        seen.push_back(Seen{std::string(route), status, &counter});
        return counter;
    }

    struct Seen {
        std::string route;
        unsigned status;
        prometheus::Counter* counter;
    };
    std::mutex seenMutex;
    std::vector<Seen> seen;
};

Metrics::Metrics()
    : state(std::make_unique<State>()) {}

Metrics::~Metrics() = default;

void Metrics::requestStarted() {
    state->inFlight.Increment();
}

void Metrics::requestFinished(std::string_view route, unsigned status, std::uint64_t bytesIn,
                              std::chrono::microseconds duration, std::string_view refusal) {
    state->inFlight.Decrement();
    state->requestsOf(route, status).Increment();
    if (!refusal.empty()) {
        refused(status, refusal);
    }
    state->received.Increment(static_cast<double>(bytesIn));
    state->duration.Observe(std::chrono::duration<double>(duration).count());
}

void Metrics::requestAbandoned(std::uint64_t bytesIn) {
    state->inFlight.Decrement();
    state->received.Increment(static_cast<double>(bytesIn));
}

void Metrics::refused(unsigned cause, std::string_view reason) {
    state->refusals.Add({{"cause", std::to_string(cause)}, {"reason", std::string(reason)}})
        .Increment();
}

void Metrics::filesStored(std::uint64_t files, std::uint64_t bytes) {
    state->files.Increment(static_cast<double>(files));
    state->fileBytes.Increment(static_cast<double>(bytes));
}

void Metrics::uploadCallPlaced(bool onIoThread) {
    (onIoThread ? state->callsOnIo : state->callsOnService).Increment();
}

std::string Metrics::scrape(const Snapshot& now) {
    state->memoryInUse.Set(static_cast<double>(now.memoryInUse));
    state->memoryBudget.Set(static_cast<double>(now.memoryBudget));
    state->memoryKept.Set(static_cast<double>(now.memoryKept));
    state->connectionsOpen.Set(static_cast<double>(now.connections));
    state->connectionLimit.Set(static_cast<double>(now.connectionLimit));
    state->serviceRunning.Set(static_cast<double>(now.serviceRunning));
    state->serviceWaiting.Set(static_cast<double>(now.serviceWaiting));
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, state->registry.Collect());
    return out.str();
}

} // namespace kestrin::host
