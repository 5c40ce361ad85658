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

std::string responseHead(const boost::beast::http::response_header<>& head) {
    const unsigned version = head.version();
    const unsigned code = head.result_int();
    const boost::beast::string_view reason = head.reason();
    std::string out;
    out.reserve(256);
    char statusLine[] = "HTTP/x.x xxx ";
    statusLine[5] = static_cast<char>('0' + version / 10 % 10);
    statusLine[7] = static_cast<char>('0' + version % 10);
    statusLine[9] = static_cast<char>('0' + code / 100 % 10);
    statusLine[10] = static_cast<char>('0' + code / 10 % 10);
    statusLine[11] = static_cast<char>('0' + code % 10);
    out.append(statusLine, sizeof statusLine - 1);
    out.append(reason.data(), reason.size());
    out += "\r\n";
    for (const auto& field : head) {
        const boost::beast::string_view name = field.name_string();
        const boost::beast::string_view value = field.value();
        out.append(name.data(), name.size());
        out += ": ";
        out.append(value.data(), value.size());
        out += "\r\n";
    }
    out += "\r\n";
    return out;
}

} // namespace kestrin::host
