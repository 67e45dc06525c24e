// The VM-info library over a generated datastore snapshot: what it mounts, what it
// reports, and the error code and reason of each way a snapshot can be broken.
#include "VMInfo.h"
#include "temp_home.h"

#include "hostapi/vdisk.h"
#include "vshost/catalog.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class SnapshotLibrary : public ::testing::Test {
protected:
    void SetUp() override { sample = vssample::GenerateSample(); }

    MountCtx SnapCtx() const {
        MountCtx ctx;
        ctx.afileIds = sample.afileIds;
        ctx.nSnapEngineId = static_cast<int32_t>(sample.snapEngineId);
        return ctx;
    }
    MountCtx VMCtx(const std::string& name, std::vector<std::string> disks = {}) const {
        MountCtx ctx;
        ctx.sVMName = name;
        ctx.nSnapJobId = sample.snapJobId;
        for (const auto& d : disks) {
            SDiskFilter filter;
            filter.nFilterType = SDiskFilter::kByDiskName;
            filter.sDiskName = d;
            ctx.diskFilters.push_back(filter);
        }
        return ctx;
    }
    // Mounting the snapshot fails with `code` and a log line containing `reason`.
    void ExpectSnapFailure(int code, const std::string& reason) {
        vminfo::VMInfo info(102, 1);
        MountCtx ctx = SnapCtx();
        EXPECT_EQ(info.MountSnap(ctx), 0);
        EXPECT_EQ(info.GetErrorInfo(), code);
        EXPECT_TRUE(log.Contains(reason)) << reason;
    }
    void ExpectVMFailure(const std::string& vm, int code, const std::string& reason) {
        vminfo::VMInfo info(102, 1);
        MountCtx snap = SnapCtx();
        ASSERT_EQ(info.MountSnap(snap), 1);
        MountCtx ctx = VMCtx(vm);
        EXPECT_EQ(info.MountVM(ctx), 0);
        EXPECT_EQ(info.GetErrorInfo(), code);
        EXPECT_TRUE(log.Contains(reason)) << reason;
        ASSERT_FALSE(ctx.failures.empty());
        EXPECT_EQ(ctx.failures.back().nErrorCode, code);
    }
    std::string Root() const { return home.sub("Snapshots/" + std::to_string(sample.snapJobId)); }

    vstest::TempHome home;
    vshost::LogCapture log;
    vssample::SampleSnapshot sample;
};

