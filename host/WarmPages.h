#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

namespace kestrin::host {

// Memory that a large upload's part will need, touched while the body is still arriving and
// handed back to the system just before the module cuts the part out of the body.
//
// The first touch of a page is a fault, and on a virtual machine whose host takes freed memory
// back, a page the system has not used for a while costs several times its copy: for a part of
// hundreds of MiB that is most of the upload's time, and the module can only start copying
// once the whole body is in. Pages the system has just been handed back are still backed, so
// the module's fresh block, of the same size, faults at full speed. Touching runs beside the
// receive, on another thread; what it has not reached by the time the part is needed stays
// cold, nothing worse. The block takes the place of the part within the request's memory
// charge: it is gone before the part is made.
class WarmPages {
public:
    // Bodies under this many bytes take few enough faults not to need it.
    static constexpr std::size_t worthFrom = std::size_t{8} << 20;

    // A block of bytes, not touched yet; null when the system has no room for it.
    static std::shared_ptr<WarmPages> map(std::size_t bytes);

    ~WarmPages();
    WarmPages(const WarmPages&) = delete;
    WarmPages& operator=(const WarmPages&) = delete;

    // Touches every page, stopping early once release() is called. Any thread.
    void touch();

    // Stops touch() if it runs, waiting for it, and hands the memory back. Any thread; later
    // calls do nothing.
    void release();

    // How many bytes touch() has reached so far.
    std::size_t touched() const noexcept { return reached.load(std::memory_order_relaxed); }

private:
    WarmPages(void* base, std::size_t bytes);

    std::mutex mutex; // held by touch() and by the unmapping
    void* base;       // null once released
    const std::size_t size;
    std::atomic<bool> released{false};
    std::atomic<std::size_t> reached{0};
};

} // namespace kestrin::host
