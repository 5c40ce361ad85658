#include "host/ServiceQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrin::host {
namespace {

// Each call, when run, writes its name down: what started is what ran.
struct Log {
    std::vector<std::string> ran;
    ServiceQueue::Call call(std::string name) {
        return [this, name = std::move(name)] { ran.push_back(name); };
    }
    // The client of a started call, after running it; empty when nothing started.
    std::string run(std::optional<ServiceQueue::Start> start) {
        if (!start) {
            return "";
        }
        start->call();
        return start->client;
    }
};

// A client alone takes every thread; a client that comes later gets the next thread that frees,
// ahead of the calls the first had queued before it, and so does one that comes later still,
// though the first then holds no more threads than it: the first started a call last. Once all
// is done, nothing is held.
TEST(ServiceQueue, aFreedThreadGoesToTheClientHoldingFewest) {
    ServiceQueue queue(2, 16);
    Log log;
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a1"))), "192.0.2.1");
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a2"))), "192.0.2.1");
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a3"))), "");
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a4"))), "");
    EXPECT_EQ(log.run(queue.submit("198.51.100.2", log.call("b1"))), "");
    EXPECT_EQ(log.run(queue.submit("203.0.113.3", log.call("c1"))), "");
    EXPECT_EQ(queue.counts().running, 2u);
    EXPECT_EQ(queue.counts().waiting, 4u);

    // b and c hold none, a one; b came first.
    EXPECT_EQ(log.run(queue.finished("192.0.2.1")), "198.51.100.2");
    // a and c hold none, but a's calls started and c's never did.
    EXPECT_EQ(log.run(queue.finished("192.0.2.1")), "203.0.113.3");
    EXPECT_EQ(log.run(queue.finished("198.51.100.2")), "192.0.2.1");
    EXPECT_EQ(log.run(queue.finished("192.0.2.1")), "192.0.2.1");
    EXPECT_EQ(log.ran, (std::vector<std::string>{"a1", "a2", "b1", "c1", "a3", "a4"}));

    EXPECT_EQ(log.run(queue.finished("203.0.113.3")), "");
    EXPECT_EQ(log.run(queue.finished("192.0.2.1")), "");
    EXPECT_EQ(queue.counts().running, 0u);
    EXPECT_EQ(queue.counts().waiting, 0u);
    EXPECT_THROW(queue.finished("192.0.2.1"), std::logic_error);
    // A client back after all its calls ended holds nothing.
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a5"))), "192.0.2.1");
}

// A stop that has waited long enough: the waiting calls never start and are let go with what
// they hold, the call under way still ends as usual and frees its thread, and a call that finds
// every thread taken is dropped rather than kept.
TEST(ServiceQueue, closingLetsTheWaitingCallsGoAndKeepsNoneAfter) {
    ServiceQueue queue(1, 16);
    Log log;
    const auto held = std::make_shared<int>(0);
    EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("a1"))), "192.0.2.1");
    EXPECT_FALSE(queue.submit("192.0.2.1", [held] {}).has_value());
    EXPECT_FALSE(queue.submit("198.51.100.2", log.call("b1")).has_value());
    std::vector<ServiceQueue::Call> dropped = queue.close();
    EXPECT_EQ(dropped.size(), 2u);
    EXPECT_EQ(queue.counts().waiting, 0u);
    dropped.clear();
    EXPECT_EQ(held.use_count(), 1);

    EXPECT_FALSE(queue.submit("203.0.113.3", [held] {}).has_value());
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(queue.counts().waiting, 0u);
    EXPECT_EQ(log.run(queue.finished("192.0.2.1")), "");
    EXPECT_EQ(queue.counts().running, 0u);
    EXPECT_EQ(log.run(queue.submit("203.0.113.3", log.call("c1"))), "203.0.113.3");
    EXPECT_EQ(log.ran, (std::vector<std::string>{"a1", "c1"}));
}

