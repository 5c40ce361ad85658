#include "host/DiskFileService.h"

#include "framework/Ost.h"
#include "tests/common/support/ThrownText.h"
#include "tests/host/support/UploadDirectoryTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kestrin::host {
namespace {

using file_common::v1::File;
using file_common::v1::FileInfo;
using kestrin::testing::thrownText;
using RequestScope = DiskFileService::RequestScope;

// How the module's names reach the page is checked end to end (test_hostile.py); here are the
// paths only a caller of the service itself can hand in, and the limits on names.
class DiskFileServiceTest : public UploadDirectoryTest {
protected:
    static std::u16string u16(const std::string& text) {
        return ost::i18n::to_ustring(text, ost::i18n::codecvt_string_to_ustring("UTF-8", true));
    }
    static std::string repeat(const std::string& text, size_t times) {
        std::string repeated;
        while (times-- > 0) {
            repeated += text;
        }
        return repeated;
    }
    Future<FileInfo> write(DiskFileService& service, const std::u16string& path,
                           const std::string& bytes, bool overwrite = true) {
        return service.writeFile(File(FileInfo(path), common::DataBuffer(bytes)), overwrite);
    }
    std::u16string in(const std::string& name) const { return u16((uploads / name).string()); }
    // The name a write stored its file under, or the text of its failure.
    std::string outcome(Future<FileInfo>&& written) const {
        try {
            const std::u16string path = written.get().path;
            const std::u16string prefix = in("");
            if (path.compare(0, prefix.size(), prefix) != 0) {
                return "<stored outside the upload directory>";
            }
            return ost::i18n::to_string(path.substr(prefix.size()));
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }
    // Every entry of the upload directory with its contents; a directory shows as "<dir>".
    std::map<std::string, std::string> snapshot() const {
        std::map<std::string, std::string> files;
        for (const std::string& name : names(uploads)) {
            files[name] =
                std::filesystem::is_directory(uploads / name) ? "<dir>" : contents(uploads / name);
        }
        return files;
    }
    // Syncs the directory, counting the calls; fails them while failing is set, and holds the
    // first one until held is released, if set: with one writer, that holds every later write.
    DiskFileService::DirectorySync countingSync() {
        return [this](int descriptor) {
            if (++syncs == 1 && held.valid()) {
                held.wait();
            }
            errno = EIO;
            return failing ? -1 : ::fsync(descriptor);
        };
    }

    std::atomic<int> syncs{0};
    std::atomic<bool> failing{false};
    std::shared_future<void> held;
};

TEST_F(DiskFileServiceTest, storesBytesExactlyReplacesOnlyWhenAskedAndLeavesNoTempFiles) {
    DiskFileService service(uploads.string());
    const std::string binary("--\r\n\0\xff\r\n--x--\r\n", 14);
    EXPECT_EQ(write(service, in("a.bin"), binary).get().path, in("a.bin"));
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

    // A stored file is readable by all, whatever the server's umask.
    for (const mode_t mask : {mode_t{077}, mode_t{022}}) {
        const mode_t before = ::umask(mask);
        DiskFileService masked(uploads.string());
        write(masked, in("mode"), "m").get();
        ::umask(before);
        struct stat status {};
        ASSERT_EQ(::stat((uploads / "mode").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0644u) << "umask " << mask;
    }
}

// A file is never seen in part, under any name: whoever looks at the directory while a large
// file is written finds nothing until the file is there whole, so a crash mid-write leaves
// nothing behind either.
TEST_F(DiskFileServiceTest, aFileBeingWrittenIsNotSeenInPartUnderAnyName) {
    DiskFileService service(uploads.string());
    const auto entries = [this] {
        std::set<std::string> found;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(uploads, error)) {
            found.insert(entry.path().filename().string());
        }
        return found;
    };
    const std::set<std::string> before = entries(); // the service's own owner file
    const std::string large(32 << 20, 'x');
    std::atomic<bool> done{false};
    std::thread writer([&] {
        write(service, in("large"), large).get();
        done = true;
    });
    std::set<std::string> partial;
    while (!done) {
        for (const std::string& name : entries()) {
            std::error_code error;
            const auto size = std::filesystem::file_size(uploads / name, error);
            if (before.count(name) == 0 && !error && size != large.size()) {
                partial.insert(name);
            }
        }
    }
    writer.join();
    EXPECT_EQ(partial, std::set<std::string>{});
    EXPECT_EQ(names(uploads), std::set<std::string>{"large"});
}

// Out of descriptors, as under a flood of connections, a store waits a little for one to come
// free rather than fail its request; when none does, it fails with the cause. Each case runs
// in a child process, which alone gives up its descriptors.
TEST_F(DiskFileServiceTest, aStoreWaitsBrieflyForADescriptorWhenNoneIsFree) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own checks need descriptors (a pipe to probe memory), and "
                    "with none free report errors that are not there";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto storeWithoutDescriptors = [this](bool oneComesFree) {
        DiskFileService service(uploads.string());
        const auto open = static_cast<rlim_t>(
            std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = open + 8;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        std::vector<int> taken;
        for (int descriptor; (descriptor = ::dup(STDIN_FILENO)) >= 0;) {
            taken.push_back(descriptor);
        }
        const auto freeOneSoon = [&] {
            return std::thread([&] {
                if (oneComesFree && !taken.empty()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    ::close(taken.back());
                    taken.pop_back();
                }
            });
        };
        std::string result;
        {
            RequestScope scope(service, 1);
            std::thread freeing = freeOneSoon();
            result = outcome(write(service, in("a.txt"), "a"));
            freeing.join();
            // The file's descriptor is free again once it is stored: taken back, the
            // directory's sync has to wait for one too.
            if (oneComesFree) {
                taken.push_back(::dup(STDIN_FILENO));
            }
            freeing = freeOneSoon();
            result += thrownText<std::runtime_error>([&] { scope.finish(); });
            freeing.join();
        }
        std::fprintf(stderr, "outcome: %s|\n", result.c_str());
        std::exit(0);
    };
    EXPECT_EXIT(storeWithoutDescriptors(true), ::testing::ExitedWithCode(0),
                "outcome: a\\.txt<nothing thrown>\\|");
    EXPECT_EXIT(storeWithoutDescriptors(false), ::testing::ExitedWithCode(0),
                "outcome: Cannot create a temporary file for a\\.txt: Too many open "
                "files<nothing thrown>\\|");
}

// Every refusal quotes at most a few hundred bytes of the client's text, cut at a character
// boundary, and no control character, whatever the name was.
TEST_F(DiskFileServiceTest, refusesEveryPathThatIsNotADirectChildOrNameThatIsUnsafeOrTooLong) {
    DiskFileService service(uploads.string());
    const std::string dir = uploads.string();
    const std::string control = "Refused file name: it contains a control character";
    const std::string tooLong = "Refused file name: it is longer than 255 bytes";
    const std::string outside = "not in the upload directory";
    std::u16string giant = u16(dir + "/") + std::u16string(size_t{16} << 20, u'n');
    std::vector<std::pair<std::u16string, std::string>> cases = {
        {u16(dir + "/sub/file"), "path separator"},
        {u16(dir + "//file"), "path separator"},
        {u16(dir), outside},
        {u16(dir + "x/sibling"), outside},
        {u16("relative\x1b[2J"), outside},
        {u16(dir + "/\x1b[2J\x1b[31mred"), control},
        {u16(dir + "/one\x01"), control},
        {u16(dir + "/\x1f"), control},
        {u16(dir + "/del\x7f.txt"), control},
        // Those would quote the name, so the control character is what they hear about.
        {u16(dir + "/a\x01/b"), control},
        {u16(dir + "/.kestrin-upload-\x1b"), control},
        {u16(dir + "/a/b") + u'\0', "it contains a NUL byte"},
        {u16(dir + "/" + repeat("\xc3\xa9", 128)), tooLong},
        {u16(dir + "/" + repeat("\xe2\x82\xac", 85) + "a"), tooLong},
        {u16(dir + "/" + repeat("\xf0\x9f\x98\x80", 63) + "abcd"), tooLong},
        {giant + u"/x", tooLong},
        {u16("/") + giant, outside},
    };
    // Quoted in part: the cut falls inside a character of three bytes, or of two UTF-16 units.
    for (const std::string wide : {"\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
        for (size_t shift = 0; shift < 3; ++shift) {
            cases.push_back(
                {u16("/" + std::string(shift, 'x') + repeat(wide, 500)), "...: it is " + outside});
        }
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto& [path, reason] = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + ": " + reason);
        const std::string message =
            thrownText<std::runtime_error>([&] { write(service, path, "payload").get(); });
        EXPECT_NE(message.find(reason), std::string::npos) << message;
        EXPECT_LE(message.size(), 300u);
        EXPECT_NO_THROW(u16(message)) << "cut inside a character";
        EXPECT_TRUE(std::none_of(message.begin(), message.end(), [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        })) << message;
    }
    EXPECT_EQ(names(root), std::set<std::string>{"uploads"});
    EXPECT_TRUE(names(uploads).empty());

    // 255 bytes of UTF-8 is the most, in characters of every width.
    const std::set<std::string> longest = {std::string(255, 'a'), repeat("\xc3\xa9", 127) + "a",
                                           repeat("\xe2\x82\xac", 85),
                                           repeat("\xf0\x9f\x98\x80", 63) + "abc"};
    for (const std::string& name : longest) {
        write(service, in(name), name).get();
    }
    EXPECT_EQ(names(uploads), longest);
}

// Instances sharing one directory: a start removes the temporary files of instances that are
// gone (owner file unlocked or missing) and old ones without an owner, and leaves alone those of
// a live instance, even one in this same process.
TEST_F(DiskFileServiceTest, startRemovesOnlyTheTemporaryFilesOfInstancesThatAreGone) {
    const auto everything = [this] {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(uploads)) {
            found.insert(entry.path().filename().string());
        }
        return found;
    };
    auto live = std::make_unique<DiskFileService>(uploads.string());
    const std::string liveOwner = ".kestrin-upload-owner-" + live->instanceId();
    const std::string liveTemp = ".kestrin-upload-" + live->instanceId() + "-Wr1t1n";
    std::ofstream(uploads / liveTemp) << "being written";
    // A crashed instance: its owner file is there, and nobody holds its lock.
    std::ofstream(uploads / ".kestrin-upload-owner-0123456789abcdef") << "pid 1";
    std::ofstream(uploads / ".kestrin-upload-0123456789abcdef-Ab12Cd") << "half";
    std::ofstream(uploads / ".kestrin-upload-fedcba9876543210-Ab12Cd") << "owner file gone";
    std::ofstream(uploads / ".kestrin-upload-Old123") << "an older version's";
    std::filesystem::last_write_time(uploads / ".kestrin-upload-Old123",
                                     std::filesystem::file_time_type::clock::now() -
                                         std::chrono::hours(2));
    std::ofstream(uploads / ".kestrin-upload-New123") << "maybe still written";
    std::ofstream(uploads / "keep.txt") << "stored earlier";

