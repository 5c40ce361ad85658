#include "host/ClientKey.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace kestrin::host {

namespace ip = boost::asio::ip;

namespace {

ip::address unmapped(const ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return ip::make_address_v4(ip::v4_mapped, address.to_v6());
    }
    return address;
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// One hop of X-Forwarded-For: an address, an IPv6 one perhaps in brackets, either perhaps with
// a port, as proxies write them.
std::optional<ip::address> hopAddress(std::string_view hop) {
    hop = trimmed(hop);
    if (!hop.empty() && hop.front() == '[') {
        const std::size_t close = hop.find(']');
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        hop = hop.substr(1, close - 1);
    } else if (std::count(hop.begin(), hop.end(), ':') == 1) {
        hop = hop.substr(0, hop.find(':')); // IPv4 with a port
    }
    boost::system::error_code ec;
    const ip::address address = ip::make_address(std::string(hop), ec);
    if (ec) {
        return std::nullopt;
    }
    return unmapped(address);
}

} // namespace

std::string clientKey(const ip::address& address) {
    const ip::address client = unmapped(address);
    if (client.is_v4()) {
        return client.to_string();
    }
    ip::address_v6::bytes_type prefix = client.to_v6().to_bytes();
    std::fill(prefix.begin() + 8, prefix.end(), 0);
    return ip::address_v6(prefix).to_string() + "/64";
}

std::string siteOf(std::string_view key) {
    constexpr std::string_view suffix = "/64";
    if (key.size() <= suffix.size() || key.substr(key.size() - suffix.size()) != suffix) {
        return {};
    }
    boost::system::error_code ec;
    const ip::address_v6 prefix =
        ip::make_address_v6(std::string(key.substr(0, key.size() - suffix.size())), ec);
    if (ec) {
        return {};
    }
    ip::address_v6::bytes_type site = prefix.to_bytes();
    std::fill(site.begin() + 6, site.end(), 0);
    return ip::address_v6(site).to_string() + "/48";
}

std::string clientsOfSite(std::string_view site) {
    return "the /64s of " + std::string(site);
}

void TrustedProxies::add(std::string_view network) {
    const std::size_t slash = network.find('/');
    const std::string address(network.substr(0, slash));
    boost::system::error_code ec;
    const ip::address parsed = ip::make_address(address, ec);
    if (ec) {
        throw std::invalid_argument("expected ADDRESS or ADDRESS/PREFIX: " + address +
                                    " is no IP address");
    }
    const ip::address base = unmapped(parsed);
    const unsigned most = base.is_v4() ? 32 : 128;
    unsigned prefix = most;
    if (slash != std::string_view::npos) {
        const std::string_view digits = network.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            !std::all_of(digits.begin(), digits.end(),
                         [](char c) { return c >= '0' && c <= '9'; }) ||
            std::stoul(std::string(digits)) > most) {
            throw std::invalid_argument("expected a prefix length from 0 to " +
                                        std::to_string(most) + " after /");
        }
        prefix = static_cast<unsigned>(std::stoul(std::string(digits)));
    }
    if (base.is_v4()) {
        v4.push_back(ip::network_v4(base.to_v4(), prefix).canonical());
    } else {
        v6.push_back(ip::network_v6(base.to_v6(), prefix).canonical());
    }
}

bool TrustedProxies::trusts(const ip::address& address) const {
    const ip::address client = unmapped(address);
    if (client.is_v4()) {
        return std::any_of(v4.begin(), v4.end(), [&](const ip::network_v4& network) {
            return ip::network_v4(client.to_v4(), network.prefix_length()).canonical() == network;
        });
    }
    return std::any_of(v6.begin(), v6.end(), [&](const ip::network_v6& network) {
        return ip::network_v6(client.to_v6(), network.prefix_length()).canonical() == network;
    });
}

std::string forwardedFor(const boost::beast::http::fields& head) {
    std::string hops;
    const auto fields = head.equal_range("X-Forwarded-For");
    for (auto field = fields.first; field != fields.second; ++field) {
        if (!hops.empty()) {
            hops += ',';
        }
        hops.append(field->value().data(), field->value().size());
    }
    return hops;
}

ip::address forwardedClient(const ip::address& peer, std::string_view forwardedFor,
                            const TrustedProxies& trusted) {
    ip::address client = unmapped(peer);
    while (trusted.trusts(client) && !forwardedFor.empty()) {
        const std::size_t comma = forwardedFor.rfind(',');
        const std::string_view hop =
            comma == std::string_view::npos ? forwardedFor : forwardedFor.substr(comma + 1);
        forwardedFor =
            comma == std::string_view::npos ? std::string_view() : forwardedFor.substr(0, comma);
        const std::optional<ip::address> address = hopAddress(hop);
        if (!address) {
            break;
        }
        client = *address;
    }
    return client;
}

} // namespace kestrin::host
