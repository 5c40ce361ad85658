#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <vector>

// The built module, loaded the way the framework loads it. Everything here is read from that
// file, never from the headers this test is compiled with: a framework binary relies on
// what was shipped.
namespace {

class LoadedModule {
public:
    LoadedModule()
        : handle(::dlopen(KESTRIN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL)) {}
    ~LoadedModule() {
        if (handle != nullptr) {
            ::dlclose(handle);
        }
    }

    // The value of an exported string pointer, or "" when it is missing.
    std::string exportedString(const char* name) const {
        auto pointer = static_cast<const char* const*>(::dlsym(handle, name));
        return pointer != nullptr && *pointer != nullptr ? *pointer : "";
    }

    void* handle;
};

// The module file's full symbol table, local symbols included, as offsets from where the
// file is loaded.
struct SymbolTable {
    std::multimap<uint64_t, std::string> functionsAt;
    std::map<std::string, Elf64_Sym> objects;
};

SymbolTable readSymbolTable(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    SymbolTable table;
    if (image.size() < sizeof(Elf64_Ehdr)) {
        return table;
    }
    Elf64_Ehdr header;
    std::memcpy(&header, image.data(), sizeof header);
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    std::memcpy(sections.data(), image.data() + header.e_shoff,
                header.e_shnum * sizeof(Elf64_Shdr));
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_SYMTAB) {
            continue;
        }
        const char* names = image.data() + sections[section.sh_link].sh_offset;
        for (size_t k = 0; k < section.sh_size / sizeof(Elf64_Sym); ++k) {
            Elf64_Sym symbol;
            std::memcpy(&symbol, image.data() + section.sh_offset + k * sizeof symbol,
                        sizeof symbol);
            const std::string name = names + symbol.st_name;
            if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC) {
                table.functionsAt.emplace(symbol.st_value, name);
            } else if (ELF64_ST_TYPE(symbol.st_info) == STT_OBJECT) {
                table.objects[name] = symbol;
            }
        }
    }
    return table;
}

std::string demangled(const std::string& name) {
    int status = 0;
    char* text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    std::string out = status == 0 ? text : name;
    std::free(text);
    return out;
}

} // namespace

TEST(ModuleExports, identificationStringsAreReachableThroughDlsym) {
    LoadedModule module;
    ASSERT_NE(module.handle, nullptr) << ::dlerror();
    EXPECT_EQ(module.exportedString("libqvkestrinfileuploadimpl_relative_path"),
              "bin/zarnix/libqvkestrinfileuploadimpl.so");
    const std::string version = module.exportedString("libqvkestrinfileuploadimpl_version");
    EXPECT_TRUE(std::regex_match(version, std::regex("[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+")))
        << "four numbers: " << version;
    // The compiler's date text: "Nov 23 2026", day padded with a blank.
    EXPECT_TRUE(std::regex_match(module.exportedString("libqvkestrinfileuploadimpl_build_date"),
                                 std::regex("(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                                            "[ 123][0-9] [0-9]{4}")));
    // Internals stay hidden.
    EXPECT_EQ(::dlsym(module.handle, "_ZN7kestrin11file_upload2v114makeResultPageESt17basic_"
                                     "string_viewIcSt11char_traitsIcEE"),
              nullptr);
}

// A framework binary calls these objects through their virtual slots by position, so the
// order below is part of the module's interface.
TEST(ModuleExports, virtualSlotsOfTheShippedClassesKeepTheirOrder) {
    LoadedModule module;
    ASSERT_NE(module.handle, nullptr) << ::dlerror();
    Dl_info info{};
    ASSERT_NE(::dladdr(::dlsym(module.handle, "libqvkestrinfileuploadimpl_version"), &info), 0);
    const auto base = reinterpret_cast<uintptr_t>(info.dli_fbase);
    const SymbolTable symbols = readSymbolTable(KESTRIN_MODULE_PATH);

    const struct {
        const char* vtable;
        std::string owner;
        std::vector<std::string> slots;
    } classes[] = {
        {"_ZTVN7kestrin11file_upload2v126MultipartUploadServiceImplE",
         "kestrin::file_upload::v1::MultipartUploadServiceImpl::",
         {"~MultipartUploadServiceImpl", "~MultipartUploadServiceImpl", "parseHeaders",
          "writeFileToDisk", "findBoundaryMarkerIndex", "findHeaderFieldsIndex",
          "extractDataFromRequest", "getPtr"}},
        {"_ZTVN7kestrin11file_upload2v120StreamSubscriberImplINS_6common10DataBufferEEE",
         "kestrin::file_upload::v1::StreamSubscriberImpl<kestrin::common::DataBuffer>::",
         {"~StreamSubscriberImpl", "~StreamSubscriberImpl", "onSubscribe", "onComplete",
          "getStatus", "onNext", "onError"}},
        {"_ZTVN7kestrin11file_upload2v130MultipartUploadServiceProviderE",
         "kestrin::file_upload::v1::MultipartUploadServiceProvider::",
         {"~MultipartUploadServiceProvider", "~MultipartUploadServiceProvider", "start", "stop",
          "processMessage", "handle"}},
        {"_ZTVN7kestrin16reactive_streams16OneShotPublisherINS_6common10DataBufferEEE",
         "kestrin::reactive_streams::OneShotPublisher<kestrin::common::DataBuffer>::",
         {"~OneShotPublisher", "~OneShotPublisher", "getStatus", "subscribe"}},
    };
    for (const auto& c : classes) {
        SCOPED_TRACE(c.owner);
        const auto vtable = symbols.objects.find(c.vtable);
        ASSERT_NE(vtable, symbols.objects.end()) << "no vtable in the module's symbol table";
        // Offset to the top and the type information come first, then one pointer a slot.
        EXPECT_EQ(vtable->second.st_size / sizeof(void*), c.slots.size() + 2);
        const auto* slots = reinterpret_cast<void* const*>(base + vtable->second.st_value) + 2;
        for (size_t k = 0; k < c.slots.size(); ++k) {
            // Identical bodies may share one address under several names.
            const uint64_t offset = reinterpret_cast<uintptr_t>(slots[k]) - base;
            std::string found;
            for (auto [at, end] = symbols.functionsAt.equal_range(offset); at != end; ++at) {
                found += demangled(at->second) + "; ";
            }
            EXPECT_TRUE(found.find(c.owner + c.slots[k] + "(") != std::string::npos)
                << "slot " << k << " holds " << found;
        }
    }
}
