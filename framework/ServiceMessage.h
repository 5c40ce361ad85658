#pragma once

#include "common/Future.h"
#include "framework/HttpRequest.h"
#include "framework/Message.h"

#include <memory>

namespace kestrin {

namespace http {
class HttpServiceProvider;
}

// A message addressed to a service of kind Provider; dispatch() hands its contents to the
// provider's handler.
template <typename Provider> class ServiceMessage;

// An HTTP request on its way to an HTTP service.
template <> class ServiceMessage<http::HttpServiceProvider> : public Message {
public:
    explicit ServiceMessage(std::unique_ptr<http::HttpRequest> request);
    ~ServiceMessage() override;

    // Calls provider->handle with the carried request and the two forwarded arguments and
    // returns its future. self is the owner through which this message was delivered.
    virtual Future<std::unique_ptr<Message>>
    dispatch(std::shared_ptr<http::HttpServiceProvider> provider, std::unique_ptr<Message>&& self,
             Address&& address, std::shared_ptr<Context>&& context);

    const http::HttpRequest& getRequest() const noexcept { return *request; }

private:
    std::unique_ptr<http::HttpRequest> request;
};

} // namespace kestrin
