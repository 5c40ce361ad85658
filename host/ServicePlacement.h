#pragma once

#include "host/RecentDuration.h"

#include <chrono>
#include <cstddef>

namespace kestrin::host {

// Where a request's service call runs: on the IO thread that read the request, or on a service
// thread. A call blocks until its files are on disk. Where that takes microseconds (a small
// body, storage that syncs fast) handing the call to another thread and the answer back costs
// more than the call, so it runs where the request is; where a sync takes long, an IO thread
// blocked on it would stall every other connection it serves, so it goes to a service thread.
// The choice follows the recent calls: each small call's duration, wherever it ran, feeds a
// running average. It starts on the service threads, until calls have shown they are quick.
// Any thread may use one.
class ServicePlacement {
public:
    // Bodies larger than this always go to a service thread: copying and writing them is not
    // quick anywhere.
    static constexpr std::size_t smallBody = 64 * 1024;
    // Small calls run where the request is while their running average stays under this.
    static constexpr std::chrono::microseconds quick{100};

    // Whether the call for a body of this many bytes runs on the calling IO thread.
    bool runInline(std::size_t bodyBytes) const noexcept;

    // Records how long the call for a body of this many bytes took, wherever it ran.
    void record(std::size_t bodyBytes, std::chrono::nanoseconds took) noexcept;

private:
    // One slow call takes the average over the limit at once (an eighth of a sync of a few
    // milliseconds is enough), and a few quick ones bring it back.
    RecentDuration recent{quick * 2};
};

} // namespace kestrin::host
