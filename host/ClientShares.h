#pragma once

#include "host/ClientKey.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace kestrin::host {

// How much of a resource each client holds at once, each within the same share: a client
// whose requests hold their share waits for them before it gets more, however many it sends
// at once, while the others go on. A hold is taken before the resource itself and gives its
// amount back when it ends. A client is remembered only while it holds something, so the
// table is as large as the requests under way. No IO; safe on any thread, a hold belonging to
// one owner at a time.
class ClientShares {
public:
    class Hold;

    // The /64s of one IPv6 /48 (siteOf) hold siteShares times share in all, so that a client
    // given a /48 does not hold a share for each /64 it picks.
    explicit ClientShares(std::uint64_t share, std::uint64_t siteShares = defaultSiteShares);
    ClientShares(const ClientShares&) = delete;
    ClientShares& operator=(const ClientShares&) = delete;

    // A hold of amount for client, or nothing when it would take client past its share.
    [[nodiscard]] std::optional<Hold> take(std::string_view client, std::uint64_t amount);

    std::uint64_t share() const noexcept { return limit; }
    std::uint64_t siteShare() const noexcept { return siteLimit; }
    // What the holds of client, or of the /64s of a site, come to now.
    std::uint64_t held(std::string_view client) const;
    // Clients, and sites, holding something now.
    std::size_t clients() const;

private:
    // Both or neither: the client's share and, unless site is empty, its site's.
    bool add(const std::string& client, const std::string& site, std::uint64_t amount);
    void remove(const std::string& client, const std::string& site, std::uint64_t amount) noexcept;
    void removeLocked(const std::string& key, std::uint64_t amount) noexcept;

    const std::uint64_t limit;
    const std::uint64_t siteLimit;
    mutable std::mutex mutex;
    std::unordered_map<std::string, std::uint64_t> holds;
};

// Part of one client's share; what it holds goes back when it ends. A default-made hold
// belongs to nobody and holds nothing.
class ClientShares::Hold {
public:
    Hold() noexcept = default;
    Hold(Hold&& other) noexcept;
    Hold& operator=(Hold&& other) noexcept;
    ~Hold() { release(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    std::uint64_t amount() const noexcept { return held; }
    // Whether it belongs to a client's share (and so may grow).
    bool counted() const noexcept { return shares != nullptr; }
    // Takes more of the client's share if it fits; false, holding what it held, if not.
    // Always false for a hold of nobody.
    [[nodiscard]] bool grow(std::uint64_t more);
    // Gives back less, or all it holds if that is less.
    void shrink(std::uint64_t less) noexcept;
    void release() noexcept { shrink(held); }

private:
    friend class ClientShares;
    Hold(ClientShares* owner, std::string client, std::string site, std::uint64_t amount) noexcept
        : shares(owner)
        , client(std::move(client))
        , site(std::move(site))
        , held(amount) {}

    ClientShares* shares = nullptr;
    std::string client;
    std::string site;
    std::uint64_t held = 0;
};

} // namespace kestrin::host
