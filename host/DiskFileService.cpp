#include "host/DiskFileService.h"

#include "framework/Ost.h"
#include "host/Leftovers.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace kestrin::host {

static_assert(DiskFileService::tempPrefix == leftovers::tempPrefix);

// What the writers of one scope's files and the scope's owner share.
struct DiskFileService::ScopeState {
    std::mutex mutex;
    std::size_t admitted = 0; // files queued, being written or stored
    std::size_t stored = 0;
    std::vector<StoredFile> storedFiles; // the first recordLimit of them
    std::vector<std::string> failures;   // the first recordLimit of them
    bool finished = false;               // the scope has synced, or decided it need not
    bool renamesPending = false;         // renames done and not yet made durable by the scope
};

namespace {

// The scope active on this thread, if any: the module writes on the thread that runs the
// request and waits there, so the thread tells which request a write belongs to.
thread_local DiskFileService::RequestScope* activeScope = nullptr;

// Client text quoted in an error message is cut to this many bytes.
constexpr std::size_t echoLimit = 200;

// A system call's refusal. Its text is what the client has always been told; its cause tells
// the server's log, which needs no guess from the text, whether the server is at fault.
class SystemFailure : public std::runtime_error {
public:
    SystemFailure(const std::string& what, int error)
        : std::runtime_error(what + ": " + std::strerror(error))
        , cause(error) {}

    int cause;
};

SystemFailure systemError(const std::string& what) {
    return SystemFailure(what, errno);
}

// "name (n).ext": the number goes before the extension, the part from the last dot on,
// unless that dot starts the name: ".profile" has none and becomes ".profile (n)".
std::string numberedName(const std::string& name, unsigned number) {
    const std::size_t dot = name.rfind('.');
    const std::size_t end = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return name.substr(0, end) + " (" + std::to_string(number) + ")" + name.substr(end);
}

int renameFile(const char* from, const char* to, unsigned flags) {
    // Plain rename where nothing more is asked: it works on every filesystem and kernel.
    return flags == 0 ? ::rename(from, to) : ::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags);
}

template <typename Item> void keepFirst(std::vector<Item>& kept, Item&& item) {
    if (kept.size() < DiskFileService::RequestScope::recordLimit) {
        kept.push_back(std::move(item));
    }
}

bool isControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

bool isSurrogate(char16_t unit) {
    return unit >= 0xd800 && unit <= 0xdfff;
}

bool isFirstOfPair(char16_t unit) {
    return unit >= 0xd800 && unit <= 0xdbff;
}

// Whether text takes more than limit bytes as UTF-8. A code unit takes at least one byte, so a
// text of more units than that is too long before any of them is read.
bool longerInUtf8(std::u16string_view text, std::size_t limit) {
    if (text.size() > limit) {
        return true;
    }
    std::size_t bytes = 0;
    for (const char16_t unit : text) {
        // Each half of a surrogate pair counts two: four bytes for the character.
        bytes += unit < 0x80 ? 1 : (unit < 0x800 || isSurrogate(unit)) ? 2 : 3;
    }
    return bytes > limit;
}

// Client text fit to quote in an error message: at most echoLimit bytes of UTF-8, cut at a
// character boundary and then marked with "...", control characters shown as '?' so that no
// message carries a terminal escape sequence. Throws std::runtime_error on invalid UTF-16 in
// the part it shows.
std::string echo(std::u16string_view text) {
    std::u16string_view shown = text.substr(0, echoLimit);
    if (shown.size() < text.size() && isFirstOfPair(shown.back())) {
        shown.remove_suffix(1); // its second half is cut off
    }
    std::string quoted = ost::i18n::to_string(std::u16string(shown));
    bool cut = shown.size() < text.size();
    if (quoted.size() > echoLimit) {
        std::size_t end = echoLimit;
        while ((static_cast<unsigned char>(quoted[end]) & 0xc0) == 0x80) {
            --end;
        }
        quoted.resize(end);
        cut = true;
    }
    std::replace_if(
        quoted.begin(), quoted.end(),
        [](char c) { return isControl(static_cast<unsigned char>(c)); }, '?');
    if (cut) {
        quoted += "...";
    }
    return quoted;
}

