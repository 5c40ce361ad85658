#include "framework/Ost.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

TEST(Ost, workingDirectoryAndNamesRoundTripThroughUtf16) {
    char cwd[PATH_MAX];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    std::u16string path = ost::filesystem::get_current_path();
    EXPECT_EQ(ost::i18n::to_string(path), cwd);

    // A directory deeper than PATH_MAX is still read, whole.
    char base[] = "/tmp/kestrin-deep-XXXXXX";
    ASSERT_NE(::mkdtemp(base), nullptr);
    ASSERT_EQ(::chdir(base), 0);
    const std::string step(200, 'd');
    std::string deep = base;
    int depth = 0;
    for (; deep.size() <= PATH_MAX && ::mkdir(step.c_str(), 0700) == 0; ++depth) {
        EXPECT_EQ(::chdir(step.c_str()), 0);
        deep += "/" + step;
    }
    std::string read;
    EXPECT_NO_THROW(read = ost::i18n::to_string(ost::filesystem::get_current_path()));
    EXPECT_EQ(read, deep);
    for (; depth > 0; --depth) {
        EXPECT_EQ(::chdir(".."), 0);
        ::rmdir(step.c_str());
    }
    EXPECT_EQ(::chdir(cwd), 0);
    ::rmdir(base);

    auto utf8 = ost::i18n::codecvt_string_to_ustring("UTF-8", true);
    // "Grüße-日本.txt" with a character outside the basic plane.
    std::string name = "Gr\xC3\xBC\xC3\x9F"
                       "e-\xE6\x97\xA5\xE6\x9C\xAC-\xF0\x9F\x98\x80.txt";
    std::u16string wide = ost::i18n::to_ustring(name, utf8);
    EXPECT_EQ(wide, u"Grüße-日本-\U0001F600.txt");
    EXPECT_EQ(ost::i18n::to_string(wide), name);
}

TEST(Ost, invalidTextFailsInsteadOfProducingAGarbledName) {
    auto strict = ost::i18n::codecvt_string_to_ustring("UTF-8", true);
    for (std::string bad :
         {std::string("\xFF"), std::string("a\xC3"), std::string("\xED\xA0\x80")}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(ost::i18n::to_ustring(bad, strict), std::runtime_error);
    }
    EXPECT_THROW(ost::i18n::to_string(std::u16string(1, char16_t(0xD800))), std::runtime_error);
    EXPECT_THROW(ost::i18n::codecvt_string_to_ustring("ISO-8859-1", true), std::runtime_error);
}
