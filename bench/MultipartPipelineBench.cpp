// The upload pipeline over whole bodies held in memory, beside two copies of the same bytes:
// into a buffer already in use (the ceiling) and into freshly allocated pages (what a
// process pays when the allocator hands every large block back to the system). Quote the
// pipeline as a ratio to the warm copy of the same run.

#include "common/DataBuffer.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/UploadPipeline.h"
#include "framework/FileService.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <map>
#include <memory>
#include <string.h>
#include <string>
#include <vector>

namespace {

using kestrin::common::DataBuffer;
using kestrin::file_common::v1::File;
using kestrin::file_common::v1::FileInfo;

// A browser-like boundary: its prefixes are full of dashes, like the delimiter lines.
const std::string boundary = "----KestrinFormBoundary7MA4YWxkTrZu0gW";
constexpr size_t bigFileSize = size_t{64} << 20;

// Resolves every write at once and drops the bytes, so that only the module is measured.
class DroppingFileService : public kestrin::file::v1::FileService {
public:
    kestrin::Future<FileInfo> writeFile(File&& file, bool /*overwrite*/) override {
        return kestrin::makeReadyFuture(FileInfo(file.info.path));
    }
};

// Fast, seeded, good enough to defeat any pattern the scans could exploit.
class SplitMix {
public:
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    size_t below(size_t bound) { return static_cast<size_t>(next() % bound); }

private:
    uint64_t state = 42;
};

std::string partHeader(const std::string& filename) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"files\"; filename=\"" +
           filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
}

std::string closing() {
    return "\r\n--" + boundary + "--\r\n";
}

std::string randomBytes(SplitMix& random, size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; i += 8) {
        const uint64_t word = random.next();
        std::memcpy(&bytes[i], &word, std::min<size_t>(8, size - i));
    }
    return bytes;
}

// Line breaks, dashes and every proper prefix of the delimiter, back to back: a scan that
// stops on CR or on a dash stops almost everywhere.
std::string adversarialBytes(SplitMix& random, size_t size) {
    const std::string delimiter = "\r\n--" + boundary;
    std::string bytes;
    bytes.reserve(size + delimiter.size());
    static const char* const small[] = {"\r", "\n", "-", "\r\n", "--", "\r\n--", "\r\n\r\n"};
    while (bytes.size() < size) {
        const size_t pick = random.below(10);
        if (pick < 7) {
            bytes += small[pick];
        } else {
            // Never the whole boundary: its last byte would complete a delimiter.
            const size_t from = pick == 7 ? 0 : 2;
            bytes.append(delimiter, from, random.below(delimiter.size() - 1 - from));
        }
    }
    bytes.resize(size);
    return bytes;
}

std::string textBytes(SplitMix& random, size_t size) {
    static const char* const words[] = {
        "the",    "upload", "of",  "a",    "file",      "boundary", "is",    "not",   "here",
        "server", "page",   "and", "form", "data",      "--",       "well-", "known", "line",
        "with",   "text",   "in",  "it",   "multipart", "request",  "body",  "to",    "-"};
    std::string bytes;
    bytes.reserve(size + 16);
    while (bytes.size() < size) {
        bytes += words[random.below(sizeof words / sizeof words[0])];
        const size_t gap = random.below(16);
        bytes += gap == 0 ? "\r\n" : gap == 1 ? "\n" : " ";
    }
    bytes.resize(size);
    return bytes;
}

void requireNoDelimiter(const std::string& content, const char* what) {
    const std::string shortForm = "--" + boundary;
    if (::memmem(content.data(), content.size(), shortForm.data(), shortForm.size()) != nullptr) {
        std::fprintf(stderr, "the %s body contains a delimiter\n", what);
        std::abort();
    }
}

DataBuffer singleFileBody(const std::string& content, const char* what) {
    requireNoDelimiter(content, what);
    DataBuffer body(partHeader("big.bin"));
    body.append(content);
    body.append(closing());
    return body;
}

struct BodyKind {
    const char* name;
    bool oneFile;
    std::function<DataBuffer()> make;
};

const std::vector<BodyKind>& bodyKinds() {
    static const std::vector<BodyKind> kinds = {
        {"randomFile64MiB", true,
         [] {
             SplitMix random;
             return singleFileBody(randomBytes(random, bigFileSize), "random");
         }},
        {"smallParts20000x1KiB", false,
         [] {
             SplitMix random;
             DataBuffer body;
             for (int i = 0; i < 20000; ++i) {
                 const std::string content = randomBytes(random, 1024);
                 requireNoDelimiter(content, "small parts");
                 body.append((i == 0 ? "" : "\r\n") + partHeader("part" + std::to_string(i)));
                 body.append(content);
             }
             body.append(closing());
             return body;
         }},
        {"adversarialFile64MiB", true,
         [] {
             SplitMix random;
             return singleFileBody(adversarialBytes(random, bigFileSize), "adversarial");
         }},
        {"textFile64MiB", true,
         [] {
             SplitMix random;
             return singleFileBody(textBytes(random, bigFileSize), "text");
         }},
    };
    return kinds;
}

