#include "host/Leftovers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace kestrin::host::leftovers {
namespace {

using namespace std::chrono_literals;

TEST(Leftovers, ownerOfReadsTheIdOnlyFromWellFormedNames) {
    const struct {
        const char* name;
        std::optional<std::string> owner;
    } cases[] = {
        {".kestrin-upload-owner-0123456789abcdef", "0123456789abcdef"},
        {".kestrin-upload-0123456789abcdef-Ab12Cd", "0123456789abcdef"},
        {".kestrin-upload-0123456789abcdef-", std::nullopt},  // no random part
        {".kestrin-upload-0123456789abcdef", std::nullopt},   // no dash
        {".kestrin-upload-0123456789ABCDEF-x", std::nullopt}, // ids are lowercase
        {".kestrin-upload-0123456789abcde-xy", std::nullopt}, // one digit short
        {".kestrin-upload-owner-0123456789abcdef0", std::nullopt},
        {".kestrin-upload-owner-", std::nullopt},
        {".kestrin-upload-probe-Ab12Cd", std::nullopt},
        {"0123456789abcdef-x", std::nullopt},
        {"kestrin-upload-0123456789abcdef-x", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ownerOf(c.name), c.owner);
    }
}

TEST(Leftovers, removesTheFilesOfGoneOwnersAndOldUnownedOnesOnly) {
    const auto now = std::chrono::system_clock::now();
    const std::string own = "00000000000000aa";
    const std::string live = "00000000000000bb";
    const std::string gone = "00000000000000cc";
    const std::vector<Entry> listing = {
        {".kestrin-upload-owner-" + gone, now - 10h},
        {".kestrin-upload-" + gone + "-111111", now},
        {".kestrin-upload-" + gone + "-222222", now - 10h},
        {".kestrin-upload-owner-" + live, now - 10h},
        {".kestrin-upload-" + live + "-333333", now - 10h}, // a slow write, still owned
        {".kestrin-upload-owner-" + own, now},
        {".kestrin-upload-" + own + "-444444", now - 10h},
        {".kestrin-upload-old", now - unownedGrace},
        {".kestrin-upload-new", now - unownedGrace + 1s},
        {".kestrin-upload-owner-junk", now - 10h}, // no owner file of anyone's
        {"report.pdf", now - 10h},
        {"0123456789abcdef", now - 10h},
    };
    EXPECT_EQ(ownersToCheck(listing, own), (std::set<std::string>{live, gone}));

    // Even if a caller wrongly found itself gone, its own files stay.
    const Removal removal = decide(listing, {gone, own}, own, now);
    EXPECT_EQ(removal.temporaries, (std::vector<std::string>{".kestrin-upload-" + gone + "-111111",
                                                             ".kestrin-upload-" + gone + "-222222",
                                                             ".kestrin-upload-old"}));
    EXPECT_EQ(removal.ownerFiles, std::vector<std::string>{".kestrin-upload-owner-" + gone});

    // With no owner gone, only old unowned files go.
    const Removal nothingGone = decide(listing, {}, own, now);
    EXPECT_EQ(nothingGone.temporaries, std::vector<std::string>{".kestrin-upload-old"});
    EXPECT_TRUE(nothingGone.ownerFiles.empty());
}

} // namespace
} // namespace kestrin::host::leftovers
