#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace kestrin::host {

// Keeps uploads from filling the upload directory's filesystem, which the server shares with
// its log, the system and other programs: its bytes, and its files (inodes), which run out
// first when a client stores many empty files. An upload is let in only when what is free now,
// less what the uploads let in before it may still take, leaves the reserve free. An upload
// writes at most its body's length, and stores at most as many files as its body has room for
// parts, so that is what it claims; the claim ends once its files are written or given up,
// when what is free counts them. Safe on any thread; a claim belongs to one owner at a time.
class DiskReserve {
public:
    struct Space {
        std::uint64_t bytes = 0;
        std::uint64_t files = 0;
    };

    // What the server may still take of the filesystem, or nothing when it cannot be read.
    using FreeSpace = std::function<std::optional<Space>()>;

    class Claim;

    // Why a claim was refused: what was free, and what earlier claims had promised.
    struct Shortfall {
        Space free;
        Space promised;
    };

    // keep: what to leave free. freeSpace is asked on every claim and every growth.
    DiskReserve(Space keep, FreeSpace freeSpace);
    DiskReserve(const DiskReserve&) = delete;
    DiskReserve& operator=(const DiskReserve&) = delete;

    // A claim, or nothing when taking it would leave less than the reserve free; shortfall,
    // if given, then says why. Where the free space cannot be read the claim is granted: the
    // writes themselves then find out, and refusing every upload for a failed look would be
    // worse.
    [[nodiscard]] std::optional<Claim> claim(Space need, Shortfall* shortfall = nullptr);
    // A claim of nothing that can grow later.
    [[nodiscard]] Claim empty() noexcept;

    // What is free, when less than the reserve is now, whatever uploads under way will add:
    // then no upload can be let in until something is removed. Nothing when the reserve is
    // free, or when the free space cannot be read.
    [[nodiscard]] std::optional<Space> belowReserve() const;

    const Space& keep() const noexcept { return reserve; }
    Space promised() const;

    // The most files a body of this length can hold, each a part with at least a boundary
    // line and a disposition naming it, and never more than one request may store.
    static std::uint64_t filesIn(std::uint64_t bodyLength, std::uint64_t maxFiles) noexcept;

private:
    bool take(Space need, Shortfall* shortfall);
    void giveBack(Space held) noexcept;

    const Space reserve;
    const FreeSpace freeSpace;
    mutable std::mutex mutex;
    Space claimed;
};

// What one upload claimed; it stops counting against the free space when the claim ends. A
// default-made claim belongs to no reserve and holds nothing.
class DiskReserve::Claim {
public:
    Claim() noexcept = default;
    Claim(Claim&& other) noexcept;
    Claim& operator=(Claim&& other) noexcept;
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    const Space& held() const noexcept { return space; }

    // Claims `more` if the reserve allows it; false, holding what it held, if not. Always
    // true for a claim of no reserve: there is nothing to keep.
    [[nodiscard]] bool grow(Space more, Shortfall* shortfall = nullptr);
    void release() noexcept;

private:
    friend class DiskReserve;
    Claim(DiskReserve* owner, Space held) noexcept
        : reserve(owner)
        , space(held) {}

    DiskReserve* reserve = nullptr;
    Space space;
};

// What an unprivileged writer may still take of the filesystem that holds path, or nothing
// when it cannot be read. A filesystem that keeps no count of files has no limit on them.
[[nodiscard]] std::optional<DiskReserve::Space> freeSpaceAt(const char* path);
// Its size, or nothing.
[[nodiscard]] std::optional<DiskReserve::Space> filesystemSizeAt(const char* path);

} // namespace kestrin::host
