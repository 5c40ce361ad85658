#pragma once

#include "common/detail/SharedFutureState.h"

#include <atomic>
#include <exception>
#include <memory>
#include <utility>

namespace kestrin {

// A callback attached to a future; owned by the state and run once by the thread that
// resolves it, outside the state's lock.
template <typename T> class FutureContinuation {
public:
    virtual ~FutureContinuation() = default;
    // future is on the resolved state; get() on it succeeds once.
    virtual void invoke(Future<T>& future) = 0;
};

// The consumer's handle on a shared state. Moved, never copied; get() or then(), not both.
template <typename T> class Future {
public:
    explicit Future(std::shared_ptr<detail::SharedFutureState<T>>&& sharedState) noexcept
        : state(std::move(sharedState))
        , valid(state != nullptr) {}
    Future(Future&& other) noexcept
        : state(std::move(other.state))
        , valid(other.valid.exchange(false)) {}
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;
    Future& operator=(Future&&) = delete;
    ~Future() {
        valid.store(false);
        state.reset();
    }

    bool isValid() const noexcept { return valid.load(); }

    // Blocks until the state is resolved; returns the value or throws the stored exception.
    T get() {
        if (!valid.load()) {
            throw std::runtime_error("Future state isn't valid!");
        }
        // Keep the state alive for the whole wait, whatever happens to this future.
        std::shared_ptr<detail::SharedFutureState<T>> keep = state;
        return keep->get();
    }

    // Runs callback(Future<T>&) once the state is resolved: on the resolving thread, or here
    // when it already is.
    template <typename Callback> void then(Callback&& callback);

    // Framework side: stop waiting for a pending result.
    void cancel() {
        if (state) {
            state->cancel();
        }
    }

private:
    std::shared_ptr<detail::SharedFutureState<T>> state;
    std::atomic<bool> valid;
};

// The producer's handle. Move-only. A promise destroyed or overwritten (moved onto) while its
// state is still pending fails the state with "Promise destroyed before it was resolved.",
// so that no consumer waits forever for a producer that is gone.
template <typename T> class Promise {
public:
    Promise()
        : state(std::make_shared<detail::SharedFutureState<T>>()) {}
    Promise(Promise&&) noexcept = default;
    Promise& operator=(Promise&& other) noexcept;
    Promise(const Promise&) = delete;
    Promise& operator=(const Promise&) = delete;
    ~Promise() { abandonState(); }

    void setValue(T value) { state->setValue(std::move(value)); }
    // An empty error is refused with std::invalid_argument; the state stays pending.
    void setException(std::exception_ptr error) { state->setException(std::move(error)); }
    Future<T> getFuture() {
        return Future<T>(std::shared_ptr<detail::SharedFutureState<T>>(state));
    }

private:
    // Fails the state if it is still pending and someone else holds it.
    void abandonState() noexcept;

    std::shared_ptr<detail::SharedFutureState<T>> state;
};

template <typename T> Future<T> makeReadyFuture(T value) {
    auto state = std::make_shared<detail::SharedFutureState<T>>();
    state->setValue(std::move(value));
    return Future<T>(std::move(state));
}

template <typename T> Future<T> makeExceptionalFuture(std::exception_ptr error) {
    auto state = std::make_shared<detail::SharedFutureState<T>>();
    state->setException(std::move(error));
    return Future<T>(std::move(state));
}

// ----------------------------------------------------------------------------------------

template <typename T> template <typename Callback> void Future<T>::then(Callback&& callback) {
    struct Adapter final : FutureContinuation<T> {
        explicit Adapter(Callback&& c)
            : call(std::forward<Callback>(c)) {}
        void invoke(Future<T>& future) override { call(future); }
        std::decay_t<Callback> call;
    };
    if (!valid.load()) {
        throw std::runtime_error("Future state isn't valid!");
    }
    state->attach(std::make_unique<Adapter>(std::forward<Callback>(callback)));
}

template <typename T> Promise<T>& Promise<T>::operator=(Promise&& other) noexcept {
    if (this != &other) {
        abandonState();
        state = std::move(other.state);
    }
    return *this;
}

template <typename T> void Promise<T>::abandonState() noexcept {
    // Nobody else holds the state: no future, so nobody can be waiting on it.
    if (!state || state.use_count() == 1) {
        return;
    }
    try {
        state->abandon();
    } catch (...) {
        // A throwing continuation must not escape a destructor or a move.
    }
}

} // namespace kestrin
