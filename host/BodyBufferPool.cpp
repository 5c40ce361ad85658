#include "host/BodyBufferPool.h"

#include <utility>

namespace kestrin::host {

BodyBufferPool::BodyBufferPool(std::size_t limitBytes, std::size_t smallestBytes)
    : limit(limitBytes)
    , smallest(smallestBytes) {}

common::DataBuffer BodyBufferPool::take(std::size_t size) {
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
    }
    taken.resize(0);
    return taken;
}

void BodyBufferPool::give(common::DataBuffer&& buffer) {
    common::DataBuffer given(std::move(buffer));
    const std::size_t capacity = given.getCapacity();
    if (given.bytes() == nullptr || capacity < smallest) {
        return;
    }
    // A buffer not kept is freed after the lock is let go: given outlives the guard.
    std::lock_guard<std::mutex> guard(mutex);
    if (capacity <= limit - keptTotal) {
        kept.push_back(std::move(given));
        keptTotal += capacity;
    }
}

std::size_t BodyBufferPool::keptBytes() const {
    std::lock_guard<std::mutex> guard(mutex);
    return keptTotal;
}

} // namespace kestrin::host
