#include "host/AccessLog.h"

#include <charconv>
#include <ctime>

namespace kestrin::host {

namespace {

const char* levelName(LogLevel level, bool upper) {
    switch (level) {
    case LogLevel::info:
        return upper ? "INFO" : "info";
    case LogLevel::warn:
        return upper ? "WARN" : "warn";
    case LogLevel::error:
        break;
    }
    return upper ? "ERROR" : "error";
}

LogLevel levelOf(unsigned status) {
    return status >= 500 ? LogLevel::error : status >= 400 ? LogLevel::warn : LogLevel::info;
}

// The length of the UTF-8 sequence at text[i], or 0 when none starts there. Overlong forms,
// surrogates and code points past U+10FFFF are not UTF-8.
std::size_t utf8Length(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned least = 0;
    std::uint32_t point = 0;
    if (lead < 0x80) {
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, least = 0x80, point = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, least = 0x800, point = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, least = 0x10000, point = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return 0;
        }
        point = (point << 6) | (byte(i + k) & 0x3F);
    }
    if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
        return 0;
    }
    return length;
}

void appendHex(std::string& out, const char* prefix, unsigned value) {
    static constexpr char digits[] = "0123456789ABCDEF";
    out += prefix;
    out += digits[(value >> 4) & 0xF];
    out += digits[value & 0xF];
}

void appendNumber(std::string& out, std::uint64_t value) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    out.append(text, end);
}

// Milliseconds to one decimal, rounded half up.
void appendMilliseconds(std::string& out, std::chrono::microseconds duration) {
    const auto count = duration.count() > 0 ? static_cast<std::uint64_t>(duration.count()) : 0;
    const std::uint64_t tenths = (count + 50) / 100;
    appendNumber(out, tenths / 10);
    out += '.';
    out += static_cast<char>('0' + tenths % 10);
}

// Two digits, or four, of a date or time.
void appendDigits(char* at, unsigned value, int count) {
    for (int i = count - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

void appendTime(std::string& out, std::chrono::system_clock::time_point time) {
    const auto since = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(since - seconds);
    // A busy server logs many lines a second: the calendar part is worked out once a second
    // on each thread.
    thread_local std::chrono::seconds cachedSecond{-1};
    thread_local char cached[20];
    if (seconds != cachedSecond) {
        const std::time_t whole = static_cast<std::time_t>(seconds.count());
        std::tm parts{};
        ::gmtime_r(&whole, &parts);
        char* text = cached;
        appendDigits(text, static_cast<unsigned>(parts.tm_year + 1900), 4);
        text[4] = '-';
        appendDigits(text + 5, static_cast<unsigned>(parts.tm_mon + 1), 2);
        text[7] = '-';
        appendDigits(text + 8, static_cast<unsigned>(parts.tm_mday), 2);
        text[10] = 'T';
        appendDigits(text + 11, static_cast<unsigned>(parts.tm_hour), 2);
        text[13] = ':';
        appendDigits(text + 14, static_cast<unsigned>(parts.tm_min), 2);
        text[16] = ':';
        appendDigits(text + 17, static_cast<unsigned>(parts.tm_sec), 2);
        text[19] = '.';
        cachedSecond = seconds;
    }
    char fraction[4];
    appendDigits(fraction, static_cast<unsigned>(millis.count()), 3);
    fraction[3] = 'Z';
    out.append(cached, sizeof cached);
    out.append(fraction, sizeof fraction);
}

} // namespace

std::string AccessLog::rfc3339(std::chrono::system_clock::time_point time) {
    std::string text;
    appendTime(text, time);
    return text;
}

namespace {

// Quotes text: a quote and a backslash get a backslash, a control byte becomes controlEscape
// and two hex digits, and a byte that starts no UTF-8 sequence becomes invalid (or, when that
// is empty, is escaped like a control byte).
void appendQuoted(std::string& out, std::string_view text, const char* controlEscape,
                  std::string_view invalid) {
    out += '"';
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const std::size_t length = utf8Length(text, i);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F || (length == 0 && invalid.empty())) {
            appendHex(out, controlEscape, c);
        } else if (length == 0) {
            out += invalid;
        } else {
            out.append(text.substr(i, length));
            i += length;
            continue;
        }
        ++i;
    }
    out += '"';
}

