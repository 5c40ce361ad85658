#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrin::host {

enum class LogFormat { text, json };

enum class LogLevel { info, warn, error };

// One answered request, as the log shows it.
struct RequestRecord {
    std::chrono::system_clock::time_point time;
    std::string_view client;
    std::string_view method;
    std::string_view target; // as it came, undecoded
    unsigned status = 0;
    std::uint64_t bytesIn = 0;
    std::chrono::microseconds duration{0};
    std::string_view user;   // empty without authentication
    std::string_view reason; // why a request was refused or failed; empty otherwise
    // Files stored, name and size, and how many more were stored than are listed.
    const std::vector<std::pair<std::string, std::uint64_t>>* files = nullptr;
    std::size_t filesNotListed = 0;
};

// Formats log lines: one line each, ending in a newline, with an RFC 3339 time in UTC to the
// millisecond. Text for people ("2026-11-23T09:14:07.512Z INFO 127.0.0.1 POST /users 200 ..."),
// JSON for machines (one object a line). Whatever a client sent (target, user, file names,
// reasons quoting them) is escaped, so that no client can forge a line or break the JSON.
// Stateless; any thread.
class AccessLog {
public:
    explicit AccessLog(LogFormat format)
        : format(format) {}

    std::string request(const RequestRecord& record) const;
    // A line of the server's own: start, stop, failures, counted events.
    std::string event(std::chrono::system_clock::time_point time, LogLevel level,
                      std::string_view message) const;

    static std::string rfc3339(std::chrono::system_clock::time_point time);

    // Quoted, for text lines: backslash, quote, control bytes and bytes that are not UTF-8 as
    // \xHH escapes.
    static std::string quoteText(std::string_view text);
    // A JSON string: control characters as \u00XX, bytes that are not UTF-8 as U+FFFD.
    static std::string quoteJson(std::string_view text);

private:
    LogFormat format;
};

} // namespace kestrin::host
