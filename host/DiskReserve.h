#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

namespace kestrin::host {

// Keeps uploads from filling the upload directory's filesystem, which the server shares with
// its log, the system and other programs. An upload is let in only when the space free now,
// less what the uploads let in before it may still write, leaves the reserve free. An upload
// writes at most its body's length (its files are cut out of the body), so that is what it
// claims; the claim ends once its files are written or given up, when the free space counts
// them. Safe on any thread; a claim belongs to one owner at a time.
class DiskReserve {
public:
    // Bytes the server may still write to the filesystem, or nothing when they cannot be read.
    using FreeSpace = std::function<std::optional<std::uint64_t>()>;

    class Claim;

    // Why a claim was refused: the free space read, and the bytes promised to earlier claims.
    struct Shortfall {
        std::uint64_t free = 0;
        std::uint64_t promised = 0;
    };

    // keep: the bytes to leave free. freeSpace is asked on every claim and every growth.
    DiskReserve(std::uint64_t keep, FreeSpace freeSpace);
    DiskReserve(const DiskReserve&) = delete;
    DiskReserve& operator=(const DiskReserve&) = delete;

    // A claim on bytes, or nothing when writing them would leave less than the reserve free;
    // shortfall, if given, then says why. Where the free space cannot be read the claim is
    // granted: the writes themselves then find out, and refusing every upload for a failed
    // look would be worse.
    [[nodiscard]] std::optional<Claim> claim(std::uint64_t bytes, Shortfall* shortfall = nullptr);
    // A claim of nothing that can grow later.
    [[nodiscard]] Claim empty() noexcept;

    // The free space when it is under the reserve now, whatever uploads under way will add:
    // then no upload can be let in until space is freed. Nothing when it is not, or when it
    // cannot be read.
    [[nodiscard]] std::optional<std::uint64_t> belowReserve() const;

    std::uint64_t keep() const noexcept { return reserve; }
    std::uint64_t promised() const noexcept { return claimed.load(std::memory_order_relaxed); }

private:
    bool take(std::uint64_t bytes, Shortfall* shortfall);
    void giveBack(std::uint64_t bytes) noexcept;

    const std::uint64_t reserve;
    const FreeSpace freeSpace;
    std::atomic<std::uint64_t> claimed{0};
};

// Bytes promised to one upload; they stop counting against the free space when it ends. A
// default-made claim belongs to no reserve and holds nothing.
class DiskReserve::Claim {
public:
    Claim() noexcept = default;
    Claim(Claim&& other) noexcept;
    Claim& operator=(Claim&& other) noexcept;
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    std::uint64_t bytes() const noexcept { return held; }

    // Claims `more` bytes if the reserve allows them; false, holding what it held, if not.
    // Always true for a claim of no reserve: there is nothing to keep.
    [[nodiscard]] bool grow(std::uint64_t more, Shortfall* shortfall = nullptr);
    void release() noexcept;

private:
    friend class DiskReserve;
    Claim(DiskReserve* owner, std::uint64_t bytes) noexcept
        : reserve(owner)
        , held(bytes) {}

    DiskReserve* reserve = nullptr;
    std::uint64_t held = 0;
};

// The bytes an unprivileged writer may still put on the filesystem that holds path, or nothing
// when they cannot be read.
[[nodiscard]] std::optional<std::uint64_t> freeBytesAt(const char* path);
// Its size in bytes, or nothing.
[[nodiscard]] std::optional<std::uint64_t> filesystemBytesAt(const char* path);

} // namespace kestrin::host
