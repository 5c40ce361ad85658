#include "host/PartHeaderCheck.h"

#include <algorithm>

namespace kestrin::host {

namespace {

constexpr std::size_t blankLineSize = 4; // "\r\n\r\n"

} // namespace

PartHeaderCheck::PartHeaderCheck(file_upload::v1::MultipartUploadService& uploadService,
                                 const std::string& boundary, std::size_t headerLimit)
    : scanner(uploadService)
    , marker("\r\n--" + boundary)
    , limit(headerLimit) {}

bool PartHeaderCheck::advance(common::DataBuffer& body) {
    const std::size_t size = body.getSize();
    for (;;) {
        switch (state) {
        case State::marker: {
            const auto [begin, end, found] =
                scanner.findBoundaryMarkerIndex(position, body, common::DataBuffer(marker));
            (void)begin;
            if (!found) {
                // A marker that is not all in yet starts at most a marker's length from the
                // end, and the module takes a short one only when a whole marker would fit
                // before the end: look there again once more has come.
                if (size >= marker.getSize()) {
                    position = std::max(position, size - marker.getSize() + 1);
                }
                return true;
            }
            position = end;
            state = State::closing;
            break;
        }
        case State::closing:
            // Two dashes right after a marker end the body; the module reads no further.
            if (position + 1 >= size) {
                return true;
            }
            if (body[position] == '-' && body[position + 1] == '-') {
                state = State::done;
                return true;
            }
            blockStart = position;
            state = State::header;
            break;
        case State::header: {
            const auto [terminator, found] =
                scanner.findHeaderFieldsIndex(position, body, common::DataBuffer("\r\n\r\n"));
            if (found) {
                if (terminator - blockStart > limit) {
                    state = State::overLimit;
                    return false;
                }
                ++headerBlocks;
                position = terminator + blankLineSize;
                state = State::marker;
                break;
            }
            // The block reaches at least to the last bytes in: a terminator not found yet
            // starts no earlier than blankLineSize bytes from the end.
            const std::size_t reach = size >= blankLineSize ? size - blankLineSize : 0;
            if (reach > blockStart && reach - blockStart > limit) {
                state = State::overLimit;
                return false;
            }
            position = std::max(position, reach);
            return true;
        }
        case State::done:
            return true;
        case State::overLimit:
            return false;
        }
    }
}

} // namespace kestrin::host
