#include "host/AccessLog.h"

#include <cstdio>
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
    char hex[8];
    std::snprintf(hex, sizeof hex, "%s%02X", prefix, value);
    out += hex;
}

void field(std::string& out, std::string_view name, std::string_view quotedValue) {
    out += ",\"";
    out += name;
    out += "\":";
    out += quotedValue;
}

} // namespace

std::string AccessLog::rfc3339(std::chrono::system_clock::time_point time) {
    const auto since = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(since - seconds);
    const std::time_t whole = static_cast<std::time_t>(seconds.count());
    std::tm parts{};
    ::gmtime_r(&whole, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<int>(millis.count()));
    return text;
}

namespace {

// Quotes text: a quote and a backslash get a backslash, a control byte becomes controlEscape
// and two hex digits, and a byte that starts no UTF-8 sequence becomes invalid (or, when that
// is empty, is escaped like a control byte).
std::string quote(std::string_view text, const char* controlEscape, std::string_view invalid) {
    std::string out = "\"";
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
    return out;
}

} // namespace

std::string AccessLog::quoteText(std::string_view text) {
    return quote(text, "\\x", {});
}

std::string AccessLog::quoteJson(std::string_view text) {
    return quote(text, "\\u00", "\xEF\xBF\xBD");
}

std::string AccessLog::request(const RequestRecord& record) const {
    const LogLevel level = levelOf(record.status);
    const double ms = static_cast<double>(record.duration.count()) / 1000.0;
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.1f", ms);
    std::string line;
    if (format == LogFormat::json) {
        line = "{\"time\":\"" + rfc3339(record.time) + "\",\"level\":\"" + levelName(level, false) +
               "\",\"event\":\"request\"";
        field(line, "client", quoteJson(record.client));
        field(line, "method", quoteJson(record.method));
        field(line, "target", quoteJson(record.target));
        field(line, "status", std::to_string(record.status));
        field(line, "bytes_in", std::to_string(record.bytesIn));
        field(line, "duration_ms", duration);
        if (!record.user.empty()) {
            field(line, "user", quoteJson(record.user));
        }
        if (record.files != nullptr && !record.files->empty()) {
            std::string files = "[";
            for (const auto& [name, size] : *record.files) {
                files += files.size() > 1 ? "," : "";
                files += "{\"name\":" + quoteJson(name) + ",\"size\":" + std::to_string(size) + "}";
            }
            files += "]";
            field(line, "files", files);
        }
        if (record.filesNotListed > 0) {
            field(line, "files_not_listed", std::to_string(record.filesNotListed));
        }
        if (!record.reason.empty()) {
            field(line, "reason", quoteJson(record.reason));
        }
        line += "}\n";
        return line;
    }
    line = rfc3339(record.time) + " " + levelName(level, true) + " " + std::string(record.client) +
           " " + std::string(record.method); // a token: the parser let no other byte in
    line += " " + quoteText(record.target) + " " + std::to_string(record.status) +
            " in=" + std::to_string(record.bytesIn) + " ms=" + duration;
    if (!record.user.empty()) {
        line += " user=" + quoteText(record.user);
    }
    if (record.files != nullptr && !record.files->empty()) {
        line += " files=";
        bool first = true;
        for (const auto& [name, size] : *record.files) {
            line += first ? "" : ",";
            line += quoteText(name) + ":" + std::to_string(size);
            first = false;
        }
    }
    if (record.filesNotListed > 0) {
        line += " +" + std::to_string(record.filesNotListed) + " files";
    }
    if (!record.reason.empty()) {
        line += " reason=" + quoteText(record.reason);
    }
    line += "\n";
    return line;
}

std::string AccessLog::event(std::chrono::system_clock::time_point time, LogLevel level,
                             std::string_view message) const {
    if (format == LogFormat::json) {
        return "{\"time\":\"" + rfc3339(time) + "\",\"level\":\"" + levelName(level, false) +
               "\",\"event\":\"server\",\"message\":" + quoteJson(message) + "}\n";
    }
    std::string line = rfc3339(time) + " " + levelName(level, true) + " ";
    // The server's own words, but they may quote what a client sent: no line breaks.
    for (const char c : message) {
        line += (c == '\n' || c == '\r') ? ' ' : c;
    }
    return line + "\n";
}

} // namespace kestrin::host
