#include "host/DiskFileService.h"

#include "framework/Ost.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kestrin::host {

namespace {

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
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
void writeThrough(int fd, const uint8_t* bytes, size_t count) {
    constexpr size_t window = size_t{8} << 20;
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

} // namespace

DiskFileService::DiskFileService(const std::string& uploadDirectory, unsigned writerCount) {
    std::unique_ptr<char, decltype(&std::free)> resolved(
        ::realpath(uploadDirectory.c_str(), nullptr), &std::free);
    if (!resolved) {
        throw systemError("Cannot resolve upload directory " + uploadDirectory);
    }
    directory = resolved.get();
    removeLeftovers();
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
    Promise<file_common::v1::FileInfo> promise;
    Future<file_common::v1::FileInfo> future = promise.getFuture();
    {
        std::lock_guard<std::mutex> guard(mutex);
        queue.push_back(Job{std::move(file), overwrite, std::move(promise)});
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
        std::optional<file_common::v1::FileInfo> stored;
        std::exception_ptr failure;
        try {
            stored.emplace(store(job.file, job.overwrite));
        } catch (...) {
            failure = std::current_exception();
        }
        // Resolve outside the handler, handing over the only reference to a failure: a copy
        // released here while the waiter reads it would look like a race to ThreadSanitizer.
        if (failure) {
            job.promise.setException(std::move(failure));
        } else {
            job.promise.setValue(std::move(*stored));
        }
        lock.lock();
    }
}

std::string DiskFileService::targetName(const std::u16string& path) const {
    const std::string text = ost::i18n::to_string(path);
    const std::string prefix = directory + "/";
    if (text.compare(0, prefix.size(), prefix) != 0) {
        throw std::runtime_error("Refused path " + text + ": it is not in the upload directory");
    }
    const std::string name = text.substr(prefix.size());
    if (name.empty()) {
        throw std::runtime_error("Refused file name: it is empty");
    }
    if (name == "." || name == "..") {
        throw std::runtime_error("Refused file name '" + name + "': it names a directory");
    }
    if (name.find('/') != std::string::npos) {
        throw std::runtime_error("Refused file name '" + name + "': it contains a path separator");
    }
    if (name.find('\0') != std::string::npos) {
        throw std::runtime_error("Refused file name: it contains a NUL byte");
    }
    if (name.compare(0, tempPrefix.size(), tempPrefix) == 0) {
        throw std::runtime_error("Refused file name '" + name +
                                 "': it is reserved for temporary files");
    }
    return name;
}

file_common::v1::FileInfo DiskFileService::store(file_common::v1::File& file,
                                                 bool overwrite) const {
    const std::string name = targetName(file.info.path);
    const std::string target = directory + "/" + name;
    std::string temp = directory + "/" + std::string(tempPrefix) + "XXXXXX";

    FileDescriptor out(::mkstemp(temp.data()));
    if (out.get() < 0) {
        throw systemError("Cannot create a temporary file for " + name);
    }
    try {
        // mkstemp makes the file private; a stored upload is readable like any other file.
        if (::fchmod(out.get(), 0644) != 0) {
            throw systemError("Cannot set the permissions of " + name);
        }
        const size_t size = file.content.getSize();
        if (size > 0) {
            writeThrough(out.get(), file.content.bytes(), size);
        }
        if (::fsync(out.get()) != 0) {
            throw systemError("Cannot flush " + name);
        }
        ::posix_fadvise(out.get(), 0, 0, POSIX_FADV_DONTNEED);
        if (::close(out.release()) != 0) {
            throw systemError("Cannot close " + name);
        }
        const int renamed = overwrite ? ::rename(temp.c_str(), target.c_str())
                                      : ::renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD,
                                                    target.c_str(), RENAME_NOREPLACE);
        if (renamed != 0) {
            throw systemError("Cannot store " + name);
        }
    } catch (...) {
        ::unlink(temp.c_str());
        throw;
    }
    // The rename is durable only once the directory entry is on disk too.
    FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) {
        ::fsync(dir.get());
    }

    file_common::v1::FileInfo info(file.info.path);
    info.attributes["size"] = static_cast<uint64_t>(file.content.getSize());
    return info;
}

void DiskFileService::removeLeftovers() const {
    const auto closeListing = [](DIR* listing) { ::closedir(listing); };
    std::unique_ptr<DIR, decltype(closeListing)> listing(::opendir(directory.c_str()),
                                                         closeListing);
    if (!listing) {
        throw systemError("Cannot read upload directory " + directory);
    }
    while (const dirent* entry = ::readdir(listing.get())) {
        const std::string_view name(entry->d_name);
        if (name.compare(0, tempPrefix.size(), tempPrefix) == 0) {
            ::unlinkat(::dirfd(listing.get()), entry->d_name, 0);
        }
    }
}

} // namespace kestrin::host
