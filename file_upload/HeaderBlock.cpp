#include "file_upload/HeaderBlock.h"

#include <cstring>

namespace kestrin::file_upload::v1 {

std::string_view trimBlanks(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\r' || c == '\n'; };
    size_t first = 0;
    while (first < text.size() && blank(text[first])) {
        ++first;
    }
    size_t end = text.size();
    while (end > first && blank(text[end - 1])) {
        --end;
    }
    return text.substr(first, end - first);
}

void assignWithoutQuotes(std::string& out, std::string_view text) {
    out.clear();
    for (;;) {
        const void* quote = std::memchr(text.data(), '"', text.size());
        if (quote == nullptr) {
            out.append(text);
            return;
        }
        const size_t at = static_cast<size_t>(static_cast<const char*>(quote) - text.data());
        out.append(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
}

bool findLastParameter(std::string_view block, std::string_view key, std::string& value,
                       std::string& scratch) {
    bool found = false;
    forEachHeaderParameter(block, [&](std::string_view fieldKey, std::string_view fieldValue) {
        if (fieldKey.find('"') != std::string_view::npos) {
            assignWithoutQuotes(scratch, fieldKey);
            fieldKey = scratch;
        }
        if (fieldKey == key) {
            assignWithoutQuotes(value, fieldValue);
            found = true;
        }
    });
    return found;
}

} // namespace kestrin::file_upload::v1
