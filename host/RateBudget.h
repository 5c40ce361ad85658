#pragma once

#include "host/ClientKey.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace kestrin::host {

// Something costly that clients make the server do (check a password, sign a TLS handshake),
// paid from credit that comes back with time: a pool every client draws from, and a share of
// its own for each client address, so that one client that spends fast runs dry long before
// the others notice. No IO; safe on any thread.
class RateBudget {
public:
    using Clock = std::chrono::steady_clock;

    struct Limits {
        double total;           // the pool holds this much at most...
        double totalPerSecond;  // ...and earns this much back each second
        double client;          // a client's share holds this much at most...
        double clientPerSecond; // ...and earns this much back each second
        // Client addresses whose share is remembered. When the table is full, those back at
        // their full share are forgotten; while none is, a client not in the table pays from
        // one share that all such clients draw from, so that new addresses cannot wipe out
        // what the others owe.
        std::size_t clientEntries = 4096;
        // What the /64s of one IPv6 /48 (siteOf) hold in all, in client shares, earned back as
        // fast: each of them pays from its own share and from its site's, so that a client
        // given a /48 has this many shares, not one for each /64 it picks. At least 1. The
        // site's share takes a place in the table as a client's does.
        double siteShares = defaultSiteShares;
    };

    struct Refusal {
        // Whole seconds until the emptier of the pool and the share is in credit again, at
        // least 1 (a Retry-After).
        std::chrono::seconds retryAfter;
        // The client's share ran dry (not only the pool): its own, or one it draws from with
        // others.
        bool clientSpent;
        // When the share that ran dry is one the client draws from with others, who they are,
        // for the log: "clients past the full table", or "the /64s of 2001:db8:1::/48".
        // Empty otherwise.
        std::string sharedBy = {};
    };

    // Full at start. Throws std::invalid_argument unless every amount and rate is positive
    // and finite.
    explicit RateBudget(const Limits& limits, Clock::time_point start = Clock::now());
    RateBudget(const RateBudget&) = delete;
    RateBudget& operator=(const RateBudget&) = delete;

    // Nothing when the pool, and the share of client unless client is empty, both have credit
    // now.
    [[nodiscard]] std::optional<Refusal> check(const std::string& client, Clock::time_point now);
    // Charges amount to the pool and to the share of client, unless client is empty. Either may
    // go below zero: work already begun when the credit ran out is paid in full, and the debt
    // is earned back before anything else is allowed.
    void spend(const std::string& client, double amount, Clock::time_point now);
    // check, then spend if it allowed: one step, so that racing callers cannot both take the
    // last credit.
    [[nodiscard]] std::optional<Refusal> take(const std::string& client, double amount,
                                              Clock::time_point now);
    // Like take, but only when the pool, and the share of client unless client is empty, each
    // hold all of amount now: for what must be paid before it is done, not owed after. The
    // refusal's retryAfter is then when both will hold it. Call with amounts no larger than
    // the share and the pool can hold, or it never succeeds.
    [[nodiscard]] std::optional<Refusal> takeWhole(const std::string& client, double amount,
                                                   Clock::time_point now);

    // Gives back amount that a take charged for work then not done, to the pool and to the
    // share of client unless client is empty, neither past what it holds at most.
    void giveBack(const std::string& client, double amount, Clock::time_point now);

    std::size_t clientsRemembered() const;

private:
    struct Bucket {
        double credit;
        Clock::time_point refilledAt;
        bool site = false; // the share of a /48, not of one client
    };

    // The shares a client pays from: its own, and its site's unless it has none. Either may be
    // the strangers' share when the table has no room, but never both.
    struct Shares {
        Bucket* own = nullptr;
        Bucket* site = nullptr;
        std::string siteName;
    };

    // Found, or made full when new; while the table is full, the strangers' share. None for
    // an empty client. site: siteOf(client), found before the lock is taken.
    Shares sharesOf(const std::string& client, const std::string& site, Clock::time_point now);
    Bucket& entry(const std::string& key, bool site, Clock::time_point now);
    // Forgets every remembered share back at its full credit: it loses nothing by it.
    void sweep(Clock::time_point now);
    // Nothing when the pool, and the shares unless client is empty, are in credit and each
    // holds whole.
    std::optional<Refusal> checkLocked(const Shares& shares, Clock::time_point now,
                                       double whole = 0);
    void spendLocked(const Shares& shares, double amount, Clock::time_point now);
    // The bucket's credit after refilling it up to now.
    static double refill(Bucket& bucket, double most, double perSecond, Clock::time_point now);
    double refill(Bucket& bucket, Clock::time_point now) const;
    double mostOf(const Bucket& bucket) const;
    double perSecondOf(const Bucket& bucket) const;

    const Limits limits;
    mutable std::mutex mutex;
    Bucket pool;
    std::unordered_map<std::string, Bucket> clients;
    // What clients left out of the full table spend, all of them together: their own shares
    // and their sites'.
    Bucket strangers;
    // A full table is searched for clients to forget at most once a second, so that a spray
    // of new addresses cannot make every request walk the whole table.
    Clock::time_point nextSweep;
};

} // namespace kestrin::host
