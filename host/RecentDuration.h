#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace kestrin::host {

// How long something has taken lately: a running average in which each new duration weighs an
// eighth, so one slow sample lifts it at once and a few quick ones bring it back. Any thread
// may add to it and read it without a lock; concurrent additions may lose one another's
// sample, which an average of many does not notice.
class RecentDuration {
public:
    explicit RecentDuration(std::chrono::nanoseconds start) noexcept
        : average(start.count()) {}

    std::chrono::nanoseconds get() const noexcept {
        return std::chrono::nanoseconds(average.load(std::memory_order_relaxed));
    }

    void add(std::chrono::nanoseconds took) noexcept {
        const std::int64_t before = average.load(std::memory_order_relaxed);
        average.store(before + (took.count() - before) / 8, std::memory_order_relaxed);
    }

private:
    std::atomic<std::int64_t> average;
};

} // namespace kestrin::host