// The /64s of one /48 count together, as that many clients as the site weighs: spread over
// many /64s, a site's calls do not go ahead of another client's.
TEST(ServiceQueue, theSlash64sOfOneSlash48CountAsTheirSite) {
    {
        ServiceQueue queue(3, 2);
        Log log;
        for (const char* client : {"2001:db8:1:1::/64", "2001:db8:1:2::/64", "2001:db8:1:3::/64"}) {
            EXPECT_EQ(log.run(queue.submit(client, log.call(client))), client);
        }
        EXPECT_EQ(log.run(queue.submit("2001:db8:1:4::/64", log.call("s4"))), "");
        EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("v"))), "");
        // Once one of them ends the site holds two threads, a client's worth for each of its
        // two shares, and v none: v goes first, though s4 came before it.
        EXPECT_EQ(log.run(queue.finished("2001:db8:1:1::/64")), "192.0.2.1");
        EXPECT_EQ(log.run(queue.finished("2001:db8:1:2::/64")), "2001:db8:1:4::/64");
        // As its calls end a site weighs only what it still holds: with one thread to its two
        // shares, its /64 goes ahead of a client holding one, though that one asked first.
        EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("v3"))), "");
        EXPECT_EQ(log.run(queue.submit("2001:db8:1:5::/64", log.call("s5"))), "");
        EXPECT_EQ(log.run(queue.finished("2001:db8:1:3::/64")), "2001:db8:1:5::/64");
    }
    {
        // Two threads of a site weighing two are one client's worth each: against a client
        // holding one, the site's /64 that holds none goes first, though it came later.
        ServiceQueue queue(4, 2);
        Log log;
        for (const char* client :
             {"2001:db8:1:1::/64", "2001:db8:1:3::/64", "192.0.2.1", "198.51.100.2"}) {
            EXPECT_EQ(log.run(queue.submit(client, log.call(client))), client);
        }
        EXPECT_EQ(log.run(queue.submit("192.0.2.1", log.call("v2"))), "");
        EXPECT_EQ(log.run(queue.submit("2001:db8:1:2::/64", log.call("s2"))), "");
        EXPECT_EQ(log.run(queue.finished("198.51.100.2")), "2001:db8:1:2::/64");
        EXPECT_EQ(log.run(queue.finished("2001:db8:1:1::/64")), "192.0.2.1");
    }
    // Which of two waiting clients is looked at first depends on their addresses and on which
    // came first; the answer must not. A site weighing four that holds two threads holds half a
    // client's worth, less than a client holding one, whichever of them the queue meets first.
    const std::string s1 = "2001:db8:1:1::/64", s2 = "2001:db8:1:2::/64", s3 = "2001:db8:1:3::/64";
    const std::string x = "203.0.113.9", y = "203.0.113.10";
    for (int host = 1; host <= 16; ++host) {
        const std::string v = "192.0.2." + std::to_string(host);
        for (const bool siteFirst : {false, true}) {
            ServiceQueue queue(4, 4);
            Log log;
            for (const std::string& client : {s1, s2, x, siteFirst ? y : v}) {
                EXPECT_EQ(log.run(queue.submit(client, log.call(client))), client);
            }
            if (siteFirst) {
                // v comes after s3, and its first call takes the thread y frees: it held none.
                EXPECT_EQ(log.run(queue.submit(s3, log.call("s3"))), "");
                EXPECT_EQ(log.run(queue.submit(v, log.call("v1"))), "");
                EXPECT_EQ(log.run(queue.submit(v, log.call("v2"))), "");
                EXPECT_EQ(log.run(queue.finished(y)), v);
            } else {
                EXPECT_EQ(log.run(queue.submit(v, log.call("v2"))), "");
                EXPECT_EQ(log.run(queue.submit(s3, log.call("s3"))), "");
            }
            EXPECT_EQ(log.run(queue.finished(x)), s3) << v << (siteFirst ? ", s3 first" : "");
        }
    }
}

} // namespace
} // namespace kestrin::host
