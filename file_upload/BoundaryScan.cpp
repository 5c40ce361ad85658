#include "file_upload/BoundaryScan.h"

#include <algorithm>
#include <cstring>
#include <string.h>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#include <xmmintrin.h>
#endif

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace kestrin::file_upload::v1 {

namespace {

using common::DataBuffer;

// Needles longer than this go to memmem, which stays linear whatever the input.
constexpr size_t longNeedle = 256;

// How far ahead of the search the cut asks for the body's bytes; measured best at 2 to 4 KiB.
constexpr size_t prefetchDistance = 4096;

// The needle's last byte and the nearest before it that differs from it: the pair filters
// candidates. The first byte of a delimiter is a dash, which is everywhere in bodies dense
// with dashes, line breaks and pieces of the boundary, while the boundary's last bytes
// appear only inside a whole delimiter.
struct Probe {
    size_t lastIndex;
    size_t probeIndex;

    explicit Probe(const uint8_t* needle, size_t needleSize)
        : lastIndex(needleSize - 1)
        , probeIndex(needleSize - 2) {
        while (probeIndex > 0 && needle[probeIndex] == needle[lastIndex]) {
            --probeIndex;
        }
    }
};

// The capacity extractDataFromRequest leaves in an empty buffer it appends count bytes to:
// doubling from one byte until they fit.
size_t doubledCapacity(size_t count) {
    size_t capacity = 1;
    while (capacity < count) {
        capacity = capacity > SIZE_MAX / 2 ? count : 2 * capacity;
    }
    return capacity;
}

// Appends body[from, to) to content, growing it along the doubling steps of the plain cut,
// so that after the last stretch its capacity is the plain cut's.
void appendStretch(DataBuffer& content, const uint8_t* body, size_t from, size_t to) {
    if (to <= from) {
        return;
    }
    const size_t oldSize = content.getSize();
    const size_t newSize = oldSize + (to - from);
    if (newSize > content.getCapacity()) {
        content.reserve(doubledCapacity(newSize));
    }
    content.resize(newSize);
    std::memcpy(&content[oldSize], body + from, to - from);
}

// Where the match of a usual marker lies, given the first occurrence q of its short form at
// or after start (the reasoning is findUsualMarker's).
BoundaryMatch matchAt(const uint8_t* body, size_t bodySize, size_t start, size_t q,
                      size_t markerSize) {
    if (q >= start + 2 && body[q - 2] == cr && body[q - 1] == lf) {
        return {q - 2, q - 2 + markerSize, true};
    }
    if (q <= bodySize - markerSize) {
        return {q, q + markerSize - 2, true};
    }
    return noBoundary;
}

// Where a marker found at the last occurrence of the short form within the body's last
// tailSize bytes (and at or after from) would begin: its CR LF, or the short form itself.
// SIZE_MAX when there is none.
size_t lastMarkerBegin(const uint8_t* body, size_t bodySize, size_t from, const uint8_t* needle,
                       size_t needleSize) {
    constexpr size_t tailSize = 4096;
    size_t at = std::max(from, bodySize > tailSize ? bodySize - tailSize : 0);
    size_t last = SIZE_MAX;
    while (at < bodySize) {
        const uint8_t* hit = findOccurrence(body + at, bodySize - at, needle, needleSize);
        if (hit == nullptr) {
            break;
        }
        last = static_cast<size_t>(hit - body);
        at = last + 1;
    }
    if (last != SIZE_MAX && last >= from + 2 && body[last - 2] == cr && body[last - 1] == lf) {
        return last - 2;
    }
    return last;
}

} // namespace

// Candidates are the positions where the probe pair stands at its distance, sixteen positions
// per compare; only those are compared in full. No block depends on the one before, so the
// loop runs at the speed of memory, where a skip loop would wait on each byte it looks up.
const uint8_t* findOccurrence(const uint8_t* text, size_t textSize, const uint8_t* needle,
                              size_t needleSize) {
#if defined(__x86_64__) && defined(__GNUC__)
    // Checked once: whether the processor compares 32 bytes at a time.
    static const bool wide = __builtin_cpu_supports("avx2");
    if (wide && needleSize <= longNeedle && textSize >= needleSize) {
        return findOccurrenceBy32(text, textSize, needle, needleSize);
    }
#endif
    return findOccurrenceBy16(text, textSize, needle, needleSize);
}

#if defined(__x86_64__) && defined(__GNUC__)
namespace {

__attribute__((target("avx2"))) inline uint32_t candidatesBy32(const uint8_t* at, const Probe& pair,
                                                               __m256i probe, __m256i last) {
    const __m256i probed =
        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + pair.probeIndex));
    const __m256i tails = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + pair.lastIndex));
    return static_cast<uint32_t>(_mm256_movemask_epi8(
        _mm256_and_si256(_mm256_cmpeq_epi8(probed, probe), _mm256_cmpeq_epi8(tails, last))));
}

} // namespace

