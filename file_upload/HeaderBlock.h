#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// Calls cut(i) for every i, in order, where block[i] ends a field: CR, LF or ";". Sixteen
// bytes at a time where the machine can, since a block is mostly field text.
template <typename Cut> void forEachFieldEnd(std::string_view block, Cut&& cut) {
    size_t i = 0;
#if defined(__SSE2__)
    const __m128i cr = _mm_set1_epi8('\r');
    const __m128i lf = _mm_set1_epi8('\n');
    const __m128i semicolon = _mm_set1_epi8(';');
    for (; i + 16 <= block.size(); i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block.data() + i));
        const __m128i ends =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, cr), _mm_cmpeq_epi8(bytes, lf)),
                         _mm_cmpeq_epi8(bytes, semicolon));
        for (unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(ends)); mask != 0;
             mask &= mask - 1) {
            cut(i + static_cast<size_t>(__builtin_ctz(mask)));
        }
    }
#endif
    for (; i < block.size(); ++i) {
        if (block[i] == '\r' || block[i] == '\n' || block[i] == ';') {
            cut(i);
        }
    }
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
    const auto fieldUpTo = [&](size_t end) {
        const std::string_view field = block.substr(start, end - start);
        start = end + 1;
        // The header's own name and type ("Content-Disposition: form-data") is no parameter.
        if (field.empty() || namesHeader(field, headerName)) {
            return;
        }
        const size_t equals = field.find('=');
        // Without "=", equals + 1 wraps to 0 and the value is the field minus its last
        // character: odd, but it is how such fields have always been read.
        visit(trimBlanks(field.substr(0, equals)),
              trimBlanks(field.substr(equals + 1, field.size() - 1)));
    };
    forEachFieldEnd(block, fieldUpTo);
    fieldUpTo(block.size());
}

// Sets out to text with every double quote removed, reusing out's storage.
void assignWithoutQuotes(std::string& out, std::string_view text);

// Sets value to what the header map would hold under key after the block is parsed into an
// empty map: the value of the last field whose key, blanks trimmed and quotes removed, is
// key, which holds no double quote. Returns false when no field has that key. scratch is
// storage for unquoting keys.
// Nothing else of the block is kept, so nothing is allocated once value has room.
bool findLastParameter(std::string_view block, std::string_view key, std::string& value,
                       std::string& scratch);

} // namespace kestrin::file_upload::v1
