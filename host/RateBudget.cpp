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
        !positive(limits.clientPerSecond) || limits.clientEntries == 0 ||
        !std::isfinite(limits.siteShares) || limits.siteShares < 1) {
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
    const std::string site = siteOf(client);
    const std::lock_guard<std::mutex> lock(mutex);
    return checkLocked(sharesOf(client, site, now), now);
}

void RateBudget::spend(const std::string& client, double amount, Clock::time_point now) {
    const std::string site = siteOf(client);
    const std::lock_guard<std::mutex> lock(mutex);
    spendLocked(sharesOf(client, site, now), amount, now);
}

std::optional<RateBudget::Refusal> RateBudget::take(const std::string& client, double amount,
                                                    Clock::time_point now) {
    const std::string site = siteOf(client);
    const std::lock_guard<std::mutex> lock(mutex);
    const Shares shares = sharesOf(client, site, now);
    std::optional<Refusal> refusal = checkLocked(shares, now);
    if (!refusal) {
        spendLocked(shares, amount, now);
    }
    return refusal;
}

std::optional<RateBudget::Refusal> RateBudget::takeWhole(const std::string& client, double amount,
                                                         Clock::time_point now) {
    const std::string site = siteOf(client);
    const std::lock_guard<std::mutex> lock(mutex);
    const Shares shares = sharesOf(client, site, now);
    std::optional<Refusal> refusal = checkLocked(shares, now, amount);
    if (!refusal) {
        spendLocked(shares, amount, now);
    }
    return refusal;
}

void RateBudget::giveBack(const std::string& client, double amount, Clock::time_point now) {
    const std::string site = siteOf(client);
    const std::lock_guard<std::mutex> lock(mutex);
    pool.credit =
        std::min(limits.total, refill(pool, limits.total, limits.totalPerSecond, now) + amount);
    const Shares shares = sharesOf(client, site, now);
    for (Bucket* bucket : {shares.own, shares.site}) {
        if (bucket != nullptr) {
            bucket->credit = std::min(mostOf(*bucket), refill(*bucket, now) + amount);
        }
    }
}

std::size_t RateBudget::clientsRemembered() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return clients.size();
}

std::optional<RateBudget::Refusal> RateBudget::checkLocked(const Shares& shares,
                                                           Clock::time_point now, double whole) {
    // In credit, and holding all of what must be paid whole.
    const auto covers = [whole](double credit) { return credit > 0 && credit >= whole; };
    const double left = refill(pool, limits.total, limits.totalPerSecond, now);
    double wait = secondsToRepay(left - whole, limits.totalPerSecond);
    bool clientSpent = false;
    std::string sharedBy;
    for (Bucket* bucket : {shares.own, shares.site}) {
        if (bucket == nullptr) {
            continue;
        }
        const double own = refill(*bucket, now);
        if (!covers(own)) {
            if (!clientSpent && bucket == &strangers) {
                sharedBy = "clients past the full table";
            } else if (!clientSpent && bucket->site) {
                sharedBy = clientsOfSite(shares.siteName);
            }
            clientSpent = true;
        }
        wait = std::max(wait, secondsToRepay(own - whole, perSecondOf(*bucket)));
    }
    if (covers(left) && !clientSpent) {
        return std::nullopt;
    }
    // The epsilon keeps a debt of exactly n seconds from reading as n + 1.
    return Refusal{std::chrono::seconds(
                       std::max<long long>(1, static_cast<long long>(std::ceil(wait - 1e-9)))),
                   clientSpent, std::move(sharedBy)};
}

void RateBudget::spendLocked(const Shares& shares, double amount, Clock::time_point now) {
    refill(pool, limits.total, limits.totalPerSecond, now);
    pool.credit -= amount;
    for (Bucket* bucket : {shares.own, shares.site}) {
        if (bucket != nullptr) {
            refill(*bucket, now);
            bucket->credit -= amount;
        }
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

double RateBudget::refill(Bucket& bucket, Clock::time_point now) const {
    return refill(bucket, mostOf(bucket), perSecondOf(bucket), now);
}

double RateBudget::mostOf(const Bucket& bucket) const {
    return bucket.site ? limits.client * limits.siteShares : limits.client;
}

double RateBudget::perSecondOf(const Bucket& bucket) const {
    // A site's share refills as many times faster as it is larger.
    return bucket.site ? limits.clientPerSecond * limits.siteShares : limits.clientPerSecond;
}

RateBudget::Shares RateBudget::sharesOf(const std::string& client, const std::string& site,
                                        Clock::time_point now) {
    Shares shares;
    if (client.empty()) {
        return shares;
    }
    shares.siteName = site;
    const std::size_t missing =
        (clients.count(client) == 0 ? 1 : 0) +
        (!shares.siteName.empty() && clients.count(shares.siteName) == 0 ? 1 : 0);
    // Searched before anything is looked up, so that nothing held here is forgotten.
    if (missing > 0 && clients.size() + missing > limits.clientEntries && now >= nextSweep) {
        nextSweep = now + std::chrono::seconds(1);
        sweep(now);
    }
    shares.own = &entry(client, false, now);
    if (!shares.siteName.empty()) {
        Bucket& site = entry(shares.siteName, true, now);
        // A stranger whose site is left out too pays the strangers' share once.
        shares.site = &site == shares.own ? nullptr : &site;
    }
    return shares;
}

RateBudget::Bucket& RateBudget::entry(const std::string& key, bool site, Clock::time_point now) {
    const auto found = clients.find(key);
    if (found != clients.end()) {
        return found->second;
    }
    if (clients.size() >= limits.clientEntries) {
        return strangers;
    }
    Bucket fresh{limits.client, now, site};
    fresh.credit = mostOf(fresh);
    return clients.emplace(key, fresh).first->second;
}

void RateBudget::sweep(Clock::time_point now) {
    for (auto it = clients.begin(); it != clients.end();) {
        const double left = refill(it->second, now);
        it = left >= mostOf(it->second) ? clients.erase(it) : std::next(it);
    }
}

} // namespace kestrin::host
