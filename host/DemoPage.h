#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrin::host {

// The page served at "/". One row per chosen or dropped file, each sent as a request of its
// own, at most three at a time, with its progress, a cancel button and its outcome in plain
// words beside the server's own text; a file over largestBody is refused before it is sent.
// Below it, a plain form posting into a hidden frame, for pages that embed the routes that way.
// Self-contained HTML, CSS and JavaScript; it loads nothing else.
[[nodiscard]] std::string renderDemoPage(std::uint64_t largestBody);

// The page's style sheet and script, each in a file of its own.
extern const std::string_view demoPageStyle;
extern const std::string_view demoPageScript;

} // namespace kestrin::host
