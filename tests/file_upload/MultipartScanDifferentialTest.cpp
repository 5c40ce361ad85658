#include "file_upload/BoundaryScan.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "fuzz/support/ReferenceMultipart.h"
#include "tests/file_upload/support/RecordingFileService.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string.h>
#include <string>
#include <utility>
#include <vector>

using kestrin::common::DataBuffer;
using kestrin::file_upload::v1::findBoundaryAndCut;
using kestrin::file_upload::v1::findOccurrenceBy16;
using kestrin::file_upload::v1::MultipartUploadServiceImpl;
using kestrin::testing::bytesOf;
namespace reference = kestrin::testing::reference;

// The fast scans must give the plain scans' results on every input, including what they do
// to the body's storage. Bodies are random but seeded, so a failure repeats.
namespace {

// Bodies are built the same way twice, so both scans start from equal storage: tight, with
// spare room, or (when empty) without storage at all.
DataBuffer makeBody(const std::string& bytes, size_t spare) {
    DataBuffer body;
    if (spare > 0) {
        body.reserve(bytes.size() + spare);
    }
    body.append(bytes);
    return body;
}

// Pieces that make the scans work hard: line breaks, dashes, and every prefix of the marker
// and of its short form.
std::vector<std::string> piecesFor(const std::string& marker) {
    std::vector<std::string> pieces = {"\r",   "\n",       "-", "--",
                                       "\r\n", "\r\n\r\n", "x", std::string(1, '\0')};
    for (size_t k = 1; k <= marker.size(); ++k) {
        pieces.push_back(marker.substr(0, k));
    }
    for (size_t k = 3; k <= marker.size(); ++k) {
        pieces.push_back(marker.substr(2, k - 2));
    }
    return pieces;
}

std::string randomBody(std::mt19937& random, const std::vector<std::string>& pieces,
                       size_t maxSize) {
    std::string body;
    const size_t target = std::uniform_int_distribution<size_t>(0, maxSize)(random);
    const int style = std::uniform_int_distribution<int>(0, 2)(random);
    while (body.size() < target) {
        if (style == 0) {
            body += static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
        } else if (style == 1) {
            body += "\r\n-x"[std::uniform_int_distribution<int>(0, 3)(random)];
        } else {
            body += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
        }
    }
    return body;
}

// Every start in short bodies; in long ones the first few, those around the last position a
// pattern of patternSize still fits, and a random sample.
std::vector<size_t> startsFor(size_t size, size_t patternSize, std::mt19937& random) {
    std::vector<size_t> starts;
    for (size_t s = 0; s <= size + 2; ++s) {
        const bool nearEnd = s + patternSize + 4 >= size;
        if (size <= 64 || s < 8 || nearEnd ||
            std::uniform_int_distribution<size_t>(0, size / 32)(random) == 0) {
            starts.push_back(s);
        }
    }
    starts.push_back(SIZE_MAX);
    return starts;
}

// The one-pass search and cut against the plain search followed by the plain cut from the
// same start: the same match, body storage, and part bytes, size and capacity.
void expectSameCut(const std::string& markerText, const std::string& text, size_t start,
                   size_t probeSize, size_t spare) {
    const DataBuffer marker(markerText);
    DataBuffer fastBody = makeBody(text, spare);
    DataBuffer plainBody = makeBody(text, spare);
    DataBuffer fastPart;
    DataBuffer plainPart;
    const auto got = findBoundaryAndCut(start, fastBody, marker, fastPart, probeSize);
    const auto want = reference::findBoundaryMarkerIndex(start, plainBody, DataBuffer(marker));
    const auto where = [&] {
        return "marker " + testing::PrintToString(markerText) + " body " +
               testing::PrintToString(text) + " start " + std::to_string(start) + " probe " +
               std::to_string(probeSize);
    };
    ASSERT_EQ(got, want) << where();
    ASSERT_EQ(fastBody.getCapacity(), plainBody.getCapacity()) << where();
    if (std::get<2>(want)) {
        reference::extractDataFromRequest(start, std::get<0>(want), plainBody, plainPart);
        ASSERT_EQ(fastPart.getSize(), plainPart.getSize()) << where();
        ASSERT_EQ(fastPart.getCapacity(), plainPart.getCapacity()) << where();
        ASSERT_EQ(bytesOf(fastPart), bytesOf(plainPart)) << where();
    }
}

} // namespace

