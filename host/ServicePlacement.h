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
    // Nor do bodies of more parts than this: each part is a file, written and synced on its
    // own, so a small body of hundreds of tiny files would hold the IO thread hundreds of
    // times as long as the calls the average was made of.
    static constexpr std::size_t fewParts = 8;
    // Small calls run where the request is while their running average stays under this.
    static constexpr std::chrono::microseconds quick{100};

    // Whether the call for a body of this many bytes and parts runs on the calling IO thread.
    bool runInline(std::size_t bodyBytes, std::size_t parts) const noexcept;

    // Records how long the call for a body of this many bytes and parts took, wherever it ran.
    // Only small calls count: a client's calls of other kinds cannot send everyone's small
    // ones to the service threads.
    void record(std::size_t bodyBytes, std::size_t parts, std::chrono::nanoseconds took) noexcept;

private:
    // One slow call takes the average over the limit at once (an eighth of a sync of a few
    // milliseconds is enough), and a few quick ones bring it back.
    RecentDuration recent{quick * 2};
};

} // namespace kestrin::host
