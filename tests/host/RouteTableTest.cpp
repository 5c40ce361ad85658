#include "host/RouteTable.h"

#include "file_upload/MultipartUploadRouteProvider.h"

#include <gtest/gtest.h>

#include <memory>

namespace kestrin::host {
namespace {

TEST(RouteTable, findsExactPathsOnlyAndTheLatestAddressOfEach) {
    RouteTable table;
    table.addRoute("/users", Address("a"));
    EXPECT_EQ(table.find("/users"), Address("a"));
    EXPECT_EQ(table.find("/users/"), std::nullopt);
    EXPECT_EQ(table.find("/Users"), std::nullopt);
    table.addRoute("/users", Address("b"));
    EXPECT_EQ(table.find("/users"), Address("b"));
    table.removeRoute("/users");
    EXPECT_EQ(table.find("/users"), std::nullopt);
    table.removeRoute("/never added");
}

// The server relies on the module's route provider really adding and removing its paths.
TEST(RouteTable, followsTheUploadRouteProviderFromConstructionToDestruction) {
    auto table = std::make_shared<RouteTable>();
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
