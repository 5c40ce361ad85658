#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrin::host {

// The order in which service calls get the service threads. The threads are few, and a call
// holds one until its files are on disk: on a slow disk, seconds for a request of many files.
// Taken first come, first served, a few clients keeping a call queued on each of their
// connections would keep every other client waiting behind all of theirs, for as long as they
// went on. Instead, when a thread frees, it goes to the waiting client that holds fewest
// threads: an IPv6 client first counted with the other /64s of its /48, as that site's shares
// of one client, then by itself. Among equals it goes to the client whose last call started
// longest ago, one that has none under way counting as never: clients taking turns with a call
// each cannot keep a newcomer out by having asked first. Among a client's calls, the first to
// come goes first. A client alone may take every thread; one that comes later gets the next
// that frees.
// Holds calls and decides which runs; runs none itself. Any thread.
class ServiceQueue {
public:
    using Call = std::function<void()>;

    // A call that may start now, and the client it belongs to, whom finished() must be told.
    struct Start {
        std::string client;
        Call call;
    };

    struct Counts {
        std::size_t running = 0;
        std::size_t waiting = 0;
    };

    // threads: how many calls may run at once (at least one); siteShares: what the /64s of
    // one /48 weigh together, in clients.
    ServiceQueue(std::size_t threads, unsigned siteShares);

    // A call of the client of this key (clientKey) is ready: it comes back when a thread is
    // free for it, and waits here otherwise; once closed, it is dropped instead.
    std::optional<Start> submit(const std::string& client, Call call);

    // A call of this client that had started has ended: the waiting call that takes its
    // thread, if there is one.
    std::optional<Start> finished(const std::string& client);

    Counts counts() const;

    // For a stop that has waited long enough: the calls waiting are handed back, never to
    // start, and from now on no call waits. The calls under way go on to their end.
    std::vector<Call> close();

private:
    // What counts a client against the others: its site (or itself) and its own calls.
    struct Group {
        std::size_t running = 0;
        std::size_t clients = 0; // clients of it that have calls running or waiting
        unsigned weight = 1;
    };
    struct Client {
        std::size_t running = 0;
        std::deque<Call> waiting;
        std::string group;
        std::uint64_t lastStart = 0; // when its last call started, in starts; 0 for never
        std::uint64_t arrived = 0;   // when it came, between two that never started
    };

    Client& enter(const std::string& client, std::string group, unsigned weight);
    void leaveIfIdle(std::unordered_map<std::string, Client>::iterator client);
    Start startNext();
    void startOne(Client& client);

    const std::size_t threads;
    const unsigned siteShares;
    mutable std::mutex mutex;
    std::unordered_map<std::string, Client> clients;
    std::unordered_map<std::string, Group> groups;
    std::size_t running = 0;
    std::size_t waiting = 0;
    bool closed = false;
    std::uint64_t starts = 0;
    std::uint64_t arrivals = 0;
};

} // namespace kestrin::host
