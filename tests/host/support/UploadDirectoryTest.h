#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace kestrin::host {

// A fresh directory tree per test: root/uploads is the upload directory, so a file written
// anywhere else shows up in root. Removed with everything in it after the test.
class UploadDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestrin-host-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        root = std::filesystem::canonical(pattern);
        uploads = root / "uploads";
        std::filesystem::create_directory(uploads);
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    static std::string contents(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    // The entries of a directory, but for the owner file a running file service holds there.
    static std::set<std::string> names(const std::filesystem::path& directory) {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind(".kestrin-upload-owner-", 0) != 0) {
                found.insert(name);
            }
        }
        return found;
    }

    std::filesystem::path root;
    std::filesystem::path uploads;
};

} // namespace kestrin::host
