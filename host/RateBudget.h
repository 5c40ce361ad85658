#pragma once

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
    };

    struct Refusal {
        // Whole seconds until the emptier of the pool and the share is in credit again, at
        // least 1 (a Retry-After).
        std::chrono::seconds retryAfter;
        // The client's own share ran dry (not only the pool).
        bool clientSpent;
        // The share that ran dry was the one of clients the full table leaves out.
        bool shared = false;
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
    };

    // Nothing when the pool, and the share of client unless client is empty, are in credit and
    // each holds whole.
    std::optional<Refusal> checkLocked(const std::string& client, Clock::time_point now,
                                       double whole = 0);
    void spendLocked(const std::string& client, double amount, Clock::time_point now);
    // The bucket's credit after refilling it up to now.
    static double refill(Bucket& bucket, double most, double perSecond, Clock::time_point now);
    // The share of client, made full if new; the strangers' share if the table has no room.
    Bucket& share(const std::string& client, Clock::time_point now);

    const Limits limits;
    mutable std::mutex mutex;
    Bucket pool;
    std::unordered_map<std::string, Bucket> clients;
    // What clients left out of the full table spend, all of them together.
    Bucket strangers;
    // A full table is searched for clients to forget at most once a second, so that a spray
    // of new addresses cannot make every request walk the whole table.
    Clock::time_point nextSweep;
};

} // namespace kestrin::host
