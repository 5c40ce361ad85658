#pragma once

#include "common/DataBuffer.h"
#include "host/MemoryBudget.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

namespace kestrin::host {

// Keeps the storage of large request bodies, and of the parts cut out of them, for the next
// request instead of freeing it.
// A fresh block of that size costs a page fault on every page the body lands on, which takes
// longer than receiving the bytes (several times longer on virtual machines); kept storage
// has its pages already. Holds at most `limit` bytes of capacity in all; blocks under
// `smallest` bytes are left to malloc, which serves those from memory it already has. Given a
// budget, kept storage is charged to it, handed back to it on demand (reclaim), and its charge
// travels with a buffer that is taken or given. Safe to use from any thread; no lock is held
// while memory is freed. Storage nobody took for a while can be handed back (releaseIdle), so
// a server that has gone quiet does not hold it forever.
class BodyBufferPool {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t defaultSmallest = std::size_t{1} << 20;

    explicit BodyBufferPool(std::size_t limit, std::size_t smallest = defaultSmallest,
                            MemoryBudget* budget = nullptr,
                            std::function<Clock::time_point()> clock = &Clock::now);
    BodyBufferPool(const BodyBufferPool&) = delete;
    BodyBufferPool& operator=(const BodyBufferPool&) = delete;

    // The smallest kept buffer with room for size bytes, emptied (size 0), or an empty buffer
    // without storage when none fits or size is under `smallest`. The buffer's charge moves
    // into `charge` (when given), whose owner now holds the storage.
    common::DataBuffer take(std::size_t size, MemoryBudget::Reservation* charge = nullptr);

    // Keeps buffer's storage if it is large enough and fits under the limit and the budget;
    // frees it if not. The kept storage takes its charge from `charge` (when given) first.
    void give(common::DataBuffer&& buffer, MemoryBudget::Reservation* charge = nullptr);

    // Frees kept storage, largest first, until at least `needed` bytes are freed or none is
    // left. The budget calls it when a charge does not fit.
    void reclaim(std::size_t needed);

    // Frees the storage kept longer than `idle` without being taken; returns the bytes freed.
    std::size_t releaseIdle(Clock::duration idle);

    // Capacity currently kept, in bytes.
    std::size_t keptBytes() const;

private:
    const std::size_t limit;
    const std::size_t smallest;
    MemoryBudget* const budget;
    const std::function<Clock::time_point()> clock;
    mutable std::mutex mutex;
    struct Kept {
        common::DataBuffer buffer;
        Clock::time_point since;
    };
    std::vector<Kept> kept;
    std::size_t keptTotal = 0;
    MemoryBudget::Reservation keptCharge;
};

} // namespace kestrin::host
