#include "host/ServicePlacement.h"

namespace kestrin::host {

namespace {

bool small(std::size_t bodyBytes, std::size_t parts) noexcept {
    return bodyBytes <= ServicePlacement::smallBody && parts <= ServicePlacement::fewParts;
}

} // namespace

bool ServicePlacement::runInline(std::size_t bodyBytes, std::size_t parts) const noexcept {
    return small(bodyBytes, parts) && recent.get() < quick;
}

void ServicePlacement::record(std::size_t bodyBytes, std::size_t parts,
                              std::chrono::nanoseconds took) noexcept {
    if (small(bodyBytes, parts)) {
        recent.add(took);
    }
}

} // namespace kestrin::host
