#include "hostapi/records.h"

#include <gtest/gtest.h>

namespace {

// A copy, an assignment and a self-assignment, each equal to the source (compared
// member by member).
template <typename Record>
void ExpectWholeCopies(const Record& r) {
    Record copy(r);
    EXPECT_EQ(copy, r);
    Record assigned;
    assigned = r;
    EXPECT_EQ(assigned, r);
    const Record& alias = assigned;
    assigned = alias;
    EXPECT_EQ(assigned, r);
}

// These records copy themselves field by field: with every field set, a field the copy
// leaves out shows.
TEST(MountRecords, HandWrittenCopiesAreWhole) {
    SHostCredentials c;
    c.sHost = "esx1";
    c.sServer = "vc1";
    c.sUser = "admin";
    c.sPassword = "stored";
    c.nType = 2;
    ExpectWholeCopies(c);
    SVolSnap v;
    v.sVolume = "ds1";
    v.sSnapVolume = "snap1";
    v.sMountPath = "/mnt/ds1";
    v.ullAfileId = 7;
    v.vmGuids = {"g1", "g2"};
    ExpectWholeCopies(v);
    SVMBasicInfo b;
    b.sVMName = "web01";
    b.sVMGuid = "g1";
    b.sConfigPath = "[ds1] web01/web01.vmx";
    ExpectWholeCopies(b);
    SFailure f;
    f.sItem = "web01";
    f.nErrorCode = 23;
    f.sReason = "disk";
    ExpectWholeCopies(f);
}

}  // namespace
