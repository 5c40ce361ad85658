// The fast scans and the fast cut against the plain loops they replace: the same results,
// and the same effect on the buffers' storage, for an input-chosen marker, start and body.
//
// Input layout:
//   byte 0     bit 0: marker of the usual shape ("\r\n--" + marker bytes), else raw bytes;
//              bits 1-3: bytes already in the buffer the cut appends to;
//              bits 4-7: spare storage reserved in the body before it is filled
//   byte 1     number of marker bytes
//   bytes 2-3  start of the searches: below 0x8000 from the front, otherwise counted back
//              from the end (wrapping past 0 to a huge start); 0xffff is SIZE_MAX
//   byte 4     terminator size handed to the header-end search (only its size is used), and
//              the first window of the one-pass search and cut
//   bytes 5-6  start of the cut, bytes 7-8 its length, both reduced to fit the body
//   then the marker bytes, then the body
#include "common/DataBuffer.h"
#include "file_upload/BoundaryScan.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "fuzz/support/ReferenceMultipart.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>

namespace {

using kestrin::common::DataBuffer;
namespace reference = kestrin::testing::reference;

struct Input {
    const uint8_t* data;
    size_t size;

    uint8_t byte(size_t k) const { return k < size ? data[k] : 0; }
    size_t word(size_t k) const { return static_cast<size_t>(byte(k)) << 8 | byte(k + 1); }
};

[[noreturn]] void mismatch(const char* what, size_t fast, size_t plain) {
    std::fprintf(stderr, "fast and plain disagree on %s: %zu vs %zu\n", what, fast, plain);
    std::abort();
}

void expectEqual(const char* what, size_t fast, size_t plain) {
    if (fast != plain) {
        mismatch(what, fast, plain);
    }
}

// Size, capacity and bytes: what a caller of either version could observe.
void expectSameBuffer(const char* what, const DataBuffer& fast, const DataBuffer& plain) {
    expectEqual(what, fast.getSize(), plain.getSize());
    expectEqual(what, fast.getCapacity(), plain.getCapacity());
    if ((fast.bytes() == nullptr) != (plain.bytes() == nullptr)) {
        mismatch(what, fast.bytes() == nullptr, plain.bytes() == nullptr);
    }
    if (fast.getSize() > 0 && std::memcmp(fast.bytes(), plain.bytes(), fast.getSize()) != 0) {
        mismatch(what, 0, 1);
    }
}

// Start, end and whether it was found: all a boundary search tells its caller.
void expectSameMatch(const char* found, const char* begin, const char* end,
                     const std::tuple<size_t, size_t, bool>& fast,
                     const std::tuple<size_t, size_t, bool>& plain) {
    expectEqual(found, std::get<2>(fast), std::get<2>(plain));
    expectEqual(begin, std::get<0>(fast), std::get<0>(plain));
    expectEqual(end, std::get<1>(fast), std::get<1>(plain));
}

DataBuffer makeBuffer(const uint8_t* bytes, size_t size, size_t spare) {
    DataBuffer buffer;
    if (spare > 0) {
        buffer.reserve(size + spare);
    }
    buffer.append(bytes, size);
    return buffer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto service =
        std::make_shared<kestrin::file_upload::v1::MultipartUploadServiceImpl>();
    constexpr size_t headerSize = 9;
    const Input input{data, size};
    const uint8_t flags = input.byte(0);
    const bool usualMarker = (flags & 1) != 0;
    const size_t prefilled = (flags >> 1) & 7;
    const size_t spare = flags >> 4;

    const size_t rest = size > headerSize ? size - headerSize : 0;
    const size_t markerBytes = std::min<size_t>(input.byte(1), rest);
    const uint8_t* markerStart = data + (size - rest);
    const uint8_t* bodyBytes = markerStart + markerBytes;
    const size_t bodySize = rest - markerBytes;

    DataBuffer marker;
    if (usualMarker) {
        marker.append(reinterpret_cast<const uint8_t*>("\r\n--"), 4);
    }
    marker.append(markerStart, markerBytes);

    const size_t startWord = input.word(2);
    size_t start = startWord;
    if (startWord == 0xffff) {
        start = SIZE_MAX;
    } else if (startWord >= 0x8000) {
        start = bodySize - (startWord - 0x8000);
    }

    {
        DataBuffer fastBody = makeBuffer(bodyBytes, bodySize, spare);
        DataBuffer plainBody = makeBuffer(bodyBytes, bodySize, spare);
        expectSameMatch("boundary found", "boundary start", "boundary end",
                        service->findBoundaryMarkerIndex(start, fastBody, DataBuffer(marker)),
                        reference::findBoundaryMarkerIndex(start, plainBody, DataBuffer(marker)));
        expectSameBuffer("body after the boundary search", fastBody, plainBody);
    }
    if (usualMarker && markerBytes > 0 && start <= bodySize) {
        // The one-pass search and cut against the search, then the cut from the same start.
        // Small windows (byte 4 picks one) reach the block edges with small inputs.
        const size_t probeSize = 2 + input.byte(4) % 96;
        DataBuffer fastBody = makeBuffer(bodyBytes, bodySize, spare);
        DataBuffer plainBody = makeBuffer(bodyBytes, bodySize, spare);
        DataBuffer fastPart;
        DataBuffer plainPart;
        const auto plain = reference::findBoundaryMarkerIndex(start, plainBody, DataBuffer(marker));
        expectSameMatch("cut: boundary found", "cut: boundary start", "cut: boundary end",
                        kestrin::file_upload::v1::findBoundaryAndCut(start, fastBody, marker,
                                                                     fastPart, probeSize),
                        plain);
        expectSameBuffer("cut: body", fastBody, plainBody);
        if (std::get<2>(plain)) {
            reference::extractDataFromRequest(start, std::get<0>(plain), plainBody, plainPart);
            expectSameBuffer("cut: part", fastPart, plainPart);
        }
    }
    {
        const DataBuffer terminator(std::string("\r\n\r\nxxxxxxxx").substr(0, input.byte(4) % 12));
        DataBuffer fastBody = makeBuffer(bodyBytes, bodySize, spare);
        DataBuffer plainBody = makeBuffer(bodyBytes, bodySize, spare);
        const auto [fastIndex, fastFound] =
            service->findHeaderFieldsIndex(start, fastBody, DataBuffer(terminator));
        const auto [plainIndex, plainFound] =
            reference::findHeaderFieldsIndex(start, plainBody, DataBuffer(terminator));
        expectEqual("header end found", fastFound, plainFound);
        expectEqual("header end index", fastIndex, plainIndex);
        expectSameBuffer("body after the header-end search", fastBody, plainBody);
    }
    {
        const size_t cutStart = input.word(5) % (bodySize + 1);
        const size_t cutEnd = cutStart + input.word(7) % (bodySize - cutStart + 1);
        DataBuffer request = makeBuffer(bodyBytes, bodySize, 0);
        DataBuffer fastData;
        DataBuffer plainData;
        for (size_t k = 0; k < prefilled; ++k) {
            fastData.pushBack('p');
            plainData.pushBack('p');
        }
        service->extractDataFromRequest(cutStart, cutEnd, request, fastData);
        reference::extractDataFromRequest(cutStart, cutEnd, request, plainData);
        expectSameBuffer("cut-out bytes", fastData, plainData);
        if (fastData.getSize() > 0 && prefilled == 0 &&
            std::memcmp(fastData.bytes(), bodyBytes + cutStart, fastData.getSize()) != 0) {
            mismatch("cut-out bytes against the body", 0, 1);
        }
    }
    return 0;
}
