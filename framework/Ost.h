#pragma once

#include <string>

// The foundation library: the working directory and text conversions between 8-bit text and
// UTF-16. Invalid input never turns into a garbled name: conversions throw std::runtime_error.
namespace ost::filesystem {

// The process's working directory, in UTF-16.
std::u16string get_current_path();

} // namespace ost::filesystem

namespace ost::i18n {

// Describes a conversion from From-text in a named encoding to To-text.
template <typename To, typename From> class converter {
public:
    converter(std::string encodingName, bool strictMode)
        : encoding(std::move(encodingName))
        , strict(strictMode) {}
    const std::string& getEncoding() const noexcept { return encoding; }
    // Strict: invalid input throws. Otherwise invalid sequences are skipped.
    bool isStrict() const noexcept { return strict; }

private:
    std::string encoding;
    bool strict;
};

// A converter from 8-bit text in encoding to UTF-16. Only UTF-8 is known; any other name
// throws std::runtime_error.
converter<char16_t, char> codecvt_string_to_ustring(const std::string& encoding, bool strict);

std::u16string to_ustring(const std::string& text, const converter<char16_t, char>& with);

// UTF-16 to UTF-8; throws std::runtime_error on invalid UTF-16.
std::string to_string(const std::u16string& text);

} // namespace ost::i18n
