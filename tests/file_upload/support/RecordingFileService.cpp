#include "tests/file_upload/support/RecordingFileService.h"

#include "framework/Ost.h"

namespace kestrin::testing {

RecordingFileService::RecordingFileService()
    : worker([this] { run(); }) {}

RecordingFileService::~RecordingFileService() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
    }
    wake.notify_all();
    worker.join();
}

Future<file_common::v1::FileInfo> RecordingFileService::writeFile(file_common::v1::File&& file,
                                                                  bool overwrite) {
    Promise<file_common::v1::FileInfo> promise;
    Future<file_common::v1::FileInfo> future = promise.getFuture();
    {
        std::lock_guard<std::mutex> guard(mutex);
        queue.push_back(Job{std::move(file), std::move(promise), ++requested, overwrite});
    }
    wake.notify_one();
    return future;
}

void RecordingFileService::failWrite(size_t nth, std::function<std::exception_ptr()> makeError) {
    std::lock_guard<std::mutex> guard(mutex);
    failingWrite = nth;
    failure = std::move(makeError);
}

std::vector<RecordingFileService::Write> RecordingFileService::writes() const {
    std::lock_guard<std::mutex> guard(mutex);
    return stored;
}

std::vector<std::string> RecordingFileService::paths() const {
    std::vector<std::string> out;
    for (const Write& write : writes()) {
        out.push_back(ost::i18n::to_string(write.path));
    }
    return out;
}

void RecordingFileService::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || !queue.empty(); });
        if (queue.empty()) {
            return;
        }
        Job job = std::move(queue.front());
        queue.pop_front();
        if (job.number == failingWrite && failure) {
            auto error = failure();
            lock.unlock();
            // Hand over the only reference: releasing a copy here while the waiter reads the
            // exception would look like a race to the race detector.
            job.promise.setException(std::move(error));
        } else {
            stored.push_back(Write{job.file.info.path, bytesOf(job.file.content), job.overwrite});
            lock.unlock();
            job.promise.setValue(file_common::v1::FileInfo(job.file.info.path));
        }
        lock.lock();
    }
}

} // namespace kestrin::testing
