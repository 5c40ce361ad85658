#pragma once

#include "common/Future.h"
#include "reactive_streams/Publisher.h"
#include "reactive_streams/Subscriber.h"
#include "reactive_streams/Subscription.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kestrin::reactive_streams {

// Publishes one item to one subscriber, then completes. Carries the page of every response
// the upload subscriber builds. All signals are made synchronously inside subscribe() or
// request(), on the caller's thread; calls on one publisher must not overlap. Owns its
// subscription and holds its subscriber strongly for its whole life.
template <typename T> class OneShotPublisher : public PublisherAPI<T> {
public:
    // The subscriber's handle. Owned by the publisher alone; valid only while it lives.
    class OneShotSubscription : public Subscription {
    public:
        explicit OneShotSubscription(OneShotPublisher<T>* owner) noexcept;

        // Demand adds up, wrapping modulo 2^64; may deliver before it returns.
        void request(uint64_t n) override;
        // Silences the stream for good: no onNext, no onComplete.
        void cancel() override;

    private:
        friend class OneShotPublisher<T>;

        OneShotPublisher<T>* publisher;
        bool cancelled = false;
        uint64_t requested = 0;
    };

    explicit OneShotPublisher(T&& oneItem);

    Future<bool> getStatus() override;
    // The first subscriber for life; any later one gets std::invalid_argument and no signal.
    void subscribe(std::shared_ptr<SubscriberAPI<T>> newSubscriber) override;

    // Moves the item out, for an owner that knows no subscriber will read it again (say, the
    // only holder of a publisher whose stream has ended), so its storage can serve again.
    T releaseItem() noexcept { return std::move(item); }

private:
    void tryEmit();

    T item;
    std::shared_ptr<SubscriberAPI<T>> subscriber;
    std::shared_ptr<OneShotSubscription> subscription;
    bool done = false;
};

// ----------------------------------------------------------------------------------------

template <typename T>
OneShotPublisher<T>::OneShotSubscription::OneShotSubscription(OneShotPublisher<T>* owner) noexcept
    : publisher(owner) {}

template <typename T> void OneShotPublisher<T>::OneShotSubscription::request(uint64_t n) {
    // Unsigned arithmetic wraps: a huge demand plus more is still a sum, never an overflow.
    requested += n;
    publisher->tryEmit();
}

template <typename T> void OneShotPublisher<T>::OneShotSubscription::cancel() {
    cancelled = true;
    publisher->done = true;
}

template <typename T>
OneShotPublisher<T>::OneShotPublisher(T&& oneItem)
    : item(std::move(oneItem))
    , subscription(new OneShotSubscription(this)) {}

template <typename T> Future<bool> OneShotPublisher<T>::getStatus() {
    return makeReadyFuture(true);
}

template <typename T>
void OneShotPublisher<T>::subscribe(std::shared_ptr<SubscriberAPI<T>> newSubscriber) {
    if (subscriber) {
        throw std::invalid_argument("Only one subscription allowed.");
    }
    subscriber = std::move(newSubscriber);
    subscriber->onSubscribe(std::weak_ptr<Subscription>(subscription));
    tryEmit();
}

template <typename T> void OneShotPublisher<T>::tryEmit() {
    if (!subscriber || done || subscription->cancelled || subscription->requested == 0) {
        return;
    }
    // Marked before the first signal, so a request made from inside onNext or onComplete, or
    // a throwing onNext, can never lead to a second delivery.
    done = true;
    subscriber->onNext(item);
    subscriber->onComplete();
}

} // namespace kestrin::reactive_streams