void appendText(std::string& out, std::string_view text) {
    appendQuoted(out, text, "\\x", {});
}

void appendJson(std::string& out, std::string_view text) {
    appendQuoted(out, text, "\\u00", "\xEF\xBF\xBD");
}

} // namespace

std::string AccessLog::quoteText(std::string_view text) {
    std::string out;
    appendText(out, text);
    return out;
}

std::string AccessLog::quoteJson(std::string_view text) {
    std::string out;
    appendJson(out, text);
    return out;
}

std::string AccessLog::request(const RequestRecord& record) const {
    const LogLevel level = levelOf(record.status);
    std::string line;
    line.reserve(160 + record.target.size());
    if (format == LogFormat::json) {
        line += "{\"time\":\"";
        appendTime(line, record.time);
        line += "\",\"level\":\"";
        line += levelName(level, false);
        line += "\",\"event\":\"request\",\"client\":";
        appendJson(line, record.client);
        line += ",\"method\":";
        appendJson(line, record.method);
        line += ",\"target\":";
        appendJson(line, record.target);
        line += ",\"status\":";
        appendNumber(line, record.status);
        line += ",\"bytes_in\":";
        appendNumber(line, record.bytesIn);
        line += ",\"duration_ms\":";
        appendMilliseconds(line, record.duration);
        if (!record.user.empty()) {
            line += ",\"user\":";
            appendJson(line, record.user);
        }
        if (record.files != nullptr && !record.files->empty()) {
            line += ",\"files\":[";
            bool first = true;
            for (const auto& [name, size] : *record.files) {
                line += first ? "{\"name\":" : ",{\"name\":";
                appendJson(line, name);
                line += ",\"size\":";
                appendNumber(line, size);
                line += '}';
                first = false;
            }
            line += ']';
        }
        if (record.filesNotListed > 0) {
            line += ",\"files_not_listed\":";
            appendNumber(line, record.filesNotListed);
        }
        if (!record.reason.empty()) {
            line += ",\"reason\":";
            appendJson(line, record.reason);
        }
        line += "}\n";
        return line;
    }
    appendTime(line, record.time);
    line += ' ';
    line += levelName(level, true);
    line += ' ';
    line += record.client;
    line += ' ';
    line += record.method; // a token: the parser let no other byte in
    line += ' ';
    appendText(line, record.target);
    line += ' ';
    appendNumber(line, record.status);
    line += " in=";
    appendNumber(line, record.bytesIn);
    line += " ms=";
    appendMilliseconds(line, record.duration);
    if (!record.user.empty()) {
        line += " user=";
        appendText(line, record.user);
    }
    if (record.files != nullptr && !record.files->empty()) {
        line += " files=";
        bool first = true;
        for (const auto& [name, size] : *record.files) {
            if (!first) {
                line += ',';
            }
            appendText(line, name);
            line += ':';
            appendNumber(line, size);
            first = false;
        }
    }
    if (record.filesNotListed > 0) {
        line += " +";
        appendNumber(line, record.filesNotListed);
        line += " files";
    }
    if (!record.reason.empty()) {
        line += " reason=";
        appendText(line, record.reason);
    }
    line += '\n';
    return line;
}

std::string AccessLog::event(std::chrono::system_clock::time_point time, LogLevel level,
                             std::string_view message) const {
    std::string line;
    if (format == LogFormat::json) {
        line += "{\"time\":\"";
        appendTime(line, time);
        line += "\",\"level\":\"";
        line += levelName(level, false);
        line += "\",\"event\":\"server\",\"message\":";
        appendJson(line, message);
        line += "}\n";
        return line;
    }
    appendTime(line, time);
    line += ' ';
    line += levelName(level, true);
    line += ' ';
    // The server's own words, but they may quote what a client sent: no line breaks.
    for (const char c : message) {
        line += (c == '\n' || c == '\r') ? ' ' : c;
    }
    line += '\n';
    return line;
}

} // namespace kestrin::host
