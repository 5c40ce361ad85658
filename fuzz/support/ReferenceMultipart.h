#pragma once

#include "common/DataBuffer.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

// How an upload body is taken apart, written once more from the rules in the plainest code
// we could think of: strings, byte loops, no Boost, nothing shared with the module but the
// DataBuffer that the scans' own signatures take (last section). The fuzz targets and the
// differential tests hold the module against it. Slow on purpose; never use it outside
// tests.
namespace kestrin::testing::reference {

// The texts an upload fails with when its body cannot be taken apart or its file name
// cannot be converted.
constexpr const char* malformedRequest = "Malformed multi-part request";
constexpr const char* noHeaderFields = "Malformed multi-part request, no header fields found";
constexpr const char* noFileName = "Malformed multi-part request, no file name found";
constexpr const char* invalidUtf8 = "Invalid UTF-8 in text";

// Pieces of text between delimiters; every delimiter character ends a piece, and empty
// pieces are dropped.
inline std::vector<std::string> splitDroppingEmpty(const std::string& text,
                                                   const std::string& delimiters) {
    std::vector<std::string> pieces;
    std::string current;
    for (char c : text) {
        bool isDelimiter = false;
        for (char d : delimiters) {
            if (c == d) {
                isDelimiter = true;
            }
        }
        if (isDelimiter) {
            if (!current.empty()) {
                pieces.push_back(current);
            }
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty()) {
        pieces.push_back(current);
    }
    return pieces;
}

// Space, CR and LF go from both ends; tabs and everything inside stay.
inline std::string trimBlanks(const std::string& text) {
    auto isBlank = [](char c) { return c == ' ' || c == '\r' || c == '\n'; };
    size_t begin = 0;
    while (begin < text.size() && isBlank(text[begin])) {
        ++begin;
    }
    size_t end = text.size();
    while (end > begin && isBlank(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

// Every double quote goes, wherever it stands.
inline std::string dropQuotes(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c != '"') {
            out += c;
        }
    }
    return out;
}

// One header block into headers: lines split at CR and LF, fields at ';', the field naming
// Content-Disposition skipped, key before the first '=' and value after it. A field without
// '=' is its own key, and its value is the field without its last character.
inline void parseHeaderBlock(const std::string& block,
                             std::map<std::string, std::string>& headers) {
    for (const std::string& line : splitDroppingEmpty(block, "\r\n")) {
        for (const std::string& field : splitDroppingEmpty(line, ";")) {
            if (field.find("Content-Disposition") != std::string::npos) {
                continue;
            }
            size_t equals = field.size();
            for (size_t k = 0; k < field.size(); ++k) {
                if (field[k] == '=') {
                    equals = k;
                    break;
                }
            }
            std::string key;
            std::string value;
            if (equals == field.size()) {
                key = field;
                value = field.substr(0, field.size() - 1);
            } else {
                key = field.substr(0, equals);
                value = field.substr(equals + 1);
            }
            headers[dropQuotes(trimBlanks(key))] = dropQuotes(trimBlanks(value));
        }
    }
}

// Well-formed UTF-8 as UTF-16, or nothing for any ill-formed sequence: a stray trail byte,
// a lead byte C0, C1 or F5 to FF, a cut-off sequence, an overlong form, a surrogate, or a
// code point past U+10FFFF.
inline std::optional<std::u16string> utf8ToUtf16(const std::string& text) {
    std::u16string out;
    size_t i = 0;
    while (i < text.size()) {
        const uint8_t lead = static_cast<uint8_t>(text[i]);
        size_t length = 0;
        uint32_t point = 0;
        if (lead < 0x80) {
            length = 1;
            point = lead;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            point = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            point = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            point = lead & 0x07;
        } else {
            return std::nullopt;
        }
        if (i + length > text.size()) {
            return std::nullopt;
        }
        for (size_t k = 1; k < length; ++k) {
            const uint8_t trail = static_cast<uint8_t>(text[i + k]);
            if ((trail & 0xC0) != 0x80) {
                return std::nullopt;
            }
            point = (point << 6) | (trail & 0x3F);
        }
        if ((length == 3 && point < 0x800) || (length == 4 && point < 0x10000) ||
            (point >= 0xD800 && point <= 0xDFFF) || point > 0x10FFFF) {
            return std::nullopt;
        }
        if (point < 0x10000) {
            out += static_cast<char16_t>(point);
        } else {
            out += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
        }
        i += length;
    }
    return out;
}

struct StoredPart {
    std::u16string path;
    std::string bytes;
};

// What one upload does: the parts stored, in order, and the text it fails with ("" when it
// succeeds). Parts stored before a failure stay in the list.
struct UploadOutcome {
    std::vector<StoredPart> stored;
    std::string failure;
};

// The first boundary at or after start: the whole marker where its first byte stands,
// otherwise its short form (the marker without its first two bytes) where the marker's third
// byte stands. Both forms are only looked for where the whole marker would still fit. A
// marker shorter than three bytes has no short form; an empty one matches nothing.
struct MarkerMatch {
    bool found = false;
    size_t begin = 0;
    size_t end = 0;
};

inline MarkerMatch findMarker(const std::string& body, size_t start, const std::string& marker) {
    const size_t len = marker.size();
    if (len == 0 || body.size() < len || start > body.size() - len) {
        return {};
    }
    for (size_t i = start; i <= body.size() - len; ++i) {
        if (body[i] == marker[0]) {
            if (body.compare(i, len, marker) == 0) {
                return {true, i, i + len};
            }
        } else if (len >= 3 && body[i] == marker[2]) {
            if (body.compare(i, len - 2, marker, 2, len - 2) == 0) {
                return {true, i, i + len - 2};
            }
        }
    }
    return {};
}

// The first CR LF CR LF at or after start with at least one byte after it, looked for only
// where patternSize bytes still fit: its index, SIZE_MAX when start is already past the last
// such place, SIZE_MAX - 1 when the scan finds none.
inline size_t findBlankLine(const std::string& body, size_t start, size_t patternSize) {
    if (body.size() < patternSize || start > body.size() - patternSize) {
        return SIZE_MAX;
    }
    for (size_t i = start; i <= body.size() - patternSize; ++i) {
        if (i + 4 < body.size() && body.compare(i, 4, "\r\n\r\n") == 0) {
            return i;
        }
    }
    return SIZE_MAX - 1;
}

// Walks body from boundary to boundary. A part's bytes run from just past its header block's
// blank line to the first byte of the next boundary found; it is stored under
// workingDirectory + "/" + its "filename" once that boundary is found. Two dashes right after
// a boundary end the body. The blank line ending a header block counts only with at least
// one byte after it. Each part's headers are read into an empty map.
inline UploadOutcome splitUpload(const std::string& boundary, const std::string& body,
                                 const std::string& workingDirectory) {
    UploadOutcome outcome;
    if (body.empty()) {
        return outcome;
    }
    std::map<std::string, std::string> headers;
    bool partOpen = false;
    size_t contentBegin = 0;
    size_t searchStart = 0;
    for (;;) {
        const MarkerMatch marker = findMarker(body, searchStart, "\r\n--" + boundary);
        if (!marker.found) {
            outcome.failure = malformedRequest;
            return outcome;
        }
        if (partOpen) {
            const std::string bytes = body.substr(contentBegin, marker.begin - contentBegin);
            if (headers.count("filename") == 0) {
                outcome.failure = noFileName;
                return outcome;
            }
            const std::optional<std::u16string> path =
                utf8ToUtf16(workingDirectory + "/" + headers["filename"]);
            if (!path) {
                outcome.failure = invalidUtf8;
                return outcome;
            }
            outcome.stored.push_back({*path, bytes});
        }
        if (marker.end + 1 < body.size() && body[marker.end] == '-' &&
            body[marker.end + 1] == '-') {
            return outcome;
        }
        const size_t blankLine = findBlankLine(body, marker.end, 4);
        if (blankLine >= SIZE_MAX - 1) {
            outcome.failure = noHeaderFields;
            return outcome;
        }
        headers.clear();
        parseHeaderBlock(body.substr(marker.end, blankLine - marker.end), headers);
        partOpen = true;
        contentBegin = blankLine + 4;
        searchStart = blankLine + 4;
        if (searchStart >= body.size()) {
            return outcome;
        }
    }
}

// The scans with the service object's signatures. They take their pointers through getData,
// as the module's scans do, so that both leave a buffer's storage the same way.
inline std::string bytesAfterGetData(common::DataBuffer& buffer) {
    const uint8_t* bytes = buffer.getData();
    return std::string(reinterpret_cast<const char*>(bytes), buffer.getSize());
}

inline std::tuple<size_t, size_t, bool>
findBoundaryMarkerIndex(size_t start, common::DataBuffer& body, common::DataBuffer marker) {
    const std::string text = bytesAfterGetData(body);
    const MarkerMatch match = findMarker(text, start, bytesAfterGetData(marker));
    if (!match.found) {
        return {SIZE_MAX, SIZE_MAX, false};
    }
    return {match.begin, match.end, true};
}

// The terminator only lends its size; the bytes looked for are always CR LF CR LF.
inline std::tuple<size_t, bool> findHeaderFieldsIndex(size_t start, common::DataBuffer& body,
                                                      common::DataBuffer terminator) {
    const size_t index = findBlankLine(bytesAfterGetData(body), start, terminator.getSize());
    return {index, index < SIZE_MAX - 1};
}

inline void extractDataFromRequest(size_t start, size_t end, common::DataBuffer& request,
                                   common::DataBuffer& data) {
    for (size_t i = start; i < end; ++i) {
        data.pushBack(request[i]);
    }
    data.resize(end - start);
}

} // namespace kestrin::testing::reference
