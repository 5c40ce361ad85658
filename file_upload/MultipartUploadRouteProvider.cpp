#include "file_upload/MultipartUploadRouteProvider.h"

#include <string>

namespace kestrin::file_upload::v1 {

namespace {

const char* const usersRoute = "/users";
const char* const driveRoute = "/ORVANE Drive";

} // namespace

MultipartUploadRouteProvider::MultipartUploadRouteProvider(
    std::shared_ptr<http::HttpRouter> httpRouter, Address target)
    : router(std::move(httpRouter))
    , address(target) {
    // If the second call throws, the first route stays: the router owns what it was given.
    router->addRoute(std::string(usersRoute), target);
    router->addRoute(std::string(driveRoute), target);
}

MultipartUploadRouteProvider::~MultipartUploadRouteProvider() {
    // By path alone: whatever the routes lead to now, and whoever else still wants them.
    router->removeRoute(std::string(usersRoute));
    router->removeRoute(std::string(driveRoute));
}

} // namespace kestrin::file_upload::v1
