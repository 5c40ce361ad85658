#include "host/ConnectionTable.h"

#include <limits>
#include <tuple>
#include <utility>

namespace kestrin::host {

ConnectionTable::ConnectionTable(const Limits& tableLimits)
    : limits(tableLimits) {}

bool ConnectionTable::hasRoom(Clock::time_point now) const {
    std::lock_guard<std::mutex> guard(mutex);
    return counted < limits.maxConnections || chooseVictim(nullptr, now).has_value();
}

ConnectionTable::Admission ConnectionTable::admit(const std::string& client,
                                                  Clock::time_point now) {
    std::string site = siteOf(client);
    std::lock_guard<std::mutex> guard(mutex);
    Admission admission;
    const auto takeFrom = [&](const std::string* among,
                              std::string Entry::*field = &Entry::client) {
        const std::optional<Id> victim = chooseVictim(among, now, field);
        if (victim) {
            admission.victim = victim;
            admission.victimPhase = entries.at(*victim).phase;
            evictLocked(*victim);
        }
        return victim.has_value();
    };
    // A client's own idle connections go first: closing another client's to make room for
    // this one would let one address push the others out.
    const auto own = perClient.find(client);
    if (own != perClient.end() && own->second >= limits.maxPerClient && !takeFrom(&client)) {
        admission.outcome = Admission::Outcome::clientFull;
        return admission;
    }
    // Then the site's: the others of its /64s are the site's own.
    if (!site.empty()) {
        const auto held = perClient.find(site);
        if (held != perClient.end() && held->second >= limits.maxPerClient * limits.siteShares &&
            !takeFrom(&site, &Entry::site)) {
            admission.outcome = Admission::Outcome::clientFull;
            admission.sharedBy = clientsOfSite(site);
            return admission;
        }
    }
    if (counted >= limits.maxConnections && !takeFrom(nullptr)) {
        admission.outcome = Admission::Outcome::full;
        return admission;
    }
    admission.id = nextId++;
    if (!site.empty()) {
        ++perClient[site];
    }
    entries.emplace(admission.id, Entry{client, std::move(site), Phase::idle, now, 0, 0, false});
    ++perClient[client];
    ++counted;
    return admission;
}

std::optional<std::pair<ConnectionTable::Id, ConnectionTable::Phase>>
ConnectionTable::evictOne(Clock::time_point now) {
    std::lock_guard<std::mutex> guard(mutex);
    const std::optional<Id> victim = chooseVictim(nullptr, now);
    if (!victim) {
        return std::nullopt;
    }
    const Phase phase = entries.at(*victim).phase;
    evictLocked(*victim);
    return std::make_pair(*victim, phase);
}

void ConnectionTable::enter(Id id, Phase phase, Clock::time_point now) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto entry = entries.find(id);
    if (entry != entries.end()) {
        entry->second.phase = phase;
        entry->second.since = now;
        entry->second.bodyBytes = 0;
        entry->second.announced = 0;
    }
}

void ConnectionTable::received(Id id, std::uint64_t bytes) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto entry = entries.find(id);
    if (entry != entries.end()) {
        entry->second.bodyBytes += bytes;
    }
}

void ConnectionTable::expect(Id id, std::uint64_t bodyBytes) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto entry = entries.find(id);
    if (entry != entries.end()) {
        entry->second.announced = bodyBytes;
    }
}

std::optional<ConnectionTable::Id> ConnectionTable::evictSlowestBody(Clock::time_point now,
                                                                     Clock::duration horizon) {
    std::lock_guard<std::mutex> guard(mutex);
    std::optional<Id> slowest;
    long double longest = 0; // seconds still to go at the pace kept
    const long double limit = std::chrono::duration<long double>(horizon).count();
    for (const auto& [id, entry] : entries) {
        const long double age = std::chrono::duration<long double>(now - entry.since).count();
        if (entry.evicted || entry.phase != Phase::body || entry.announced <= entry.bodyBytes ||
            now - entry.since < limits.evictableAfter) {
            continue;
        }
        const long double left = static_cast<long double>(entry.announced - entry.bodyBytes);
        const long double toGo = entry.bodyBytes == 0
                                     ? std::numeric_limits<long double>::infinity()
                                     : left * age / static_cast<long double>(entry.bodyBytes);
        if (toGo > limit && (!slowest || toGo > longest)) {
            slowest = id;
            longest = toGo;
        }
    }
    if (slowest) {
        evictLocked(*slowest);
    }
    return slowest;
}

void ConnectionTable::remove(Id id) {
    std::function<void()> callback;
    {
        std::lock_guard<std::mutex> guard(mutex);
        const auto entry = entries.find(id);
        if (entry == entries.end()) {
            return;
        }
        if (!entry->second.evicted) {
            evictLocked(id);
        }
        entries.erase(entry);
        if (roomCallback && counted < limits.maxConnections) {
            callback = std::exchange(roomCallback, nullptr);
        }
    }
    if (callback) {
        callback();
    }
}

void ConnectionTable::whenRoom(std::function<void()> callback) {
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (counted >= limits.maxConnections) {
            roomCallback = std::move(callback);
            return;
        }
    }
    callback();
}

std::size_t ConnectionTable::size() const {
    std::lock_guard<std::mutex> guard(mutex);
    return counted;
}

std::optional<ConnectionTable::Id> ConnectionTable::chooseVictim(const std::string* among,
                                                                 Clock::time_point now,
                                                                 std::string Entry::*field) const {
    // Lower ranks go first: a connection that sends nothing costs its client nothing to open
    // again, one that sends a head by the byte little more; within a rank, the oldest.
    std::optional<Id> best;
    std::tuple<int, Clock::time_point> bestKey;
    for (const auto& [id, entry] : entries) {
        if (entry.evicted || (among != nullptr && entry.*field != *among)) {
            continue;
        }
        const Clock::duration age = now - entry.since;
        if (age < limits.evictableAfter) {
            continue;
        }
        int rank = 0;
        switch (entry.phase) {
        case Phase::idle:
            rank = 0;
            break;
        case Phase::head:
            rank = 1;
            break;
        case Phase::body: {
            // Below the minimum rate over the whole body so far: bytes / age < rate.
            const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(age).count();
            const long double expected =
                static_cast<long double>(limits.minBodyRate) * micros / 1'000'000;
            if (static_cast<long double>(entry.bodyBytes) >= expected) {
                continue;
            }
            rank = 2;
            break;
        }
        case Phase::busy:
            continue;
        }
        const auto key = std::make_tuple(rank, entry.since);
        if (!best || key < bestKey) {
            best = id;
            bestKey = key;
        }
    }
    return best;
}

void ConnectionTable::evictLocked(Id id) {
    Entry& entry = entries.at(id);
    entry.evicted = true;
    --counted;
    for (const std::string* key : {&entry.client, &entry.site}) {
        const auto held = key->empty() ? perClient.end() : perClient.find(*key);
        if (held != perClient.end() && --held->second == 0) {
            perClient.erase(held);
        }
    }
}

} // namespace kestrin::host
