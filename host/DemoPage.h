#pragma once

#include <string_view>

namespace kestrin::host {

// The page served at "/": a form that posts chosen files to one of the upload routes into a
// hidden frame, and a drop area that uploads with a progress bar. Both show the message the
// module's result page posts back: "SUCCESS" in green, any other text in red. Self-contained
// HTML, CSS and JavaScript; it loads nothing else.
extern const std::string_view demoPage;

} // namespace kestrin::host
