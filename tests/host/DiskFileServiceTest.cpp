#include "host/DiskFileService.h"

#include "framework/Ost.h"
#include "tests/host/support/UploadDirectoryTest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::host {
namespace {

using file_common::v1::File;
using file_common::v1::FileInfo;

// Which names the module can send at all is checked end to end (test_hostile.py); here are
// the paths only a caller of the service itself can hand in.
class DiskFileServiceTest : public UploadDirectoryTest {
protected:
    static std::u16string u16(const std::string& text) {
        return ost::i18n::to_ustring(text, ost::i18n::codecvt_string_to_ustring("UTF-8", true));
    }
    Future<FileInfo> write(DiskFileService& service, const std::string& path,
                           const std::string& bytes, bool overwrite = true) {
        return service.writeFile(File(FileInfo(u16(path)), common::DataBuffer(bytes)), overwrite);
    }
    std::string in(const std::string& name) const { return (uploads / name).string(); }
};

TEST_F(DiskFileServiceTest, storesBytesExactlyReplacesOnlyWhenAskedAndLeavesNoTempFiles) {
    DiskFileService service(uploads.string());
    const std::string binary("--\r\n\0\xff\r\n--x--\r\n", 14);
    EXPECT_EQ(write(service, in("a.bin"), binary).get().path, u16(in("a.bin")));
    EXPECT_EQ(contents(uploads / "a.bin"), binary);
    write(service, in("a.bin"), "short").get();
    EXPECT_EQ(contents(uploads / "a.bin"), "short");
    EXPECT_THROW(write(service, in("a.bin"), "kept", false).get(), std::runtime_error);
    EXPECT_EQ(contents(uploads / "a.bin"), "short");
    write(service, in("empty"), "").get();
    // Large files go out in windows of 8 MiB: several whole ones and a ragged end.
    std::string large(2 * (8 << 20) + 4096 * 3 + 123, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 131 + (i >> 20));
    }
    write(service, in("large"), large).get();
    EXPECT_TRUE(contents(uploads / "large") == large);
    EXPECT_EQ(names(uploads), (std::set<std::string>{"a.bin", "empty", "large"}));
}

TEST_F(DiskFileServiceTest, refusesEveryPathThatIsNotADirectChildAndWritesNothing) {
    DiskFileService service(uploads.string());
    const std::string dir = uploads.string();
    const std::pair<std::string, std::string> cases[] = {
        {dir + "/sub/file", "path separator"},
        {dir + "//file", "path separator"},
        {dir, "not in the upload directory"},
        {dir + "x/sibling", "not in the upload directory"},
        {(root / "outside").string(), "not in the upload directory"},
        {"relative", "not in the upload directory"},
    };
    for (const auto& [path, reason] : cases) {
        SCOPED_TRACE(path);
        try {
            write(service, path, "payload").get();
            ADD_FAILURE() << "stored";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
        }
    }
    EXPECT_EQ(names(root), std::set<std::string>{"uploads"});
    EXPECT_TRUE(names(uploads).empty());
}

TEST_F(DiskFileServiceTest, startRemovesOnlyLeftoverTempFilesAndFailsForAMissingDirectory) {
    std::ofstream(uploads / ".kestrin-upload-Ab12Cd") << "half written";
    std::ofstream(uploads / "keep.txt") << "stored earlier";
    DiskFileService service(uploads.string());
    EXPECT_EQ(names(uploads), std::set<std::string>{"keep.txt"});
    EXPECT_THROW(DiskFileService((root / "missing").string()), std::runtime_error);
}

// The module blocks on these futures from its continuations, so a write whose continuation
// holds its writer thread must not keep another writer from storing and resolving.
TEST_F(DiskFileServiceTest, aHeldWriterDoesNotHoldUpTheOtherWriters) {
    DiskFileService service(uploads.string(), 2);
    const std::thread::id caller = std::this_thread::get_id();
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::promise<bool> heldOnCaller;
    std::future<bool> held = heldOnCaller.get_future();
    std::promise<void> slowDone;
    Future<FileInfo> slow = write(service, in("slow"), std::string(1 << 20, 's'));
    slow.then([&, opened](Future<FileInfo>& resolved) {
        resolved.get();
        // Resolved before the continuation was attached: then it runs right here.
        const bool onCaller = std::this_thread::get_id() == caller;
        heldOnCaller.set_value(onCaller);
        if (!onCaller) {
            opened.wait();
        }
        slowDone.set_value();
    });
    if (held.get()) {
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
    slowDone.get_future().wait();
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
