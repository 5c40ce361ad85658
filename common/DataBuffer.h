#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kestrin::common {

// A growable byte buffer: every byte sequence of an upload (bodies, patterns, file contents,
// pages) is one. Storage comes from malloc/realloc so growth can happen in place; growth at
// least doubles, copies are tight. A buffer belongs to one owner at a time and is not locked.
class DataBuffer {
public:
    DataBuffer() noexcept = default;
    explicit DataBuffer(const char* text) {
        append(reinterpret_cast<const uint8_t*>(text), std::strlen(text));
    }
    explicit DataBuffer(const std::string& text) { append(text); }
    DataBuffer(const DataBuffer& other) { append(other); }
    DataBuffer(DataBuffer&& other) noexcept
        : data(other.data)
        , capacity(other.capacity)
        , size(other.size) {
        other.data = nullptr;
        other.capacity = 0;
        other.size = 0;
    }
    DataBuffer& operator=(const DataBuffer& other) {
        if (this != &other) {
            DataBuffer copy(other);
            swap(copy);
        }
        return *this;
    }
    DataBuffer& operator=(DataBuffer&& other) noexcept {
        DataBuffer taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~DataBuffer() { std::free(data); }

    void swap(DataBuffer& other) noexcept {
        std::swap(data, other.data);
        std::swap(capacity, other.capacity);
        std::swap(size, other.size);
    }

    // Makes room for exactly n bytes; the only operation that allocates. On failure the buffer
    // is left as it was.
    void reserve(size_t n) {
        uint8_t* block = nullptr;
        if (n > capacity) {
            block = static_cast<uint8_t*>(data ? std::realloc(data, n) : std::malloc(n));
        } else if (data || n == 0) {
            return;
        } else {
            block = static_cast<uint8_t*>(std::malloc(n));
        }
        if (block == nullptr) {
            throw std::runtime_error("Out of memory!");
        }
        data = block;
        capacity = n;
    }

    // Growth is never by less than the current capacity, so appends cost amortised O(1) a byte.
    void ensureCapacity(size_t n) {
        if (n > capacity || data == nullptr) {
            reserve(std::max(2 * capacity, n));
        }
    }

    void append(const uint8_t* bytes, size_t count) {
        if (count == 0) {
            return;
        }
        ensureCapacity(size + count);
        std::memcpy(data + size, bytes, count);
        size += count;
    }
    void append(const std::string& text) {
        append(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    void append(const DataBuffer& other) { append(other.data, other.size); }

    void pushBack(uint8_t byte) {
        ensureCapacity(size + 1);
        data[size] = byte;
        ++size;
    }

    // Bytes between the old and the new size are left uninitialised.
    void resize(size_t n) {
        if (n > capacity) {
            reserve(std::max(2 * capacity, n));
        }
        size = n;
    }

    // Never returns null: a buffer with less than 8 bytes of storage is grown first.
    uint8_t* getData() {
        if (capacity < 8 || data == nullptr) {
            reserve(std::max(2 * capacity, size_t{8}));
        }
        return data;
    }

    // Read-only view that never allocates; null for a buffer without storage.
    const uint8_t* bytes() const noexcept { return data; }

    uint8_t& operator[](size_t i) noexcept { return data[i]; }
    const uint8_t& operator[](size_t i) const noexcept { return data[i]; }
    size_t getSize() const noexcept { return size; }
    size_t getCapacity() const noexcept { return capacity; }

private:
    uint8_t* data = nullptr;
    size_t capacity = 0;
    size_t size = 0;
};

} // namespace kestrin::common
