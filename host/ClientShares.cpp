#include "host/ClientShares.h"

#include <algorithm>
#include <utility>

namespace kestrin::host {

ClientShares::ClientShares(std::uint64_t share)
    : limit(share) {}

std::optional<ClientShares::Hold> ClientShares::take(std::string_view client,
                                                     std::uint64_t amount) {
    std::string key(client);
    if (!add(key, amount)) {
        return std::nullopt;
    }
    return Hold(this, std::move(key), amount);
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

bool ClientShares::add(const std::string& client, std::uint64_t amount) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = holds.find(client);
    const std::uint64_t now = found == holds.end() ? 0 : found->second;
    if (amount > limit - now) {
        return false;
    }
    if (amount > 0) {
        holds[client] = now + amount;
    }
    return true;
}

void ClientShares::remove(const std::string& client, std::uint64_t amount) noexcept {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = holds.find(client);
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
    , held(std::exchange(other.held, 0)) {}

ClientShares::Hold& ClientShares::Hold::operator=(Hold&& other) noexcept {
    if (this != &other) {
        release();
        shares = std::exchange(other.shares, nullptr);
        client = std::move(other.client);
        held = std::exchange(other.held, 0);
    }
    return *this;
}

bool ClientShares::Hold::grow(std::uint64_t more) {
    if (shares == nullptr || !shares->add(client, more)) {
        return false;
    }
    held += more;
    return true;
}

void ClientShares::Hold::shrink(std::uint64_t less) noexcept {
    const std::uint64_t amount = std::min(less, held);
    if (shares != nullptr && amount > 0) {
        shares->remove(client, amount);
    }
    held -= amount;
}

} // namespace kestrin::host
