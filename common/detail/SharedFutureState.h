#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace kestrin {

template <typename T> class Future;
template <typename T> class FutureContinuation;

enum class FutureStatus : int32_t {
    Pending = 0,
    HasValue = 1,
    HasException = 2,
    Cancelled = 3,
};

namespace detail {

// The state one promise and its future share. Resolved once, by the producer, with a value
// or an exception; read once, by the consumer, either by blocking in get() or through a
// continuation that the resolving thread runs.
//
//              setValue             +----------+
//   Pending ----------------------> | HasValue |----+
//      |  \    setException         +----------+    |  continuation attached:
//      |   \-------------------> HasException ------+  detached and run by the
//      | cancel                                        resolving thread, outside
//      v                                               the lock
//   Cancelled  (later resolutions are ignored)
//
// Every field below the condition is guarded by the mutex. The mutex is never held while a
// continuation runs, and waiters are woken after it has been released.
template <typename T>
class SharedFutureState : public std::enable_shared_from_this<SharedFutureState<T>> {
public:
    SharedFutureState() = default;
    SharedFutureState(const SharedFutureState&) = delete;
    SharedFutureState& operator=(const SharedFutureState&) = delete;
    ~SharedFutureState();

    // Producer side, any thread. Throws "Promise already resolved." on a resolved state,
    // does nothing on a cancelled one. May run the continuation on the calling thread.
    // An empty error is refused with std::invalid_argument before anything changes: get()
    // would have nothing to throw.
    void setValue(T value);
    void setException(std::exception_ptr error);

    // Consumer side, any thread, at most once per state. Blocks until resolved.
    T get();

    // Consumer side: attach the callback that the resolving thread runs. If the state is
    // already resolved it runs at once, on the calling thread.
    void attach(std::unique_ptr<FutureContinuation<T>> callback);

    // Framework side: a pending state becomes Cancelled and its waiters give up.
    void cancel();

    // Producer side, when the producer goes away: a still pending state fails with
    // "Promise destroyed before it was resolved."; a resolved or cancelled one is left alone.
    void abandon();

    // The step after every resolution; called with the mutex held through lock, returns with
    // it released.
    void notifyResolved(std::unique_lock<std::mutex>& lock);

private:
    template <typename Store> void resolve(FutureStatus to, Store&& store);
    void releaseResult() noexcept;

    std::mutex mutex;
    std::condition_variable condition;
    union {
        T* value;
        std::exception_ptr* error;
    } result{nullptr};
    FutureContinuation<T>* continuation = nullptr;
    FutureStatus status = FutureStatus::Pending;
    bool continuationAttached = false;
    bool valueRetrieved = false;
};

// ----------------------------------------------------------------------------------------

// A producer that stored an exception_ptr inside an exception_ptr meant the inner one.
[[noreturn]] inline void rethrowUnwrapped(std::exception_ptr error) {
    try {
        std::rethrow_exception(std::move(error));
    } catch (const std::exception_ptr& inner) {
        std::rethrow_exception(inner);
    }
}

template <typename T> SharedFutureState<T>::~SharedFutureState() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        releaseResult();
    }
    // A continuation that never ran is dropped without being called.
    delete continuation;
}

template <typename T> void SharedFutureState<T>::releaseResult() noexcept {
    if (status == FutureStatus::HasValue) {
        delete result.value;
    } else if (status == FutureStatus::HasException) {
        delete result.error;
    }
    result.value = nullptr;
}

template <typename T>
template <typename Store>
void SharedFutureState<T>::resolve(FutureStatus to, Store&& store) {
    std::unique_lock<std::mutex> lock(mutex);
    if (status == FutureStatus::Cancelled) {
        return;
    }
    if (status != FutureStatus::Pending) {
        throw std::runtime_error("Promise already resolved.");
    }
    // Allocate before changing the status so that a failed allocation leaves the state pending.
    store();
    status = to;
    notifyResolved(lock);
}

template <typename T> void SharedFutureState<T>::setValue(T value) {
    resolve(FutureStatus::HasValue, [&] { result.value = new T(std::move(value)); });
}

template <typename T> void SharedFutureState<T>::setException(std::exception_ptr error) {
    if (!error) {
        throw std::invalid_argument("A promise cannot be resolved with an empty exception.");
    }
    resolve(FutureStatus::HasException,
            [&] { result.error = new std::exception_ptr(std::move(error)); });
}

template <typename T>
void SharedFutureState<T>::notifyResolved(std::unique_lock<std::mutex>& lock) {
    bool resolved = status == FutureStatus::HasValue || status == FutureStatus::HasException;
    if (continuation == nullptr || !resolved) {
        lock.unlock();
        condition.notify_all();
        return;
    }
    std::unique_ptr<FutureContinuation<T>> callback(continuation);
    continuation = nullptr;
    // The continuation's future may call get() once.
    valueRetrieved = false;
    continuationAttached = false;
    lock.unlock();
    {
        Future<T> future(this->shared_from_this());
        callback->invoke(future);
    }
    callback.reset();
    condition.notify_all();
}

template <typename T> T SharedFutureState<T>::get() {
    std::unique_lock<std::mutex> lock(mutex);
    if (valueRetrieved || continuation != nullptr) {
        throw std::runtime_error(
            "Future already returned it's value or has an associated continuation.");
    }
    // Set before waiting: a second get() fails even while the first one still waits.
    valueRetrieved = true;
    // Wait on a predicate: the value may have been set before we got here.
    condition.wait(lock, [this] { return status != FutureStatus::Pending; });
    switch (status) {
    case FutureStatus::HasValue:
        return std::move(*result.value);
    case FutureStatus::HasException: {
        std::exception_ptr error = std::move(*result.error);
        lock.unlock();
        rethrowUnwrapped(std::move(error));
    }
    case FutureStatus::Cancelled:
        throw std::runtime_error("Future has been cancelled.");
    default:
        throw std::runtime_error("Invalid Future state reached.");
    }
}

template <typename T>
void SharedFutureState<T>::attach(std::unique_ptr<FutureContinuation<T>> callback) {
    std::unique_lock<std::mutex> lock(mutex);
    if (valueRetrieved || continuation != nullptr) {
        throw std::runtime_error(
            "Future already returned it's value or has an associated continuation.");
    }
    continuation = callback.release();
    continuationAttached = true;
    notifyResolved(lock);
}

template <typename T> void SharedFutureState<T>::abandon() {
    std::unique_lock<std::mutex> lock(mutex);
    if (status != FutureStatus::Pending) {
        return;
    }
    result.error = new std::exception_ptr(
        std::make_exception_ptr(std::runtime_error("Promise destroyed before it was resolved.")));
    status = FutureStatus::HasException;
    notifyResolved(lock);
}

template <typename T> void SharedFutureState<T>::cancel() {
    std::unique_lock<std::mutex> lock(mutex);
    if (status != FutureStatus::Pending) {
        return;
    }
    status = FutureStatus::Cancelled;
    lock.unlock();
    condition.notify_all();
}

} // namespace detail
} // namespace kestrin
