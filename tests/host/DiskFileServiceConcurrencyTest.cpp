#include "framework/Ost.h"
#include "host/DiskFileService.h"
#include "tests/common/support/ThrownText.h"
#include "tests/host/support/UploadDirectoryTest.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kestrin::host {
namespace {

using file_common::v1::File;
using file_common::v1::FileInfo;
using kestrin::testing::thrownText;
class DiskFileServiceConcurrency : public UploadDirectoryTest {
protected:
    // Writes a file of the upload directory whose bytes are its name.
    Future<FileInfo> writeNamed(DiskFileService& service, const std::string& name) {
        const std::string path = (uploads / name).string();
        return service.writeFile(
            File(FileInfo(std::u16string(path.begin(), path.end())), common::DataBuffer(name)),
            true);
    }
};

// Heavy requests write one file after another, as the module does. A light request's one
// file must be stored while they are still going: the heavy ones stop only once it is stored,
// so one that reaches its last file first was served ahead of it all along. Each request's
// scope syncs the directory at most once (requests finishing together share a sync).
TEST_F(DiskFileServiceConcurrency,
       aLightRequestIsStoredWhileHeavyRequestsKeepWritingAndEachSyncsOnce) {
    constexpr int heavy = 4;
    constexpr size_t most = 400;
    std::atomic<int> syncs{0};
    DiskFileService service(uploads.string(), 1, [&syncs](int descriptor) {
        ++syncs;
        return ::fsync(descriptor);
    });
    const auto write = [&](const std::string& name) { return writeNamed(service, name); };
    std::atomic<bool> lightStored{false};
    std::array<std::promise<void>, heavy> going;
    std::array<size_t, heavy> stored{};
    std::vector<std::thread> threads;
    for (int h = 0; h < heavy; ++h) {
        threads.emplace_back([&, h] {
            DiskFileService::RequestScope scope(service, most);
            for (size_t i = 0; i < most && !lightStored; ++i) {
                write("heavy" + std::to_string(h) + "-" + std::to_string(i)).get();
                if (i == 0) {
                    going[h].set_value();
                }
            }
            stored[h] = scope.filesStored();
        });
    }
    for (std::promise<void>& started : going) {
        started.get_future().wait();
    }
    threads.emplace_back([&] {
        DiskFileService::RequestScope scope(service, 1);
        // Marked by the writer as it resolves the write, before it takes the next one, so no
        // heavy write resolved later misses the mark.
        std::promise<void> resolved;
        write("light").then([&](Future<FileInfo>&) {
            lightStored = true;
            resolved.set_value();
        });
        resolved.get_future().wait();
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    size_t total = 1;
    for (int h = 0; h < heavy; ++h) {
        EXPECT_LT(stored[h], most) << "heavy request " << h;
        total += stored[h];
    }
    EXPECT_GE(syncs, 1);
    EXPECT_LE(syncs, heavy + 1);
    EXPECT_EQ(names(uploads).size(), total);
    EXPECT_EQ(contents(uploads / "light"), "light");
}

// Two requests store many files of one name at once, on their own threads, racing for the
// same numbered names: a file that lost its name to another write taken in
// between would be missing. Also where hard links take the names.
TEST_F(DiskFileServiceConcurrency, renamingWritesOfOneNameAtOnceKeepEveryFile) {
    constexpr int perRequest = 40;
    for (const bool linking : {false, true}) {
        SCOPED_TRACE(linking ? "hard links" : "renameat2");
        std::filesystem::remove_all(uploads);
        std::filesystem::create_directory(uploads);
        const auto withoutNoReplace = [](const char* from, const char* to, unsigned flags) {
            errno = EINVAL;
            return flags != 0 ? -1 : ::rename(from, to);
        };
        DiskFileService service(uploads.string(), 4, {}, ConflictPolicy::rename,
                                linking ? withoutNoReplace : DiskFileService::MoveFile());
        const std::string path = (uploads / "same.txt").string();
        std::set<std::string> written;
        std::array<size_t, 2> reported{};
        std::vector<std::thread> threads;
        for (size_t r = 0; r < reported.size(); ++r) {
            threads.emplace_back([&, r] {
                DiskFileService::RequestScope scope(service, perRequest);
                std::vector<Future<FileInfo>> writes;
                for (int i = 0; i < perRequest; ++i) {
                    writes.push_back(service.writeFile(
                        File(FileInfo(std::u16string(path.begin(), path.end())),
                             common::DataBuffer(std::to_string(r) + "-" + std::to_string(i))),
                        true));
                }
                for (Future<FileInfo>& write : writes) {
                    EXPECT_NO_THROW(write.get());
                }
                reported[r] = scope.stored().size();
            });
            for (int i = 0; i < perRequest; ++i) {
                written.insert(std::to_string(r) + "-" + std::to_string(i));
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::set<std::string> found;
        for (const std::string& name : names(uploads)) {
            found.insert(contents(uploads / name));
        }
        EXPECT_EQ(found, written);
        EXPECT_EQ(reported, (std::array<size_t, 2>{perRequest, perRequest}));
    }
}

// Requests that finish while a directory sync runs share the next one: many requests at once
// cost far fewer syncs than one each, and every file is stored.
TEST_F(DiskFileServiceConcurrency, requestsFinishingTogetherShareDirectorySyncs) {
    constexpr int writers = 8;
    constexpr int perWriter = 20;
    std::atomic<int> syncs{0};
    DiskFileService service(uploads.string(), 1, [&syncs](int descriptor) {
        ++syncs;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return ::fsync(descriptor);
    });
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < perWriter; ++i) {
                DiskFileService::RequestScope scope(service, 1);
                const std::string path =
                    (uploads / (std::to_string(w) + "-" + std::to_string(i))).string();
                service
                    .writeFile(File(FileInfo(std::u16string(path.begin(), path.end())),
                                    common::DataBuffer("x")),
                               true)
                    .get();
                scope.finish();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(names(uploads).size(), static_cast<size_t>(writers * perWriter));
    EXPECT_LT(syncs, writers * perWriter / 2);
}

// Once syncs have shown they are quick, as in memory, a request syncs the directory itself
// rather than sleep until another's sync is over: two requests' syncs then overlap. The first
// sync of the pair waits for the second to begin, which it would wait for in vain were the
// second caller waiting for it to end.
TEST_F(DiskFileServiceConcurrency, whereSyncsAreQuickRequestsDoNotWaitForEachOthersSync) {
    std::atomic<bool> pairing{false};
    std::atomic<int> inSync{0};
    std::atomic<bool> overlapped{false};
    // Only the timing matters here, so the directory is not really synced.
    DiskFileService service(uploads.string(), 1, [&](int) {
        if (++inSync == 2) {
            overlapped = true;
        }
        if (pairing.exchange(false)) {
            for (int i = 0; i < 5000 && !overlapped; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        --inSync;
        return 0;
    });
    const auto store = [&](const std::string& name) {
        DiskFileService::RequestScope scope(service, 1);
        writeNamed(service, name).get();
        scope.finish();
    };
    for (int i = 0; i < 20; ++i) {
        store("quick" + std::to_string(i));
    }
    pairing = true;
    std::thread first([&] { store("first"); });
    for (int i = 0; i < 5000 && inSync == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    store("second");
    first.join();
    EXPECT_TRUE(overlapped);
    EXPECT_EQ(names(uploads).size(), 22u);
}

// A failed sync fails the requests it covered, and only those: one that came while it ran
// waits for the next sync and hears of that one alone.
TEST_F(DiskFileServiceConcurrency, aFailedSharedSyncFailsOnlyTheRequestsItCovered) {
    std::promise<void> secondStored;
    std::shared_future<void> stored = secondStored.get_future().share();
    std::atomic<int> syncs{0};
    DiskFileService service(uploads.string(), 1, [&](int descriptor) {
        if (++syncs == 1) {
            stored.wait();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            errno = EIO;
            return -1;
        }
        return ::fsync(descriptor);
    });
    const auto store = [&](const std::string& name, std::string& failure,
                           std::promise<void>* done) {
        DiskFileService::RequestScope scope(service, 1);
        writeNamed(service, name).get();
        if (done != nullptr) {
            done->set_value();
        }
        failure = thrownText<std::runtime_error>([&] { scope.finish(); });
    };
    std::string first;
    std::string second;
    std::thread covered([&] { store("first", first, nullptr); });
    for (int i = 0; i < 10000 && syncs == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::thread later([&] { store("second", second, &secondStored); });
    covered.join();
    later.join();
    EXPECT_EQ(first, "Cannot make the stored files durable: Input/output error");
    EXPECT_EQ(second, "<nothing thrown>");
    EXPECT_EQ(syncs, 2);
}

} // namespace
} // namespace kestrin::host