// Opens as open(2) does, but where the process is out of descriptors it tries again for a
// while. Under a flood of connections the server closes idle ones to make room within
// milliseconds, and a file a client is waiting to have stored matters more than a connection
// that does nothing.
int openWaitingForDescriptor(const char* path, int flags, mode_t mode = 0) {
    constexpr int tries = 100;
    constexpr std::chrono::milliseconds pause{2};
    for (int attempt = 1;; ++attempt) {
        const int descriptor = ::open(path, flags, mode);
        if (descriptor >= 0 || (errno != EMFILE && errno != ENFILE) || attempt == tries) {
            return descriptor;
        }
        std::this_thread::sleep_for(pause);
    }
}

// Closes the descriptor unless it was handed over with release().
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor)
        : fd(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    int get() const noexcept { return fd; }
    int release() noexcept { return std::exchange(fd, -1); }

private:
    int fd;
};

void writeAll(int fd, const uint8_t* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = ::write(fd, bytes, count);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw systemError("write failed");
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
}

// Writes the bytes in windows, sending each window to the disk as soon as it is in the page
// cache and dropping it from the cache once the disk has it. A large file then cycles through
// a few windows of cache pages instead of taking a fresh page for every 4 KiB of it (on
// virtual machines the first touch of a page costs more than the copy into it), and the disk
// works while later windows are copied. Nothing here makes the bytes durable: the caller
// still fsyncs. A stored file is not left in the page cache.
constexpr size_t writeWindow = size_t{8} << 20;

void writeThrough(int fd, const uint8_t* bytes, size_t count) {
    constexpr size_t window = writeWindow;
    constexpr size_t inFlight = 2; // windows sent to the disk and not yet waited for
    for (size_t offset = 0, index = 0; offset < count; offset += window, ++index) {
        const size_t length = std::min(window, count - offset);
        writeAll(fd, bytes + offset, length);
        // Hints about when to write, and their failures too: a write that fails is reported
        // by the fsync that follows, which every filesystem supports.
        ::sync_file_range(fd, static_cast<off_t>(offset), static_cast<off_t>(length),
                          SYNC_FILE_RANGE_WRITE);
        if (index >= inFlight) {
            const auto oldest = static_cast<off_t>(offset - inFlight * window);
            ::sync_file_range(fd, oldest, static_cast<off_t>(window),
                              SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                  SYNC_FILE_RANGE_WAIT_AFTER);
            ::posix_fadvise(fd, oldest, static_cast<off_t>(window), POSIX_FADV_DONTNEED);
        }
    }
}

// Whether files this process creates with mode 0644 get less than that: the umask, read from
// the kernel's report rather than set and restored, which would race with other threads
// creating files. Unknown counts as yes.
bool umaskNarrows0644() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Umask:", 0) == 0) {
            const unsigned long mask = std::strtoul(line.c_str() + 6, nullptr, 8);
            return (mask & 0644) != 0;
        }
    }
    return true;
}

// Fills the trailing X's of a temporary name with letters and digits. Names only need to
// differ, O_EXCL settles any clash, so a fast generator per thread will do.
void fillTemplate(std::string& name) {
    static constexpr char letters[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    thread_local std::minstd_rand generator(std::random_device{}());
    for (auto at = name.rbegin(); at != name.rend() && *at == 'X'; ++at) {
        *at = letters[generator() % (sizeof letters - 1)];
    }
}

} // namespace

DiskFileService::DiskFileService(const std::string& uploadDirectory, unsigned writerCount,
                                 DirectorySync directorySync, ConflictPolicy onConflict,
                                 MoveFile move)
    : syncDirectory(directorySync ? std::move(directorySync) : DirectorySync(&::fsync))
    , conflictPolicy(onConflict)
    , moveFile(move ? move : MoveFile(&renameFile)) {
    std::unique_ptr<char, decltype(&std::free)> resolved(
        ::realpath(uploadDirectory.c_str(), nullptr), &std::free);
    if (!resolved) {
        throw systemError("Cannot resolve upload directory " + uploadDirectory);
    }
    directory = resolved.get();
    try {
        directoryPrefix = ost::i18n::to_ustring(
            directory + "/", ost::i18n::codecvt_string_to_ustring("UTF-8", true));
    } catch (const std::runtime_error&) {
        throw std::runtime_error("Cannot use upload directory " + directory +
                                 ": its name is not UTF-8");
    }
    owner = std::make_unique<InstanceOwner>(directory);
    owner->removeLeftovers();
    fixPermissions = umaskNarrows0644();
    temporaries = move ? Temporaries::named : probeTemporaries();
    writerCount = std::max(1u, writerCount);
    writers.reserve(writerCount);
    try {
        for (unsigned i = 0; i < writerCount; ++i) {
            writers.emplace_back([this] { run(); });
        }
    } catch (...) {
        stopWriters();
        throw;
    }
}