    std::set<std::string> kept = {liveOwner, liveTemp, ".kestrin-upload-New123", "keep.txt"};
    {
        DiskFileService starting(uploads.string());
        std::set<std::string> withStarting = kept;
        withStarting.insert(".kestrin-upload-owner-" + starting.instanceId());
        EXPECT_EQ(everything(), withStarting);
    }
    EXPECT_EQ(everything(), kept) << "a stopped instance removes its owner file";

    live.reset();
    DiskFileService after(uploads.string());
    EXPECT_EQ(names(uploads), (std::set<std::string>{".kestrin-upload-New123", "keep.txt"}));
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

TEST_F(DiskFileServiceTest, aRequestScopeStoresAtMostItsLimitAndSyncsTheDirectoryOnce) {
    DiskFileService service(uploads.string(), 2, countingSync());
    {
        RequestScope scope(service, 3);
        EXPECT_THROW(RequestScope(service, 1), std::logic_error);
        // A refused name is no file of the request. The limit counts writes not yet waited for.
        EXPECT_THROW(write(service, in(".."), "x").get(), std::runtime_error);
        std::vector<Future<FileInfo>> writes;
        for (const std::string name : {"a", "b", "c", "d"}) {
            writes.push_back(write(service, in(name), name));
        }
        EXPECT_EQ(thrownText<std::runtime_error>([&] { writes[3].get(); }),
                  "Refused file 'd': this request already stored 3 files, the most one request "
                  "may store");
        for (size_t i = 0; i < 3; ++i) {
            writes[i].get();
        }
        EXPECT_EQ(syncs, 0);
        scope.finish();
        scope.finish();
        EXPECT_EQ(syncs, 1);
        EXPECT_EQ(scope.filesStored(), 3u);
    }
    EXPECT_EQ(syncs, 1);
    // A request that stored nothing has nothing to make durable; one left without finish()
    // syncs as it goes; without a scope, every file syncs.
    {
        RequestScope scope(service, 0);
        EXPECT_THROW(write(service, in("e"), "e").get(), std::runtime_error);
    }
    {
        RequestScope scope(service, 2);
        write(service, in("f"), "f").get();
        write(service, in("g"), "g").get();
    }
    EXPECT_EQ(syncs, 2);
    write(service, in("h"), "h").get();
    EXPECT_EQ(syncs, 3);
    EXPECT_EQ(names(uploads), (std::set<std::string>{"a", "b", "c", "f", "g", "h"}));

    RequestScope scope(service, 1);
    write(service, in("kept"), "k").get();
    failing = true;
    const std::string failed = "Cannot make the stored files durable: Input/output error";
    EXPECT_EQ(thrownText<std::runtime_error>([&] { scope.finish(); }), failed);
    failing = false;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { scope.finish(); }), failed);
    EXPECT_EQ(contents(uploads / "kept"), "k");
}

