#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace kestrin::file_upload::v1 {

// How a part's header block becomes the header map: shared by the upload service object's
// parser and the pipeline's allocation-free lookup of one parameter. Stateless; any thread.

using HeaderMap = std::map<std::string, std::string>;

// text without leading and trailing blanks (space, CR, LF).
[[nodiscard]] std::string_view trimBlanks(std::string_view text);

// Whether name occurs in field; inline, because most fields are shorter than the name and
// the rest rarely hold its first letter.
inline bool namesHeader(std::string_view field, std::string_view name) {
    if (field.size() < name.size()) {
        return false;
    }
    for (size_t i = 0; i + name.size() <= field.size(); ++i) {
        if (field[i] == name[0] && field.compare(i, name.size(), name) == 0) {
            return true;
        }
    }
    return false;
}

// Calls visit(key, value) for each parameter of a header block, in block order. Both are
// views with their blanks trimmed and their double quotes still in; the map records them
// with the quotes removed (assignWithoutQuotes).
template <typename Visit> void forEachHeaderParameter(std::string_view block, Visit&& visit) {
    // The block splits into lines at every CR and every LF, and each line into fields at ";",
    // empty pieces dropped. No field spans a line, so one pass that ends a field at any of
    // the three gives the same fields in the same order.
    constexpr std::string_view headerName = "Content-Disposition";
    size_t start = 0;
    for (size_t i = 0; i <= block.size(); ++i) {
        if (i < block.size() && block[i] != '\r' && block[i] != '\n' && block[i] != ';') {
            continue;
        }
        const std::string_view field = block.substr(start, i - start);
        start = i + 1;
        // The header's own name and type ("Content-Disposition: form-data") is no parameter.
        if (field.empty() || namesHeader(field, headerName)) {
            continue;
        }
        const size_t equals = field.find('=');
        // Without "=", equals + 1 wraps to 0 and the value is the field minus its last
        // character: odd, but it is how such fields have always been read.
        visit(trimBlanks(field.substr(0, equals)),
              trimBlanks(field.substr(equals + 1, field.size() - 1)));
    }
}

// Sets out to text with every double quote removed, reusing out's storage.
void assignWithoutQuotes(std::string& out, std::string_view text);

// Sets value to what the header map would hold under key after the block is parsed into an
// empty map: the value of the last field whose key, blanks trimmed and quotes removed, is
// key. Returns false when no field has that key. scratch is storage for unquoting keys.
// Nothing else of the block is kept, so nothing is allocated once value has room.
bool findLastParameter(std::string_view block, std::string_view key, std::string& value,
                       std::string& scratch);

} // namespace kestrin::file_upload::v1
