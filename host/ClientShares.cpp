#include "host/ClientShares.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kestrin::host {

ClientShares::ClientShares(std::uint64_t share, std::uint64_t siteShares)
    : limit(share)
    , siteLimit(siteShares != 0 && share > std::numeric_limits<std::uint64_t>::max() / siteShares
                    ? std::numeric_limits<std::uint64_t>::max()
                    : share * siteShares) {}

std::optional<ClientShares::Hold> ClientShares::take(std::string_view client,
                                                     std::uint64_t amount) {
    std::string key(client);
    std::string site = siteOf(key);
    if (!add(key, site, amount)) {
        return std::nullopt;
    }
    return Hold(this, std::move(key), std::move(site), amount);
}

std::uint64_t ClientShares::held(std::string_view client) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = holds.find(std::string(client));
    return found == holds.end() ? 0 : found->second;
}

std::size_t ClientShares::clients() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return holds.size();
}

bool ClientShares::add(const std::string& client, const std::string& site, std::uint64_t amount) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto heldBy = [this](const std::string& key) {
        const auto found = holds.find(key);
        return found == holds.end() ? std::uint64_t{0} : found->second;
    };
    const std::uint64_t own = heldBy(client);
    const std::uint64_t together = site.empty() ? 0 : heldBy(site);
    if (amount > limit - own || (!site.empty() && amount > siteLimit - together)) {
        return false;
    }
    if (amount > 0) {
        holds[client] = own + amount;
        if (!site.empty()) {
            holds[site] = together + amount;
        }
    }
    return true;
}

void ClientShares::remove(const std::string& client, const std::string& site,
                          std::uint64_t amount) noexcept {
    const std::lock_guard<std::mutex> lock(mutex);
    removeLocked(client, amount);
    if (!site.empty()) {
        removeLocked(site, amount);
    }
}

void ClientShares::removeLocked(const std::string& key, std::uint64_t amount) noexcept {
    const auto found = holds.find(key);
    if (found == holds.end()) {
        return;
    }
    found->second -= amount;
    if (found->second == 0) {
        holds.erase(found);
    }
}

ClientShares::Hold::Hold(Hold&& other) noexcept
    : shares(std::exchange(other.shares, nullptr))
    , client(std::move(other.client))
    , site(std::move(other.site))
    , held(std::exchange(other.held, 0)) {}

ClientShares::Hold& ClientShares::Hold::operator=(Hold&& other) noexcept {
    if (this != &other) {
        release();
        shares = std::exchange(other.shares, nullptr);
        client = std::move(other.client);
        site = std::move(other.site);
        held = std::exchange(other.held, 0);
    }
    return *this;
}

bool ClientShares::Hold::grow(std::uint64_t more) {
    if (shares == nullptr || !shares->add(client, site, more)) {
        return false;
    }
    held += more;
    return true;
}

void ClientShares::Hold::shrink(std::uint64_t less) noexcept {
    const std::uint64_t amount = std::min(less, held);
    if (shares != nullptr && amount > 0) {
        shares->remove(client, site, amount);
    }
    held -= amount;
}

} // namespace kestrin::host
