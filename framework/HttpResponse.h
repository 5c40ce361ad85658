#pragma once

#include "common/DataBuffer.h"
#include "common/Future.h"
#include "framework/Message.h"
#include "reactive_streams/Publisher.h"

#include <memory>
#include <string>

namespace kestrin::http {

// The answer of an HTTP service: a status and a body, given either as text or as a stream
// that the framework subscribes to when it sends the response.
class HttpResponse : public Message {
public:
    using Body = reactive_streams::PublisherAPI<common::DataBuffer>;

    HttpResponse(unsigned short status, std::string text);
    HttpResponse(unsigned short status, std::shared_ptr<Body> body);
    ~HttpResponse() override;

    unsigned short getStatus() const noexcept { return status; }
    // Empty when the body was given as text.
    const std::shared_ptr<Body>& getBodyStream() const noexcept { return body; }
    const std::string& getText() const noexcept { return text; }

    // The bytes the client receives: the text, or everything the body stream publishes up
    // to its completion. Subscribes to the stream, so it may be called once per response.
    common::DataBuffer takeBodyBytes();

private:
    unsigned short status;
    std::string text;
    std::shared_ptr<Body> body;
};

// A future already resolved with an HttpResponse of that status and text.
Future<std::unique_ptr<Message>> makeReadyHttpResponse(unsigned short status,
                                                       const std::string& text);

} // namespace kestrin::http
