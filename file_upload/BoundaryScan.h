#pragma once

#include "common/DataBuffer.h"

#include <cstddef>
#include <cstdint>
#include <tuple>

namespace kestrin::file_upload::v1 {

// The boundary search's building blocks, shared by the upload service object and the
// pipeline. Stateless; any thread may call them on buffers it alone uses.

// The bytes that delimiters and header blocks are made of.
inline constexpr uint8_t cr = '\r';
inline constexpr uint8_t lf = '\n';
inline constexpr uint8_t dash = '-';

// Start, index just past the match, found flag; not found is (SIZE_MAX, SIZE_MAX, false).
using BoundaryMatch = std::tuple<size_t, size_t, bool>;
inline constexpr BoundaryMatch noBoundary{SIZE_MAX, SIZE_MAX, false};

// Byte for byte; short compares inline better than memcmp calls.
inline bool sameBytes(const uint8_t* a, const uint8_t* b, size_t count) {
    for (size_t k = 0; k < count; ++k) {
        if (a[k] != b[k]) {
            return false;
        }
    }
    return true;
}

// First occurrence of needle (at least two bytes) in text, or null: with the widest
// compares the processor has.
[[nodiscard]] const uint8_t* findOccurrence(const uint8_t* text, size_t textSize,
                                            const uint8_t* needle, size_t needleSize);

// The same with 16-byte compares (or memmem without them), which every x86-64 processor
// has; and with 32-byte compares, only for processors with AVX2 and needles of at most 256
// bytes in texts at least as long. Apart for the tests, which hold each to the other.
[[nodiscard]] const uint8_t* findOccurrenceBy16(const uint8_t* text, size_t textSize,
                                                const uint8_t* needle, size_t needleSize);
#if defined(__x86_64__) && defined(__GNUC__)
[[nodiscard]] const uint8_t* findOccurrenceBy32(const uint8_t* text, size_t textSize,
                                                const uint8_t* needle, size_t needleSize);
#endif

// True for the markers the pipeline builds: "\r\n--" and at least one more byte.
[[nodiscard]] bool isUsualMarker(const uint8_t* marker, size_t markerSize);

// The boundary search for a usual marker: the whole marker where CR LF precedes the first
// occurrence of its short form, else that short form where the search still looks.
// Requires start <= bodySize - markerSize.
[[nodiscard]] BoundaryMatch findUsualMarker(const uint8_t* body, size_t bodySize, size_t start,
                                            const uint8_t* marker, size_t markerSize);

// How far the fused search looks before it starts copying: parts shorter than this are found
// first and then copied while they are still in cache.
inline constexpr size_t fusedProbeSize = 16 * 1024;

// The boundary search for a usual marker from start, and the cut of body[start, match start)
// into content, in one pass: the body is read from memory once, each stretch copied while it
// is in cache. Gives what findBoundaryMarkerIndex followed by extractDataFromRequest(start,
// match start, body, content) give: the same match, the same effect on the body's storage,
// and content with the same bytes, size and capacity. content must be empty, without
// storage. When nothing is found, content holds some unspecified prefix of the stretch.
// probeSize (at least 2) is fusedProbeSize but for tests, which shrink it to reach every
// block edge with small bodies.
[[nodiscard]] BoundaryMatch findBoundaryAndCut(size_t start, common::DataBuffer& body,
                                               const common::DataBuffer& marker,
                                               common::DataBuffer& content,
                                               size_t probeSize = fusedProbeSize);

} // namespace kestrin::file_upload::v1
