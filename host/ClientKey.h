#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>
#include <boost/beast/http/fields.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace kestrin::host {

// The name a client's shares of the server are kept under: its connections, its memory, its
// password checks and its TLS handshakes. An IPv4 address is itself, also when it comes mapped
// into IPv6, as on a listener for both. An IPv6 address counts by its /64 prefix: a home or a
// site is given a whole /64 and may pick addresses in it at will, so keyed by its address one
// client would have more shares than there are seconds in a year.
std::string clientKey(const boost::asio::ip::address& address);

// The /48 that the /64 of an IPv6 client key belongs to, as "2001:db8:1::/48": a site is
// commonly given a whole /48 and may hand out its 65,536 /64s at will, so that each of them
// having a share of its own would leave a site's clients unbounded together. Empty for an
// IPv4 key and for anything that is no IPv6 key: those belong to no site.
std::string siteOf(std::string_view clientKey);

// What the /64s of one site hold together, in shares of one client, unless the operator says
// otherwise (--ipv6-site-shares). Not fewer: an internet provider hands its homes a /56 or a
// /60 each, so a /48 may hold hundreds of them; a /48 bought to spray from still gets
// sixteen shares where it had up to 65,536.
constexpr unsigned defaultSiteShares = 16;

// How the log names the clients of a site whose share ran out: "the /64s of 2001:db8:1::/48".
std::string clientsOfSite(std::string_view site);

// The proxies (load balancers) whose word the server takes for where a request came from.
class TrustedProxies {
public:
    // network: ADDRESS or ADDRESS/PREFIX, IPv4 or IPv6. Throws std::invalid_argument saying
    // what is wrong.
    void add(std::string_view network);
    bool empty() const noexcept { return v4.empty() && v6.empty(); }
    bool trusts(const boost::asio::ip::address& address) const;

private:
    std::vector<boost::asio::ip::network_v4> v4;
    std::vector<boost::asio::ip::network_v6> v6;
};

// The client a request speaks for. From a peer that is not a trusted proxy: the peer, whatever
// the request says. From a trusted proxy: the hops of forwardedFor (the X-Forwarded-For
// fields joined by commas, the nearest hop last) are followed back while each is a trusted
// proxy too, and the first that is not is the client. A hop that is no address ends the walk
// at the one before it, so nothing beyond a forged or broken entry is believed. An IPv4
// address mapped into IPv6 comes back as IPv4.
// The X-Forwarded-For fields of a head joined by commas, in their order: one list of hops.
std::string forwardedFor(const boost::beast::http::fields& head);

boost::asio::ip::address forwardedClient(const boost::asio::ip::address& peer,
                                         std::string_view forwardedFor,
                                         const TrustedProxies& trusted);

} // namespace kestrin::host
