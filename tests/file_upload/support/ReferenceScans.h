#pragma once

#include "common/DataBuffer.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>

// The scans written as plainly as they are defined, one position at a time, so that tests
// and fuzz targets can hold the fast scans against them. Slow on purpose; never use them
// outside tests.
namespace kestrin::testing::reference {

// The whole marker where its first byte stands, otherwise its short form (the marker
// without its first two bytes) where the marker's third byte stands. A marker shorter than
// three bytes has no third byte and so no short form; an empty marker matches nothing.
inline std::tuple<size_t, size_t, bool>
findBoundaryMarkerIndex(size_t start, common::DataBuffer& body, common::DataBuffer marker) {
    const uint8_t* b = body.getData();
    const uint8_t* m = marker.getData();
    const size_t n = body.getSize();
    const size_t len = marker.getSize();
    if (len == 0 || n < len || start > n - len) {
        return {SIZE_MAX, SIZE_MAX, false};
    }
    for (size_t i = start; i <= n - len; ++i) {
        if (b[i] == m[0]) {
            if (std::memcmp(b + i, m, len) == 0) {
                return {i, i + len, true};
            }
        } else if (len >= 3 && b[i] == m[2]) {
            if (std::memcmp(b + i, m + 2, len - 2) == 0) {
                return {i, i + len - 2, true};
            }
        }
    }
    return {SIZE_MAX, SIZE_MAX, false};
}

// The first CR LF CR LF at or after start with at least one byte after it; the terminator
// only lends its size.
inline std::tuple<size_t, bool> findHeaderFieldsIndex(size_t start, common::DataBuffer& body,
                                                      common::DataBuffer terminator) {
    const uint8_t* b = body.getData();
    const size_t n = body.getSize();
    const size_t len = terminator.getSize();
    if (n < len || start > n - len) {
        return {SIZE_MAX, false};
    }
    for (size_t i = start; i <= n - len; ++i) {
        if (i + 4 < n && b[i] == '\r' && b[i + 1] == '\n' && b[i + 2] == '\r' && b[i + 3] == '\n') {
            return {i, true};
        }
    }
    return {SIZE_MAX - 1, false};
}

inline void extractDataFromRequest(size_t start, size_t end, common::DataBuffer& request,
                                   common::DataBuffer& data) {
    for (size_t i = start; i < end; ++i) {
        data.pushBack(request[i]);
    }
    data.resize(end - start);
}

} // namespace kestrin::testing::reference
