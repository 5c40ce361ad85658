#include "file_upload/MultipartUploadServiceImpl.h"

#include "file_upload/BoundaryScan.h"
#include "file_upload/HeaderBlock.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

namespace kestrin::file_upload::v1 {

namespace {

using common::DataBuffer;

constexpr size_t blankLineSize = 4;

// Any other marker, byte by byte. A marker shorter than three bytes has no short form, and
// where its first and third bytes are equal the short form is never reached, because a
// byte equal to the first one is only ever tried against the whole marker.
BoundaryMatch findAnyMarker(const uint8_t* body, size_t last, size_t start, const uint8_t* marker,
                            size_t markerSize) {
    const uint8_t first = marker[0];
    const bool hasShortForm = markerSize >= 3 && marker[2] != first;
    const uint8_t third = hasShortForm ? marker[2] : first;
    for (size_t i = start; i <= last; ++i) {
        const uint8_t byte = body[i];
        if (byte == first) {
            if (sameBytes(body + i, marker, markerSize)) {
                return {i, i + markerSize, true};
            }
        } else if (hasShortForm && byte == third) {
            if (sameBytes(body + i, marker + 2, markerSize - 2)) {
                return {i, i + markerSize - 2, true};
            }
        }
    }
    return noBoundary;
}

} // namespace

MultipartUploadServiceImpl::MultipartUploadServiceImpl() = default;

MultipartUploadServiceImpl::~MultipartUploadServiceImpl() = default;

std::shared_ptr<MultipartUploadService> MultipartUploadServiceImpl::getPtr() {
    return shared_from_this();
}

std::tuple<size_t, size_t, bool>
MultipartUploadServiceImpl::findBoundaryMarkerIndex(size_t start, DataBuffer& body,
                                                    DataBuffer marker) {
    // Both pointers through getData: callers see a body without storage get its 8 bytes.
    const uint8_t* bodyBytes = body.getData();
    const uint8_t* markerBytes = marker.getData();
    const size_t bodySize = body.getSize();
    const size_t markerSize = marker.getSize();
    // An empty marker has no first byte to look for: it matches nothing.
    if (markerSize == 0 || bodySize < markerSize || start > bodySize - markerSize) {
        return noBoundary;
    }
    if (markerSize >= 4 && markerBytes[0] == cr && markerBytes[1] == lf && markerBytes[2] == dash &&
        markerBytes[3] == dash) {
        return findUsualMarker(bodyBytes, bodySize, start, markerBytes, markerSize);
    }
    return findAnyMarker(bodyBytes, bodySize - markerSize, start, markerBytes, markerSize);
}

std::tuple<size_t, bool> MultipartUploadServiceImpl::findHeaderFieldsIndex(size_t start,
                                                                           DataBuffer& body,
                                                                           DataBuffer terminator) {
    // Only the terminator's size bounds the scan; the bytes looked for are always CR LF CR LF.
    const uint8_t* bodyBytes = body.getData();
    const size_t bodySize = body.getSize();
    const size_t terminatorSize = terminator.getSize();
    if (bodySize < terminatorSize || start > bodySize - terminatorSize) {
        return {SIZE_MAX, false};
    }
    // A blank line counts only with at least one byte after it, so the last candidate is the
    // smaller of the scan's end and bodySize - 5.
    constexpr std::tuple<size_t, bool> scannedToEnd{SIZE_MAX - 1, false};
    if (bodySize < blankLineSize + 1) {
        return scannedToEnd;
    }
    const size_t last = std::min(bodySize - terminatorSize, bodySize - blankLineSize - 1);
    if (last < start) {
        return scannedToEnd;
    }
    // Horspool on the blank line's last byte, written out: a CR there shifts by one, an LF
    // that does not end a blank line by two, anything else by the full four.
    for (size_t i = start; i <= last;) {
        const uint8_t byte = bodyBytes[i + 3];
        if (byte == lf) {
            if (bodyBytes[i] == cr && bodyBytes[i + 1] == lf && bodyBytes[i + 2] == cr) {
                return {i, true};
            }
            i += 2;
        } else if (byte == cr) {
            i += 1;
        } else {
            i += 4;
        }
    }
    return scannedToEnd;
}

void MultipartUploadServiceImpl::extractDataFromRequest(size_t start, size_t end,
                                                        DataBuffer& request, DataBuffer& data) {
    // One allocation and one copy, leaving data exactly as appending the bytes one at a time
    // and then resizing to end - start would: capacity doubling from the first byte's growth,
    // size end - start (so any bytes data held before count towards that size).
    if (start > end) {
        // Callers never do this; the plain loop would append nothing and then ask for
        // end - start bytes, which no allocator grants: "Out of memory!", data unchanged.
        data.resize(end - start);
        return;
    }
    const size_t count = end - start;
    if (count > 0) {
        const size_t oldSize = data.getSize();
        const size_t oldCapacity = data.getCapacity();
        size_t capacity = oldCapacity;
        if (data.bytes() == nullptr || oldSize + 1 > oldCapacity) {
            capacity = std::max(2 * oldCapacity, oldSize + 1);
        }
        // Doubling stops before it could wrap to zero; a size that large fails to allocate.
        while (capacity < oldSize + count) {
            capacity = capacity > SIZE_MAX / 2 ? oldSize + count : 2 * capacity;
        }
        data.reserve(capacity);
        data.resize(oldSize + count);
        std::memcpy(&data[oldSize], &request[start], count);
    }
    data.resize(count);
}

void MultipartUploadServiceImpl::parseHeaders(DataBuffer& body,
                                              std::map<std::string, std::string>& headers,
                                              size_t offset, size_t length) {
    const char* bytes = reinterpret_cast<const char*>(body.getData());
    const std::string_view block(bytes + offset, length);
    forEachHeaderParameter(block, [&](std::string_view key, std::string_view value) {
        std::string keyText;
        std::string valueText;
        assignWithoutQuotes(keyText, key);
        assignWithoutQuotes(valueText, value);
        headers.insert_or_assign(std::move(keyText), std::move(valueText));
    });
}

void MultipartUploadServiceImpl::trimLeadTrailWhiteSpaces(std::string& text) {
    const auto blank = [](char c) { return c == ' ' || c == '\r' || c == '\n'; };
    size_t first = 0;
    while (first < text.size() && blank(text[first])) {
        ++first;
    }
    if (first == text.size()) {
        text.clear();
        return;
    }
    size_t end = text.size();
    while (blank(text[end - 1])) {
        --end;
    }
    text.erase(end);
    text.erase(0, first);
}

void MultipartUploadServiceImpl::trimDoubleQoutes(std::string& text) {
    text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
}

void MultipartUploadServiceImpl::writeFileToDisk(std::shared_ptr<file::v1::FileService> fileService,
                                                 DataBuffer& data, std::u16string path) {
    file_common::v1::FileInfo info(std::move(path));
    file_common::v1::File file(std::move(info), std::move(data));
    // The file record outlives the wait; the future goes first, the record after it.
    Future<file_common::v1::FileInfo> written = fileService->writeFile(std::move(file), true);
    written.get();
}

} // namespace kestrin::file_upload::v1
