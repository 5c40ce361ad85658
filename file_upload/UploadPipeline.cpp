#include "file_upload/UploadPipeline.h"

#include "file_upload/BoundaryScan.h"
#include "file_upload/HeaderBlock.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "framework/Ost.h"

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>

namespace kestrin::file_upload::v1 {

namespace {

// The texts a client sees on the result page when its body cannot be taken apart.
constexpr const char* malformedRequest = "Malformed multi-part request";
constexpr const char* noHeaderFields = "Malformed multi-part request, no header fields found";
constexpr const char* noFileName = "Malformed multi-part request, no file name found";

// path is scratch space, kept by the caller so that its storage serves every part.
std::u16string storagePath(const std::string& directory, const std::string& filename,
                           std::string& path) {
    const auto fromUtf8 = ost::i18n::codecvt_string_to_ustring("UTF-8", true);
    path.clear();
    path.append(directory).append("/").append(filename);
    return ost::i18n::to_ustring(path, fromUtf8);
}

} // namespace

void runUploadPipeline(const std::shared_ptr<file::v1::FileService>& fileService,
                       MultipartUploadService& uploadService,
                       const common::DataBuffer& boundaryMarker, common::DataBuffer& body) {
    // Its size is the distance from a header block's blank line to the part's first byte.
    static const common::DataBuffer headerTerminator("\r\n\r\n");

    const size_t bodySize = body.getSize();
    if (bodySize == 0) {
        return;
    }
    // With the service exactly our own, what its calls would do is known, so the pipeline
    // does it by shorter ways with the same results: the search for the boundary after a part
    // and the cut of the part run as one pass over the body, and of a header block only the
    // file name is taken. A service of any other type, a wrapper or a fake, gets every call.
    const bool ownService = typeid(uploadService) == typeid(MultipartUploadServiceImpl);
    const bool fuse = ownService && isUsualMarker(boundaryMarker.bytes(), boundaryMarker.getSize());
    HeaderMap headers;
    std::string fileNameValue;
    std::string keyScratch;
    std::string path;
    // The open part's "filename" in headers, looked up once its block is parsed.
    const std::string* fileName = nullptr;
    common::DataBuffer content;
    size_t searchStart = 0;
    bool partOpen = false;
    size_t headerEnd = 0;
    for (;;) {
        // The part's bytes start right after its blank line, where the search starts.
        const bool cutWhileSearching = fuse && partOpen && content.getCapacity() == 0;
        const auto [markerBegin, markerEnd, markerFound] =
            cutWhileSearching ? findBoundaryAndCut(searchStart, body, boundaryMarker, content)
                              : uploadService.findBoundaryMarkerIndex(
                                    searchStart, body, common::DataBuffer(boundaryMarker));
        if (!markerFound) {
            throw std::runtime_error(malformedRequest);
        }
        // A part is stored once the boundary after it is known, before that boundary is
        // looked at: the last part goes out on the pass that meets the closing "--".
        if (partOpen) {
            if (!cutWhileSearching) {
                uploadService.extractDataFromRequest(headerEnd + headerTerminator.getSize(),
                                                     markerBegin, body, content);
            }
            if (fileName == nullptr) {
                throw std::runtime_error(noFileName);
            }
            // Asked for every part: a part goes where the working directory is when it is
            // stored, even if the directory changed while an earlier part was written.
            const std::string directory = ost::i18n::to_string(ost::filesystem::get_current_path());
            uploadService.writeFileToDisk(fileService, content,
                                          storagePath(directory, *fileName, path));
        }
        if (markerEnd + 1 < bodySize && body[markerEnd] == '-' && body[markerEnd + 1] == '-') {
            return;
        }
        const auto [terminatorIndex, terminatorFound] = uploadService.findHeaderFieldsIndex(
            markerEnd, body, common::DataBuffer(headerTerminator));
        if (!terminatorFound) {
            throw std::runtime_error(noHeaderFields);
        }
        // Only this part's block names it (the map is emptied per part), so a part without a
        // filename fails instead of reusing the last name.
        if (ownService) {
            // Our parser's only effect is the map, and the map is read for "filename" alone.
            const char* bytes = reinterpret_cast<const char*>(body.getData());
            fileName =
                findLastParameter(std::string_view(bytes + markerEnd, terminatorIndex - markerEnd),
                                  "filename", fileNameValue, keyScratch)
                    ? &fileNameValue
                    : nullptr;
        } else {
            headers.clear();
            uploadService.parseHeaders(body, headers, markerEnd, terminatorIndex - markerEnd);
            const auto found = headers.find("filename");
            fileName = found == headers.end() ? nullptr : &found->second;
        }
        partOpen = true;
        headerEnd = terminatorIndex;
        searchStart = terminatorIndex + headerTerminator.getSize();
        if (searchStart >= bodySize) {
            return;
        }
    }
}

} // namespace kestrin::file_upload::v1
