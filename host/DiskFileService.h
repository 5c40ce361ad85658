#pragma once

#include "framework/FileService.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace kestrin::host {

// The server's file service: stores each file as a direct child of one upload directory.
// Any thread may call writeFile; the writes run one after another on the service's own
// writer thread, which also resolves every returned future, success or failure. A file is
// written to a temporary file beside the target, flushed to disk and renamed over the
// target, so a stored file is complete or absent, never partial.
class DiskFileService : public file::v1::FileService {
public:
    // Temporary files start with this; no upload may take such a name.
    static constexpr std::string_view tempPrefix = ".kestrin-upload-";

    // Removes temporary files a previous run left behind. Throws std::runtime_error when the
    // directory cannot be resolved or read.
    explicit DiskFileService(const std::string& uploadDirectory);
    ~DiskFileService() override;
    DiskFileService(const DiskFileService&) = delete;
    DiskFileService& operator=(const DiskFileService&) = delete;

    // Refuses, with a std::runtime_error saying why, any path that is not exactly
    // "<upload dir>/<name>" with a name that is not empty, ".", "..", and has no '/' or NUL.
    // Without overwrite an existing file is refused too; with it, the file is replaced.
    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file,
                                                bool overwrite) override;

    // The resolved, absolute upload directory.
    const std::string& getDirectory() const noexcept { return directory; }

private:
    struct Job {
        file_common::v1::File file;
        bool overwrite;
        Promise<file_common::v1::FileInfo> promise;
    };

    void run();
    file_common::v1::FileInfo store(file_common::v1::File& file, bool overwrite) const;
    std::string targetName(const std::u16string& path) const;
    void removeLeftovers() const;

    std::string directory;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> queue;
    bool stopping = false;
    std::thread writer;
};

} // namespace kestrin::host
