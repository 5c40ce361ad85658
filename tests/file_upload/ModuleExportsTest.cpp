#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <regex>
#include <string>

// Loads the built module the way the framework does and reads its identification strings.
TEST(ModuleExports, identificationStringsAreReachableThroughDlsym)
{
    void* module = ::dlopen(KESTRIN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << ::dlerror();
    auto read = [&](const char* name) -> std::string {
        auto pointer = static_cast<const char* const*>(::dlsym(module, name));
        if (pointer == nullptr || *pointer == nullptr) {
            ADD_FAILURE() << name << " missing";
            return {};
        }
        return *pointer;
    };
    EXPECT_EQ(read("libqvkestrinfileuploadimpl_relative_path"),
              "bin/zarnix/libqvkestrinfileuploadimpl.so");
    EXPECT_EQ(read("libqvkestrinfileuploadimpl_version"), KESTRIN_MODULE_VERSION);
    EXPECT_TRUE(std::regex_match(read("libqvkestrinfileuploadimpl_version"),
                                 std::regex(R"(\d+\.\d+\.\d+\.\d+)")));
    EXPECT_TRUE(std::regex_match(read("libqvkestrinfileuploadimpl_build_date"),
                                 std::regex(R"((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3]\d \d{4})")));
    // Internals stay hidden.
    EXPECT_EQ(::dlsym(module, "_ZN7kestrin11file_upload2v114makeResultPageESt17basic_string_viewIcSt11char_traitsIcEE"), nullptr);
    ::dlclose(module);
}
