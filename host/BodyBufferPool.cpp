#include "host/BodyBufferPool.h"

#include <algorithm>
#include <utility>

namespace kestrin::host {

BodyBufferPool::BodyBufferPool(std::size_t limitBytes, std::size_t smallestBytes,
                               MemoryBudget* memoryBudget, std::function<Clock::time_point()> now)
    : limit(limitBytes)
    , smallest(smallestBytes)
    , budget(memoryBudget)
    , clock(std::move(now))
    , keptCharge(memoryBudget != nullptr ? memoryBudget->empty() : MemoryBudget::Reservation()) {}

common::DataBuffer BodyBufferPool::take(std::size_t size, MemoryBudget::Reservation* charge) {
    common::DataBuffer taken;
    // A small body would tie up a large block that a large one may need next.
    if (size < smallest) {
        return taken;
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        auto best = kept.end();
        for (auto it = kept.begin(); it != kept.end(); ++it) {
            if (it->buffer.getCapacity() >= size &&
                (best == kept.end() || it->buffer.getCapacity() < best->buffer.getCapacity())) {
                best = it;
            }
        }
        if (best == kept.end()) {
            return taken;
        }
        taken.swap(best->buffer);
        kept.erase(best);
        keptTotal -= taken.getCapacity();
        if (budget != nullptr) {
            if (charge != nullptr) {
                keptCharge.moveTo(*charge, taken.getCapacity());
            } else {
                keptCharge.shrink(taken.getCapacity());
            }
        }
    }
    taken.resize(0);
    return taken;
}

void BodyBufferPool::give(common::DataBuffer&& buffer, MemoryBudget::Reservation* charge) {
    common::DataBuffer given(std::move(buffer));
    const std::size_t capacity = given.getCapacity();
    if (given.bytes() == nullptr || capacity < smallest) {
        return;
    }
    const Clock::time_point now = clock();
    // A buffer not kept is freed after the lock is let go: given outlives the guard.
    std::lock_guard<std::mutex> guard(mutex);
    if (capacity > limit - keptTotal) {
        return;
    }
    if (budget != nullptr) {
        const std::size_t carried =
            charge != nullptr ? std::min<std::uint64_t>(charge->bytes(), capacity) : 0;
        if (carried < capacity && !keptCharge.grow(capacity - carried, false)) {
            return;
        }
        if (carried > 0) {
            charge->moveTo(keptCharge, carried);
        }
    }
    kept.push_back(Kept{std::move(given), now});
    keptTotal += capacity;
}

void BodyBufferPool::reclaim(std::size_t needed) {
    std::vector<Kept> freed;
    {
        std::lock_guard<std::mutex> guard(mutex);
        std::sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) {
            return a.buffer.getCapacity() > b.buffer.getCapacity();
        });
        std::size_t released = 0;
        while (!kept.empty() && released < needed) {
            released += kept.front().buffer.getCapacity();
            freed.push_back(std::move(kept.front()));
            kept.erase(kept.begin());
        }
        keptTotal -= released;
        keptCharge.shrink(released);
    }
}

std::size_t BodyBufferPool::releaseIdle(Clock::duration idle) {
    std::vector<Kept> freed;
    const Clock::time_point now = clock();
    std::size_t released = 0;
    {
        std::lock_guard<std::mutex> guard(mutex);
        const auto stale = std::stable_partition(
            kept.begin(), kept.end(), [&](const Kept& entry) { return now - entry.since < idle; });
        for (auto it = stale; it != kept.end(); ++it) {
            released += it->buffer.getCapacity();
            freed.push_back(std::move(*it));
        }
        kept.erase(stale, kept.end());
        keptTotal -= released;
        keptCharge.shrink(released);
    }
    return released;
}

std::size_t BodyBufferPool::keptBytes() const {
    std::lock_guard<std::mutex> guard(mutex);
    return keptTotal;
}

} // namespace kestrin::host
