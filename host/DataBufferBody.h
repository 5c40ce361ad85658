#pragma once

#include "common/DataBuffer.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace kestrin::host {

// A Beast body held in a DataBuffer: request bodies are read straight into the buffer the
// module receives, and pages are sent straight from the buffer the module produced, so no
// body passes through an intermediate string. Used by one session at a time, like any body.
struct DataBufferBody {
    using value_type = common::DataBuffer;

    // The largest body a buffer can describe; beyond it pointer arithmetic overflows.
    static constexpr std::uint64_t maxSize =
        static_cast<std::uint64_t>(std::numeric_limits<std::ptrdiff_t>::max());

    static std::uint64_t size(const value_type& body) { return body.getSize(); }

    class reader;
    class writer;
};

// Fills the body as the parser hands over bytes. A known Content-Length is reserved exactly
// once, so a body of known size is never copied by growth. Failures never throw: a body too
// large for a buffer is buffer_overflow, a failed allocation not_enough_memory, and the body
// keeps what it had.
class DataBufferBody::reader {
public:
    template <bool isRequest, class Fields>
    reader(boost::beast::http::header<isRequest, Fields>&, value_type& target)
        : body(target) {}

    void init(const boost::optional<std::uint64_t>& length, boost::beast::error_code& ec) {
        ec = {};
        if (!length) {
            return;
        }
        if (*length > maxSize) {
            ec = boost::beast::http::error::buffer_overflow;
            return;
        }
        try {
            body.reserve(static_cast<std::size_t>(*length));
        } catch (const std::runtime_error&) {
            ec = boost::system::errc::make_error_code(boost::system::errc::not_enough_memory);
        }
    }

    template <class ConstBufferSequence>
    std::size_t put(const ConstBufferSequence& buffers, boost::beast::error_code& ec) {
        ec = {};
        const std::size_t count = boost::asio::buffer_size(buffers);
        const std::size_t used = body.getSize();
        if (count == 0) {
            return 0;
        }
        if (count > maxSize - used) {
            ec = boost::beast::http::error::buffer_overflow;
            return 0;
        }
        try {
            body.resize(used + count);
        } catch (const std::runtime_error&) {
            ec = boost::system::errc::make_error_code(boost::system::errc::not_enough_memory);
            return 0;
        }
        std::size_t copied = 0;
        for (const auto piece : boost::beast::buffers_range_ref(buffers)) {
            std::memcpy(&body[used + copied], piece.data(), piece.size());
            copied += piece.size();
        }
        return copied;
    }

    void finish(boost::beast::error_code& ec) { ec = {}; }

private:
    value_type& body;
};

// Hands the whole buffer to the serializer in one piece.
class DataBufferBody::writer {
public:
    using const_buffers_type = boost::asio::const_buffer;

    template <bool isRequest, class Fields>
    writer(const boost::beast::http::header<isRequest, Fields>&, const value_type& source)
        : body(source) {}

    void init(boost::beast::error_code& ec) { ec = {}; }

    boost::optional<std::pair<const_buffers_type, bool>> get(boost::beast::error_code& ec) {
        ec = {};
        return {{const_buffers_type{body.bytes(), body.getSize()}, false}};
    }

private:
    const value_type& body;
};

} // namespace kestrin::host