__attribute__((target("avx2"))) const uint8_t*
findOccurrenceBy32(const uint8_t* text, size_t textSize, const uint8_t* needle, size_t needleSize) {
    const Probe pair(needle, needleSize);
    const size_t positions = textSize - pair.lastIndex;
    const __m256i probe = _mm256_set1_epi8(static_cast<char>(needle[pair.probeIndex]));
    const __m256i last = _mm256_set1_epi8(static_cast<char>(needle[pair.lastIndex]));
    size_t i = 0;
    for (; i + 64 <= positions; i += 64) {
        if (i + prefetchDistance < textSize) {
            _mm_prefetch(reinterpret_cast<const char*>(text + i + prefetchDistance), _MM_HINT_T0);
        }
        uint64_t mask = candidatesBy32(text + i, pair, probe, last) |
                        static_cast<uint64_t>(candidatesBy32(text + i + 32, pair, probe, last))
                            << 32;
        while (mask != 0) {
            const size_t at = i + static_cast<size_t>(__builtin_ctzll(mask));
            if (sameBytes(text + at, needle, pair.lastIndex)) {
                return text + at;
            }
            mask &= mask - 1;
        }
    }
    // The rest, fewer than 64 positions, sixteen at a time.
    const uint8_t* rest = findOccurrenceBy16(text + i, textSize - i, needle, needleSize);
    return rest;
}
#endif

const uint8_t* findOccurrenceBy16(const uint8_t* text, size_t textSize, const uint8_t* needle,
                                  size_t needleSize) {
    if (textSize < needleSize) {
        return nullptr;
    }
#if defined(__SSE2__)
    if (needleSize <= longNeedle) {
        const Probe pair(needle, needleSize);
        const size_t lastIndex = pair.lastIndex;
        const size_t probeIndex = pair.probeIndex;
        const size_t positions = textSize - lastIndex;
        const __m128i probe = _mm_set1_epi8(static_cast<char>(needle[probeIndex]));
        const __m128i last = _mm_set1_epi8(static_cast<char>(needle[lastIndex]));
        const auto candidates = [&](size_t at) {
            const __m128i probed =
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at + probeIndex));
            const __m128i tails =
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at + lastIndex));
            return static_cast<uint32_t>(_mm_movemask_epi8(
                _mm_and_si128(_mm_cmpeq_epi8(probed, probe), _mm_cmpeq_epi8(tails, last))));
        };
        size_t i = 0;
        for (; i + 32 <= positions; i += 32) {
            // Parts follow each other through the body: asking ahead, across page edges the
            // hardware does not fetch beyond, keeps a search of many short parts fed.
            if (i + prefetchDistance < textSize) {
                _mm_prefetch(reinterpret_cast<const char*>(text + i + prefetchDistance),
                             _MM_HINT_T0);
            }
            uint32_t mask = candidates(i) | (candidates(i + 16) << 16);
            while (mask != 0) {
                const size_t at = i + static_cast<size_t>(__builtin_ctz(mask));
                if (sameBytes(text + at, needle, lastIndex)) {
                    return text + at;
                }
                mask &= mask - 1;
            }
        }
        for (; i < positions; ++i) {
            if (sameBytes(text + i, needle, needleSize)) {
                return text + i;
            }
        }
        return nullptr;
    }
