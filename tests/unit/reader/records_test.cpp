#include "hostapi/records.h"

#include <gtest/gtest.h>

namespace {

// The library relies on these values when a reader leaves a field alone.
TEST(MountRecords, DefaultsTheLibraryRelies) {
    MountCtx ctx;
    EXPECT_EQ(ctx.nReserved39, -1);
    EXPECT_EQ(ctx.nReserved84, -1);
    EXPECT_EQ(ctx.hostCredentials.nType, 1);
    EXPECT_FALSE(ctx.bMountRequest);
    EXPECT_TRUE(ctx.afileIds.empty());
    SDiskFilter filter;
    EXPECT_EQ(filter.nFlags, 1);
    AFileID afile;
    EXPECT_EQ(afile.afileId, 0u);
    EXPECT_FALSE(afile.bMounted);
}

// Records are copied into vectors, maps and out-parameters: a copy must be whole and
// independent of its source, nested containers included.
TEST(MountRecords, CopiesAreDeepAndIndependent) {
    DataReaderVMCtx vm;
    vm.mountCtx.sVMName = "web01";
    vm.mountCtx.hostCredentials.sPassword = "stored";
    vm.mountCtx.diskFilters.resize(2);
    vm.mountCtx.diskFilters[1].sDiskName = "disk-b";
    vm.mountCtx.afileIds = {7, 8};
    vm.mountCtx.volSnaps.resize(1);
    vm.mountCtx.volSnaps[0].sVolume = "ds1";
    vm.mountCtx.failures.resize(1);
    vm.mountCtx.failures[0].nErrorCode = 23;
    vm.mountCtx.tdfsCtx.properties["k"] = "v";
    vm.mountCtx.vmInfo.llBackupJobId = 77;
    vm.mountInfoFiles.resize(1);
    vm.mountInfoFiles[0].sVolumeGuid = "{guid}";

    DataReaderVMCtx copy(vm);
    EXPECT_EQ(copy, vm);
    DataReaderVMCtx assigned;
    assigned = vm;
    EXPECT_EQ(assigned, vm);

    copy.mountCtx.diskFilters[1].sDiskName = "changed";
    copy.mountCtx.volSnaps[0].sVolume = "ds2";
    copy.mountCtx.failures[0].nErrorCode = 1;
    copy.mountCtx.tdfsCtx.properties["k"] = "w";
    copy.mountCtx.hostCredentials.sPassword = "other";
    EXPECT_EQ(vm.mountCtx.diskFilters[1].sDiskName, "disk-b");
    EXPECT_EQ(vm.mountCtx.volSnaps[0].sVolume, "ds1");
    EXPECT_EQ(vm.mountCtx.failures[0].nErrorCode, 23);
    EXPECT_EQ(vm.mountCtx.tdfsCtx.properties["k"], "v");
    EXPECT_EQ(vm.mountCtx.hostCredentials.sPassword, "stored");
    EXPECT_NE(copy, vm);

    // Self-assignment keeps the record intact.
    SHostCredentials creds;
    creds.sUser = "admin";
    SHostCredentials& alias = creds;
    creds = alias;
    EXPECT_EQ(creds.sUser, "admin");

    SDiskFilter moved;
    moved.sDiskName = "disk-c";
    SDiskFilter target(std::move(moved));
    EXPECT_EQ(target.sDiskName, "disk-c");
}

}  // namespace
