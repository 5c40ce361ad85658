#include "host/ServicePlacement.h"

namespace kestrin::host {

bool ServicePlacement::runInline(std::size_t bodyBytes) const noexcept {
    return bodyBytes <= smallBody &&
           average.load(std::memory_order_relaxed) < std::chrono::nanoseconds(quick).count();
}

void ServicePlacement::record(std::size_t bodyBytes, std::chrono::nanoseconds took) noexcept {
    if (bodyBytes > smallBody) {
        return;
    }
    // Each new call weighs an eighth. Concurrent updates may lose one another's sample, which
    // an average of many does not notice.
    const std::int64_t before = average.load(std::memory_order_relaxed);
    average.store(before + (took.count() - before) / 8, std::memory_order_relaxed);
}

} // namespace kestrin::host
