#include "host/RateBudget.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <stdexcept>

namespace kestrin::host {

namespace {

bool positive(double value) {
    return std::isfinite(value) && value > 0;
}

const RateBudget::Limits& checked(const RateBudget::Limits& limits) {
    if (!positive(limits.total) || !positive(limits.totalPerSecond) || !positive(limits.client) ||
        !positive(limits.clientPerSecond) || limits.clientEntries == 0) {
        throw std::invalid_argument("a budget, its share per client and their refills must be "
                                    "positive");
    }
    return limits;
}

// Seconds until a debt is paid back at perSecond.
double secondsToRepay(double credit, double perSecond) {
    return credit > 0 ? 0 : -credit / perSecond;
}

} // namespace

RateBudget::RateBudget(const Limits& budgetLimits, Clock::time_point start)
    : limits(checked(budgetLimits))
    , pool{budgetLimits.total, start}
    , strangers{budgetLimits.client, start}
    , nextSweep(start) {}

std::optional<RateBudget::Refusal> RateBudget::check(const std::string& client,
                                                     Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex);
    return checkLocked(client, now);
}

void RateBudget::spend(const std::string& client, double amount, Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex);
    spendLocked(client, amount, now);
}

std::optional<RateBudget::Refusal> RateBudget::take(const std::string& client, double amount,
                                                    Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<Refusal> refusal = checkLocked(client, now);
    if (!refusal) {
        spendLocked(client, amount, now);
    }
    return refusal;
}

std::optional<RateBudget::Refusal> RateBudget::takeWhole(const std::string& client, double amount,
                                                         Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<Refusal> refusal = checkLocked(client, now, amount);
    if (!refusal) {
        spendLocked(client, amount, now);
    }
    return refusal;
}

void RateBudget::giveBack(const std::string& client, double amount, Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mutex);
    pool.credit =
        std::min(limits.total, refill(pool, limits.total, limits.totalPerSecond, now) + amount);
    if (!client.empty()) {
        Bucket& own = share(client, now);
        own.credit = std::min(limits.client,
                              refill(own, limits.client, limits.clientPerSecond, now) + amount);
    }
}

std::size_t RateBudget::clientsRemembered() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return clients.size();
}

std::optional<RateBudget::Refusal> RateBudget::checkLocked(const std::string& client,
                                                           Clock::time_point now, double whole) {
    // In credit, and holding all of what must be paid whole.
    const auto covers = [whole](double credit) { return credit > 0 && credit >= whole; };
    const double left = refill(pool, limits.total, limits.totalPerSecond, now);
    double wait = secondsToRepay(left - whole, limits.totalPerSecond);
    bool clientSpent = false;
    bool shared = false;
    if (!client.empty()) {
        Bucket& bucket = share(client, now);
        const double own = refill(bucket, limits.client, limits.clientPerSecond, now);
        clientSpent = !covers(own);
        shared = clientSpent && &bucket == &strangers;
        wait = std::max(wait, secondsToRepay(own - whole, limits.clientPerSecond));
    }
    if (covers(left) && !clientSpent) {
        return std::nullopt;
    }
    // The epsilon keeps a debt of exactly n seconds from reading as n + 1.
    return Refusal{std::chrono::seconds(
                       std::max<long long>(1, static_cast<long long>(std::ceil(wait - 1e-9)))),
                   clientSpent, shared};
}

void RateBudget::spendLocked(const std::string& client, double amount, Clock::time_point now) {
    refill(pool, limits.total, limits.totalPerSecond, now);
    pool.credit -= amount;
    if (!client.empty()) {
        Bucket& own = share(client, now);
        refill(own, limits.client, limits.clientPerSecond, now);
        own.credit -= amount;
    }
}

double RateBudget::refill(Bucket& bucket, double most, double perSecond, Clock::time_point now) {
    if (now > bucket.refilledAt) {
        const double seconds = std::chrono::duration<double>(now - bucket.refilledAt).count();
        bucket.credit = std::min(most, bucket.credit + seconds * perSecond);
        bucket.refilledAt = now;
    }
    return bucket.credit;
}

RateBudget::Bucket& RateBudget::share(const std::string& client, Clock::time_point now) {
    const auto found = clients.find(client);
    if (found != clients.end()) {
        return found->second;
    }
    if (clients.size() >= limits.clientEntries) {
        if (now < nextSweep) {
            return strangers;
        }
        nextSweep = now + std::chrono::seconds(1);
        // A client back at its full share loses nothing by being forgotten.
        for (auto it = clients.begin(); it != clients.end();) {
            const double left = refill(it->second, limits.client, limits.clientPerSecond, now);
            it = left >= limits.client ? clients.erase(it) : std::next(it);
        }
        if (clients.size() >= limits.clientEntries) {
            return strangers;
        }
    }
    return clients.emplace(client, Bucket{limits.client, now}).first->second;
}

} // namespace kestrin::host
