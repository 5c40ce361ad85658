#pragma once

#include "common/DataBuffer.h"

#include <string>

namespace kestrin::testing {

// A DataBuffer's bytes as a string, read without allocating storage in it.
inline std::string bytesOf(const common::DataBuffer& buffer) {
    return buffer.getSize() == 0
               ? std::string()
               : std::string(reinterpret_cast<const char*>(buffer.bytes()), buffer.getSize());
}

} // namespace kestrin::testing
