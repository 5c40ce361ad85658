#include "host/MemoryBudget.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace kestrin::host {

MemoryBudget::MemoryBudget(std::uint64_t limit)
    : capacity(limit) {}

void MemoryBudget::setReclaimer(std::function<void(std::uint64_t needed)> reclaimer) {
    reclaim = std::move(reclaimer);
}

std::optional<MemoryBudget::Reservation> MemoryBudget::reserve(std::uint64_t bytes) {
    if (!charge(bytes, true)) {
        return std::nullopt;
    }
    return Reservation(this, bytes);
}

MemoryBudget::Reservation MemoryBudget::empty() {
    return Reservation(this, 0);
}

bool MemoryBudget::charge(std::uint64_t bytes, bool mayReclaim) {
    const auto tryCharge = [&] {
        std::uint64_t current = charged.load(std::memory_order_relaxed);
        do {
            if (bytes > capacity || current > capacity - bytes) {
                return false;
            }
        } while (
            !charged.compare_exchange_weak(current, current + bytes, std::memory_order_relaxed));
        return true;
    };
    if (tryCharge()) {
        return true;
    }
    if (!mayReclaim || !reclaim || bytes > capacity) {
        return false;
    }
    const std::uint64_t current = charged.load(std::memory_order_relaxed);
    reclaim(current > capacity - bytes ? current - (capacity - bytes) : 0);
    return tryCharge();
}

void MemoryBudget::uncharge(std::uint64_t bytes) noexcept {
    charged.fetch_sub(bytes, std::memory_order_relaxed);
}

MemoryBudget::Reservation::Reservation(Reservation&& other) noexcept
    : budget(std::exchange(other.budget, nullptr))
    , held(std::exchange(other.held, 0)) {}

MemoryBudget::Reservation& MemoryBudget::Reservation::operator=(Reservation&& other) noexcept {
    if (this != &other) {
        release();
        budget = std::exchange(other.budget, nullptr);
        held = std::exchange(other.held, 0);
    }
    return *this;
}

MemoryBudget::Reservation::~Reservation() {
    release();
}

bool MemoryBudget::Reservation::grow(std::uint64_t more, bool mayReclaim) {
    if (budget == nullptr || !budget->charge(more, mayReclaim)) {
        return false;
    }
    held += more;
    return true;
}

void MemoryBudget::Reservation::shrink(std::uint64_t less) noexcept {
    const std::uint64_t given = std::min(less, held);
    if (budget != nullptr && given > 0) {
        budget->uncharge(given);
    }
    held -= given;
}

void MemoryBudget::Reservation::moveTo(Reservation& other, std::uint64_t amount) noexcept {
    const std::uint64_t moved = std::min(amount, held);
    held -= moved;
    other.held += moved;
}

namespace {

std::optional<std::uint64_t> readNumber(const std::string& path) {
    std::ifstream file(path);
    std::uint64_t value = 0;
    if (file >> value) {
        return value;
    }
    return std::nullopt; // unreadable, or "max": no limit here
}

// The lowest memory limit of the process's control group and the groups above it.
std::optional<std::uint64_t> cgroupLimit() {
    std::optional<std::uint64_t> lowest;
    const auto consider = [&](std::optional<std::uint64_t> limit) {
        if (limit && (!lowest || *limit < *lowest)) {
            lowest = limit;
        }
    };
    std::ifstream membership("/proc/self/cgroup");
    std::string line;
    while (std::getline(membership, line)) {
        // Version 2 has one line "0::<path>"; version 1 a line per controller.
        const size_t first = line.find(':');
        const size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        const std::string controllers = line.substr(first + 1, second - first - 1);
        std::string path = line.substr(second + 1);
        const bool unified = controllers.empty();
        if (!unified && controllers.find("memory") == std::string::npos) {
            continue;
        }
        const std::string root = unified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
        const std::string file = unified ? "/memory.max" : "/memory.limit_in_bytes";
        for (;;) {
            consider(readNumber(root + path + file));
            if (path.empty() || path == "/") {
                break;
            }
            path = path.substr(0, path.rfind('/'));
        }
    }
    return lowest;
}

std::optional<std::uint64_t> machineMemory() {
    std::ifstream meminfo("/proc/meminfo");
    std::string line;
    while (std::getline(meminfo, line)) {
        std::istringstream fields(line);
        std::string name;
        std::uint64_t kibibytes = 0;
        if (fields >> name >> kibibytes && name == "MemTotal:") {
            return kibibytes * 1024;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<std::uint64_t> defaultMemoryBudget() {
    std::optional<std::uint64_t> total = machineMemory();
    if (const std::optional<std::uint64_t> limit = cgroupLimit();
        limit && (!total || *limit < *total)) {
        total = limit;
    }
    if (!total) {
        return std::nullopt;
    }
    return *total / 2;
}

} // namespace kestrin::host
