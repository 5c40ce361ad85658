#include "host/RequestDispatcher.h"

#include "framework/HttpRequest.h"
#include "framework/HttpResponse.h"
#include "framework/ServiceMessage.h"
#include "reactive_streams/OneShotPublisher.h"

#include <exception>
#include <string>
#include <utility>

namespace kestrin::host {

namespace {

constexpr std::string_view htmlType = "text/html; charset=utf-8";
constexpr std::string_view textType = "text/plain; charset=utf-8";

// Shown for failures of the service call; the reason goes to the log, not to the client.
constexpr std::string_view unavailableText =
    "Service Unavailable: the upload service is not running";
constexpr std::string_view internalErrorText = "Internal Server Error";

} // namespace

RequestDispatcher::RequestDispatcher(std::shared_ptr<const RouteTable> routeTable)
    : routes(std::move(routeTable)) {}

void RequestDispatcher::addService(const Address& address,
                                   std::shared_ptr<http::HttpServiceProvider> provider) {
    services.insert_or_assign(address.getName(), std::move(provider));
}

RequestDispatcher::Destination RequestDispatcher::route(std::string_view method,
                                                        const std::string& path) const {
    if (const std::optional<Address> address = routes->find(path)) {
        const auto service = services.find(address->getName());
        if (service != services.end()) {
            return Destination{Destination::Kind::service, service->second, *address};
        }
    } else if (path == "/" && (method == "GET" || method == "HEAD")) {
        return Destination{Destination::Kind::demoPage, nullptr, Address()};
    }
    return Destination{Destination::Kind::notFound, nullptr, Address()};
}

Reply RequestDispatcher::callService(http::HttpServiceProvider& provider, const Address& address,
                                     std::optional<std::string> boundary, common::DataBuffer&& body,
                                     common::DataBuffer* returned) {
    using BodyPublisher = reactive_streams::OneShotPublisher<common::DataBuffer>;
    std::shared_ptr<BodyPublisher> stream;
    // Runs on every way out, after the service has answered or failed.
    struct GiveBack {
        std::shared_ptr<BodyPublisher>& stream;
        common::DataBuffer* returned;
        ~GiveBack() {
            // The last holder: nobody else can reach the body any more.
            if (returned != nullptr && stream && stream.use_count() == 1) {
                *returned = stream->releaseItem();
            }
        }
    } giveBack{stream, returned};
    try {
        http::HttpRequest::Parameters parameters;
        if (boundary) {
            parameters.emplace("boundary", std::move(*boundary));
        }
        if (body.getSize() > 0) {
            stream = std::make_shared<BodyPublisher>(std::move(body));
        }
        std::unique_ptr<Message> message =
            std::make_unique<ServiceMessage<http::HttpServiceProvider>>(
                std::make_unique<http::HttpRequest>(stream, std::move(parameters)));

        Future<std::unique_ptr<Message>> future = provider.processMessage(
            std::move(message), Address(address), std::make_shared<Context>());
        std::unique_ptr<Message> answer;
        try {
            answer = future.get();
        } catch (const std::runtime_error& refusal) {
            // The service refuses messages while it is not running: a passing state.
            if (!provider.running.load()) {
                return plainText(503, unavailableText, refusal.what());
            }
            throw;
        }
        auto* response = dynamic_cast<http::HttpResponse*>(answer.get());
        if (response == nullptr) {
            return plainText(500, internalErrorText, "the service answered without a response");
        }
        // HTTP has three-digit statuses only; anything else cannot go on the status line.
        if (response->getStatus() < 100 || response->getStatus() > 999) {
            return plainText(500, internalErrorText,
                             "the service answered with status " +
                                 std::to_string(response->getStatus()));
        }
        return Reply{
            response->getStatus(), std::string(htmlType), response->takeBodyBytes(), {}, {}, false};
    } catch (const std::exception& error) {
        return plainText(500, internalErrorText, error.what());
    } catch (...) {
        return plainText(500, internalErrorText, "unknown exception");
    }
}

std::string_view refusalLabel(Refusal refusal) noexcept {
    switch (refusal) {
    case Refusal::none:
        return "none";
    case Refusal::malformed:
        return "malformed";
    case Refusal::transferCoding:
        return "transfer_coding";
    case Refusal::headTooLarge:
        return "head_too_large";
    case Refusal::headTimeout:
        return "head_timeout";
    case Refusal::bodyTimeout:
        return "body_timeout";
    case Refusal::evicted:
        return "evicted";
    case Refusal::credentials:
        return "credentials";
    case Refusal::passwordBudget:
        return "password_budget";
    case Refusal::crossSite:
        return "cross_site";
    case Refusal::bodyTooLarge:
        return "body_too_large";
    case Refusal::memory:
        return "memory";
    case Refusal::memoryShare:
        return "memory_share";
    case Refusal::uploadQuota:
        return "upload_quota";
    case Refusal::fileQuota:
        return "file_quota";
    case Refusal::disk:
        return "disk";
    case Refusal::partHeader:
        return "part_header";
    case Refusal::connections:
        return "connections";
    case Refusal::clientConnections:
        return "client_connections";
    case Refusal::tlsHandshakes:
        return "tls_handshakes";
    }
    return "other";
}

Reply RequestDispatcher::plainText(unsigned status, std::string_view text, std::string detail) {
    common::DataBuffer body;
    body.append(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    body.pushBack('\n');
    return Reply{status, std::string(textType), std::move(body), std::move(detail), {}, false};
}

std::string RequestDispatcher::pageMessage(const common::DataBuffer& page) {
    static constexpr std::string_view opening = "parent.postMessage(\"";
    static constexpr std::string_view closing = "\", \"*\");";
    const std::string_view text(reinterpret_cast<const char*>(page.bytes()), page.getSize());
    const std::size_t start = text.find(opening);
    const std::size_t end = text.rfind(closing);
    if (start == std::string_view::npos || end == std::string_view::npos ||
        end < start + opening.size()) {
        return std::string(text.substr(0, 200));
    }
    return std::string(text.substr(start + opening.size(), end - start - opening.size()));
}

Reply RequestDispatcher::demoPageReply(std::string_view renderedPage) {
    common::DataBuffer body;
    body.append(reinterpret_cast<const uint8_t*>(renderedPage.data()), renderedPage.size());
    return Reply{200, std::string(htmlType), std::move(body), {}, {}, false};
}

} // namespace kestrin::host
