#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::file_upload::v1 {

// How a part's header block becomes the header map: shared by the upload service object's
// parser and the pipeline's allocation-free variant of it. Stateless; any thread.

using HeaderMap = std::map<std::string, std::string>;

// text without leading and trailing blanks (space, CR, LF).
[[nodiscard]] std::string_view trimBlanks(std::string_view text);

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
        if (field.empty() ||
            (field.size() >= headerName.size() && field.find(headerName) != field.npos)) {
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

// Empties headers, then records the block's parameters in it: the map that clearing it and
// parsing the block gives. The nodes taken out, and those left over, wait in spare with their
// strings' storage for the next block, so that a body of many parts parses its blocks
// without allocating.
void parseHeaderBlockReusingNodes(std::string_view block, HeaderMap& headers,
                                  std::vector<HeaderMap::node_type>& spare);

} // namespace kestrin::file_upload::v1
