#pragma once

#include "common/Future.h"
#include "framework/HttpRequest.h"
#include "framework/Message.h"

#include <atomic>
#include <memory>

namespace kestrin::http {

// Base of every HTTP service. The framework sets running and fills weakSelf when it takes
// the provider into shared ownership (makeServiceProvider); messages arrive at
// processMessage, possibly on several threads at once.
class HttpServiceProvider {
public:
    HttpServiceProvider();
    HttpServiceProvider(const HttpServiceProvider&) = delete;
    HttpServiceProvider& operator=(const HttpServiceProvider&) = delete;
    virtual ~HttpServiceProvider();

    virtual void start() = 0;
    virtual void stop() = 0;
    virtual Future<std::unique_ptr<Message>> processMessage(std::unique_ptr<Message>&& message,
                                                            Address&& address,
                                                            std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<HttpRequest>&& request,
                                                    Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;

    // Atomic because the framework may stop a service while its threads read the flag.
    std::atomic<bool> running{false};
    std::weak_ptr<HttpServiceProvider> weakSelf;
};

// Creates a provider the way the framework does: one allocation, weak self reference filled.
// The provider is not running until the caller sets running.
template <typename Provider, typename... Args>
std::shared_ptr<Provider> makeServiceProvider(Args&&... args) {
    auto provider = std::make_shared<Provider>(std::forward<Args>(args)...);
    provider->weakSelf = provider;
    return provider;
}

} // namespace kestrin::http
