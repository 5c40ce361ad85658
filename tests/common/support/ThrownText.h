#pragma once

#include <string>

namespace kestrin::testing {

// The text of the Exception that call throws, or a marker when it throws nothing; any other
// exception type passes through and fails the test.
template <typename Exception, typename Call> std::string thrownText(Call&& call) {
    try {
        call();
    } catch (const Exception& error) {
        return error.what();
    }
    return "<nothing thrown>";
}

} // namespace kestrin::testing
