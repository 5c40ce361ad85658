#pragma once

#include "framework/HttpRouter.h"
#include "framework/Message.h"

#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace kestrin::host {

// The server's router: which service address an exact, decoded request path leads to.
// Route providers add and remove paths from whatever thread builds or destroys them while
// IO threads look paths up, so every operation takes the table's lock.
class RouteTable : public http::HttpRouter {
public:
    // A path added again leads to the newer address.
    void addRoute(const std::string& path, const Address& target) override;
    // Removing a path that is not routed does nothing.
    void removeRoute(const std::string& path) noexcept override;

    [[nodiscard]] std::optional<Address> find(const std::string& path) const;

private:
    mutable std::shared_mutex mutex;
    std::unordered_map<std::string, Address> routes;
};

} // namespace kestrin::host