// The server keeps a large part's block for the next request, so a scope hands each file's
// storage on, the very block the file arrived in, whether or not the file could be stored.
TEST_F(DiskFileServiceTest, aScopeHandsOnTheStorageOfEveryFileItWrote) {
    DiskFileService service(uploads.string(), 1, countingSync(), ConflictPolicy::refuse);
    std::vector<common::DataBuffer> handed;
    std::vector<const uint8_t*> blocks;
    auto writeTracked = [&](const std::string& name, const std::string& bytes) {
        common::DataBuffer content(bytes);
        blocks.push_back(content.bytes());
        return service.writeFile(File(FileInfo(in(name)), std::move(content)), false);
    };
    {
        RequestScope scope(service, 5);
        scope.keepStorage([&](common::DataBuffer&& block) { handed.push_back(std::move(block)); });
        writeTracked("a", "first").get();
        EXPECT_THROW(writeTracked("a", "second").get(), std::runtime_error);
    }
    writeTracked("b", "outside").get();
    ASSERT_EQ(handed.size(), 2u);
    for (size_t i = 0; i < handed.size(); ++i) {
        EXPECT_EQ(handed[i].bytes(), blocks[i]);
    }
    EXPECT_EQ(std::string(handed[1].bytes(), handed[1].bytes() + handed[1].getSize()), "second");
    EXPECT_EQ(contents(uploads / "a"), "first");
}

