#include "host/DiskFileService.h"

#include "framework/Ost.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

namespace fs = std::filesystem;
using file_common::v1::File;
using file_common::v1::FileInfo;

// A fresh directory tree per test: root/uploads is the upload directory, so anything that
// escapes it shows up in root.
class DiskFileServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "kestrin-disk-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        root = fs::canonical(pattern);
        uploads = root / "uploads";
        fs::create_directory(uploads);
    }
    void TearDown() override { fs::remove_all(root); }

    static std::u16string u16(const std::string& text) {
        return ost::i18n::to_ustring(text, ost::i18n::codecvt_string_to_ustring("UTF-8", true));
    }
    Future<FileInfo> write(DiskFileService& service, const std::string& path,
                           const std::string& bytes, bool overwrite = true) {
        return service.writeFile(File(FileInfo(u16(path)), common::DataBuffer(bytes)), overwrite);
    }
    std::string in(const std::string& name) const { return (uploads / name).string(); }

    static std::string contents(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    static std::set<std::string> names(const fs::path& directory) {
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(directory)) {
            found.insert(entry.path().filename().string());
        }
        return found;
    }

    fs::path root;
    fs::path uploads;
};

TEST_F(DiskFileServiceTest, storesBytesExactlyAndReplacesAnExistingFileWithoutLeavingTempFiles) {
    DiskFileService service(uploads.string());
    const std::string binary("--\r\n\0\xff\r\n--x--\r\n", 14);

    const FileInfo stored = write(service, in("a.bin"), binary).get();
    EXPECT_EQ(stored.path, u16(in("a.bin")));
    EXPECT_EQ(contents(uploads / "a.bin"), binary);

    write(service, in("a.bin"), "short").get();
    EXPECT_EQ(contents(uploads / "a.bin"), "short");

    write(service, in("empty"), "").get();
    EXPECT_TRUE(fs::exists(uploads / "empty"));
    EXPECT_EQ(fs::file_size(uploads / "empty"), 0u);

    write(service, in("\xc3\xa9t\xc3\xa9 r\xc3\xa9sum\xc3\xa9.txt"), "utf-8").get();
    EXPECT_EQ(names(uploads), (std::set<std::string>{
                                  "a.bin", "empty", "\xc3\xa9t\xc3\xa9 r\xc3\xa9sum\xc3\xa9.txt"}));
}

TEST_F(DiskFileServiceTest, refusesEveryPathThatIsNotADirectChildAndWritesNothing) {
    DiskFileService service(uploads.string());
    const std::string dir = uploads.string();
    struct Case {
        std::string path;
        std::string reason;
    };
    const Case cases[] = {
        {dir + "/", "empty"},
        {dir + "/.", "names a directory"},
        {dir + "/..", "names a directory"},
        {dir + "/../escaped", "path separator"},
        {dir + "/sub/file", "path separator"},
        {dir + "//file", "path separator"},
        {dir + "/a" + std::string(1, '\0') + "b", "NUL"},
        {dir + "/.kestrin-upload-abc123", "reserved for temporary files"},
        {dir, "not in the upload directory"},
        {dir + "x/sibling", "not in the upload directory"},
        {(root / "outside").string(), "not in the upload directory"},
        {"relative", "not in the upload directory"},
    };
    for (const Case& bad : cases) {
        SCOPED_TRACE(bad.path);
        try {
            write(service, bad.path, "payload").get();
            ADD_FAILURE() << "stored";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(bad.reason), std::string::npos)
                << error.what();
        }
    }
    EXPECT_EQ(names(root), std::set<std::string>{"uploads"});
    EXPECT_TRUE(names(uploads).empty());
}

TEST_F(DiskFileServiceTest, withoutOverwriteAnExistingFileIsKept) {
    DiskFileService service(uploads.string());
    write(service, in("kept"), "first").get();
    EXPECT_THROW(write(service, in("kept"), "second", false).get(), std::runtime_error);
    EXPECT_EQ(contents(uploads / "kept"), "first");
    EXPECT_EQ(names(uploads), std::set<std::string>{"kept"});
}

