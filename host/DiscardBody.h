#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>

#include <cstddef>
#include <cstdint>

namespace kestrin::host {

// A Beast request body that keeps nothing but its length: the bytes are dropped as the parser
// hands them over, so a request read with it costs only the network and the HTTP parser. The
// server reads the opt-in discard route with it, as the floor the upload path is measured
// against. Used by one session at a time, like any body.
struct DiscardBody {
    using value_type = std::uint64_t; // bytes received

    class reader {
    public:
        template <bool isRequest, class Fields>
        reader(boost::beast::http::header<isRequest, Fields>&, value_type& target)
            : received(target) {}

        void init(const boost::optional<std::uint64_t>&, boost::beast::error_code& ec) {
            ec = {};
            received = 0;
        }

        template <class ConstBufferSequence>
        std::size_t put(const ConstBufferSequence& buffers, boost::beast::error_code& ec) {
            ec = {};
            const std::size_t count = boost::asio::buffer_size(buffers);
            received += count;
            return count;
        }

        void finish(boost::beast::error_code& ec) { ec = {}; }

    private:
        value_type& received;
    };
};

} // namespace kestrin::host
