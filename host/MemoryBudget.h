#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

namespace kestrin::host {

// Bounds the memory that request bodies may take: a body, the part the module copies out of
// it, and the bodies kept for later requests. Memory is charged through reservations before
// it is used and comes back when a reservation shrinks or ends, so the sum of what is in use
// never passes the limit, however many requests arrive at once. Safe on any thread; a
// reservation belongs to one owner at a time.
class MemoryBudget {
public:
    class Reservation;

    explicit MemoryBudget(std::uint64_t limit);
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    // Memory that can be given back on demand (kept bodies): asked to free at least `needed`
    // bytes of what it holds when a charge does not fit, before the charge is refused. Called
    // without any lock of the budget held. Set once, before the budget is shared.
    void setReclaimer(std::function<void(std::uint64_t needed)> reclaimer);

    // A reservation of bytes, or nothing when they do not fit even after reclaiming.
    [[nodiscard]] std::optional<Reservation> reserve(std::uint64_t bytes);
    // A reservation of nothing that can grow later.
    [[nodiscard]] Reservation empty();

    std::uint64_t limit() const noexcept { return capacity; }
    std::uint64_t used() const noexcept { return charged.load(std::memory_order_relaxed); }

private:
    bool charge(std::uint64_t bytes, bool mayReclaim);
    void uncharge(std::uint64_t bytes) noexcept;

    const std::uint64_t capacity;
    std::atomic<std::uint64_t> charged{0};
    std::function<void(std::uint64_t)> reclaim;
};

// A share of a budget held by one owner; whatever it holds goes back when it ends. A
// default-made reservation belongs to no budget and holds nothing.
class MemoryBudget::Reservation {
public:
    Reservation() noexcept = default;
    Reservation(Reservation&& other) noexcept;
    Reservation& operator=(Reservation&& other) noexcept;
    ~Reservation();
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    std::uint64_t bytes() const noexcept { return held; }

    // Charges `more` bytes if they fit (reclaiming kept memory if need be and `mayReclaim`);
    // false, holding what it held, if not. Always false for a reservation of no budget. Whoever
    // holds a lock the reclaimer takes must not let it reclaim.
    [[nodiscard]] bool grow(std::uint64_t more, bool mayReclaim = true);
    // Gives back `less` bytes, or all it holds if that is less.
    void shrink(std::uint64_t less) noexcept;
    // Hands `amount` of what it holds (at most all of it) to `other`, of the same budget,
    // without the budget's total changing: memory that changes owner is not charged twice.
    void moveTo(Reservation& other, std::uint64_t amount) noexcept;
    void release() noexcept { shrink(held); }

private:
    friend class MemoryBudget;
    Reservation(MemoryBudget* owner, std::uint64_t bytes) noexcept
        : budget(owner)
        , held(bytes) {}

    MemoryBudget* budget = nullptr;
    std::uint64_t held = 0;
};

// The default budget: half of the memory the process may use, which is the machine's memory
// or, when lower, the limit of the control group the process runs in. Nothing when neither can
// be read.
[[nodiscard]] std::optional<std::uint64_t> defaultMemoryBudget();

} // namespace kestrin::host