// The module writes on the request's thread, so a scope binds only that thread, and only for
// the service it was made for.
TEST_F(DiskFileServiceTest, aRequestScopeCountsOnlyItsOwnThreadsWritesToItsService) {
    DiskFileService service(uploads.string(), 1, countingSync());
    std::filesystem::create_directory(root / "other");
    DiskFileService other((root / "other").string());
    RequestScope scope(service, 1);
    write(service, in("mine"), "m").get();
    std::thread([&] {
        write(service, in("t1"), "1").get();
        write(service, in("t2"), "2").get();
    }).join();
    EXPECT_EQ(syncs, 2);
    write(other, u16((root / "other" / "elsewhere").string()), "e").get();
    EXPECT_THROW(write(service, in("over"), "o").get(), std::runtime_error);
    scope.finish();
    EXPECT_EQ(syncs, 3);
    EXPECT_EQ(names(uploads), (std::set<std::string>{"mine", "t1", "t2"}));
    EXPECT_EQ(names(root / "other"), std::set<std::string>{"elsewhere"});
}

// Refusals and a request's own writes cost no writer: they are answered, and the request's
// file stored, while the only writer is held.
TEST_F(DiskFileServiceTest, refusalsAndARequestsOwnWritesNeedNoWriter) {
    std::promise<void> release;
    held = release.get_future().share();
    std::atomic<int> answered{0}; // outlives the writer, should a refusal wait for it
    DiskFileService service(uploads.string(), 1, countingSync());
    Future<FileInfo> first = write(service, in("held"), "h");
    // The held write's directory sync must be the first one, the one that is held.
    for (int i = 0; i < 10000 && syncs == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    RequestScope scope(service, 1);
    std::string mine;
    write(service, in("mine"), "m").then([&](Future<FileInfo>& f) {
        mine = outcome(std::move(f));
    });
    EXPECT_EQ(mine, "mine");
    write(service, in(".."), "x").then([&](Future<FileInfo>&) { ++answered; });
    write(service, in("over"), "o").then([&](Future<FileInfo>&) { ++answered; });
    EXPECT_EQ(answered, 2);
    // A directory sync waits for one under way, which is the held one.
    release.set_value();
    first.get();
    scope.finish();
    EXPECT_EQ(syncs, 2);
    EXPECT_EQ(names(uploads), (std::set<std::string>{"held", "mine"}));
}

// Each policy, with the filesystem's own way of not replacing and as each answer of one that
// has none. The second write asks not to overwrite, which no policy may then do. A name taken
// is the client's doing, no failure of the server.
TEST_F(DiskFileServiceTest, theConflictPolicyDecidesWhatBecomesOfAnExistingFile) {
    const std::string taken = "Refused file 'x.txt': a file of that name already exists";
    struct Case {
        ConflictPolicy policy;
        std::string first;
        std::string second;
        std::string directory;
        std::map<std::string, std::string> files;
    };
    const Case cases[] = {
        {ConflictPolicy::replace,
         "x.txt",
         taken,
         "Refused file 'sub': a directory of that name exists",
         {{"new.txt", "n"}, {"x.txt", "first"}, {"sub", "<dir>"}}},
        {ConflictPolicy::refuse,
         taken,
         taken,
         "Refused file 'sub': a file of that name already exists",
         {{"new.txt", "n"}, {"x.txt", "old"}, {"sub", "<dir>"}}},
        {ConflictPolicy::rename,
         "x (1).txt",
         "x (2).txt",
         "sub (1)",
         {{"new.txt", "n"},
          {"x.txt", "old"},
          {"x (1).txt", "first"},
          {"x (2).txt", "second"},
          {"sub", "<dir>"},
          {"sub (1)", "s"}}},
    };
    for (const int error : {0, EINVAL, ENOSYS, EOPNOTSUPP}) {
        const auto lacking = [error](const char* from, const char* to, unsigned flags) {
            errno = error;
            return flags != 0 ? -1 : ::rename(from, to);
        };
        for (const Case& c : cases) {
            SCOPED_TRACE("policy " + std::to_string(static_cast<int>(c.policy)) +
                         (error == 0 ? ", renameat2" : std::string(", ") + std::strerror(error)));
            std::filesystem::remove_all(uploads);
            std::filesystem::create_directories(uploads / "sub");
            std::ofstream(uploads / "x.txt") << "old";
            DiskFileService service(uploads.string(), 1, {}, c.policy,
                                    error == 0 ? DiskFileService::MoveFile() : lacking);
            RequestScope scope(service, 4);
            EXPECT_EQ(outcome(write(service, in("new.txt"), "n")), "new.txt");
            EXPECT_EQ(outcome(write(service, in("x.txt"), "first")), c.first);
            EXPECT_EQ(outcome(write(service, in("x.txt"), "second", false)), c.second);
            EXPECT_EQ(outcome(write(service, in("sub"), "s")), c.directory);
            EXPECT_EQ(snapshot(), c.files);
            EXPECT_TRUE(scope.failures().empty());
        }
    }
}

TEST_F(DiskFileServiceTest, renameNumbersBeforeTheExtensionWithinTheLongestNameAndABound) {
    DiskFileService service(uploads.string(), 1, {}, ConflictPolicy::rename);
    const std::string longest = std::string(247, 'a') + ".txt"; // 251 bytes: " (1)" fits
    const std::string tooLong = std::string(248, 'b') + ".txt";
    const std::pair<std::string, std::string> cases[] = {
        {"x.txt", "x (1).txt"},
        {".profile", ".profile (1)"},
        {"a.tar.gz", "a.tar (1).gz"},
        {"README", "README (1)"},
        {"end.", "end (1)."},
        {"\xc3\xa9t\xc3\xa9.jpeg", "\xc3\xa9t\xc3\xa9 (1).jpeg"},
        {longest, std::string(247, 'a') + " (1).txt"},
        {tooLong, "Refused file '" + tooLong +
                      "': a file of that name exists, and a numbered name would be longer than "
                      "255 bytes"},
    };
    for (const auto& [name, stored] : cases) {
        SCOPED_TRACE(name);
        std::ofstream(uploads / name) << "old";
        EXPECT_EQ(outcome(write(service, in(name), "new")), stored);
    }

    std::ofstream(uploads / "many.txt") << "old";
    for (unsigned i = 1; i <= DiskFileService::maxRenameAttempts; ++i) {
        std::ofstream(uploads / ("many (" + std::to_string(i) + ").txt")) << "old";
    }
    EXPECT_EQ(outcome(write(service, in("many.txt"), "new")),
              "Refused file 'many.txt': a file of that name exists, and so do its numbered names "
              "up to (1000)");
    std::filesystem::remove(uploads / "many (1000).txt");
    EXPECT_EQ(outcome(write(service, in("many.txt"), "new")), "many (1000).txt");
    EXPECT_EQ(contents(uploads / "many (1000).txt"), "new");
    EXPECT_EQ(names(uploads).size(), 2 * std::size(cases) - 1 + 1001);
}

// The n-th copy of one name takes two attempts, not n; numbers freed below the last one taken
// are used once those above it run out.
TEST_F(DiskFileServiceTest, renamedCopiesOfANameStartAfterTheLastNumberTaken) {
    unsigned moves = 0;
    DiskFileService service(uploads.string(), 1, {}, ConflictPolicy::rename,
                            [&](const char* from, const char* to, unsigned flags) {
                                ++moves;
                                return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags);
                            });
    for (unsigned i = 0; i <= 40; ++i) {
        ASSERT_EQ(outcome(write(service, in("copy.txt"), "x")),
                  i == 0 ? "copy.txt" : "copy (" + std::to_string(i) + ").txt");
    }
    EXPECT_EQ(moves, 1u + 40 * 2);

    std::ofstream(uploads / "f.txt") << "old";
    for (unsigned i = 1; i <= DiskFileService::maxRenameAttempts; ++i) {
        if (i != 500) {
            std::ofstream(uploads / ("f (" + std::to_string(i) + ").txt")) << "old";
        }
    }
    EXPECT_EQ(outcome(write(service, in("f.txt"), "new")), "f (500).txt");
    std::filesystem::remove(uploads / "f (7).txt");
    EXPECT_EQ(outcome(write(service, in("f.txt"), "new")), "f (7).txt");
    EXPECT_EQ(outcome(write(service, in("f.txt"), "new")),
              "Refused file 'f.txt': a file of that name exists, and so do its numbered names "
              "up to (1000)");
}