DiskFileService::~DiskFileService() {
    stopWriters();
}

void DiskFileService::stopWriters() noexcept {
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
    }
    wake.notify_all();
    for (std::thread& writer : writers) {
        writer.join();
    }
}

Future<file_common::v1::FileInfo> DiskFileService::writeFile(file_common::v1::File&& file,
                                                             bool overwrite) {
    std::string name;
    std::shared_ptr<ScopeState> scope;
    try {
        name = targetName(file.info.path);
        if (activeScope != nullptr && &activeScope->owner == this) {
            scope = activeScope->state;
            std::lock_guard<std::mutex> guard(scope->mutex);
            // Counted when admitted, not when stored, so the limit holds even for a caller
            // that does not wait for one write before making the next.
            if (scope->admitted >= activeScope->limit) {
                throw std::runtime_error(
                    "Refused file '" + name + "': this request already stored " +
                    std::to_string(activeScope->limit) + " files, the most one request may store");
            }
            ++scope->admitted;
        }
    } catch (const std::exception&) {
        return makeExceptionalFuture<file_common::v1::FileInfo>(std::current_exception());
    }
    Promise<file_common::v1::FileInfo> promise;
    Future<file_common::v1::FileInfo> future = promise.getFuture();
    Job job{std::move(file), std::move(name), overwrite, std::move(promise), std::move(scope)};
    if (job.scope) {
        // A request's own thread waits for its write at once: handing the write to a writer
        // would only add two thread switches to every file.
        complete(job);
        if (activeScope->spent) {
            activeScope->spent(std::move(job.file.content));
        }
        return future;
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        queue.push_back(std::move(job));
    }
    wake.notify_one();
    return future;
}

void DiskFileService::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        // Jobs queued before the stop are still written: their callers are waiting.
        wake.wait(lock, [this] { return stopping || !queue.empty(); });
        if (queue.empty()) {
            return;
        }
        Job job = std::move(queue.front());
        queue.pop_front();
        lock.unlock();
        complete(job);
        lock.lock();
    }
}

void DiskFileService::complete(Job& job) const {
    std::optional<file_common::v1::FileInfo> stored;
    std::exception_ptr failure;
    int cause = 0;
    try {
        stored.emplace(store(job));
    } catch (const SystemFailure& error) {
        cause = error.cause;
        failure = std::current_exception();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure && job.scope) {
        std::lock_guard<std::mutex> guard(job.scope->mutex);
        --job.scope->admitted;
        if (cause != 0) {
            keepFirst(job.scope->failures, "cannot store \"" + job.name + "\" in " + directory +
                                               ": " + std::strerror(cause));
        }
    }
    // Resolve outside the handler, handing over the only reference to a failure: a copy
    // released here while the waiter reads it would look like a race to ThreadSanitizer.
    if (failure) {
        job.promise.setException(std::move(failure));
    } else {
        job.promise.setValue(std::move(*stored));
    }
}

std::string DiskFileService::targetName(const std::u16string& path) const {
    const std::u16string_view whole(path);
    if (whole.compare(0, directoryPrefix.size(), directoryPrefix) != 0) {
        throw std::runtime_error("Refused path " + echo(whole) +
                                 ": it is not in the upload directory");
    }
    const std::u16string_view unchecked = whole.substr(directoryPrefix.size());
    if (unchecked.empty()) {
        throw std::runtime_error("Refused file name: it is empty");
    }
    // Before anything is converted or copied: the client chooses the length.
    if (longerInUtf8(unchecked, maxNameBytes)) {
        throw std::runtime_error("Refused file name: it is longer than " +
                                 std::to_string(maxNameBytes) + " bytes");
    }
    const std::string name = ost::i18n::to_string(std::u16string(unchecked));
    if (name == "." || name == "..") {
        throw std::runtime_error("Refused file name '" + name + "': it names a directory");
    }
    // Checked before any refusal that quotes the name, so no message carries such a byte.
    if (name.find('\0') != std::string::npos) {
        throw std::runtime_error("Refused file name: it contains a NUL byte");
    }
    if (std::any_of(name.begin(), name.end(),
                    [](char c) { return isControl(static_cast<unsigned char>(c)); })) {
        throw std::runtime_error("Refused file name: it contains a control character");
    }
    if (name.find('/') != std::string::npos) {
        throw std::runtime_error("Refused file name '" + name + "': it contains a path separator");
    }
    if (name.compare(0, tempPrefix.size(), tempPrefix) == 0) {
        throw std::runtime_error("Refused file name '" + name +
                                 "': it is reserved for temporary files");
    }
    return name;
}

