#include "host/WarmPages.h"

#include <sys/mman.h>
#include <unistd.h>

namespace kestrin::host {

namespace {

// Touched in steps of one huge page, so a release waits at most that long.
constexpr std::size_t step = std::size_t{2} << 20;

} // namespace

std::shared_ptr<WarmPages> WarmPages::map(std::size_t bytes) {
    if (bytes == 0) {
        return nullptr;
    }
    void* base = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    // As the allocator asks for the module's large blocks; a hint, so its failure is harmless.
    ::madvise(base, bytes, MADV_HUGEPAGE);
    return std::shared_ptr<WarmPages>(new WarmPages(base, bytes));
}

WarmPages::WarmPages(void* mapped, std::size_t bytes)
    : base(mapped)
    , size(bytes) {}

WarmPages::~WarmPages() {
    release();
}

void WarmPages::touch() {
    // Once released, the loop below does not start: base is not read after its unmapping.
    std::lock_guard<std::mutex> guard(mutex);
    auto* bytes = static_cast<volatile unsigned char*>(base);
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    for (std::size_t start = 0; start < size && !released.load(std::memory_order_relaxed);
         start += step) {
        const std::size_t end = start + step < size ? start + step : size;
        for (std::size_t at = start; at < end; at += page) {
            bytes[at] = 0;
        }
        reached.store(end, std::memory_order_relaxed);
    }
}

void WarmPages::release() {
    released.store(true, std::memory_order_relaxed);
    std::lock_guard<std::mutex> guard(mutex);
    if (base != nullptr) {
        ::munmap(base, size);
        base = nullptr;
    }
}

} // namespace kestrin::host
