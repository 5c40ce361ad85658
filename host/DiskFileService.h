#pragma once

#include "framework/FileService.h"
#include "host/InstanceOwner.h"
#include "host/RecentDuration.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kestrin::host {

// What a write does when the upload directory already holds an entry of the file's name.
enum class ConflictPolicy {
    replace, // the new file takes the name; of two writes of one name at once, the later wins
    refuse,  // the existing file stays and the write fails, saying a file of that name exists
    rename,  // the new file takes the first free name of "name (1).ext", "name (2).ext", ...
};

// A file as the service stored it.
struct StoredFile {
    std::string name; // as stored: under ConflictPolicy::rename, maybe not the one asked for
    std::uint64_t size;
};

// The server's file service: stores each file as a direct child of one upload directory.
// Any thread may call writeFile. A refused name, or a file over its request's limit, is
// answered at once, on the calling thread, and so is a write made while a RequestScope is
// active there: that thread runs a request and waits for its file anyway. Other writes run on
// the service's own writer threads, several at once so that one slow write does not hold up
// the others, and the thread that wrote a file resolves its future, success or failure. A file is
// written unnamed (or under a temporary name) in the target's directory, flushed to disk and given
// its name in one step, so a stored file is complete or absent, never partial; what happens to an
// existing file of the name is the service's ConflictPolicy.
class DiskFileService : public file::v1::FileService {
public:
    // Temporary files start with this; no upload may take such a name.
    static constexpr std::string_view tempPrefix = ".kestrin-upload-";
    // The longest name a file may have, in bytes of UTF-8: the filesystem's own limit.
    static constexpr std::size_t maxNameBytes = 255;

    // Makes the new entries of the directory open at descriptor durable; returns 0, or -1 with
    // errno set, as fsync does (an empty one is fsync). Tests pass their own to count the calls
    // or make them fail.
    using DirectorySync = std::function<int(int descriptor)>;
    // Gives the file named from the name to, as renameat2 does with flags 0 or
    // RENAME_NOREPLACE; returns 0, or -1 with errno set. An empty one asks the system. Tests
    // pass their own to act as a filesystem that cannot rename without replacing, or to fail.
    // Given one, the service writes every file under a temporary name, as it does where the
    // filesystem cannot make unnamed files; otherwise a file is written unnamed and linked to
    // its name once it is on disk.
    using MoveFile = std::function<int(const char* from, const char* to, unsigned flags)>;

    // The most numbered names ConflictPolicy::rename tries before it gives up.
    static constexpr unsigned maxRenameAttempts = 1000;

    class RequestScope;

    // Claims the directory for this instance (an InstanceOwner), removes the temporary files
    // that instances now gone left behind, then starts writerCount writer threads (at least
    // one). Throws std::runtime_error when the directory cannot be resolved, read or claimed,
    // or its name is not UTF-8 (no upload could name a file in it then).
    explicit DiskFileService(const std::string& uploadDirectory, unsigned writerCount = 1,
                             DirectorySync syncDirectory = {},
                             ConflictPolicy onConflict = ConflictPolicy::replace,
                             MoveFile moveFile = {});
    ~DiskFileService() override;
    DiskFileService(const DiskFileService&) = delete;
    DiskFileService& operator=(const DiskFileService&) = delete;

    // Refuses, with a std::runtime_error saying why, any path that is not exactly
    // "<upload dir>/<name>" with a name that is not empty, ".", "..", at most maxNameBytes of
    // UTF-8, and has no '/', NUL or other control character; a name is measured before it is
    // converted or copied, so a giant one costs nothing. An existing file of the name is
    // dealt with as the service's ConflictPolicy says, except that without overwrite it is
    // never replaced: refused under ConflictPolicy::replace. The FileInfo resolved carries the
    // path the file was stored at. While a RequestScope is active on the calling thread, the
    // write counts toward it.
    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file,
                                                bool overwrite) override;

    // The resolved, absolute upload directory.
    const std::string& getDirectory() const noexcept { return directory; }

    // This instance's id in the names of its owner file and temporary files.
    const std::string& instanceId() const noexcept { return owner->id(); }