file_common::v1::FileInfo DiskFileService::store(Job& job) const {
    const std::string& name = job.name;
    const file_common::v1::File& file = job.file;
    std::string storedName;
    std::string temp;
    FileDescriptor out(openTemporary(temp));
    if (out.get() < 0) {
        throw systemError("Cannot create a temporary file for " + name);
    }
    try {
        // A stored upload is readable like any other file, whatever the umask says.
        if (fixPermissions && ::fchmod(out.get(), 0644) != 0) {
            throw systemError("Cannot set the permissions of " + name);
        }
        const size_t size = file.content.getSize();
        // A file within one window gains nothing from the hints: the fsync follows at once.
        if (size > writeWindow) {
            writeThrough(out.get(), file.content.bytes(), size);
        } else if (size > 0) {
            writeAll(out.get(), file.content.bytes(), size);
        }
        if (::fsync(out.get()) != 0) {
            throw systemError("Cannot flush " + name);
        }
        if (size > writeWindow) {
            ::posix_fadvise(out.get(), 0, 0, POSIX_FADV_DONTNEED);
        }
        if (temp.empty()) {
            // An unnamed file is linked while still open. Its bytes are on disk already, so
            // closing it has nothing left to lose.
            storedName = moveIntoPlace(out.get(), temp, job);
            ::close(out.release());
        } else {
            if (::close(out.release()) != 0) {
                throw systemError("Cannot close " + name);
            }
            storedName = moveIntoPlace(-1, temp, job);
        }
    } catch (...) {
        if (!temp.empty()) {
            ::unlink(temp.c_str());
        }
        throw;
    }
    // The new name is durable only once the directory entry is on disk too. A request's scope
    // syncs the directory once for all its files; a file stored outside one, or after its
    // scope has synced, syncs it here.
    const uint64_t size = file.content.getSize();
    bool deferred = false;
    if (job.scope) {
        std::lock_guard<std::mutex> guard(job.scope->mutex);
        ++job.scope->stored;
        keepFirst(job.scope->storedFiles, StoredFile{storedName, size});
        if (!job.scope->finished) {
            job.scope->renamesPending = true;
            deferred = true;
        }
    }
    if (!deferred) {
        syncDirectoryEntries();
    }

    file_common::v1::FileInfo info(
        directoryPrefix +
        ost::i18n::to_ustring(storedName, ost::i18n::codecvt_string_to_ustring("UTF-8", true)));
    info.attributes["size"] = size;
    return info;
}

// Gives the written temporary file its name as the conflict policy says, and returns the name
// it took. Where no file may be replaced, each name is taken in one step that fails when it is
// taken already, never a look followed by a rename: two writes of one name at once must not
// both find it free.
std::string DiskFileService::moveIntoPlace(int descriptor, const std::string& temp,
                                           const Job& job) const {
    const std::string& name = job.name;
    if (conflictPolicy == ConflictPolicy::replace && job.overwrite) {
        const int error = nameReplacing(descriptor, temp, directory + "/" + name);
        if (error == 0) {
            return name;
        }
        if (error == EISDIR) {
            throw std::runtime_error("Refused file '" + name +
                                     "': a directory of that name exists");
        }
        throw SystemFailure("Cannot store " + name, error);
    }
    // Set once the numbers from the hint on are all taken: then every number is tried, from
    // 1, before the upload is refused, as files below the hint may have gone since.
    bool fromHint = false;
    for (unsigned attempt = 0;; ++attempt) {
        const std::string candidate = attempt == 0 ? name : numberedName(name, attempt);
        if (candidate.size() > maxNameBytes) {
            throw std::runtime_error("Refused file '" + name +
                                     "': a file of that name exists, and a numbered name would "
                                     "be longer than " +
                                     std::to_string(maxNameBytes) + " bytes");
        }
        const int error = nameWithoutReplacing(descriptor, temp, directory + "/" + candidate);
        if (error == 0) {
            if (attempt > 0) {
                const std::lock_guard<std::mutex> lock(renameHints.mutex);
                if (renameHints.last.size() >= RenameHints::most) {
                    renameHints.last.clear();
                }
                renameHints.last[name] = attempt;
            }
            return candidate;
        }
        if (error != EEXIST) {
            throw SystemFailure("Cannot store " + name, error);
        }
        if (conflictPolicy != ConflictPolicy::rename) {
            throw std::runtime_error("Refused file '" + name +
                                     "': a file of that name already exists");
        }
        if (attempt == 0) {
            const std::lock_guard<std::mutex> lock(renameHints.mutex);
            const auto hint = renameHints.last.find(name);
            if (hint != renameHints.last.end() && hint->second < maxRenameAttempts) {
                attempt = hint->second; // the loop goes on with the number after it
                fromHint = true;
            }
            continue;
        }
        if (attempt == maxRenameAttempts && fromHint) {
            attempt = 0;
            fromHint = false;
            continue;
        }
        if (attempt == maxRenameAttempts) {
            throw std::runtime_error("Refused file '" + name + "': a file of that name exists, " +
                                     "and so do its numbered names up to (" +
                                     std::to_string(maxRenameAttempts) + ")");
        }
    }
}

