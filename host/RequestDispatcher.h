#pragma once

#include "common/DataBuffer.h"
#include "framework/HttpServiceProvider.h"
#include "framework/Message.h"
#include "host/RouteTable.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrin::host {

// Why the server itself refused a request or a connection: a closed set, so that the metrics
// that count refusals by it keep a bounded number of series.
enum class Refusal {
    none,              // not a refusal of the server's own
    malformed,         // bytes that are no HTTP, or a target that cannot be decoded
    transferCoding,    // a transfer coding the server does not decode
    headTooLarge,      // a request head over its limit
    headTimeout,       // a head not complete in time
    bodyTimeout,       // a body stalled or below the minimum rate
    evicted,           // a slow request cut to make room for others
    credentials,       // no credentials, or wrong ones
    passwordBudget,    // password checks over their CPU share
    crossSite,         // an upload from a page of another site
    bodyTooLarge,      // a body over the body limit
    memory,            // the memory budget, now or for any body that large
    memoryShare,       // one client's share of the memory budget
    uploadQuota,       // what one client may upload in an hour
    fileQuota,         // the files one client may store in an hour
    disk,              // the space kept free on the upload directory's filesystem
    partHeader,        // a part's header block over its limit
    connections,       // the connection table full
    clientConnections, // one client's connections at their limit
    tlsHandshakes,     // TLS handshakes over their rate
};

// The refusal's name in metrics: "memory_share" and the like.
std::string_view refusalLabel(Refusal refusal) noexcept;

// What goes back to the client: status, Content-Type, further header fields and the body
// bytes. detail says, for the log only, why a host error was sent; refusal, for the metrics,
// why the server refused, if it did; close, that the connection ends after this answer whatever
// the request asked.
struct Reply {
    unsigned status = 500;
    std::string contentType;
    common::DataBuffer body;
    std::string detail;
    std::vector<std::pair<std::string, std::string>> headers;
    bool close = false;
    Refusal refusal = Refusal::none;
};

// Plays the framework between the HTTP side and the services: decides from a request's
// method and decoded path where it goes, and hands requests to a service the way the
// framework does (a ServiceMessage through processMessage). Services are registered before
// the server starts; after that, route and callService may run on any thread at once.
class RequestDispatcher {
public:
    struct Destination {
        enum class Kind { demoPage, service, notFound };
        Kind kind;
        std::shared_ptr<http::HttpServiceProvider> provider;
        Address address;
    };

    explicit RequestDispatcher(std::shared_ptr<const RouteTable> routeTable);

    // Makes a service reachable under its address, as the framework's service registry does.
    void addService(const Address& address, std::shared_ptr<http::HttpServiceProvider> provider);

    // GET and HEAD "/" are the demo page; a routed path goes to its service whatever the method;
    // any other path, and a route to an address without a service, is not found.
    [[nodiscard]] Destination route(std::string_view method, const std::string& path) const;

    // Delivers one request to provider and waits for its answer, so it blocks while the
    // service works: call it on a service thread. The body becomes the request's body stream
    // only when it holds at least one byte; boundary is filed under "boundary" when present.
    // Never throws: a refused message is 503, any other failure 500. When the service has
    // let go of the body stream by the time it answers, the body's buffer is moved back into
    // returned (if given), so its storage can take the next request.
    static Reply callService(http::HttpServiceProvider& provider, const Address& address,
                             std::optional<std::string> boundary, common::DataBuffer&& body,
                             common::DataBuffer* returned = nullptr);

    static Reply plainText(unsigned status, std::string_view text, std::string detail = {});
    // The demo page as renderDemoPage made it: rendered once, served as often as asked.
    static Reply demoPageReply(std::string_view renderedPage);

    // The message a result page hands to its parent, as it stands in the page's script
    // (escaped), or the page's first bytes when it is no result page: for the log.
    static std::string pageMessage(const common::DataBuffer& page);

private:
    std::shared_ptr<const RouteTable> routes;
    std::unordered_map<std::string, std::shared_ptr<http::HttpServiceProvider>> services;
};

} // namespace kestrin::host
