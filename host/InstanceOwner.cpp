#include "host/InstanceOwner.h"

#include "host/Leftovers.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrin::host {

namespace {

std::string randomId() {
    std::random_device source; // getrandom on Linux
    std::string id;
    while (id.size() < leftovers::idLength) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(source()));
        id += digits;
    }
    id.resize(leftovers::idLength);
    return id;
}

// A write lock on the whole file, without waiting: 0, or the errno of the refusal (EAGAIN or
// EACCES while someone else holds it). Open file description locks belong to the descriptor,
// so two instances in one process (as in tests) exclude each other too; where the kernel has
// none, process locks do the same between processes.
int tryLock(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) {
        return 0;
    }
    if (errno != EINVAL) {
        return errno;
    }
    lock.l_pid = 0;
    return ::fcntl(fd, F_SETLK, &lock) == 0 ? 0 : errno;
}

std::chrono::system_clock::time_point modifiedTime(const struct stat& status) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(status.st_mtim.tv_sec) +
            std::chrono::nanoseconds(status.st_mtim.tv_nsec)));
}

std::string hostName() {
    char name[256] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "?";
}

} // namespace

InstanceOwner::InstanceOwner(const std::string& uploadDirectory)
    : directory(uploadDirectory) {
    // Another start may find the new file before it is locked, take it for a dead owner's
    // and remove it; the file is then no longer at its name, and a fresh id is tried.
    for (int attempt = 0; attempt < 8; ++attempt) {
        const std::string id = randomId();
        const std::string path = directory + "/" + std::string(leftovers::ownerPrefix) + id;
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) {
            if (errno == EEXIST) {
                continue;
            }
            throw std::runtime_error("Cannot make the owner file " + path + ": " +
                                     std::strerror(errno));
        }
        const int refused = tryLock(fd);
        struct stat opened {};
        struct stat named {};
        if (refused == 0 && ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
            opened.st_dev == named.st_dev && opened.st_ino == named.st_ino) {
            ownId = id;
            descriptor = fd;
            // For the operator who wonders whose file this is; nothing reads it.
            const std::string note = "kestrin-upload-server pid " + std::to_string(::getpid()) +
                                     " on " + hostName() + "\n";
            [[maybe_unused]] const ssize_t written = ::write(fd, note.data(), note.size());
            return;
        }
        ::close(fd);
        if (refused != 0 && refused != EAGAIN && refused != EACCES) {
            ::unlink(path.c_str());
            throw std::runtime_error("Cannot lock the owner file " + path + ": " +
                                     std::strerror(refused) +
                                     " (instances sharing a directory need file locks)");
        }
    }
    throw std::runtime_error("Cannot claim an owner file in " + directory);
}

InstanceOwner::~InstanceOwner() {
    // Unlinked while still locked, so no start can find the file unlocked under its name.
    ::unlink((directory + "/" + std::string(leftovers::ownerPrefix) + ownId).c_str());
    ::close(descriptor);
}

std::string InstanceOwner::temporaryTemplate() const {
    return directory + "/" + std::string(leftovers::tempPrefix) + ownId + "-XXXXXX";
}

void InstanceOwner::removeLeftovers() const {
    const auto closeListing = [](DIR* listing) { ::closedir(listing); };
    std::unique_ptr<DIR, decltype(closeListing)> listing(::opendir(directory.c_str()),
                                                         closeListing);
    if (!listing) {
        throw std::runtime_error("Cannot read upload directory " + directory + ": " +
                                 std::strerror(errno));
    }
    const int dir = ::dirfd(listing.get());
    std::vector<leftovers::Entry> entries;
    while (const dirent* entry = ::readdir(listing.get())) {
        const std::string_view name(entry->d_name);
        if (name.compare(0, leftovers::tempPrefix.size(), leftovers::tempPrefix) != 0) {
            continue;
        }
        struct stat status {};
        if (::fstatat(dir, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
            entries.push_back({std::string(name), modifiedTime(status)});
        }
    }

    // An owner is gone when its lock can be taken, or its file is gone. The locks taken are
    // held until its files are removed, so that no other start decides on them meanwhile.
    std::set<std::string> gone;
    std::map<std::string, int> held;
    for (const std::string& owner : leftovers::ownersToCheck(entries, ownId)) {
        const std::string name = std::string(leftovers::ownerPrefix) + owner;
        const int fd = ::openat(dir, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            if (errno == ENOENT) {
                gone.insert(owner);
            }
            continue;
        }
        if (tryLock(fd) == 0) {
            gone.insert(owner);
            held.emplace(owner, fd);
        } else {
            ::close(fd);
        }
    }
    const leftovers::Removal removal =
        leftovers::decide(entries, gone, ownId, std::chrono::system_clock::now());
    for (const std::string& name : removal.temporaries) {
        ::unlinkat(dir, name.c_str(), 0);
    }
    for (const std::string& name : removal.ownerFiles) {
        ::unlinkat(dir, name.c_str(), 0);
    }
    for (const auto& [owner, fd] : held) {
        ::close(fd);
    }
}

} // namespace kestrin::host
