#include "host/HttpRules.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace kestrin::host {
namespace {

TEST(HttpRules, decodesEveryEscapeOfThePathAndRefusesBrokenOnes) {
    struct Case {
        std::string target;
        std::optional<std::string> path;
    };
    const Case cases[] = {
        {"/users", "/users"},
        {"/ORVANE%20Drive", "/ORVANE Drive"},
        {"/ORVANE%20Drive?x=%zz", "/ORVANE Drive"},
        {"/users?", "/users"},
        {"/a+b", "/a+b"},
        {"/%2e%2E/%2F", "/..//"},
        {"/%E2%82%ac", "/\xe2\x82\xac"},
        {"/%00x", std::string("/\0x", 3)},
        {"/%41%", std::nullopt},
        {"/%4", std::nullopt},
        {"/%zz", std::nullopt},
        {"/%g0", std::nullopt},
        {"/% 1", std::nullopt},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target);
        EXPECT_EQ(decodeTargetPath(c.target), c.path);
    }
}

TEST(HttpRules, findsTheBoundaryParameterQuotedOrBare) {
    struct Case {
        std::string contentType;
        std::optional<std::string> boundary;
    };
    const Case cases[] = {
        {"multipart/form-data; boundary=----WebKitFormBoundaryAb3", "----WebKitFormBoundaryAb3"},
        {"multipart/form-data;boundary=x", "x"},
        {"multipart/form-data; charset=utf-8; BOUNDARY=Mixed", "Mixed"},
        {"multipart/form-data; boundary=\"with space:and/slash\"", "with space:and/slash"},
        {"multipart/form-data; boundary=\"a\\\"b\"", "a\"b"},
        {"multipart/form-data; boundary=\"\"", ""},
        {"multipart/form-data; boundary=first; boundary=second", "first"},
        {"text/plain; boundary=any", "any"},
        {"multipart/form-data", std::nullopt},
        {"multipart/form-data; charset=utf-8", std::nullopt},
        {"multipart/form-data; boundaryx=1", std::nullopt},
        {"", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.contentType);
        EXPECT_EQ(findBoundaryParameter(c.contentType), c.boundary);
    }
}

} // namespace
} // namespace kestrin::host
