#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrin::host {

// How the server reads the two parts of a request that the routes and the module depend on.
// Pure functions, safe on any thread.

// The path of a request target: everything before the first '?', with every "%XX" escape
// decoded ("/ORVANE%20Drive" gives "/ORVANE Drive"). '+' stays '+', as it does in a path.
// Nothing when an escape is cut short or not hexadecimal.
[[nodiscard]] std::optional<std::string> decodeTargetPath(std::string_view target);

// The value of the "boundary" parameter of a Content-Type value, with the quotes and
// backslash escapes of a quoted value removed. The parameter name is matched without regard
// to case, as HTTP parameter names are. Nothing when the value has no such parameter.
[[nodiscard]] std::optional<std::string> findBoundaryParameter(std::string_view contentType);

} // namespace kestrin::host
