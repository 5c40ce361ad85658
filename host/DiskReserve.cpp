#include "host/DiskReserve.h"

#include <algorithm>
#include <limits>
#include <sys/statvfs.h>
#include <utility>

namespace kestrin::host {

namespace {

// Whether need fits in free beside what is promised, leaving keep.
bool fits(std::uint64_t free, std::uint64_t promised, std::uint64_t keep, std::uint64_t need) {
    return free >= keep && free - keep >= promised && free - keep - promised >= need;
}

} // namespace

DiskReserve::DiskReserve(Space keep, FreeSpace space)
    : reserve(keep)
    , freeSpace(std::move(space)) {}

std::optional<DiskReserve::Claim> DiskReserve::claim(Space need, Shortfall* shortfall) {
    if (!take(need, shortfall)) {
        return std::nullopt;
    }
    return Claim(this, need);
}

DiskReserve::Claim DiskReserve::empty() noexcept {
    return Claim(this, Space{});
}

std::optional<DiskReserve::Space> DiskReserve::belowReserve() const {
    const std::optional<Space> free = freeSpace ? freeSpace() : std::nullopt;
    if (free && (free->bytes < reserve.bytes || free->files < reserve.files)) {
        return free;
    }
    return std::nullopt;
}

DiskReserve::Space DiskReserve::promised() const {
    std::lock_guard<std::mutex> guard(mutex);
    return claimed;
}

std::uint64_t DiskReserve::filesIn(std::uint64_t bodyLength, std::uint64_t maxFiles) noexcept {
    // "--b\r\n", "Content-Disposition: form-data; filename=a\r\n\r\n" and the line end before
    // the next boundary: no stored part takes less.
    constexpr std::uint64_t smallestPart = 48;
    return std::min(maxFiles, bodyLength / smallestPart + 1);
}

bool DiskReserve::take(Space need, Shortfall* shortfall) {
    // Read before the lock: a slow filesystem must not hold up the other claims.
    const std::optional<Space> free = freeSpace ? freeSpace() : std::nullopt;
    std::lock_guard<std::mutex> guard(mutex);
    // Each claim is checked against what every earlier one promised, so uploads let in at
    // once cannot together take the reserve. What an earlier upload has written already
    // counts twice until it ends, which errs on the side of the reserve.
    if (free && !(fits(free->bytes, claimed.bytes, reserve.bytes, need.bytes) &&
                  fits(free->files, claimed.files, reserve.files, need.files))) {
        if (shortfall != nullptr) {
            *shortfall = Shortfall{*free, claimed};
        }
        return false;
    }
    claimed.bytes += need.bytes;
    claimed.files += need.files;
    return true;
}

void DiskReserve::giveBack(Space held) noexcept {
    std::lock_guard<std::mutex> guard(mutex);
    claimed.bytes -= held.bytes;
    claimed.files -= held.files;
}

DiskReserve::Claim::Claim(Claim&& other) noexcept
    : reserve(std::exchange(other.reserve, nullptr))
    , space(std::exchange(other.space, Space{})) {}

DiskReserve::Claim& DiskReserve::Claim::operator=(Claim&& other) noexcept {
    if (this != &other) {
        release();
        reserve = std::exchange(other.reserve, nullptr);
        space = std::exchange(other.space, Space{});
    }
    return *this;
}

DiskReserve::Claim::~Claim() {
    release();
}

bool DiskReserve::Claim::grow(Space more, Shortfall* shortfall) {
    if (reserve == nullptr) {
        return true;
    }
    if (!reserve->take(more, shortfall)) {
        return false;
    }
    space.bytes += more.bytes;
    space.files += more.files;
    return true;
}

void DiskReserve::Claim::release() noexcept {
    if (reserve != nullptr) {
        reserve->giveBack(space);
    }
    space = Space{};
}

std::optional<DiskReserve::Space> freeSpaceAt(const char* path) {
    struct statvfs space {};
    if (::statvfs(path, &space) != 0) {
        return std::nullopt;
    }
    // What an unprivileged writer gets: a filesystem's own reserve for root is not ours. One
    // that makes files as it needs them counts none, and has no limit on them.
    return DiskReserve::Space{std::uint64_t{space.f_bavail} * space.f_frsize,
                              space.f_files == 0 ? std::numeric_limits<std::uint64_t>::max()
                                                 : std::uint64_t{space.f_favail}};
}

std::optional<DiskReserve::Space> filesystemSizeAt(const char* path) {
    struct statvfs space {};
    if (::statvfs(path, &space) != 0) {
        return std::nullopt;
    }
    return DiskReserve::Space{std::uint64_t{space.f_blocks} * space.f_frsize,
                              std::uint64_t{space.f_files}};
}

} // namespace kestrin::host
