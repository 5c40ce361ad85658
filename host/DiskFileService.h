#pragma once

#include "framework/FileService.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kestrin::host {

// The server's file service: stores each file as a direct child of one upload directory.
// Any thread may call writeFile. A refused name is answered at once, on the calling thread;
// other writes run on the service's own writer threads, several at once so that one slow
// write does not hold up the others, and the thread that wrote a file resolves its future,
// success or failure. A file is written to a temporary file beside the target, flushed to
// disk and renamed over the target, so a stored file is complete or absent, never partial; of
// two writes of one name at once, the later rename wins.
class DiskFileService : public file::v1::FileService {
public:
    // Temporary files start with this; no upload may take such a name.
    static constexpr std::string_view tempPrefix = ".kestrin-upload-";
    // The longest name a file may have, in bytes of UTF-8: the filesystem's own limit.
    static constexpr std::size_t maxNameBytes = 255;

    // Removes temporary files a previous run left behind, then starts writerCount writer
    // threads (at least one). Throws std::runtime_error when the directory cannot be resolved
    // or read, or its name is not UTF-8 (no upload could name a file in it then).
    explicit DiskFileService(const std::string& uploadDirectory, unsigned writerCount = 1);
    ~DiskFileService() override;
    DiskFileService(const DiskFileService&) = delete;
    DiskFileService& operator=(const DiskFileService&) = delete;

    // Refuses, with a std::runtime_error saying why, any path that is not exactly
    // "<upload dir>/<name>" with a name that is not empty, ".", "..", at most maxNameBytes of
    // UTF-8, and has no '/', NUL or other control character; a name is measured before it is
    // converted or copied, so a giant one costs nothing. Without overwrite an existing file
    // is refused too; with it, the file is replaced.
    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file,
                                                bool overwrite) override;

    // The resolved, absolute upload directory.
    const std::string& getDirectory() const noexcept { return directory; }

private:
    struct Job {
        file_common::v1::File file;
        std::string name;
        bool overwrite;
        Promise<file_common::v1::FileInfo> promise;
    };

    void run();
    void stopWriters() noexcept;
    file_common::v1::FileInfo store(Job& job) const;
    std::string targetName(const std::u16string& path) const;
    void removeLeftovers() const;

    std::string directory;
    std::u16string directoryPrefix; // "<directory>/" in UTF-16, as paths arrive
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> queue;
    bool stopping = false;
    std::vector<std::thread> writers;
};

} // namespace kestrin::host