TEST_F(SnapshotLibrary, MountsReportEveryItemOfTheSample) {
    vminfo::VMInfo info(102, 1);
    MountCtx snap = SnapCtx();
    ASSERT_EQ(info.MountSnap(snap), 1);
    EXPECT_EQ(snap.nSnapJobId, sample.snapJobId);
    ASSERT_EQ(snap.volSnaps.size(), 2u);
    EXPECT_EQ(snap.volSnaps[0].sVolume, "ds1");
    EXPECT_EQ(snap.volSnaps[0].vmGuids.size(), 2u);  // web01 and db01 live on ds1

    for (const vssample::SampleVM& vm : sample.vms) {
        // Upper-case vCenter UUID finds the VM as its name does.
        std::string key = vm.vcUuid;
        for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        MountCtx ctx = VMCtx(key);
        ASSERT_EQ(info.MountVM(ctx), 1) << vm.name;
        EXPECT_EQ(ctx.sMountedName, vm.name);
        EXPECT_EQ(ctx.sMountedPath, vm.folder);
        std::vector<VMInfoStructs::SMountInfoFull> full;
        ASSERT_EQ(info.GetFullMountInfo(ctx, full), 1);
        ASSERT_EQ(full.size(), 1u);
        std::vector<std::string> configs;
        std::vector<VMInfoStructs::SDisk> disks;
        for (const auto& d : full[0].disks) {
            if (d.nBackupType == VMInfoStructs::kBackupTypeConfigFile)
                configs.push_back(d.sDiskName);
            else
                disks.push_back(d);
        }
        EXPECT_EQ(configs, vm.configFiles) << vm.name;
        ASSERT_EQ(disks.size(), vm.disks.size()) << vm.name;
        for (size_t i = 0; i < disks.size(); ++i) {
            EXPECT_EQ(disks[i].sDiskName, vm.disks[i].name);
            EXPECT_EQ(disks[i].sSecondName, vm.disks[i].secondName);
            EXPECT_EQ(disks[i].sDiskPath, vm.disks[i].path);
            EXPECT_EQ(disks[i].ullSize, vm.disks[i].size) << disks[i].sDiskName;
            EXPECT_EQ(disks[i].nBackupType, vm.disks[i].backupType);
            EXPECT_FALSE(disks[i].sChangeId.empty());
        }
        std::vector<VMInfoStructs::SMountInfoFile> volumes;
        ASSERT_EQ(info.GetFileMountInfo(ctx, volumes), 1);
        ASSERT_EQ(volumes.size(), vm.guestVolumeGuids.size());
        for (size_t i = 0; i < volumes.size(); ++i) {
            EXPECT_EQ(volumes[i].sVolumeGuid, vm.guestVolumeGuids[i]);
            EXPECT_TRUE(fs::is_directory(volumes[i].sLocalMountPath));
            EXPECT_EQ(volumes[i].sLocalMountPath.back(), '/');
            EXPECT_GT(volumes[i].ullSize, 0u);
        }
    }

    // web01 has one disk on each datastore.
    MountCtx web = VMCtx("web01");
    ASSERT_EQ(info.MountVM(web), 1);
    uint32_t count = 7;
    ASSERT_EQ(info.GetVMDisksOnVolume(web, sample.afileIds[1], count), 1);
    EXPECT_EQ(count, 1u);

    // The same disk in a later snapshot has another change id.
    std::vector<VMInfoStructs::SMountInfoFull> before;
    info.GetFullMountInfo(web, before);
    vssample::SampleOptions later;
    later.snapJobId = sample.snapJobId + 1;
    later.firstAfileId = 3000;
    const vssample::SampleSnapshot next = vssample::GenerateSample(later);
    MountCtx snap2;
    snap2.afileIds = next.afileIds;
    ASSERT_EQ(info.MountSnap(snap2), 1);
    MountCtx web2 = VMCtx("web01");
    web2.nSnapJobId = next.snapJobId;
    info.UnMountVM(web);
    ASSERT_EQ(info.MountVM(web2), 1);
    std::vector<VMInfoStructs::SMountInfoFull> after;
    info.GetFullMountInfo(web2, after);
    EXPECT_EQ(after[0].disks.back().sSecondName, before[0].disks.back().sSecondName);
    EXPECT_NE(after[0].disks.back().sChangeId, before[0].disks.back().sChangeId);

    // Unmounted VMs report nothing more.
    info.UnMountVM(web2);
    std::vector<VMInfoStructs::SMountInfoFull> none;
    EXPECT_EQ(info.GetFullMountInfo(web2, none), 0);
    EXPECT_EQ(info.GetErrorInfo(), 1);
}

TEST_F(SnapshotLibrary, BrokenSnapshotsFailWithTheirCode) {
    // A volume of a snapshot job the home has not registered is not mounted.
    vshost::ArchiveFileRecord stray;
    stray.afileId = 900;
    stray.volume = Root() + "/ds1";
    stray.snapJobId = 42;
    stray.datastore = "ds1";
    vshost::Catalog().AddArchiveFile(stray);
    {
        vminfo::VMInfo info(102, 1);
        MountCtx ctx = SnapCtx();
        ctx.afileIds = {900};
        EXPECT_EQ(info.MountSnap(ctx), 0);
        EXPECT_EQ(info.GetErrorInfo(), 28);
        EXPECT_TRUE(log.Contains("snapshot 42 of archive file 900 is not registered in the host home"));
    }

    {
        vminfo::VMInfo info(102, 1);
        MountCtx ctx = SnapCtx();
        ctx.nSnapEngineId = 9;
        EXPECT_EQ(info.MountSnap(ctx), 0);
        EXPECT_EQ(info.GetErrorInfo(), 30);
        ctx = SnapCtx();
        ctx.afileIds.push_back(777);
        EXPECT_EQ(info.MountSnap(ctx), 0);
        EXPECT_EQ(info.GetErrorInfo(), 29);
        EXPECT_TRUE(log.Contains("archive file 777 is not in the catalog"));
    }

    fs::rename(Root() + "/ds2", Root() + "/ds2.gone");
    ExpectSnapFailure(30, "/ds2 of archive file " + std::to_string(sample.afileIds[1]) + " is missing or unreadable");
}

