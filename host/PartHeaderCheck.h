#pragma once

#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadService.h"

#include <cstddef>
#include <string>

namespace kestrin::host {

// Follows a multipart body while it arrives, the way the upload module will walk it, and tells
// when a part's header block grows past a limit. The module copies a header block's fields
// several times over (the name, the path, the path in UTF-16, the file record's path), so a
// part whose file name is as long as the body would cost many times the body; such a body is
// refused while it is still coming in, before it costs anything. Uses the module's own scans,
// so the blocks it measures are the blocks the module would parse. One per request body, used
// by the one session reading that body.
class PartHeaderCheck {
public:
    // Browsers send a few hundred bytes; a file name may take at most 255.
    static constexpr std::size_t defaultLimit = 16 * 1024;

    PartHeaderCheck(file_upload::v1::MultipartUploadService& scanner, const std::string& boundary,
                    std::size_t limit = defaultLimit);

    // Looks at what body holds now (its size is what has arrived). False once a header block
    // is, or is bound to become, longer than the limit; it stays false.
    [[nodiscard]] bool advance(common::DataBuffer& body);

    // Header blocks seen whole so far.
    std::size_t parts() const noexcept { return headerBlocks; }

private:
    enum class State { marker, closing, header, done, overLimit };

    file_upload::v1::MultipartUploadService& scanner;
    common::DataBuffer marker; // "\r\n--" + boundary, as the module searches for it
    const std::size_t limit;
    State state = State::marker;
    std::size_t position = 0;   // where the next search starts
    std::size_t blockStart = 0; // where the current header block starts
    std::size_t headerBlocks = 0;
};

} // namespace kestrin::host