// What the server logs as its own errors: a system call's failure, with the file, the
// directory and the cause. The client is told what it was always told.
TEST_F(DiskFileServiceTest, aScopeReportsWhatItStoredAndOnlyTheServersOwnFailures) {
    const std::string dir = uploads.string();
    std::atomic<int> moveError{0};
    DiskFileService renaming(
        dir, 1, {}, ConflictPolicy::rename, [&](const char* from, const char* to, unsigned flags) {
            errno = moveError;
            return moveError != 0 ? -1 : ::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags);
        });
    {
        RequestScope scope(renaming, 20);
        EXPECT_EQ(outcome(write(renaming, in("a.txt"), "abc")), "a.txt");
        EXPECT_EQ(outcome(write(renaming, in("a.txt"), "abcd")), "a (1).txt");
        std::vector<std::string> expected;
        for (const int error : {EROFS, ENOSPC, EDQUOT, EIO, EACCES}) {
            SCOPED_TRACE(std::strerror(error));
            moveError = error;
            EXPECT_EQ(outcome(write(renaming, in("b.txt"), "b")),
                      std::string("Cannot store b.txt: ") + std::strerror(error));
            expected.push_back("cannot store \"b.txt\" in " + dir + ": " + std::strerror(error));
        }
        moveError = 0;
        std::filesystem::remove_all(uploads);
        EXPECT_EQ(outcome(write(renaming, in("c.txt"), "c")),
                  "Cannot create a temporary file for c.txt: No such file or directory");
        expected.push_back("cannot store \"c.txt\" in " + dir + ": No such file or directory");
        EXPECT_EQ(thrownText<std::runtime_error>([&] { scope.finish(); }),
                  "Cannot make the stored files durable: No such file or directory");
        expected.push_back("cannot make the files stored in " + dir +
                           " durable: No such file or directory");

        EXPECT_EQ(scope.failures(), expected);
        const std::vector<StoredFile> stored = scope.stored();
        ASSERT_EQ(stored.size(), 2u);
        EXPECT_EQ(stored[0].name, "a.txt");
        EXPECT_EQ(stored[0].size, 3u);
        EXPECT_EQ(stored[1].name, "a (1).txt");
        EXPECT_EQ(stored[1].size, 4u);
    }

    // However many files a request may store, a scope keeps only the first few names.
    std::filesystem::create_directory(uploads);
    RequestScope scope(renaming, 1000);
    for (size_t i = 0; i <= RequestScope::recordLimit; ++i) {
        write(renaming, in("f" + std::to_string(i)), "f").get();
    }
    EXPECT_EQ(scope.filesStored(), RequestScope::recordLimit + 1);
    EXPECT_EQ(scope.stored().size(), RequestScope::recordLimit);
    EXPECT_EQ(scope.stored().back().name, "f" + std::to_string(RequestScope::recordLimit - 1));
}

} // namespace
} // namespace kestrin::host
