#pragma once

#include "common/DataBuffer.h"
#include "reactive_streams/Publisher.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace kestrin::http {

// An HTTP request as a service sees it: a body stream (empty when the request has no body)
// and named parameters. The framework files a multipart boundary under "boundary".
class HttpRequest {
public:
    using Body = reactive_streams::PublisherAPI<common::DataBuffer>;
    using Parameters = std::unordered_map<std::string, std::string>;

    HttpRequest(std::shared_ptr<Body> body, Parameters parameters)
        : body(std::move(body))
        , parameters(std::move(parameters)) {}

    std::shared_ptr<Body> getBody() const { return body; }
    const Parameters& getParameters() const noexcept { return parameters; }

private:
    std::shared_ptr<Body> body;
    Parameters parameters;
};

} // namespace kestrin::http
