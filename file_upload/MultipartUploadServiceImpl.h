#pragma once

#include "file_upload/Export.h"
#include "file_upload/MultipartUploadService.h"

#include <memory>

namespace kestrin::file_upload::v1 {

// The upload service object: finds boundaries and header blocks in a body, parses a part's
// headers, cuts out a part's bytes and stores them. No state of its own; one instance,
// created with std::make_shared, serves every request on every thread.
class KESTRIN_EXPORT MultipartUploadServiceImpl
    : public MultipartUploadService,
      public std::enable_shared_from_this<MultipartUploadService> {
public:
    MultipartUploadServiceImpl();
    ~MultipartUploadServiceImpl() override;

    void parseHeaders(common::DataBuffer& body, std::map<std::string, std::string>& headers,
                      size_t offset, size_t length) override;
    void writeFileToDisk(std::shared_ptr<file::v1::FileService> fileService,
                         common::DataBuffer& data, std::u16string path) override;
    [[nodiscard]] std::tuple<size_t, size_t, bool>
    findBoundaryMarkerIndex(size_t start, common::DataBuffer& body,
                            common::DataBuffer marker) override;
    [[nodiscard]] std::tuple<size_t, bool>
    findHeaderFieldsIndex(size_t start, common::DataBuffer& body,
                          common::DataBuffer terminator) override;
    void extractDataFromRequest(size_t start, size_t end, common::DataBuffer& request,
                                common::DataBuffer& data) override;
    std::shared_ptr<MultipartUploadService> getPtr() override;

    // Drop space, CR and LF at both ends; tabs stay.
    void trimLeadTrailWhiteSpaces(std::string& text);
    // Drop every double quote, wherever it stands.
    void trimDoubleQoutes(std::string& text);
};

} // namespace kestrin::file_upload::v1
