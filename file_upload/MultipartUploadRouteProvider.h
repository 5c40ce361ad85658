#pragma once

#include "file_upload/Export.h"
#include "framework/HttpRouter.h"
#include "framework/Message.h"

#include <memory>

namespace kestrin::file_upload::v1 {

// Keeps the upload routes "/users" and "/ORVANE Drive" pointed at the upload service for as
// long as it lives: added on construction, removed on destruction, in that order. Built
// and destroyed by the framework, on whatever thread it likes.
class KESTRIN_EXPORT MultipartUploadRouteProvider : public http::HttpRouteProvider {
public:
    MultipartUploadRouteProvider(std::shared_ptr<http::HttpRouter> httpRouter, Address target);
    ~MultipartUploadRouteProvider() override;

private:
    std::shared_ptr<http::HttpRouter> router;
    Address address;
};

} // namespace kestrin::file_upload::v1
