#include "file_upload/HeaderBlock.h"

#include <algorithm>

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
    // One pass over text: values are short, and a search per quote costs more than it skips.
    out.resize(text.size());
    const auto end = std::remove_copy(text.begin(), text.end(), out.begin(), '"');
    out.resize(static_cast<size_t>(end - out.begin()));
}

bool findLastParameter(std::string_view block, std::string_view key, std::string& value,
                       std::string& scratch) {
    bool found = false;
    forEachHeaderParameter(block, [&](std::string_view fieldKey, std::string_view fieldValue) {
        // Removing quotes only shortens a key, and key holds none: a shorter one never
        // matches, and one of the same length matches only as it is.
        if (fieldKey.size() < key.size()) {
            return;
        }
        if (fieldKey.size() > key.size() && fieldKey.find('"') != std::string_view::npos) {
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
