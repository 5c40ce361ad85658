#include "framework/HttpServiceProvider.h"

#include "framework/HttpRouter.h"

namespace kestrin::http {

HttpServiceProvider::HttpServiceProvider() = default;
HttpServiceProvider::~HttpServiceProvider() = default;

HttpRouter::~HttpRouter() = default;
HttpRouteProvider::HttpRouteProvider() = default;
HttpRouteProvider::~HttpRouteProvider() = default;

} // namespace kestrin::http
