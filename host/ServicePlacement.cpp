#include "host/ServicePlacement.h"

namespace kestrin::host {

bool ServicePlacement::runInline(std::size_t bodyBytes) const noexcept {
    return bodyBytes <= smallBody && recent.get() < quick;
}

void ServicePlacement::record(std::size_t bodyBytes, std::chrono::nanoseconds took) noexcept {
    if (bodyBytes > smallBody) {
        return;
    }
    recent.add(took);
}

} // namespace kestrin::host
