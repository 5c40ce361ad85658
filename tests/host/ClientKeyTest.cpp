#include "host/ClientKey.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrin::host {
namespace {

std::string key(const char* address) {
    return clientKey(boost::asio::ip::make_address(address));
}

// A client that may pick any address in its /64 must not get a share for each one.
TEST(ClientKey, anIpv6ClientCountsByItsPrefixAndAMappedIpv4ClientAsItself) {
    EXPECT_EQ(key("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(key("::ffff:192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(key("2001:db8:1:2:aaaa:bbbb:cccc:dddd"), "2001:db8:1:2::/64");
    EXPECT_EQ(key("2001:db8:1:2::1"), "2001:db8:1:2::/64");
    EXPECT_EQ(key("2001:db8:1:3::1"), "2001:db8:1:3::/64");
    EXPECT_EQ(key("fe80::1%1"), key("fe80::2"));

    // And its /64s by the /48 they come from; what is no IPv6 key belongs to no site.
    EXPECT_EQ(siteOf(key("2001:db8:1:2::1")), "2001:db8:1::/48");
    EXPECT_EQ(siteOf(key("2001:db8:1:ffff::1")), "2001:db8:1::/48");
    EXPECT_EQ(siteOf(key("2001:db8:abcd:12::1")), "2001:db8:abcd::/48");
    for (const char* none : {"192.0.2.7", "", "/64", "x/64", "192.0.2.7/64"}) {
        EXPECT_EQ(siteOf(none), "") << none;
    }
}

// Behind a load balancer every connection comes from the balancer. Only a proxy the operator
// named may say who the client is, and of what it forwards only the hops it vouches for count:
// a client may write anything in front of them.
TEST(ClientKey, onlyATrustedProxyNamesTheClientAndOnlyHopsItVouchesForCount) {
    TrustedProxies proxies;
    EXPECT_TRUE(proxies.empty());
    proxies.add("10.0.0.0/8");
    proxies.add("2001:db8::1");
    EXPECT_FALSE(proxies.empty());
    const auto client = [&](const char* peer, std::string_view forwarded) {
        return forwardedClient(boost::asio::ip::make_address(peer), forwarded, proxies).to_string();
    };
    EXPECT_EQ(client("192.0.2.7", "198.51.100.1"), "192.0.2.7");
    EXPECT_EQ(client("10.1.2.3", "198.51.100.1"), "198.51.100.1");
    EXPECT_EQ(client("::ffff:10.1.2.3", " 198.51.100.1:5000 "), "198.51.100.1");
    EXPECT_EQ(client("10.1.2.3", "[2001:db8:5::7]:443"), "2001:db8:5::7");
    // Forged hops in front of the one the proxy wrote, a chain of proxies walked back.
    EXPECT_EQ(client("10.1.2.3", "203.0.113.9, 198.51.100.1"), "198.51.100.1");
    EXPECT_EQ(client("2001:db8::1", "198.51.100.1, 10.9.9.9"), "198.51.100.1");
    EXPECT_EQ(client("10.1.2.3", "10.0.0.5, 10.0.0.6"), "10.0.0.5");
    // A hop that is no address ends the walk at the one before it.
    EXPECT_EQ(client("10.1.2.3", "198.51.100.1, unknown"), "10.1.2.3");
    EXPECT_EQ(client("10.1.2.3", "198.51.100.1,,10.0.0.2"), "10.0.0.2");
    EXPECT_EQ(client("10.1.2.3", ""), "10.1.2.3");

    EXPECT_TRUE(proxies.trusts(boost::asio::ip::make_address("10.255.255.255")));
    EXPECT_FALSE(proxies.trusts(boost::asio::ip::make_address("11.0.0.1")));
    EXPECT_FALSE(proxies.trusts(boost::asio::ip::make_address("2001:db8::2")));
    for (const char* bad :
         {"10.0.0.0/33", "10.0.0.0/", "proxy.example", "10.0.0.0/8x", "::1/129"}) {
        EXPECT_THROW(proxies.add(bad), std::invalid_argument) << bad;
    }
}

} // namespace
} // namespace kestrin::host
