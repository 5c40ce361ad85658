#include "host/ClientKey.h"

#include <algorithm>

namespace kestrin::host {

namespace ip = boost::asio::ip;

std::string clientKey(const ip::address& address) {
    if (address.is_v4()) {
        return address.to_string();
    }
    const ip::address_v6 v6 = address.to_v6();
    if (v6.is_v4_mapped()) {
        return ip::make_address_v4(ip::v4_mapped, v6).to_string();
    }
    ip::address_v6::bytes_type prefix = v6.to_bytes();
    std::fill(prefix.begin() + 8, prefix.end(), 0);
    return ip::address_v6(prefix).to_string() + "/64";
}

} // namespace kestrin::host
