#pragma once

#include "common/DataBuffer.h"

#include <cstddef>

namespace kestrin::host {

// Hands a block made ready while a body arrived to the module's allocation of the part cut out
// of that body.
//
// The module cuts a part into a block it allocates once the whole body is in, and a block of
// hundreds of MiB fresh from the system costs more to fault in and clear than to copy into. The
// server keeps the block of an earlier part of about the same size, pages resident; offered on
// the thread that runs the module, it is what the allocator returns for the part, so the cut is
// a copy into warm memory. An offer lives until the thread's next large allocation: one that
// fits takes it, one that does not frees it first, so the two never hold memory at once.
namespace blockHandOver {

// Whether an allocation of `bytes` takes an offered block of `usable` bytes: it must fit, and
// leave no more than a thirty-second of it unused, so that what a request is charged for is
// what it holds. The module sizes a part's block to a power of two, so a block serves every
// part between half its size and its size.
bool takes(std::size_t bytes, std::size_t usable) noexcept;

// Allocations from this size on take or clear an offer; smaller ones never touch it.
constexpr std::size_t largeFrom = std::size_t{1} << 20;

// Whether this build can hand blocks over at all (a sanitizer's allocator cannot be wrapped).
bool available() noexcept;

// Offers the buffer's block for this thread's next large allocation; the buffer is left empty.
// Without hand-over, or for an empty buffer, the block is freed at once.
void offer(common::DataBuffer&& block) noexcept;

// Frees a block still on offer on this thread: the module made no allocation for it.
void withdraw() noexcept;

// Whether a block is on offer on this thread.
bool onOffer() noexcept;

} // namespace blockHandOver
} // namespace kestrin::host