TEST_F(DiskFileServiceTest, removesLeftoverTempFilesAtStartAndKeepsEverythingElse) {
    std::ofstream(uploads / ".kestrin-upload-Ab12Cd") << "half written";
    std::ofstream(uploads / "keep.txt") << "stored earlier";
    DiskFileService service(uploads.string());
    EXPECT_EQ(names(uploads), std::set<std::string>{"keep.txt"});
}

TEST_F(DiskFileServiceTest, startFailsForAMissingDirectory) {
    EXPECT_THROW(DiskFileService((root / "missing").string()), std::runtime_error);
}

// The module blocks on these futures, so they must be resolved by the service's own thread.
// The first write's continuation holds that thread, which keeps the second write pending
// until the test has attached its continuation.
TEST_F(DiskFileServiceTest, resolvesEveryFutureFromItsOneWriterThread) {
    DiskFileService service(uploads.string());
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<std::thread::id> first{};
    std::atomic<std::thread::id> second{};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::promise<void> firstDone;
    std::promise<void> secondDone;

    Future<FileInfo> one = write(service, in("one"), std::string(1 << 20, 'x'));
    one.then([&](Future<FileInfo>& resolved) {
        first = std::this_thread::get_id();
        resolved.get();
        if (first.load() != caller) {
            opened.wait();
        }
        firstDone.set_value();
    });
    if (first.load() == caller) {
        GTEST_SKIP() << "the first write finished before its continuation was attached";
    }
    Future<FileInfo> two = write(service, in("two"), "2");
    two.then([&](Future<FileInfo>& resolved) {
        second = std::this_thread::get_id();
        resolved.get();
        secondDone.set_value();
    });
    gate.set_value();
    firstDone.get_future().get();
    secondDone.get_future().get();
    EXPECT_NE(first.load(), caller);
    EXPECT_EQ(second.load(), first.load());
}

// A write that holds its writer thread (here: its continuation waits on the test) must not
// keep another write from being stored and resolved.
TEST_F(DiskFileServiceTest, aHeldWriterDoesNotHoldUpTheOtherWriters) {
    DiskFileService service(uploads.string(), 2);
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<std::thread::id> holder{};
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();

    // The slow continuation must be over before this test's locals go away.
    std::promise<void> slowDone;
    std::future<void> slowFinished = slowDone.get_future();
    Future<FileInfo> slow = write(service, in("slow"), std::string(1 << 20, 's'));
    slow.then([&, opened](Future<FileInfo>& resolved) {
        holder = std::this_thread::get_id();
        resolved.get();
        if (holder.load() != caller) {
            opened.wait();
        }
        slowDone.set_value();
    });
    if (holder.load() == caller) {
        gate.set_value();
        GTEST_SKIP() << "the first write finished before its continuation was attached";
    }
    std::promise<void> fastDone;
    Future<FileInfo> fast = write(service, in("fast"), "f");
    fast.then([&](Future<FileInfo>& resolved) {
        resolved.get();
        fastDone.set_value();
    });
    // Bounded only so that a regression fails instead of hanging the suite.
    const bool stored =
        fastDone.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    gate.set_value();
    slowFinished.wait();
    EXPECT_TRUE(stored);
    EXPECT_EQ(contents(uploads / "fast"), "f");
}

// Every write accepted before the service goes away is stored and resolved, whichever of its
// writers takes it.
TEST_F(DiskFileServiceTest, writesQueuedBeforeDestructionAreAllStored) {
    std::vector<Future<FileInfo>> futures;
    std::set<std::string> expected;
    {
        DiskFileService service(uploads.string(), 4);
        for (int i = 0; i < 40; ++i) {
            const std::string name = "f" + std::to_string(i);
            futures.push_back(write(service, in(name), name));
            expected.insert(name);
        }
    }
    for (Future<FileInfo>& future : futures) {
        future.get();
    }
    EXPECT_EQ(names(uploads), expected);
    EXPECT_EQ(contents(uploads / "f39"), "f39");
}

} // namespace
} // namespace kestrin::host
