#include "host/ConnectionTable.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrin::host {
namespace {

using Clock = ConnectionTable::Clock;
using Outcome = ConnectionTable::Admission::Outcome;
using Phase = ConnectionTable::Phase;
using std::chrono::milliseconds;
using std::chrono::seconds;

const Clock::time_point start{};

ConnectionTable::Limits limits(std::size_t all, std::size_t perClient) {
    return ConnectionTable::Limits{all, perClient, 1000, seconds(1)};
}

ConnectionTable::Id admitted(ConnectionTable& table, const std::string& client,
                             Clock::time_point now) {
    const ConnectionTable::Admission admission = table.admit(client, now);
    EXPECT_EQ(admission.outcome, Outcome::admitted);
    EXPECT_FALSE(admission.victim);
    return admission.id;
}

TEST(ConnectionTable, aFullTableClosesTheConnectionLeastInUseAndNeverOneBeingServed) {
    // Four connections, one in each phase, all long enough in it to be judged.
    ConnectionTable table(limits(4, 4));
    const auto serving = admitted(table, "a", start);
    const auto slowBody = admitted(table, "b", start);
    const auto slowHead = admitted(table, "c", start);
    const auto idle = admitted(table, "d", start);
    table.enter(serving, Phase::busy, start);
    table.enter(slowBody, Phase::body, start);
    table.received(slowBody, 500); // 500 bytes in 2 s is under 1000 a second
    table.enter(slowHead, Phase::head, start);
    const Clock::time_point later = start + seconds(2);

    const std::vector<std::pair<ConnectionTable::Id, Phase>> order = {
        {idle, Phase::idle}, {slowHead, Phase::head}, {slowBody, Phase::body}};
    for (const auto& [expected, phase] : order) {
        const ConnectionTable::Admission admission = table.admit("new", later);
        ASSERT_EQ(admission.outcome, Outcome::admitted);
        ASSERT_TRUE(admission.victim);
        EXPECT_EQ(*admission.victim, expected);
        EXPECT_EQ(admission.victimPhase, phase);
        EXPECT_EQ(table.size(), 4u);
        table.remove(expected); // the victim's session ends later; harmless
        EXPECT_EQ(table.size(), 4u);
        // The newcomers are fresh: not worth closing yet.
        table.enter(admission.id, Phase::busy, later);
    }
    EXPECT_FALSE(table.hasRoom(later));
    EXPECT_EQ(table.admit("new", later).outcome, Outcome::full);
    table.remove(serving);
    EXPECT_TRUE(table.hasRoom(later));
}

TEST(ConnectionTable, connectionsAreJudgedOnlyAfterTheirGraceAndBodiesByTheirRate) {
    ConnectionTable table(limits(2, 2));
    const auto fast = admitted(table, "a", start);
    const auto fresh = admitted(table, "b", start + milliseconds(1500));
    table.enter(fast, Phase::body, start);
    table.received(fast, 3000); // 3000 bytes in 2 s keeps 1000 a second
    const Clock::time_point now = start + seconds(2);
    EXPECT_FALSE(table.hasRoom(now));
    EXPECT_EQ(table.admit("c", now).outcome, Outcome::full);
    // A second later the idle newcomer has had its grace and goes; the body keeps its rate.
    const ConnectionTable::Admission admission = table.admit("c", now + seconds(1));
    ASSERT_TRUE(admission.victim);
    EXPECT_EQ(*admission.victim, fresh);
}

TEST(ConnectionTable, aClientOverItsLimitMakesRoomFromItsOwnConnectionsOnly) {
    ConnectionTable table(limits(10, 2));
    const auto own = admitted(table, "a", start);
    const auto ownBusy = admitted(table, "a", start);
    const auto other = admitted(table, "b", start);
    table.enter(ownBusy, Phase::busy, start);
    const Clock::time_point later = start + seconds(5);
    (void)other; // idle and old, but another client's

    const ConnectionTable::Admission third = table.admit("a", later);
    ASSERT_EQ(third.outcome, Outcome::admitted);
    ASSERT_TRUE(third.victim);
    EXPECT_EQ(*third.victim, own);
    EXPECT_EQ(table.admit("a", later).outcome, Outcome::clientFull);
    EXPECT_EQ(table.size(), 3u);
    // Other clients are not held back by one at its limit.
    admitted(table, "c", later);
    // A removal gives the client its slot back.
    table.remove(ownBusy);
    admitted(table, "a", later);
}

// A client given a /48 opens its connections from as many /64s as it likes: together they
// hold four clients' slots, and make room only from their own.
TEST(ConnectionTable, theSlash64sOfOneSlash48HoldFourClientsSlotsInAll) {
    ConnectionTable::Limits fourShares = limits(100, 2);
    fourShares.siteShares = 4;
    ConnectionTable table(fourShares);
    std::vector<ConnectionTable::Id> site;
    for (int index = 0; index < 8; ++index) {
        site.push_back(admitted(table, "2001:db8:1:" + std::to_string(index) + "::/64", start));
        table.enter(site.back(), Phase::busy, start);
    }
    const auto other = admitted(table, "2001:db8:2:1::/64", start);
    (void)other; // idle and old, but another site's
    const Clock::time_point later = start + seconds(5);
    const ConnectionTable::Admission ninth = table.admit("2001:db8:1:8::/64", later);
    EXPECT_EQ(ninth.outcome, Outcome::clientFull);
    EXPECT_EQ(ninth.sharedBy, "the /64s of 2001:db8:1::/48");
    EXPECT_EQ(table.admit("192.0.2.7", later).outcome, Outcome::admitted);

    // One of the site's connections idles: it makes room for another of its /64s.
    table.enter(site[3], Phase::idle, start);
    const ConnectionTable::Admission taken = table.admit("2001:db8:1:9::/64", later);
    ASSERT_EQ(taken.outcome, Outcome::admitted);
    ASSERT_TRUE(taken.victim);
    EXPECT_EQ(*taken.victim, site[3]);
    EXPECT_EQ(table.admit("2001:db8:1:a::/64", later).outcome, Outcome::clientFull);
    // A slot that ends is the site's again.
    table.remove(site[0]);
    admitted(table, "2001:db8:1:a::/64", later);
}

TEST(ConnectionTable, runningOutOfDescriptorsTakesASlotWorthTakingEvenBelowTheLimit) {
    ConnectionTable table(limits(100, 100));
    const auto serving = admitted(table, "a", start);
    table.enter(serving, Phase::busy, start);
    const auto idle = admitted(table, "b", start);
    EXPECT_EQ(table.evictOne(start), std::nullopt); // nobody has had their grace yet
    const auto taken = table.evictOne(start + seconds(2));
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->first, idle);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table.evictOne(start + seconds(2)), std::nullopt);
}

