#include "host/ClientKey.h"

#include <gtest/gtest.h>

#include <string>

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
}

} // namespace
} // namespace kestrin::host
