#include "framework/Ost.h"

#include <boost/locale/encoding_errors.hpp>
#include <boost/locale/encoding_utf.hpp>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace ost::filesystem {

std::u16string get_current_path() {
    std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
    if (!cwd) {
        throw std::runtime_error(std::string("Cannot read the working directory: ") +
                                 std::strerror(errno));
    }
    return i18n::to_ustring(cwd.get(), i18n::codecvt_string_to_ustring("UTF-8", true));
}

} // namespace ost::filesystem

namespace ost::i18n {

namespace conv = boost::locale::conv;

converter<char16_t, char> codecvt_string_to_ustring(const std::string& encoding, bool strict) {
    if (encoding != "UTF-8" && encoding != "utf-8") {
        throw std::runtime_error("Unsupported text encoding: " + encoding);
    }
    return converter<char16_t, char>(encoding, strict);
}

std::u16string to_ustring(const std::string& text, const converter<char16_t, char>& with) {
    try {
        return conv::utf_to_utf<char16_t>(text, with.isStrict() ? conv::stop : conv::skip);
    } catch (const conv::conversion_error&) {
        throw std::runtime_error("Invalid UTF-8 in text");
    }
}

std::string to_string(const std::u16string& text) {
    try {
        return conv::utf_to_utf<char>(text, conv::stop);
    } catch (const conv::conversion_error&) {
        throw std::runtime_error("Invalid UTF-16 in text");
    }
}

} // namespace ost::i18n