TEST_F(SnapshotLibrary, BrokenVMsFailWithTheirCode) {
    ExpectVMFailure("nosuchvm", 1, "VM [nosuchvm] is not in snapshot job");

    // A disk on a datastore outside the snapshot, or outside its datastore, is not opened.
    const std::string vmx = sample.vm("db01").folder + "/db01.vmx";
    std::ofstream(vmx, std::ios::app) << "scsi1:0.fileName = \"[ds9] db01/x.vmdk\"\n";
    ExpectVMFailure("db01", 23, "datastore [ds9] is not in the mounted snapshot");
    std::ofstream(vmx, std::ios::app) << "scsi1:0.fileName = \"/etc/passwd\"\n";
    ExpectVMFailure("db01", 23, "lies outside the snapshot");
    std::ofstream(vmx, std::ios::app) << "scsi1:0.fileName = \"../../ds2/fs01/fs01_data.img\"\n";
    ExpectVMFailure("db01", 23, "lies outside its datastore");

    // A disk whose extent file is missing is refused naming it; a filter that leaves it out mounts.
    const vssample::SampleVM& web = sample.vm("web01");
    std::ofstream(web.disks[1].path)
        << "# Disk DescriptorFile\ncreateType=\"twoGbMaxExtentSparse\"\nRW 64 SPARSE \"s.vmdk\"\n";
    ExpectVMFailure("web01", 23, "s.vmdk: cannot be opened: No such file");
    {
        vminfo::VMInfo info(102, 1);
        MountCtx snap = SnapCtx();
        ASSERT_EQ(info.MountSnap(snap), 1);
        MountCtx ctx = VMCtx("web01", {web.disks[0].secondName});
        EXPECT_EQ(info.MountVM(ctx), 1);
    }

    // A malformed or escaping guest sidecar makes the configuration invalid.
    const std::string sidecar = sample.vm("fs01").folder + "/vmguest.json";
    std::ofstream(sidecar) << R"({"guestVolumes": [{"guid": "g", "folder": "../../ds1"}]})";
    ExpectVMFailure("fs01", 16, "lies outside the VM folder");
    std::ofstream(sidecar) << "[1, 2";
    ExpectVMFailure("fs01", 16, "vmguest.json: not a JSON object");

    // VMs cannot be mounted from a snapshot that is not mounted.
    vminfo::VMInfo info(102, 1);
    MountCtx ctx = VMCtx("web01");
    EXPECT_EQ(info.MountVM(ctx), 0);
    EXPECT_EQ(info.GetErrorInfo(), 30);
}