TEST(MultipartScanDifferential, occurrenceSearchesOfEveryWidthAgreeWithMemmem) {
    // Needles from two bytes to past the vector limit, in texts of pieces of the needle, so
    // that near misses and matches fall on every offset of the 16- and 64-byte steps.
    std::mt19937 random(2718);
    for (int round = 0; round < 3000; ++round) {
        const size_t needleSize = std::uniform_int_distribution<size_t>(2, 300)(random);
        std::string needle;
        for (size_t k = 0; k < needleSize; ++k) {
            needle += "ab-\r"[std::uniform_int_distribution<int>(0, 3)(random)];
        }
        const std::string text = randomBody(random, piecesFor(needle), 600);
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
        const auto* pattern = reinterpret_cast<const uint8_t*>(needle.data());
        const void* expected = ::memmem(bytes, text.size(), pattern, needle.size());
        ASSERT_EQ(findOccurrenceBy16(bytes, text.size(), pattern, needle.size()), expected)
            << testing::PrintToString(needle) << " in " << testing::PrintToString(text);
#if defined(__x86_64__) && defined(__GNUC__)
        if (__builtin_cpu_supports("avx2") && needle.size() <= 256 &&
            text.size() >= needle.size()) {
            ASSERT_EQ(kestrin::file_upload::v1::findOccurrenceBy32(bytes, text.size(), pattern,
                                                                   needle.size()),
                      expected)
                << testing::PrintToString(needle) << " in " << testing::PrintToString(text);
        }
#endif
    }
}

TEST(MultipartScanDifferential, cutWhileSearchingAgreesWithSearchThenCut) {
    const std::vector<std::string> markers = {"\r\n--xyz",
                                              "\r\n--a",
                                              "\r\n---",
                                              "\r\n--x-x",
                                              "\r\n------WebKitFormBoundary7MA4YWxkTrZu0gW",
                                              "\r\n--" + std::string(300, 'b') + "z"};
    std::mt19937 random(4711);
    for (const std::string& markerText : markers) {
        const std::vector<std::string> pieces = piecesFor(markerText);
        const std::string shortForm = markerText.substr(2);
        // Near misses everywhere, and the marker (whole, or short) at every offset, so that
        // it straddles the end of the probe and every edge of the copied blocks; small probes
        // bring those edges within reach of small bodies.
        std::string filler;
        while (filler.size() < 400) {
            filler += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
        }
        for (size_t at = 0; at <= 300; ++at) {
            const std::string& inserted = at % 2 == 0 ? markerText : shortForm;
            const std::string text = filler.substr(0, at) + inserted + filler.substr(at, 70);
            for (size_t probeSize : {2, 3, 18, 40}) {
                for (size_t start : {size_t{0}, size_t{1}, size_t{5}}) {
                    expectSameCut(markerText, text, start, probeSize, at % 3);
                }
            }
        }
        // The marker as the very last bytes, and the short form there, which is not found.
        for (size_t length = 0; length <= 260; length += 7) {
            for (const std::string& tail : {markerText, shortForm, shortForm + "-"}) {
                expectSameCut(markerText, filler.substr(0, length) + tail, 0, 2, 0);
            }
        }
        // Bodies of random shape, long enough for the capacity to double several times.
        for (int round = 0; round < 200; ++round) {
            const std::string text = randomBody(random, pieces, 2500);
            const size_t probeSize = std::uniform_int_distribution<size_t>(0, 80)(random);
            const size_t start = std::uniform_int_distribution<size_t>(0, 40)(random);
            if (start + markerText.size() <= text.size()) {
                expectSameCut(markerText, text, start, probeSize, round % 5);
            }
        }
    }
}