private:
    struct ScopeState;
    struct Job {
        file_common::v1::File file;
        std::string name;
        bool overwrite;
        Promise<file_common::v1::FileInfo> promise;
        std::shared_ptr<ScopeState> scope; // null for a write made outside any scope
    };

    void run();
    void complete(Job& job) const; // stores the file and resolves the job's promise
    void stopWriters() noexcept;
    file_common::v1::FileInfo store(Job& job) const;
    // The written file is open at descriptor; temp is its temporary name, empty for an
    // unnamed file.
    std::string moveIntoPlace(int descriptor, const std::string& temp, const Job& job) const;
    // These give the written file the name target and return 0, or the errno why not.
    int nameReplacing(int descriptor, const std::string& temp, const std::string& target) const;
    int nameWithoutReplacing(int descriptor, const std::string& temp,
                             const std::string& target) const;
    int moveWithoutReplacing(const std::string& temp, const std::string& target) const;
    int linkUnnamed(int descriptor, const std::string& target) const;
    std::string targetName(const std::u16string& path) const;
    // Makes the directory entries made so far durable: 0, or the errno of the failure. Where
    // syncs take long, callers that come while one runs share the next one, so many requests
    // finishing at once cost the disk two syncs, not one each.
    int syncDirectoryEntries() const;
    int timedSync() const;        // one sync, unshared, its duration noted
    int syncDirectoryNow() const; // one sync, unshared
    // Creates a new temporary file for writing, unnamed where it can, and sets path to its
    // temporary name (empty for an unnamed file). The descriptor, or -1 with errno set.
    int openTemporary(std::string& path) const;
    int openNamedTemporary(std::string& path) const;

    std::string directory;
    std::u16string directoryPrefix; // "<directory>/" in UTF-16, as paths arrive
    DirectorySync syncDirectory;
    ConflictPolicy conflictPolicy;
    MoveFile moveFile;
    // ConflictPolicy::rename: for each name recently stored under a number, the last number it
    // took. The next copy starts there instead of trying every number below, which made the
    // n-th copy of one name cost n attempts. Only a hint: names are still taken in one step.
    struct RenameHints {
        static constexpr std::size_t most = 4096; // forgotten all at once past this
        std::mutex mutex;
        std::unordered_map<std::string, unsigned> last;
    };
    mutable RenameHints renameHints;
    std::unique_ptr<InstanceOwner> owner; // released after the writers have stopped
    bool fixPermissions = true;           // the umask takes bits of 0644 from new files
    // How a file being written is made: unnamed, and linked to its name by its descriptor or
    // through /proc, where the directory and the kernel allow it; otherwise under a temporary
    // name. Found out once, at start, unless a MoveFile was given: that stands for renames.
    enum class Temporaries { linkedByDescriptor, linkedThroughProc, named };
    Temporaries probeTemporaries() const;
    // Gives the unnamed file open at descriptor the name target: 0, or the errno why not.
    static int link(Temporaries way, int descriptor, const std::string& target);
    Temporaries temporaries = Temporaries::named;
    // The directory syncs: numbered in the order they start, one at a time.
    struct DirectorySyncs {
        struct Outcome {
            int error = 0;
            int waiting = 0; // callers yet to read it
        };
        std::mutex mutex;
        std::condition_variable done;
        std::uint64_t started = 0;
        std::uint64_t finished = 0;
        bool running = false;
        std::map<std::uint64_t, Outcome> outcomes;
        // Waiting for another caller's sync sleeps and costs a wake-up. Where a sync takes less
        // than this (storage in memory), each caller syncs for itself instead. It starts out
        // shared, until syncs have shown they are quick.
        static constexpr std::chrono::microseconds quick{50};
        RecentDuration recent{quick * 2};
    };
    mutable DirectorySyncs syncs;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> queue;
    bool stopping = false;
    std::vector<std::thread> writers;
};

// One request's share of the service: at most maxFiles files, one directory sync for all of
// them instead of one per file, and the record of what was stored and what failed on the
// server's side. Made on the thread that runs one request's service call;
// writeFile calls made on that thread while it lives count toward it, calls made on other
// threads do not. Use it on that thread only, and destroy it there, before the service. At
// most one scope is active on a thread: a second one throws std::logic_error.
class DiskFileService::RequestScope {
public:
    RequestScope(DiskFileService& service, std::size_t maxFiles);
    ~RequestScope(); // finish() if not called, swallowing its failure
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

    // Makes the renames of the files this request stored durable: one fsync of the upload
    // directory, only if at least one file was stored. Call before the answer goes out, so
    // "SUCCESS" still means durable. Throws std::runtime_error saying why when the fsync
    // fails. Idempotent: later calls repeat the first one's outcome. A write of this scope
    // that finishes after it syncs the directory itself.
    void finish();

    // Files this request stored so far.
    std::size_t filesStored() const;

    // The first recordLimit files this request stored, in the order they took their names;
    // filesStored() tells how many there were in all. A write still under way when this is
    // called is not in it yet.
    std::vector<StoredFile> stored() const;

    // The first recordLimit failures of this request that lie with the server rather than with
    // the client's file: a system call refused (no space, read-only, permissions, I/O error,
    // the directory gone), each as a line fit for the server's log, saying which file, where,
    // and why: `cannot store "a.txt" in /srv/up: No space left on device`. A failed finish()
    // is one too. Refusals of the client's names, of one file too many, or of a name already
    // taken are not: the client caused them, and their text reaches the client.
    std::vector<std::string> failures() const;

    // Where the storage of each file this request writes goes once the write is over, stored
    // or not, instead of being freed: the server keeps large blocks for later requests. A name
    // refused before any writing frees its file as before. Called on the scope's thread.
    void keepStorage(std::function<void(common::DataBuffer&&)> take) { spent = std::move(take); }

    // Bounds what one scope keeps of stored() and failures(), whatever maxFiles is.
    static constexpr std::size_t recordLimit = 100;

private:
    friend class DiskFileService;

    DiskFileService& owner;
    const std::size_t limit;
    std::shared_ptr<ScopeState> state; // shared with the writers of this scope's files
    bool finished = false;
    std::string failure; // why finish() failed, empty when it did not
    std::function<void(common::DataBuffer&&)> spent;
};

} // namespace kestrin::host