// Bodies are built on first use, so a filtered run builds only what it measures.
DataBuffer& body(size_t kind) {
    static std::map<size_t, DataBuffer> built;
    auto found = built.find(kind);
    if (found == built.end()) {
        found = built.emplace(kind, bodyKinds()[kind].make()).first;
    }
    return found->second;
}

// A service the pipeline does not know as its own gets every call separately: the search,
// then the cut, each a pass over the part. The figure to set beside BM_runUploadPipeline.
class SeparateCallsService final : public kestrin::file_upload::v1::MultipartUploadServiceImpl {};

template <typename Service> void runPipeline(benchmark::State& state, size_t kind) {
    DataBuffer& request = body(kind);
    const DataBuffer marker("\r\n--" + boundary);
    const auto files = std::make_shared<DroppingFileService>();
    const auto service = std::make_shared<Service>();
    // Once untimed, as a server that has run for a while: freed blocks are back in the heap.
    kestrin::file_upload::v1::runUploadPipeline(files, *service, marker, request);
    for (auto _ : state) {
        kestrin::file_upload::v1::runUploadPipeline(files, *service, marker, request);
        benchmark::DoNotOptimize(request.getData());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * request.getSize()));
}

void BM_runUploadPipeline(benchmark::State& state, size_t kind) {
    runPipeline<kestrin::file_upload::v1::MultipartUploadServiceImpl>(state, kind);
}

void BM_runUploadPipelineSeparateCalls(benchmark::State& state, size_t kind) {
    runPipeline<SeparateCallsService>(state, kind);
}

// The boundary search alone, over a whole body from its first part's content on, beside
// memmem looking for the same delimiter.
void BM_findBoundaryMarkerIndex(benchmark::State& state, size_t kind) {
    DataBuffer& request = body(kind);
    const DataBuffer marker("\r\n--" + boundary);
    kestrin::file_upload::v1::MultipartUploadServiceImpl service;
    for (auto _ : state) {
        benchmark::DoNotOptimize(service.findBoundaryMarkerIndex(1, request, marker));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * request.getSize()));
}

void BM_memmem(benchmark::State& state, size_t kind) {
    DataBuffer& request = body(kind);
    const std::string delimiter = "\r\n--" + boundary;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::memmem(request.getData() + 1, request.getSize() - 1,
                                          delimiter.data(), delimiter.size()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * request.getSize()));
}

void BM_memcpyWarm(benchmark::State& state, size_t kind) {
    DataBuffer& request = body(kind);
    const size_t size = request.getSize();
    std::vector<uint8_t> target(size, 1);
    for (auto _ : state) {
        std::memcpy(target.data(), request.getData(), size);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void BM_memcpyFresh(benchmark::State& state, size_t kind) {
    DataBuffer& request = body(kind);
    const size_t size = request.getSize();
    for (auto _ : state) {
        // Hand every free page back first, so the block below is made of new pages.
        state.PauseTiming();
        ::malloc_trim(0);
        state.ResumeTiming();
        void* target = std::malloc(size);
        if (target == nullptr) {
            state.SkipWithError("out of memory");
            break;
        }
        std::memcpy(target, request.getData(), size);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
        std::free(target);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

} // namespace

int main(int argc, char** argv) {
    // A long-running server keeps freed blocks for reuse instead of returning them to the
    // system each time, as a server sets at start-up. mmap is off entirely because its
    // threshold cannot be raised above 32 MiB, below the biggest bodies here.
    ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
    ::mallopt(M_MMAP_MAX, 0);
    ::mallopt(M_TRIM_THRESHOLD, 1 << 30);

    for (size_t kind = 0; kind < bodyKinds().size(); ++kind) {
        const std::string name = bodyKinds()[kind].name;
        benchmark::RegisterBenchmark(("BM_memcpyWarm/" + name).c_str(), BM_memcpyWarm, kind)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("BM_memcpyFresh/" + name).c_str(), BM_memcpyFresh, kind)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        if (bodyKinds()[kind].oneFile) {
            benchmark::RegisterBenchmark(("BM_findBoundaryMarkerIndex/" + name).c_str(),
                                         BM_findBoundaryMarkerIndex, kind)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("BM_memmem/" + name).c_str(), BM_memmem, kind)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        }
        benchmark::RegisterBenchmark(("BM_runUploadPipeline/" + name).c_str(), BM_runUploadPipeline,
                                     kind)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("BM_runUploadPipelineSeparateCalls/" + name).c_str(),
                                     BM_runUploadPipelineSeparateCalls, kind)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
