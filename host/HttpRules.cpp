#include "host/HttpRules.h"

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/rfc7230.hpp>

namespace kestrin::host {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

std::optional<std::string> decodeTargetPath(std::string_view target) {
    const std::string_view path = target.substr(0, target.find('?'));
    std::string decoded;
    decoded.reserve(path.size());
    for (size_t i = 0; i < path.size(); ++i) {
        if (path[i] != '%') {
            decoded.push_back(path[i]);
            continue;
        }
        if (i + 2 >= path.size()) {
            return std::nullopt;
        }
        const int high = hexValue(path[i + 1]);
        const int low = hexValue(path[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

std::optional<std::string> findBoundaryParameter(std::string_view contentType) {
    // The parameters start at the first ';'; what comes before is the media type.
    const size_t start = contentType.find(';');
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    const boost::beast::http::param_list parameters(
        boost::beast::string_view(contentType.data() + start, contentType.size() - start));
    for (const auto& parameter : parameters) {
        if (boost::beast::iequals(parameter.first, "boundary")) {
            // Copied at once: the iterator owns the unquoted text.
            return std::string(parameter.second.data(), parameter.second.size());
        }
    }
    return std::nullopt;
}

} // namespace kestrin::host
