#pragma once

#include <cstdint>

namespace kestrin::reactive_streams {

// A subscriber's handle for asking a publisher for items. Owned by the publisher; the
// subscriber sees it through a weak reference only.
class Subscription {
public:
    Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    virtual ~Subscription();

    // Adds n items to the demand.
    virtual void request(uint64_t n) = 0;
    // Nothing more is wanted: no further signal, not even onComplete.
    virtual void cancel() = 0;
};

} // namespace kestrin::reactive_streams
