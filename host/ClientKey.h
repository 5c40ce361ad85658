#pragma once

#include <boost/asio/ip/address.hpp>

#include <string>

namespace kestrin::host {

// The name a client's shares of the server are kept under: its connections, its password
// checks and its TLS handshakes. An IPv4 address is itself, also when it comes mapped into
// IPv6, as on a listener for both. An IPv6 address counts by its /64 prefix: a home or a site
// is given a whole /64 and may pick addresses in it at will, so keyed by its address one
// client would have more shares than there are seconds in a year.
std::string clientKey(const boost::asio::ip::address& address);

} // namespace kestrin::host
