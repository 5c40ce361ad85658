#include "host/RouteTable.h"

#include <mutex>

namespace kestrin::host {

void RouteTable::addRoute(const std::string& path, const Address& target) {
    std::unique_lock<std::shared_mutex> lock(mutex);
    routes.insert_or_assign(path, target);
}

void RouteTable::removeRoute(const std::string& path) noexcept {
    std::unique_lock<std::shared_mutex> lock(mutex);
    routes.erase(path);
}

std::optional<Address> RouteTable::find(const std::string& path) const {
    std::shared_lock<std::shared_mutex> lock(mutex);
    const auto found = routes.find(path);
    if (found == routes.end()) {
        return std::nullopt;
    }
    return found->second;
}

} // namespace kestrin::host