// A body announced large and sent slowly holds its memory for as long as it takes: when an
// upload waits for memory, the body that would hold it longest at its pace yields, provided
// that is longer than the horizon.
TEST(ConnectionTable, anUploadWaitingForMemoryTakesItFromTheSlowestLargeBody) {
    ConnectionTable table(limits(10, 10));
    const auto trickle = admitted(table, "a", start);
    const auto steady = admitted(table, "b", start);
    const auto silent = admitted(table, "c", start + seconds(9));
    const auto young = admitted(table, "d", start);
    table.enter(trickle, Phase::body, start);
    table.expect(trickle, 1'000'000);
    table.received(trickle, 1000); // 999 s to go at 100 bytes a second
    table.enter(steady, Phase::body, start);
    table.expect(steady, 1'000'000);
    table.received(steady, 500'000); // 10 s to go
    table.enter(silent, Phase::body, start + seconds(9));
    table.expect(silent, 1'000'000); // nothing in a second: forever to go
    table.enter(young, Phase::body, start + milliseconds(9900));
    table.expect(young, 1'000'000); // not judged yet
    const Clock::time_point now = start + seconds(10);

    EXPECT_EQ(table.evictSlowestBody(now, seconds(60)), silent);
    EXPECT_EQ(table.evictSlowestBody(now, seconds(60)), trickle);
    EXPECT_EQ(table.evictSlowestBody(now, seconds(60)), std::nullopt);
    EXPECT_EQ(table.evictSlowestBody(now, seconds(5)), steady);
    EXPECT_EQ(table.size(), 1u);
}

TEST(ConnectionTable, aWaitForRoomEndsWithTheFirstFreedSlotOrAtOnce) {
    ConnectionTable table(limits(1, 1));
    int calls = 0;
    table.whenRoom([&] { ++calls; });
    EXPECT_EQ(calls, 1); // room now

    const auto only = admitted(table, "a", start);
    table.whenRoom([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    table.enter(only, Phase::head, start);
    table.remove(only);
    EXPECT_EQ(calls, 2);
    table.remove(only); // twice, or unknown: nothing happens
    EXPECT_EQ(calls, 2);
}

} // namespace
} // namespace kestrin::host
