#include "framework/ServiceMessage.h"

#include "framework/HttpServiceProvider.h"

namespace kestrin {

ServiceMessage<http::HttpServiceProvider>::ServiceMessage(
    std::unique_ptr<http::HttpRequest> httpRequest)
    : request(std::move(httpRequest)) {}

ServiceMessage<http::HttpServiceProvider>::~ServiceMessage() = default;

Future<std::unique_ptr<Message>> ServiceMessage<http::HttpServiceProvider>::dispatch(
    std::shared_ptr<http::HttpServiceProvider> provider, std::unique_ptr<Message>&& /*self*/,
    Address&& address, std::shared_ptr<Context>&& context) {
    // The message keeps its request: handle only reads it.
    return provider->handle(std::move(request), std::move(address), std::move(context));
}

} // namespace kestrin