// Files are opened below their volume only: ".." extent names, links out of the volume
// (a flat file, the .nvram, a folder on the way to a disk, an absolute link even into
// it) fail the VM with 23; a relative link that stays on the volume is followed.
TEST_F(SnapshotLibrary, FilesThatLeaveTheirVolumeOrAreNoFilesAreRefused) {
    const std::string web = sample.vm("web01").folder + "/", ds1 = Root() + "/ds1/", secret = home.sub("secret");
    std::ofstream(secret) << "secret";
    fs::create_directories(home.sub("out"));
    fs::create_directories(ds1 + "in");
    std::ofstream(home.sub("out/x.img")) << std::string(4096, 'X');
    std::ofstream(ds1 + "in/x.img") << std::string(4096, 'X');
    std::ofstream(sample.vm("db01").folder + "/db01.vmx", std::ios::app) << "scsi1:0.fileName = \"../linked/x.img\"\n";
    const auto link = [](const std::string& target, const std::string& at) {
        fs::remove(at);
        fs::create_symlink(target, at);
    };
    link(home.sub("out"), ds1 + "linked");
    ExpectVMFailure("db01", 23, "x.img: leads out of");
    link(ds1 + "in", ds1 + "linked");
    ExpectVMFailure("db01", 23, "x.img: leads out of");
    link("in", ds1 + "linked");
    vminfo::VMInfo info(102, 1);
    MountCtx snap = SnapCtx(), db = VMCtx("db01");
    ASSERT_EQ(info.MountSnap(snap), 1);
    EXPECT_EQ(info.MountVM(db), 1);

    fs::copy_file(web + "web01.vmdk", web + "saved.vmdk");
    std::ofstream(web + "web01.vmdk") << "# Disk DescriptorFile\nRW 8 FLAT \"../../../../secret\" 0\n";
    ExpectVMFailure("web01", 23, "absolute names and .. are refused");
    fs::rename(web + "saved.vmdk", web + "web01.vmdk");
    link(secret, web + "web01-flat.vmdk");
    ExpectVMFailure("web01", 23, "web01-flat.vmdk: leads out of");
    link(secret, web + "web01.nvram");  // configuration files are looked at first
    ExpectVMFailure("web01", 23, "web01.nvram: leads out of");
}

// Text files larger than a snapshot's text may be are refused before they are read: the
// VM fails with its code and the reason.
TEST_F(SnapshotLibrary, OversizedTextFilesAreRefusedUnread) {
    const std::pair<std::string, std::string> files[] = {
        {"web01", sample.vm("web01").folder + "/web01.vmsd"},
        {"fs01", sample.vm("fs01").folder + "/vmguest.json"},
    };
    for (const auto& [vm, path] : files) {
        fs::resize_file(path, 64ull << 20);  // sparse
        ExpectVMFailure(vm, 16, fs::path(path).filename().string() + ": holds 67108864 bytes, more than the");
    }
}

// The disk reader opens a disk at the size the VM mount reported, and refuses an image
// cut short between the mount and the open.
TEST_F(SnapshotLibrary, ADiskThatChangedSizeSinceTheMountIsNotOpened) {
    const vssample::SampleDisk& raw = sample.vm("fs01").disks.at(1);
    ASSERT_EQ(raw.name, "fs01_data.img");
    vminfo::VMInfo info(102, 1);
    MountCtx snap = SnapCtx(), ctx = VMCtx("fs01");
    ASSERT_EQ(info.MountSnap(snap), 1);
    ASSERT_EQ(info.MountVM(ctx), 1);
    CArchiveVirtualDiskFile disk(2);
    disk.SetVMInfo(&info, "fs01", "", &ctx, nullptr);
    EXPECT_FALSE(disk.Open(raw.path, 2).IsError());
    fs::resize_file(raw.path, raw.size / 2);
    EXPECT_NE(disk.Open(raw.path, 2).AsString().find("the image changed size since"), std::string::npos);
}

// A folder's size counts its regular files at every depth; a link (to a file or a
// folder, inside or outside) and a FIFO add nothing.
TEST(FolderBytes, CountsRegularFilesBelowAndFollowsNoLink) {
    vstest::TempHome home;
    const fs::path top = home.sub("volume");
    const fs::path outside = home.sub("outside");
    fs::create_directories(top / "a" / "b" / "empty");
    fs::create_directories(outside);
    const auto write = [](const fs::path& p, size_t n) { std::ofstream(p, std::ios::binary) << std::string(n, 'x'); };
    write(top / "one", 10);
    write(top / "a" / "two", 200);
    write(top / "a" / "b" / "three", 3000);
    write(outside / "big", 1 << 20);
    fs::create_symlink(top / "a" / "two", top / "link-to-file");
    fs::create_symlink(outside, top / "a" / "link-to-folder");
    ASSERT_EQ(::mkfifo((top / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(vminfo::FolderBytes(top.string()), 3210u);
    EXPECT_EQ(vminfo::FolderBytes((top / "missing").string()), 0u);
}

}  // namespace
