#pragma once

#include "framework/FileService.h"
#include "tests/common/support/BytesOf.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::testing {

// A file service that keeps every write in memory and resolves each future from a thread of
// its own, as a real file service does. It can fail a chosen write.
class RecordingFileService : public file::v1::FileService {
public:
    struct Write {
        std::u16string path;
        std::string bytes;
        bool overwrite;
    };

    RecordingFileService();
    ~RecordingFileService() override;

    Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file,
                                                bool overwrite) override;

    // The nth write (1-based) fails with the exception made by makeError; nothing is stored.
    void failWrite(size_t nth, std::function<std::exception_ptr()> makeError);

    std::vector<Write> writes() const;
    // UTF-8 paths, for readable comparisons.
    std::vector<std::string> paths() const;

private:
    struct Job {
        file_common::v1::File file;
        Promise<file_common::v1::FileInfo> promise;
        size_t number;
        bool overwrite;
    };
    void run();

    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> queue;
    std::vector<Write> stored;
    size_t requested = 0;
    size_t failingWrite = 0;
    std::function<std::exception_ptr()> failure;
    bool stopping = false;
    std::thread worker;
};

} // namespace kestrin::testing
