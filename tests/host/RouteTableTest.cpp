#include "host/RouteTable.h"

#include "file_upload/MultipartUploadRouteProvider.h"

#include <gtest/gtest.h>

#include <memory>

namespace kestrin::host {
namespace {

// Exact paths only, the latest address of each; and the server relies on the module's route
// provider really adding its decoded paths and removing them when it goes.
TEST(RouteTable, findsExactPathsOnlyAndFollowsTheUploadRouteProvider) {
    auto table = std::make_shared<RouteTable>();
    table->addRoute("/x", Address("a"));
    table->addRoute("/x", Address("b"));
    EXPECT_EQ(table->find("/x"), Address("b"));
    EXPECT_EQ(table->find("/x/"), std::nullopt);
    EXPECT_EQ(table->find("/X"), std::nullopt);
    table->removeRoute("/x");
    table->removeRoute("/never added");
    EXPECT_EQ(table->find("/x"), std::nullopt);

    const Address upload("upload");
    {
        file_upload::v1::MultipartUploadRouteProvider provider(table, upload);
        EXPECT_EQ(table->find("/users"), upload);
        EXPECT_EQ(table->find("/ORVANE Drive"), upload);
        EXPECT_EQ(table->find("/ORVANE%20Drive"), std::nullopt);
    }
    EXPECT_EQ(table->find("/users"), std::nullopt);
    EXPECT_EQ(table->find("/ORVANE Drive"), std::nullopt);
}

} // namespace
} // namespace kestrin::host
