#pragma once

#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadService.h"
#include "framework/FileService.h"

#include <memory>

namespace kestrin::file_upload::v1 {

// Walks one complete multipart body from boundary to boundary and stores every part, in
// body order, under the working directory and the part's "filename", through fileService.
// boundaryMarker is "\r\n--" + boundary. Returns normally for an empty body or at the
// closing delimiter; throws std::runtime_error for a malformed body ("Malformed multi-part
// request", "..., no header fields found", "..., no file name found") and passes on what
// storing throws. Parts stored before a failure stay stored. Runs on the caller's thread and
// blocks there while each part is written.
void runUploadPipeline(const std::shared_ptr<file::v1::FileService>& fileService,
                       MultipartUploadService& uploadService,
                       const common::DataBuffer& boundaryMarker, common::DataBuffer& body);

} // namespace kestrin::file_upload::v1
