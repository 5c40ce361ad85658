#pragma once

#include "file_upload/Export.h"
#include "file_upload/MultipartUploadService.h"
#include "framework/FileService.h"
#include "framework/HttpServiceProvider.h"

#include <memory>

namespace kestrin::file_upload::v1 {

// The HTTP service behind the upload routes. Refuses messages while not running or of the
// wrong type, and answers each upload request with a result page. Holds no per-request
// state: processMessage and handle may run on several framework threads at once.
class KESTRIN_EXPORT MultipartUploadServiceProvider : public http::HttpServiceProvider {
public:
    MultipartUploadServiceProvider(std::shared_ptr<file::v1::FileService> files,
                                   std::shared_ptr<MultipartUploadService> uploads);
    ~MultipartUploadServiceProvider() override;

    void start() override;
    void stop() override;
    Future<std::unique_ptr<Message>> processMessage(std::unique_ptr<Message>&& message,
                                                    Address&& address,
                                                    std::shared_ptr<Context>&& context) override;
    // Always returns a future that is already resolved; blocks while the files are stored.
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request,
                                            Address&& address,
                                            std::shared_ptr<Context>&& context) override;

private:
    std::shared_ptr<file::v1::FileService> fileService;
    std::shared_ptr<MultipartUploadService> uploadService;
};

} // namespace kestrin::file_upload::v1
