#pragma once

#include <boost/beast/http/message.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace kestrin::host {

// How the server reads the two parts of a request that the routes and the module depend on,
// and writes the head of its answers. Pure functions, safe on any thread.

// The path of a request target: everything before the first '?', with every "%XX" escape
// decoded ("/ORVANE%20Drive" gives "/ORVANE Drive"). '+' stays '+', as it does in a path.
// Nothing when an escape is cut short or not hexadecimal.
[[nodiscard]] std::optional<std::string> decodeTargetPath(std::string_view target);

// The value of the "boundary" parameter of a Content-Type value, with the quotes and
// backslash escapes of a quoted value removed. The parameter name is matched without regard
// to case, as HTTP parameter names are. Nothing when the value has no such parameter.
[[nodiscard]] std::optional<std::string> findBoundaryParameter(std::string_view contentType);

// The bytes of a response's head as they go out: the status line with the head's reason (or
// the status's usual one), every field in its order, and the blank line. Beast's serializer
// writes the same bytes through a chain of buffer views; one string is cheaper to send.
[[nodiscard]] std::string responseHead(const boost::beast::http::response_header<>& head);

} // namespace kestrin::host
