#include "host/DiskReserve.h"

#include <sys/statvfs.h>
#include <utility>

namespace kestrin::host {

DiskReserve::DiskReserve(std::uint64_t keep, FreeSpace space)
    : reserve(keep)
    , freeSpace(std::move(space)) {}

std::optional<DiskReserve::Claim> DiskReserve::claim(std::uint64_t bytes, Shortfall* shortfall) {
    if (!take(bytes, shortfall)) {
        return std::nullopt;
    }
    return Claim(this, bytes);
}

DiskReserve::Claim DiskReserve::empty() noexcept {
    return Claim(this, 0);
}

std::optional<std::uint64_t> DiskReserve::belowReserve() const {
    const std::optional<std::uint64_t> free = freeSpace ? freeSpace() : std::nullopt;
    if (free && *free < reserve) {
        return free;
    }
    return std::nullopt;
}

bool DiskReserve::take(std::uint64_t bytes, Shortfall* shortfall) {
    const std::optional<std::uint64_t> free = freeSpace ? freeSpace() : std::nullopt;
    std::uint64_t current = claimed.load(std::memory_order_relaxed);
    do {
        // Each claim is checked against what every earlier one promised, so uploads let in
        // at once cannot together write past the reserve. What an earlier upload has written
        // already counts twice until it ends, which errs on the side of the reserve.
        if (free &&
            (*free < reserve || *free - reserve < current || *free - reserve - current < bytes)) {
            if (shortfall != nullptr) {
                *shortfall = Shortfall{*free, current};
            }
            return false;
        }
    } while (!claimed.compare_exchange_weak(current, current + bytes, std::memory_order_relaxed));
    return true;
}

void DiskReserve::giveBack(std::uint64_t bytes) noexcept {
    claimed.fetch_sub(bytes, std::memory_order_relaxed);
}

DiskReserve::Claim::Claim(Claim&& other) noexcept
    : reserve(std::exchange(other.reserve, nullptr))
    , held(std::exchange(other.held, 0)) {}

DiskReserve::Claim& DiskReserve::Claim::operator=(Claim&& other) noexcept {
    if (this != &other) {
        release();
        reserve = std::exchange(other.reserve, nullptr);
        held = std::exchange(other.held, 0);
    }
    return *this;
}

DiskReserve::Claim::~Claim() {
    release();
}

bool DiskReserve::Claim::grow(std::uint64_t more, Shortfall* shortfall) {
    if (reserve == nullptr) {
        return true;
    }
    if (!reserve->take(more, shortfall)) {
        return false;
    }
    held += more;
    return true;
}

void DiskReserve::Claim::release() noexcept {
    if (reserve != nullptr && held > 0) {
        reserve->giveBack(held);
    }
    held = 0;
}

std::optional<std::uint64_t> freeBytesAt(const char* path) {
    struct statvfs space {};
    if (::statvfs(path, &space) != 0) {
        return std::nullopt;
    }
    // What an unprivileged writer gets: a filesystem's own reserve for root is not ours.
    return std::uint64_t{space.f_bavail} * space.f_frsize;
}

std::optional<std::uint64_t> filesystemBytesAt(const char* path) {
    struct statvfs space {};
    if (::statvfs(path, &space) != 0) {
        return std::nullopt;
    }
    return std::uint64_t{space.f_blocks} * space.f_frsize;
}

} // namespace kestrin::host
