#pragma once

#include "common/DataBuffer.h"
#include "file_upload/Export.h"
#include "framework/FileService.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace kestrin::file_upload::v1 {

// The toolbox that takes a multipart body apart: searches, header parsing, cutting and
// storing. Stateless, shared by every request, safe on several threads at once as long as
// each call works on buffers of its own.
class KESTRIN_EXPORT MultipartUploadService {
public:
    virtual ~MultipartUploadService() = default;

    // Records the parameters of the header block body[offset, offset + length) in headers.
    virtual void parseHeaders(common::DataBuffer& body, std::map<std::string, std::string>& headers,
                              size_t offset, size_t length) = 0;

    // Stores data under path through fileService and waits until the write is done. data is
    // moved out: it is empty afterwards, on success and on failure.
    virtual void writeFileToDisk(std::shared_ptr<file::v1::FileService> fileService,
                                 common::DataBuffer& data, std::u16string path) = 0;

    // First occurrence at or after start of marker ("\r\n--boundary") or of its short form
    // ("--boundary"): (start, end, true), or (SIZE_MAX, SIZE_MAX, false).
    [[nodiscard]] virtual std::tuple<size_t, size_t, bool>
    findBoundaryMarkerIndex(size_t start, common::DataBuffer& body, common::DataBuffer marker) = 0;

    // Index of the first CR of the first "\r\n\r\n" at or after start that is followed by at
    // least one byte: (index, true), or (SIZE_MAX or SIZE_MAX - 1, false).
    [[nodiscard]] virtual std::tuple<size_t, bool>
    findHeaderFieldsIndex(size_t start, common::DataBuffer& body,
                          common::DataBuffer terminator) = 0;

    // Appends request[start, end) to data, which the caller passes empty.
    virtual void extractDataFromRequest(size_t start, size_t end, common::DataBuffer& request,
                                        common::DataBuffer& data) = 0;

    virtual std::shared_ptr<MultipartUploadService> getPtr() = 0;
};

} // namespace kestrin::file_upload::v1
