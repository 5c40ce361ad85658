#pragma once

#include "framework/Message.h"

#include <string>

namespace kestrin::http {

// The framework's route table: requests on a path go to the service at an address.
// removeRoute must not throw, also for a path that is not routed.
class HttpRouter {
public:
    virtual ~HttpRouter();
    virtual void addRoute(const std::string& path, const Address& target) = 0;
    virtual void removeRoute(const std::string& path) = 0;
};

// Base of the objects that keep routes registered for as long as they live.
class HttpRouteProvider {
public:
    HttpRouteProvider();
    HttpRouteProvider(const HttpRouteProvider&) = delete;
    HttpRouteProvider& operator=(const HttpRouteProvider&) = delete;
    virtual ~HttpRouteProvider();
};

} // namespace kestrin::http
