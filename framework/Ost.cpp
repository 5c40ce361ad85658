#include "framework/Ost.h"

#include <boost/locale/encoding_errors.hpp>
#include <boost/locale/encoding_utf.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace ost::filesystem {

std::u16string get_current_path() {
    // Uploads ask once for every part they store: the usual path fits on the stack, so the
    // question costs the system call and no allocation.
    char onStack[PATH_MAX];
    if (::getcwd(onStack, sizeof onStack) != nullptr) {
        const std::string_view path(onStack);
        // ASCII reads the same in UTF-16: no 8-bit copy on the way.
        if (std::all_of(path.begin(), path.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
            return std::u16string(path.begin(), path.end());
        }
        return i18n::to_ustring(std::string(path), i18n::codecvt_string_to_ustring("UTF-8", true));
    }
    std::unique_ptr<char, decltype(&std::free)> cwd(nullptr, &std::free);
    if (errno == ERANGE) {
        cwd.reset(::getcwd(nullptr, 0));
    }
    if (!cwd) {
        throw std::runtime_error(std::string("Cannot read the working directory: ") +
                                 std::strerror(errno));
    }
    return i18n::to_ustring(cwd.get(), i18n::codecvt_string_to_ustring("UTF-8", true));
}

} // namespace ost::filesystem

namespace ost::i18n {

namespace conv = boost::locale::conv;

namespace {

// Paths and names are mostly ASCII, which reads the same in every one of these encodings.
template <typename Text> bool isAscii(const Text& text) {
    return std::all_of(text.begin(), text.end(),
                       [](auto c) { return static_cast<uint32_t>(c) < 0x80; });
}

} // namespace

converter<char16_t, char> codecvt_string_to_ustring(const std::string& encoding, bool strict) {
    if (encoding != "UTF-8" && encoding != "utf-8") {
        throw std::runtime_error("Unsupported text encoding: " + encoding);
    }
    return converter<char16_t, char>(encoding, strict);
}

std::u16string to_ustring(const std::string& text, const converter<char16_t, char>& with) {
    if (isAscii(text)) {
        return std::u16string(text.begin(), text.end());
    }
    try {
        return conv::utf_to_utf<char16_t>(text, with.isStrict() ? conv::stop : conv::skip);
    } catch (const conv::conversion_error&) {
        throw std::runtime_error("Invalid UTF-8 in text");
    }
}

std::string to_string(const std::u16string& text) {
    if (isAscii(text)) {
        return std::string(text.begin(), text.end());
    }
    try {
        return conv::utf_to_utf<char>(text, conv::stop);
    } catch (const conv::conversion_error&) {
        throw std::runtime_error("Invalid UTF-16 in text");
    }
}

} // namespace ost::i18n
