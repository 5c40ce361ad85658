#pragma once

#include "host/BasicAuth.h"

#include <boost/beast/core/detail/base64.hpp>

#include <atomic>
#include <chrono>
#include <crypt.h>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>

namespace kestrin::host {

// A hash made as a password file's author would make one, by the method (prefix) and cost
// (count, 0 for the default) a test picks; "" when the library refuses them.
inline std::string hashWith(const char* prefix, unsigned long count, std::string_view password) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    const auto data = std::make_unique<crypt_data>();
    const char* hash =
        crypt_gensalt_rn(prefix, count, nullptr, 0, setting, sizeof setting)
            ? crypt_rn(std::string(password).c_str(), setting, data.get(), sizeof(crypt_data))
            : nullptr;
    return hash ? hash : "";
}

// The cheapest modern hash here, well under a millisecond, for tests that check often.
inline std::string cheapHash(std::string_view password) {
    return hashWith("$6$", 1000, password);
}

inline std::string basicHeader(std::string_view credentials, std::string_view scheme = "Basic") {
    namespace base64 = boost::beast::detail::base64;
    std::string encoded(base64::encoded_size(credentials.size()), '\0');
    encoded.resize(base64::encode(encoded.data(), credentials.data(), credentials.size()));
    return std::string(scheme) + " " + encoded;
}

inline void PrintTo(BasicAuth::Outcome outcome, std::ostream* out) {
    constexpr const char* names[] = {"granted", "missing", "denied", "throttled"};
    *out << names[static_cast<int>(outcome)];
}

// The clock and cost meter of a BasicAuth under test: counts password checks, charges each
// the cost the test sets, and moves time only when the test says so. Any thread may use it.
class FakeMeter {
public:
    BasicAuth::Options options(std::chrono::nanoseconds budget = std::chrono::seconds(1)) {
        BasicAuth::Options result;
        result.budget = budget;
        result.now = [this] {
            const std::lock_guard<std::mutex> lock(mutex);
            return time;
        };
        result.measure = [this](const std::function<void()>& check) {
            check();
            ++checks;
            return std::chrono::nanoseconds(cost.load());
        };
        return result;
    }
    void advance(std::chrono::nanoseconds by) {
        const std::lock_guard<std::mutex> lock(mutex);
        time += by;
    }
    void setCost(std::chrono::nanoseconds perCheck) { cost = perCheck.count(); }
    int checkCount() const { return checks.load(); }

private:
    std::mutex mutex;
    std::chrono::steady_clock::time_point time{};
    std::atomic<std::chrono::nanoseconds::rep> cost{0};
    std::atomic<int> checks{0};
};

} // namespace kestrin::host
