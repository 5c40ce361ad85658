#pragma once

#include "common/Future.h"
#include "reactive_streams/Subscription.h"

#include <exception>
#include <memory>

namespace kestrin::reactive_streams {

// Root of every subscriber; the framework owns its constructor and destructor.
class Subscriber {
public:
    Subscriber();
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    virtual ~Subscriber();
};

// Receives a stream of T: onSubscribe first, then onNext for each item asked for, then one
// of onComplete or onError.
template <typename T> class SubscriberAPI : public Subscriber {
public:
    virtual void onSubscribe(std::weak_ptr<Subscription> subscription) = 0;
    virtual void onComplete() = 0;
    virtual Future<bool> getStatus() = 0;
    // item stays owned by the publisher; valid for the duration of the call.
    virtual void onNext(T& item) = 0;
    virtual void onError(std::exception_ptr error) = 0;
};

} // namespace kestrin::reactive_streams
