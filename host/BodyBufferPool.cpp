#include "host/BodyBufferPool.h"

#include <algorithm>
#include <utility>

namespace kestrin::host {

BodyBufferPool::BodyBufferPool(std::size_t limitBytes, std::size_t smallestBytes,
                               MemoryBudget* memoryBudget)
    : limit(limitBytes)
    , smallest(smallestBytes)
    , budget(memoryBudget)
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
            if (it->getCapacity() >= size &&
                (best == kept.end() || it->getCapacity() < best->getCapacity())) {
                best = it;
            }
        }
        if (best == kept.end()) {
            return taken;
        }
        taken.swap(*best);
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
    kept.push_back(std::move(given));
    keptTotal += capacity;
}

void BodyBufferPool::reclaim(std::size_t needed) {
    std::vector<common::DataBuffer> freed;
    {
        std::lock_guard<std::mutex> guard(mutex);
        std::sort(kept.begin(), kept.end(),
                  [](const auto& a, const auto& b) { return a.getCapacity() > b.getCapacity(); });
        std::size_t released = 0;
        while (!kept.empty() && released < needed) {
            released += kept.front().getCapacity();
            freed.push_back(std::move(kept.front()));
            kept.erase(kept.begin());
        }
        keptTotal -= released;
        keptCharge.shrink(released);
    }
}

std::size_t BodyBufferPool::keptBytes() const {
    std::lock_guard<std::mutex> guard(mutex);
    return keptTotal;
}

} // namespace kestrin::host
