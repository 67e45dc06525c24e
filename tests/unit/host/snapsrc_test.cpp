// Item options XML: what decodes, and that a bad document leaves nothing half-decoded.
#include "hostapi/snapsrc.h"

#include <gtest/gtest.h>

namespace {

TEST(SnapSrcOptions, DecodeRoundTripAndRejection) {
    VirtualServer::SnapSrcPathOptions options;
    options.useCBT = 1;
    options.diskInfo.push_back({"web01.vmdk", "", "abc/5001", 0, 0});
    options.diskInfo.push_back({"Web01_1.VMDK", "alt_1.vmdk", "", 1, 0x2a});
    options.mountDiskNames = {"web01.vmdk", "name with \"quotes\" & <angles>"};

    VirtualServer::SnapSrcPathOptions decoded;
    std::string why;
    ASSERT_TRUE(decoded.Unserialize(options.Serialize(), why)) << why;
    EXPECT_EQ(decoded.useCBT, 1);
    ASSERT_EQ(decoded.diskInfo.size(), 2u);
    EXPECT_EQ(decoded.diskInfo[0].changeId, "abc/5001");
    EXPECT_EQ(decoded.diskInfo[1].alternateDiskName, "alt_1.vmdk");
    EXPECT_EQ(decoded.diskInfo[1].processed, 1);
    EXPECT_EQ(decoded.diskInfo[1].startExtent, 42);
    EXPECT_EQ(decoded.mountDiskNames, options.mountDiskNames);

    ASSERT_TRUE(decoded.Unserialize(
        "<SnapSrcPathOptions><diskInfo diskName='a' startExtent='0x10'/></SnapSrcPathOptions>", why));
    EXPECT_EQ(decoded.diskInfo.at(0).startExtent, 16);
    EXPECT_EQ(decoded.useCBT, 0);  // nothing of the earlier decode is left

    const char* bad[] = {
        "<SnapSrcPathOptions><diskInfo diskName='a' processed='1'/><diskInfo startExtent='x1'/></SnapSrcPathOptions>",
        "<SnapSrcPathOptions useCBT='1'><diskInfo diskName='a'",
        "<Other/>",
        "",
    };
    for (const char* xml : bad) {
        EXPECT_FALSE(decoded.Unserialize(xml, why)) << xml;
        EXPECT_FALSE(why.empty());
        EXPECT_TRUE(decoded.diskInfo.empty()) << xml;  // read in full, never half-resumed
        EXPECT_EQ(decoded.useCBT, 0);
    }
}

}  // namespace