int DiskFileService::nameReplacing(int descriptor, const std::string& temp,
                                   const std::string& target) const {
    if (!temp.empty()) {
        return moveFile(temp.c_str(), target.c_str(), 0) == 0 ? 0 : errno;
    }
    const int error = linkUnnamed(descriptor, target);
    if (error != EEXIST) {
        return error;
    }
    // A link cannot replace what has the name. The file takes a temporary name too, and that
    // replaces it in one step, so the name never stands empty.
    const std::string pattern = owner->temporaryTemplate();
    std::string named;
    for (int attempt = 0;; ++attempt) {
        named = pattern;
        fillTemplate(named);
        const int linked = linkUnnamed(descriptor, named);
        if (linked == 0) {
            break;
        }
        if (linked != EEXIST || attempt == 99) {
            return linked;
        }
    }
    if (moveFile(named.c_str(), target.c_str(), 0) == 0) {
        return 0;
    }
    const int failed = errno;
    ::unlink(named.c_str());
    return failed;
}

int DiskFileService::nameWithoutReplacing(int descriptor, const std::string& temp,
                                          const std::string& target) const {
    return temp.empty() ? linkUnnamed(descriptor, target) : moveWithoutReplacing(temp, target);
}

int DiskFileService::moveWithoutReplacing(const std::string& temp,
                                          const std::string& target) const {
    if (moveFile(temp.c_str(), target.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    const int error = errno;
    if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) {
        return error;
    }
    // The filesystem cannot rename without replacing, as some network ones cannot. A hard
    // link makes the same promise, failing when the name is taken; the file then drops its
    // temporary name (should that fail, the next start removes it).
    if (::link(temp.c_str(), target.c_str()) != 0) {
        return errno;
    }
    ::unlink(temp.c_str());
    return 0;
}

// An empty file tries each way; the one that works takes a temporary name and drops it at once.
DiskFileService::Temporaries DiskFileService::probeTemporaries() const {
    FileDescriptor probe(::open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
    if (probe.get() < 0) {
        return Temporaries::named;
    }
    std::string name = owner->temporaryTemplate();
    fillTemplate(name);
    for (const Temporaries way :
         {Temporaries::linkedByDescriptor, Temporaries::linkedThroughProc}) {
        if (link(way, probe.get(), name) == 0) {
            ::unlink(name.c_str());
            return way;
        }
    }
    return Temporaries::named;
}

int DiskFileService::link(Temporaries way, int descriptor, const std::string& target) {
    // By its descriptor where the kernel lets the process that opened the file do that (Linux
    // 6.10 on, or with CAP_DAC_READ_SEARCH); through /proc on any kernel that makes such files.
    if (way == Temporaries::linkedByDescriptor) {
        return ::linkat(descriptor, "", AT_FDCWD, target.c_str(), AT_EMPTY_PATH) == 0 ? 0 : errno;
    }
    const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target.c_str(), AT_SYMLINK_FOLLOW) == 0
               ? 0
               : errno;
}

int DiskFileService::linkUnnamed(int descriptor, const std::string& target) const {
    return link(temporaries, descriptor, target);
}

int DiskFileService::openTemporary(std::string& path) const {
    path.clear();
    // An unnamed file has no name to create and none to rename away: its directory is locked
    // only once, to link it, and a crash leaves nothing behind. Creating a name is what costs
    // on a directory where many files were deleted.
    if (temporaries != Temporaries::named) {
        const int descriptor =
            openWaitingForDescriptor(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
        if (descriptor >= 0) {
            return descriptor;
        }
        // Another filesystem may have been mounted on the directory since the start.
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
            return -1;
        }
    }
    return openNamedTemporary(path);
}

int DiskFileService::openNamedTemporary(std::string& path) const {
    const std::string pattern = owner->temporaryTemplate();
    for (int attempt = 0; attempt < 100; ++attempt) {
        path = pattern;
        fillTemplate(path);
        const int descriptor =
            openWaitingForDescriptor(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (descriptor >= 0 || errno != EEXIST) {
            return descriptor;
        }
    }
    return -1; // errno is EEXIST
}

int DiskFileService::syncDirectoryEntries() const {
    if (syncs.recent.get() < DirectorySyncs::quick) {
        return timedSync();
    }
    std::unique_lock<std::mutex> lock(syncs.mutex);
    // A sync already under way may have read the directory before this caller's renames; the
    // next one to start covers them, and everyone who arrives before it starts.
    const std::uint64_t batch = syncs.started + 1;
    ++syncs.outcomes[batch].waiting;
    while (syncs.finished < batch) {
        if (!syncs.running && syncs.started < batch) {
            syncs.running = true;
            syncs.started = batch;
            lock.unlock();
            const int error = timedSync();
            lock.lock();
            syncs.running = false;
            syncs.finished = batch;
            syncs.outcomes[batch].error = error;
            syncs.done.notify_all();
        } else {
            syncs.done.wait(lock);
        }
    }
    const auto outcome = syncs.outcomes.find(batch);
    const int error = outcome->second.error;
    if (--outcome->second.waiting == 0) {
        syncs.outcomes.erase(outcome);
    }
    return error;
}

int DiskFileService::timedSync() const {
    const auto started = std::chrono::steady_clock::now();
    const int error = syncDirectoryNow();
    syncs.recent.add(std::chrono::steady_clock::now() - started);
    return error;
}

int DiskFileService::syncDirectoryNow() const {
    // Opened by name each time: a descriptor kept open would go on syncing the old directory
    // after the upload directory was removed and made again.
    FileDescriptor dir(
        openWaitingForDescriptor(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) {
        return errno;
    }
    // errno is read before the descriptor is closed, which may change it.
    return syncDirectory(dir.get()) == 0 ? 0 : errno;
}

DiskFileService::RequestScope::RequestScope(DiskFileService& service, std::size_t maxFiles)
    : owner(service)
    , limit(maxFiles)
    , state(std::make_shared<ScopeState>()) {
    if (activeScope != nullptr) {
        throw std::logic_error("A request scope is already active on this thread");
    }
    activeScope = this;
}

DiskFileService::RequestScope::~RequestScope() {
    try {
        finish();
    } catch (...) {
        // Nobody is left to tell; a caller that must know calls finish() itself.
    }
    if (activeScope == this) {
        activeScope = nullptr;
    }
}

void DiskFileService::RequestScope::finish() {
    if (!finished) {
        finished = true;
        bool pending = false;
        {
            std::lock_guard<std::mutex> guard(state->mutex);
            state->finished = true;
            pending = std::exchange(state->renamesPending, false);
        }
        const int error = pending ? owner.syncDirectoryEntries() : 0;
        if (error != 0) {
            failure = std::string("Cannot make the stored files durable: ") + std::strerror(error);
            std::lock_guard<std::mutex> guard(state->mutex);
            keepFirst(state->failures, "cannot make the files stored in " + owner.directory +
                                           " durable: " + std::strerror(error));
        }
    }
    // A retried fsync may succeed without the data having reached the disk: the first
    // outcome is the one that tells.
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
}

std::size_t DiskFileService::RequestScope::filesStored() const {
    std::lock_guard<std::mutex> guard(state->mutex);
    return state->stored;
}

std::vector<StoredFile> DiskFileService::RequestScope::stored() const {
    std::lock_guard<std::mutex> guard(state->mutex);
    return state->storedFiles;
}

std::vector<std::string> DiskFileService::RequestScope::failures() const {
    std::lock_guard<std::mutex> guard(state->mutex);
    return state->failures;
}

} // namespace kestrin::host
