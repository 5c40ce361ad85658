#pragma once

#include <string>

namespace kestrin::host {

// One running instance's claim on an upload directory that other instances, on this machine or
// others over a network filesystem, may share. It makes an owner file named with a random id
// and holds a write lock on it for its lifetime (an open file description lock, which the
// kernel drops when the process dies, and which NFSv4 and CephFS pass on to the server, where
// process ids mean nothing); the instance's temporary files carry the id. A starting instance
// removes another one's temporary files only when it can take that owner's lock itself.
// Made and destroyed by one thread; the accessors may be called from any thread.
class InstanceOwner {
public:
    // Claims a new id in directory. Throws std::runtime_error when the owner file cannot be
    // made or locked (a filesystem without locks among the causes).
    explicit InstanceOwner(const std::string& directory);
    // Removes the owner file, then lets go of the lock.
    ~InstanceOwner();
    InstanceOwner(const InstanceOwner&) = delete;
    InstanceOwner& operator=(const InstanceOwner&) = delete;

    const std::string& id() const noexcept { return ownId; }

    // A mkstemp template for a temporary file of this instance, in the directory.
    std::string temporaryTemplate() const;

    // Removes the temporary files of instances that are gone and their owner files, and
    // temporary files without an owner that have not changed for a long while; leaves the
    // files of live instances alone. A file that cannot be removed is left for the next
    // start. Throws std::runtime_error when the directory cannot be read.
    void removeLeftovers() const;

private:
    std::string directory;
    std::string ownId;
    int descriptor = -1; // the owner file, locked
};

} // namespace kestrin::host