TEST(MultipartScanDifferential, boundarySearchAgreesWithThePlainScan) {
    MultipartUploadServiceImpl service;
    const std::string longBoundary(300, 'b');
    const std::vector<std::string> markers = {
        "\r\n--xyz", "\r\n--", "\r\n--a", "\r\n---", "\r\n--\r\n", "\r\n--x-x",
        "\r\n------WebKitFormBoundary7MA4YWxkTrZu0gW", "\r\n--" + longBoundary + "z",
        "\r\n--" + longBoundary.substr(0, 252) + "z",
        // Shapes the module never builds, reachable through the interface.
        "", "\r", "\r\n", "\r\n-", "\r\n-x", "--xyz", "x", "xyx", "\r\r\r", "-\r-", "\n\r--a", "ab",
        std::string("\0\0-", 3)};
    std::mt19937 random(20240611);
    for (const std::string& markerText : markers) {
        const DataBuffer marker(markerText);
        const std::vector<std::string> pieces = piecesFor(markerText);
        const size_t maxSize = markerText.size() > 100 ? 2000 : 48;
        for (int round = 0; round < 150; ++round) {
            const std::string text = randomBody(random, pieces, maxSize);
            const size_t spare = std::uniform_int_distribution<size_t>(0, 9)(random);
            for (size_t start : startsFor(text.size(), markerText.size(), random)) {
                DataBuffer fast = makeBody(text, spare);
                DataBuffer plain = makeBody(text, spare);
                const auto got = service.findBoundaryMarkerIndex(start, fast, marker);
                const auto want = reference::findBoundaryMarkerIndex(start, plain, marker);
                ASSERT_EQ(std::make_pair(got, fast.getCapacity()),
                          std::make_pair(want, plain.getCapacity()))
                    << "marker " << testing::PrintToString(markerText) << " body "
                    << testing::PrintToString(text) << " start " << start;
            }
        }
    }
}

TEST(MultipartScanDifferential, headerSearchAgreesWithThePlainScan) {
    MultipartUploadServiceImpl service;
    const std::vector<std::string> terminators = {"\r\n\r\n",     "",     "ab",
                                                  "\r\n\r\n\r\n", "wxyz", "12345"};
    const std::vector<std::string> pieces = {
        "\r", "\n", "\r\n", "\r\n\r", "\r\n\r\n", "a", std::string(1, '\0')};
    std::mt19937 random(7);
    for (const std::string& terminatorText : terminators) {
        const DataBuffer terminator(terminatorText);
        for (int round = 0; round < 300; ++round) {
            const std::string text = randomBody(random, pieces, 24);
            const size_t spare = std::uniform_int_distribution<size_t>(0, 9)(random);
            for (size_t start : startsFor(text.size(), 4, random)) {
                DataBuffer fast = makeBody(text, spare);
                DataBuffer plain = makeBody(text, spare);
                const auto got = service.findHeaderFieldsIndex(start, fast, terminator);
                const auto want = reference::findHeaderFieldsIndex(start, plain, terminator);
                ASSERT_EQ(std::make_pair(got, fast.getCapacity()),
                          std::make_pair(want, plain.getCapacity()))
                    << "terminator " << testing::PrintToString(terminatorText) << " body "
                    << testing::PrintToString(text) << " start " << start;
            }
        }
    }
}

TEST(MultipartScanDifferential, extractionMatchesByteByByteAppending) {
    MultipartUploadServiceImpl service;
    std::mt19937 random(99);
    DataBuffer request(std::string(300, 'r'));
    for (size_t i = 0; i < request.getSize(); ++i) {
        request[i] = static_cast<uint8_t>(i * 7);
    }
    for (int round = 0; round < 2000; ++round) {
        const size_t start = std::uniform_int_distribution<size_t>(0, 300)(random);
        const size_t end = std::uniform_int_distribution<size_t>(start, 300)(random);
        // Mostly empty buffers, as the pipeline passes them, sometimes used ones.
        const std::string old(std::uniform_int_distribution<size_t>(0, 3)(random) == 0
                                  ? std::uniform_int_distribution<size_t>(1, 20)(random)
                                  : 0,
                              'o');
        const size_t spare = std::uniform_int_distribution<size_t>(0, 9)(random);
        DataBuffer fast = makeBody(old, old.empty() ? 0 : spare);
        DataBuffer plain = makeBody(old, old.empty() ? 0 : spare);
        service.extractDataFromRequest(start, end, request, fast);
        reference::extractDataFromRequest(start, end, request, plain);
        ASSERT_EQ(fast.getSize(), plain.getSize()) << start << ".." << end << " after " << old;
        ASSERT_EQ(fast.getCapacity(), plain.getCapacity())
            << start << ".." << end << " after " << old;
        ASSERT_EQ(bytesOf(fast), bytesOf(plain)) << start << ".." << end << " after " << old;
    }
}
