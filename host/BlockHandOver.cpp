#include "host/BlockHandOver.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
#define KESTRIN_NO_HAND_OVER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KESTRIN_NO_HAND_OVER 1
#endif

namespace kestrin::host::blockHandOver {

bool takes(std::size_t bytes, std::size_t usable) noexcept {
    return bytes <= usable && bytes >= usable - usable / 32;
}

} // namespace kestrin::host::blockHandOver

#if defined(KESTRIN_NO_HAND_OVER)

namespace kestrin::host::blockHandOver {

bool available() noexcept {
    return false;
}

void offer(common::DataBuffer&& block) noexcept {
    common::DataBuffer().swap(block);
}

void withdraw() noexcept {}

bool onOffer() noexcept {
    return false;
}

} // namespace kestrin::host::blockHandOver

#else

// glibc's own entry points, which the wrappers below forward to.
extern "C" void* __libc_malloc(std::size_t bytes) noexcept;
extern "C" void* __libc_realloc(void* block, std::size_t bytes) noexcept;
extern "C" void __libc_free(void* block) noexcept;

namespace kestrin::host::blockHandOver {
namespace {

// The block on offer on this thread and its usable size. Plain data: the allocator reads it,
// so it must need no construction.
struct Offer {
    void* block;
    std::size_t usable;
};
thread_local Offer offered{nullptr, 0};

// Takes this thread's offer for an allocation of `bytes`: the block when it fits, else null,
// after freeing a block that does not fit.
void* claim(std::size_t bytes) noexcept {
    Offer& offer = offered;
    if (offer.block == nullptr || bytes < largeFrom) {
        return nullptr;
    }
    void* block = offer.block;
    const bool fits = takes(bytes, offer.usable);
    offer = Offer{nullptr, 0};
    if (fits) {
        return block;
    }
    __libc_free(block);
    return nullptr;
}

} // namespace

bool available() noexcept {
    return true;
}

void offer(common::DataBuffer&& block) noexcept {
    withdraw();
    if (block.getCapacity() == 0) {
        return;
    }
    void* storage = const_cast<std::uint8_t*>(block.bytes());
    // The buffer gives up its block without freeing it: it is made anew, empty, in its place.
    ::new (static_cast<void*>(&block)) common::DataBuffer();
    offered = Offer{storage, ::malloc_usable_size(storage)};
}

void withdraw() noexcept {
    if (offered.block != nullptr) {
        __libc_free(offered.block);
        offered = Offer{nullptr, 0};
    }
}

bool onOffer() noexcept {
    return offered.block != nullptr;
}

} // namespace kestrin::host::blockHandOver

// Every allocation of the process comes here first (the module's included); only a large one
// on a thread with an offer does anything but forward to glibc. A block handed over is one of
// glibc's own, so glibc's free, realloc and the rest treat it as any other.
extern "C" void* malloc(std::size_t bytes) noexcept {
    if (void* block = kestrin::host::blockHandOver::claim(bytes)) {
        return block;
    }
    return __libc_malloc(bytes);
}

// A buffer that grows from a small block to the part's size does so through realloc.
extern "C" void* realloc(void* old, std::size_t bytes) noexcept {
    if (old == nullptr) {
        return malloc(bytes);
    }
    if (void* block = kestrin::host::blockHandOver::claim(bytes)) {
        std::memcpy(block, old, std::min(::malloc_usable_size(old), bytes));
        __libc_free(old);
        return block;
    }
    return __libc_realloc(old, bytes);
}

#endif
