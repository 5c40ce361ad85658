#include "file_upload/MultipartUploadRouteProvider.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using kestrin::Address;
using kestrin::file_upload::v1::MultipartUploadRouteProvider;

namespace {

class RecordingRouter : public kestrin::http::HttpRouter {
public:
    void addRoute(const std::string& path, const Address& target) override {
        calls.push_back("add " + path + " -> " + target.getName());
        if (failOnAdd == path) {
            throw std::runtime_error("route table full");
        }
    }
    void removeRoute(const std::string& path) override { calls.push_back("remove " + path); }

    std::vector<std::string> calls;
    std::string failOnAdd;
};

} // namespace

TEST(MultipartUploadRouteProvider, addsBothRoutesOnConstructionAndRemovesThemOnDestruction) {
    auto router = std::make_shared<RecordingRouter>();
    auto provider = std::make_unique<MultipartUploadRouteProvider>(router, Address("upload"));
    EXPECT_EQ(router->calls,
              (std::vector<std::string>{"add /users -> upload", "add /ORVANE Drive -> upload"}));
    router->calls.clear();
    provider.reset();
    EXPECT_EQ(router->calls, (std::vector<std::string>{"remove /users", "remove /ORVANE Drive"}));
    EXPECT_EQ(router.use_count(), 1) << "the router is released with the provider";
}

TEST(MultipartUploadRouteProvider, failingSecondRouteReachesTheCreatorAndRemovesNothing) {
    auto router = std::make_shared<RecordingRouter>();
    router->failOnAdd = "/ORVANE Drive";
    EXPECT_THROW(MultipartUploadRouteProvider(router, Address("upload")), std::runtime_error);
    EXPECT_EQ(router->calls,
              (std::vector<std::string>{"add /users -> upload", "add /ORVANE Drive -> upload"}));
    EXPECT_EQ(router.use_count(), 1);
}
