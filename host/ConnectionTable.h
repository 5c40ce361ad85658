#pragma once

#include "host/ClientKey.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace kestrin::host {

// The server's open connections as slots: how many there may be in all and from one client
// address, what each is doing, and, when there is no free slot, which connection is most worth
// closing to make room for a new one. No sockets: the listener and the sessions report what
// happens and act on its answers. Safe on any thread.
//
// A connection is worth closing when it holds its slot without using it: waiting for a request
// that does not come, sending a head by the byte, or sending a body below the minimum rate, in
// each case for at least `evictableAfter`. A connection whose request is being served never is.
class ConnectionTable {
public:
    using Clock = std::chrono::steady_clock;
    using Id = std::uint64_t;

    enum class Phase {
        idle, // waiting for the first byte of a request
        head, // reading a request head
        body, // reading a request body
        busy  // a request is being served or answered
    };

    struct Limits {
        std::size_t maxConnections;
        std::size_t maxPerClient;
        std::uint64_t minBodyRate; // bytes per second
        // A real client sends its head within a round trip of connecting; half a second is
        // many round trips.
        Clock::duration evictableAfter = std::chrono::milliseconds(500);
        // The /64s of one IPv6 /48 (siteOf) hold at most this many times maxPerClient in all:
        // a site picks among 65,536 of them, each with slots of its own.
        std::size_t siteShares = defaultSiteShares;
    };

    struct Admission {
        enum class Outcome {
            admitted,   // the connection has a slot (perhaps one the victim held)
            clientFull, // its address, or its site, holds all its slots, none worth closing
            full        // every slot is held, none worth closing
        };
        Outcome outcome = Outcome::admitted;
        // With clientFull, when it is the site's slots that are all held: "the /64s of
        // 2001:db8:1::/48". Empty otherwise.
        std::string sharedBy;
        Id id = 0;
        // Set when the slot was taken from this connection: the caller closes it. It no
        // longer counts; its removal later is harmless.
        std::optional<Id> victim;
        Phase victimPhase = Phase::idle;
    };

    explicit ConnectionTable(const Limits& limits);
    ConnectionTable(const ConnectionTable&) = delete;
    ConnectionTable& operator=(const ConnectionTable&) = delete;

    // Whether a connection from an address not seen yet would get a slot now.
    [[nodiscard]] bool hasRoom(Clock::time_point now) const;
    // Takes a slot for a new connection from client, or says why there is none.
    [[nodiscard]] Admission admit(const std::string& client, Clock::time_point now);
    // Takes the slot of the connection most worth closing, if there is one, without giving it
    // to anyone: the system is out of descriptors, whatever the limit says. The caller closes
    // the returned connection.
    [[nodiscard]] std::optional<std::pair<Id, Phase>> evictOne(Clock::time_point now);
    // An upload waits for memory: takes the connection whose body, at the pace it has kept,
    // would hold its memory the longest, if that is longer than horizon. A body trickling at the
    // minimum rate could otherwise hold a large share of the budget for days. The caller closes
    // the returned connection; its memory comes back when it is gone.
    [[nodiscard]] std::optional<Id> evictSlowestBody(Clock::time_point now,
                                                     Clock::duration horizon);

    // A connection changed phase; its clock for that phase starts now.
    void enter(Id id, Phase phase, Clock::time_point now);
    // Body bytes arrived on a connection in its body phase.
    void received(Id id, std::uint64_t bytes);
    // The body a connection in its body phase announced, whose memory it holds meanwhile.
    void expect(Id id, std::uint64_t bodyBytes);
    // The connection is gone. Runs the room callback, if one waits and a slot is now free.
    void remove(Id id);
    // Called once, on whatever thread frees the next slot, unless there is a free slot
    // already: then at once, on this thread.
    void whenRoom(std::function<void()> callback);

    std::size_t size() const;

private:
    struct Entry {
        std::string client;
        std::string site; // empty for a client of no site
        Phase phase;
        Clock::time_point since;
        std::uint64_t bodyBytes;
        std::uint64_t announced;
        bool evicted;
    };

    // The connection most worth closing, among those whose field (client or site) is among, if
    // given.
    std::optional<Id> chooseVictim(const std::string* among, Clock::time_point now,
                                   std::string Entry::*field = &Entry::client) const;
    void evictLocked(Id id);

    const Limits limits;
    mutable std::mutex mutex;
    std::unordered_map<Id, Entry> entries;
    // Slots held by each client and by each site: the keys never collide.
    std::unordered_map<std::string, std::size_t> perClient;
    std::size_t counted = 0; // entries not evicted
    Id nextId = 1;
    std::function<void()> roomCallback;
};

} // namespace kestrin::host
