#pragma once

#include "common/Future.h"

#include <memory>

namespace kestrin::reactive_streams {

template <typename T> class SubscriberAPI;

// Root of every publisher; the framework owns its constructor and destructor.
class Publisher {
public:
    Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    virtual ~Publisher();
};

// A stream of T. subscribe() answers with onSubscribe; items flow only on demand, and
// signals to one subscriber never overlap. Signals may come synchronously from inside
// subscribe() or Subscription::request().
template <typename T> class PublisherAPI : public Publisher {
public:
    virtual Future<bool> getStatus() = 0;
    virtual void subscribe(std::shared_ptr<SubscriberAPI<T>> subscriber) = 0;
};

} // namespace kestrin::reactive_streams