#endif
    return static_cast<const uint8_t*>(::memmem(text, textSize, needle, needleSize));
}

bool isUsualMarker(const uint8_t* marker, size_t markerSize) {
    return markerSize >= 5 && marker[0] == cr && marker[1] == lf && marker[2] == dash &&
           marker[3] == dash;
}

// The scan tests the whole marker where a CR stands and the short form "--" + boundary where
// a dash stands, and every match of either contains the short form. So the first occurrence
// q of the short form decides:
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
    const uint8_t* hit = findOccurrence(body + start, bodySize - start, marker + 2, shortSize);
    if (hit == nullptr) {
        return noBoundary;
    }
    return matchAt(body, bodySize, start, static_cast<size_t>(hit - body), markerSize);
}

// First a plain search over the first probeSize positions: a short part is found there and
// copied from cache. Past that, each block of 64 positions is checked for candidates and,
// when it has none, 64 bytes that lie before any marker still possible are written out with
// streaming stores, which leave the cache to the body and skip reading the destination
// first. The copy runs two bytes behind the search, because a marker found in the next
// block may begin with the CR LF of these two bytes.
BoundaryMatch findBoundaryAndCut(size_t start, DataBuffer& body, const DataBuffer& marker,
                                 DataBuffer& content, size_t probeSize) {
    const uint8_t* text = body.getData();
    const size_t bodySize = body.getSize();
    const uint8_t* markerBytes = marker.bytes();
    const size_t markerSize = marker.getSize();
    if (bodySize < markerSize || start > bodySize - markerSize) {
        return noBoundary;
    }
    const uint8_t* needle = markerBytes + 2;
    const size_t shortSize = markerSize - 2;
    probeSize = std::max(probeSize, size_t{2});

    // Positions [start, start + probeSize), or all that remain.
    const size_t remaining = bodySize - start;
    const bool probeCoversAll = remaining - shortSize < probeSize;
    const size_t probeText = probeCoversAll ? remaining : probeSize + shortSize - 1;
    const uint8_t* hit = findOccurrence(text + start, probeText, needle, shortSize);
    if (hit != nullptr || probeCoversAll) {
        if (hit == nullptr) {
            return noBoundary;
        }
        const BoundaryMatch match =
            matchAt(text, bodySize, start, static_cast<size_t>(hit - text), markerSize);
        if (std::get<2>(match)) {
            appendStretch(content, text, start, std::get<0>(match));
        }
        return match;
    }

    // Copied: body[start, copied). Searched without a find: positions below copied + 2.
    size_t copied = start + ((probeSize - 2) & ~size_t{15});
    appendStretch(content, text, start, copied);
    // Growing along the doubling steps moves the block whenever the allocator cannot extend
    // it in place, copying what is already cut. A long part is usually the body's last, ended
    // by the delimiter near the body's end, so the part's final capacity is taken from there
    // and reserved at once; a guess that turns out wrong is put right at the end.
    const size_t predictedEnd = lastMarkerBegin(text, bodySize, copied + 2, needle, shortSize);
    if (predictedEnd != SIZE_MAX && predictedEnd > copied) {
        content.reserve(doubledCapacity(predictedEnd - start));
    }
    size_t found = SIZE_MAX;
#if defined(__SSE2__)
    if (shortSize <= longNeedle) {
        const Probe pair(needle, shortSize);
        const __m128i probe = _mm_set1_epi8(static_cast<char>(needle[pair.probeIndex]));
        const __m128i last = _mm_set1_epi8(static_cast<char>(needle[pair.lastIndex]));
        const auto candidates = [&](size_t at) {
            const __m128i probed =
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at + pair.probeIndex));
            const __m128i tails =
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at + pair.lastIndex));
            return _mm_and_si128(_mm_cmpeq_epi8(probed, probe), _mm_cmpeq_epi8(tails, last));
        };
        // The block's positions are copied + 2 ... copied + 65; the last byte read is the end
        // of a needle at the last of them.
        while (found == SIZE_MAX && copied + 66 + pair.lastIndex <= bodySize) {
            const size_t at = copied + 2;
            // The hardware fetches ahead too little for a loop this short; asking a few blocks
            // ahead keeps the reads flowing. Only addresses inside the body are named.
            if (copied + prefetchDistance < bodySize) {
                _mm_prefetch(reinterpret_cast<const char*>(text + copied + prefetchDistance),
                             _MM_HINT_T0);
            }
            const __m128i c0 = candidates(at);
            const __m128i c1 = candidates(at + 16);
            const __m128i c2 = candidates(at + 32);
            const __m128i c3 = candidates(at + 48);
            const __m128i any = _mm_or_si128(_mm_or_si128(c0, c1), _mm_or_si128(c2, c3));
            if (_mm_movemask_epi8(any) != 0) {
                uint64_t mask = static_cast<uint64_t>(_mm_movemask_epi8(c0)) |
                                static_cast<uint64_t>(_mm_movemask_epi8(c1)) << 16 |
                                static_cast<uint64_t>(_mm_movemask_epi8(c2)) << 32 |
                                static_cast<uint64_t>(_mm_movemask_epi8(c3)) << 48;
                while (mask != 0) {
                    const size_t candidate = at + static_cast<size_t>(__builtin_ctzll(mask));
                    if (sameBytes(text + candidate, needle, pair.lastIndex)) {
                        found = candidate;
                        break;
                    }
                    mask &= mask - 1;
                }
                if (found != SIZE_MAX) {
                    break;
                }
            }
            // Every position below copied + 66 is searched: a marker can begin no earlier
            // than copied + 64, so these 64 bytes belong to the part.
            const size_t oldSize = content.getSize();
            if (oldSize + 64 > content.getCapacity()) {
                content.reserve(doubledCapacity(oldSize + 64));
            }
            content.resize(oldSize + 64);
            uint8_t* out = &content[oldSize];
            const uint8_t* in = text + copied;
            // Storage from malloc is 16-byte aligned and the copy advances in whole blocks, so
            // the streaming stores' alignment holds unless the allocator breaks that promise.
            if ((reinterpret_cast<uintptr_t>(out) & 15) == 0) {
                for (size_t k = 0; k < 64; k += 16) {
                    _mm_stream_si128(reinterpret_cast<__m128i*>(out + k),
                                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + k)));
                }
            } else {
                std::memcpy(out, in, 64);
            }
            copied += 64;
        }
        // Streamed bytes must be in memory before the part is handed to another thread.
        _mm_sfence();
    }
#endif
    if (found == SIZE_MAX) {
        // The tail the blocks do not reach, or the whole rest without SSE2.
        const size_t from = copied + 2;
        const uint8_t* rest = findOccurrence(text + from, bodySize - from, needle, shortSize);
        if (rest == nullptr) {
            return noBoundary;
        }
        found = static_cast<size_t>(rest - text);
    }
    const BoundaryMatch match = matchAt(text, bodySize, start, found, markerSize);
    if (std::get<2>(match)) {
        appendStretch(content, text, copied, std::get<0>(match));
        const size_t count = content.getSize();
        const size_t capacity = count == 0 ? 0 : doubledCapacity(count);
        if (content.getCapacity() != capacity) {
            // The part ended before the predicted end: one more copy gives it the capacity
            // the doubling steps would have (an empty part has no storage at all).
            DataBuffer exact;
            exact.reserve(capacity);
            exact.append(content.bytes(), count);
            content = std::move(exact);
        }
    }
    return match;
}

} // namespace kestrin::file_upload::v1
