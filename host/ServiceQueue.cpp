#include "host/ServiceQueue.h"

#include "host/ClientKey.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace kestrin::host {

ServiceQueue::ServiceQueue(std::size_t threads, unsigned siteShares)
    : threads(std::max<std::size_t>(threads, 1))
    , siteShares(std::max(siteShares, 1u)) {}

std::optional<ServiceQueue::Start> ServiceQueue::submit(const std::string& client, Call call) {
    // Parsed before the lock: every service call passes here.
    const std::string site = siteOf(client);
    const unsigned weight = site.empty() ? 1 : siteShares;
    std::lock_guard<std::mutex> lock(mutex);
    // Calls wait only while every thread is taken, so a free thread means nobody waits.
    if (running < threads) {
        startOne(enter(client, site.empty() ? client : site, weight));
        ++running;
        return Start{client, std::move(call)};
    }
    if (closed) {
        return std::nullopt; // the call goes with its argument, once the lock is let go
    }
    Client& entry = enter(client, site.empty() ? client : site, weight);
    entry.waiting.push_back(std::move(call));
    ++waiting;
    return std::nullopt;
}

std::optional<ServiceQueue::Start> ServiceQueue::finished(const std::string& client) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = clients.find(client);
    if (found == clients.end() || found->second.running == 0) {
        throw std::logic_error("A service call ended that had not started: " + client);
    }
    --found->second.running;
    --groups[found->second.group].running;
    leaveIfIdle(found);
    if (waiting == 0) {
        --running;
        return std::nullopt;
    }
    return startNext();
}

ServiceQueue::Counts ServiceQueue::counts() const {
    std::lock_guard<std::mutex> lock(mutex);
    return Counts{running, waiting};
}

std::vector<ServiceQueue::Call> ServiceQueue::close() {
    std::vector<Call> dropped;
    std::lock_guard<std::mutex> lock(mutex);
    closed = true;
    for (auto client = clients.begin(); client != clients.end();) {
        const auto next = std::next(client);
        for (Call& call : client->second.waiting) {
            dropped.push_back(std::move(call));
        }
        client->second.waiting.clear();
        leaveIfIdle(client);
        client = next;
    }
    waiting = 0;
    return dropped;
}

ServiceQueue::Client& ServiceQueue::enter(const std::string& client, std::string group,
                                          unsigned weight) {
    const auto [found, added] = clients.try_emplace(client);
    if (added) {
        Group& shared = groups[group];
        shared.weight = weight;
        ++shared.clients;
        found->second.group = std::move(group);
        found->second.arrived = ++arrivals;
    }
    return found->second;
}

void ServiceQueue::leaveIfIdle(std::unordered_map<std::string, Client>::iterator client) {
    if (client->second.running > 0 || !client->second.waiting.empty()) {
        return;
    }
    const auto group = groups.find(client->second.group);
    if (--group->second.clients == 0) {
        groups.erase(group);
    }
    clients.erase(client);
}

ServiceQueue::Start ServiceQueue::startNext() {
    // Every client with a call waiting is looked at: they are no more than the connections
    // that have a request in, and a freed thread is rare beside what a call does.
    Client* best = nullptr;
    const Group* bestGroup = nullptr;
    const std::string* bestKey = nullptr;
    for (auto& [key, entry] : clients) {
        if (entry.waiting.empty()) {
            continue;
        }
        const Group& group = groups.at(entry.group);
        if (best != nullptr) {
            // A site's threads count as shared by as many clients as it weighs.
            const std::size_t load = group.running * bestGroup->weight;
            const std::size_t bestLoad = bestGroup->running * group.weight;
            const bool later = load != bestLoad                 ? load > bestLoad
                               : entry.running != best->running ? entry.running > best->running
                               : entry.lastStart != best->lastStart
                                   ? entry.lastStart > best->lastStart
                                   : entry.arrived > best->arrived;
            if (later) {
                continue;
            }
        }
        best = &entry;
        bestGroup = &group;
        bestKey = &key;
    }
    Start start{*bestKey, std::move(best->waiting.front())};
    best->waiting.pop_front();
    --waiting;
    startOne(*best);
    return start;
}

void ServiceQueue::startOne(Client& client) {
    ++client.running;
    ++groups[client.group].running;
    client.lastStart = ++starts;
}

} // namespace kestrin::host
