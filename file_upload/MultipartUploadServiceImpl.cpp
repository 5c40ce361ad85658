#include "file_upload/MultipartUploadServiceImpl.h"

#include <boost/token_functions.hpp>
#include <boost/token_iterator.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string.h>
#include <utility>

namespace kestrin::file_upload::v1 {

namespace {

using common::DataBuffer;

constexpr uint8_t cr = '\r';
constexpr uint8_t lf = '\n';
constexpr uint8_t dash = '-';
constexpr uint8_t blankLine[] = {cr, lf, cr, lf};

using BoundaryMatch = std::tuple<size_t, size_t, bool>;
constexpr BoundaryMatch noBoundary{SIZE_MAX, SIZE_MAX, false};

const uint8_t* findBytes(const uint8_t* haystack, size_t haystackSize, const uint8_t* needle,
                         size_t needleSize) {
    return static_cast<const uint8_t*>(::memmem(haystack, haystackSize, needle, needleSize));
}

inline bool sameBytes(const uint8_t* a, const uint8_t* b, size_t count) {
    for (size_t k = 0; k < count; ++k) {
        if (a[k] != b[k]) {
            return false;
        }
    }
    return true;
}

// Markers of the usual shape, "\r\n--" + boundary. The scan tests the whole marker where a
// CR stands and the short form "--" + boundary where a dash stands, and every match of
// either contains the short form. So the first occurrence q of the short form decides:
// - the whole marker at q - 2 when CR LF precedes q inside the scanned range;
// - otherwise the short form at q, when q still lies where the scan looks (q <= n - len);
// - otherwise nothing: a later occurrence overlapping q cannot have CR LF in front of it
//   (its CR LF would sit on q's dashes), and one further on lies beyond every scanned
//   position.
// The whole marker at q - 2 needs no range check: the short form ends inside the body, so
// q - 2 <= n - len.
BoundaryMatch findUsualMarker(const uint8_t* body, size_t bodySize, size_t start,
                              const uint8_t* marker, size_t markerSize) {
    const size_t shortSize = markerSize - 2;
    const uint8_t* hit = findBytes(body + start, bodySize - start, marker + 2, shortSize);
    if (hit == nullptr) {
        return noBoundary;
    }
    const size_t q = static_cast<size_t>(hit - body);
    if (q >= start + 2 && body[q - 2] == cr && body[q - 1] == lf) {
        return {q - 2, q - 2 + markerSize, true};
    }
    if (q <= bodySize - markerSize) {
        return {q, q + shortSize, true};
    }
    return noBoundary;
}

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
    if (bodySize < sizeof blankLine + 1) {
        return scannedToEnd;
    }
    const size_t last = std::min(bodySize - terminatorSize, bodySize - sizeof blankLine - 1);
    if (last < start) {
        return scannedToEnd;
    }
    const uint8_t* hit =
        findBytes(bodyBytes + start, last - start + sizeof blankLine, blankLine, sizeof blankLine);
    if (hit == nullptr) {
        return scannedToEnd;
    }
    return {static_cast<size_t>(hit - bodyBytes), true};
}

void MultipartUploadServiceImpl::extractDataFromRequest(size_t start, size_t end,
                                                        DataBuffer& request, DataBuffer& data) {
    // One allocation and one copy, leaving data exactly as appending the bytes one at a time
    // and then resizing to end - start would: capacity doubling from the first byte's growth,
    // size end - start (so any bytes data held before count towards that size).
    const size_t count = end - start;
    if (count > 0) {
        const size_t oldSize = data.getSize();
        const size_t oldCapacity = data.getCapacity();
        size_t capacity = oldCapacity;
        if (data.bytes() == nullptr || oldSize + 1 > oldCapacity) {
            capacity = std::max(2 * oldCapacity, oldSize + 1);
        }
        while (capacity < oldSize + count) {
            capacity *= 2;
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
    const std::string block(bytes + offset, length);

    using Separator = boost::char_separator<char>;
    using Tokens =
        boost::token_iterator_generator<Separator, std::string::const_iterator, std::string>::type;
    const Separator lineSeparator("\r\n");
    const Separator fieldSeparator(";");
    const Tokens linesEnd =
        boost::make_token_iterator<std::string>(block.end(), block.end(), lineSeparator);
    for (Tokens line =
             boost::make_token_iterator<std::string>(block.begin(), block.end(), lineSeparator);
         line != linesEnd; ++line) {
        const std::string text = *line;
        const Tokens fieldsEnd =
            boost::make_token_iterator<std::string>(text.end(), text.end(), fieldSeparator);
        for (Tokens field =
                 boost::make_token_iterator<std::string>(text.begin(), text.end(), fieldSeparator);
             field != fieldsEnd; ++field) {
            const std::string& part = *field;
            // The header's own name and type ("Content-Disposition: form-data") is no parameter.
            if (part.find("Content-Disposition") != std::string::npos) {
                continue;
            }
            const size_t equals = part.find('=');
            std::string key = part.substr(0, equals);
            // Without "=", equals + 1 wraps to 0 and the value is the field minus its last
            // character; clients rely on nothing else, so the rule stays as it always was.
            std::string value = part.substr(equals + 1, part.size() - 1);
            trimLeadTrailWhiteSpaces(key);
            trimDoubleQoutes(key);
            trimLeadTrailWhiteSpaces(value);
            trimDoubleQoutes(value);
            headers[key] = std::move(value);
        }
    }
}

void MultipartUploadServiceImpl::trimLeadTrailWhiteSpaces(std::string& text) {
    constexpr const char* blanks = " \r\n";
    text.erase(0, text.find_first_not_of(blanks));
    const size_t last = text.find_last_not_of(blanks);
    if (last != std::string::npos) {
        text.erase(last + 1);
    }
}

void MultipartUploadServiceImpl::trimDoubleQoutes(std::string& text) {
    text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
}

void MultipartUploadServiceImpl::writeFileToDisk(std::shared_ptr<file::v1::FileService> fileService,
                                                 DataBuffer& data, std::u16string path) {
    file_common::v1::FileInfo info(path);
    file_common::v1::File file(std::move(info), std::move(data));
    // The file record outlives the wait; the future goes first, the record after it.
    Future<file_common::v1::FileInfo> written = fileService->writeFile(std::move(file), true);
    written.get();
}

} // namespace kestrin::file_upload::v1
