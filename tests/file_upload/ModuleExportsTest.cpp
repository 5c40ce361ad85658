#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <string>

// Loads the built module the way the framework does and reads its identification strings.
TEST(ModuleExports, identificationStringsAreReachableThroughDlsym) {
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
    // The compiler's date text: "Nov 23 2026", day padded with a blank.
    std::string date = read("libqvkestrinfileuploadimpl_build_date");
    ASSERT_EQ(date.size(), 11u);
    EXPECT_NE(std::string("JanFebMarAprMayJunJulAugSepOctNovDec").find(date.substr(0, 3)),
              std::string::npos);
    // Internals stay hidden.
    EXPECT_EQ(::dlsym(module, "_ZN7kestrin11file_upload2v114makeResultPageESt17basic_string_"
                              "viewIcSt11char_traitsIcEE"),
              nullptr);
    ::dlclose(module);
}
