// Delta disks as the VM-info library reports them: the chain at the VM's newest
// snapshot, named by its base, and the chains it refuses with error 23.
#include "VMInfo.h"
#include "disk_images.h"
#include "temp_home.h"

#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;
namespace img = vstest::images;

namespace {

constexpr uint64_t kMiB = 1ull << 20;

class Chains : public ::testing::Test {
protected:
    void SetUp() override {
        img::MakeRaw(home.sub("dummy.img"), kMiB);
        sample = vssample::GenerateImageSnapshot(home.sub("dummy.img"));
        ds1 = home.sub("Snapshots/" + std::to_string(sample.snapJobId) + "/ds1");
        for (const char* name : {"a", "b", "c"}) {
            const std::string raw = home.sub(std::string(name) + ".raw");
            img::MakeRaw(raw, 8 * kMiB);
            img::Fill(raw, static_cast<uint64_t>(name[0] - 'a') * kMiB, 64 * 1024, static_cast<uint32_t>(name[0]));
        }
    }
    std::string Folder(const std::string& vm) const {
        fs::create_directories(ds1 + "/" + vm);
        return ds1 + "/" + vm + "/";
    }
    // Mounts `vm` limited to the disks `filters` name: its disks, or the error code.
    int Mount(const std::string& vm, std::vector<VMInfoStructs::SDisk>& disks,
              const std::vector<std::string>& filters = {}) {
        vminfo::VMInfo info(102, 1);
        MountCtx snap;
        snap.afileIds = sample.afileIds;
        if (info.MountSnap(snap) != 1) return -1;
        MountCtx ctx;
        ctx.sVMName = vm;
        ctx.nSnapJobId = sample.snapJobId;
        for (const std::string& f : filters) {
            SDiskFilter filter;
            filter.nFilterType = SDiskFilter::kByDiskName;
            filter.sDiskName = f;
            ctx.diskFilters.push_back(filter);
        }
        disks.clear();
        if (info.MountVM(ctx) != 1) return info.GetErrorInfo();
        std::vector<VMInfoStructs::SMountInfoFull> full;
        if (info.GetFullMountInfo(ctx, full) != 1) return -1;
        for (const auto& d : full.at(0).disks)
            if (d.nBackupType == VMInfoStructs::kBackupTypeDisk) disks.push_back(d);
        return 0;
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    vssample::SampleSnapshot sample;
    std::string ds1;
};

// A VM whose .vmx names a delta is read at its newest VM snapshot: the chain without
// that delta, whatever formats it holds. The disk keeps its base's name and change id,
// as it had before any delta, so incrementals find it; filters may name the disk as the
// .vmx does or by its base.
TEST_F(Chains, ADeltaIsReadAtItsNewestVMSnapshot) {
    const std::string a = home.sub("a.raw"), b = home.sub("b.raw"), c = home.sub("c.raw");
    std::string f = Folder("flatdelta");
    img::WriteFlat(a, f + "web.vmdk", 0x11);
    img::WriteDelta({img::DeltaKind::SeSparse, b, {}, "web.vmdk", 0x22, 0x11}, f + "web-000001.vmdk");
    img::WriteVM(f, "flatdelta", "564d0000-0000-4000-8000-000000000001", "web-000001.vmdk", {"web.vmdk"});
    f = Folder("twosnaps");
    img::WriteFlat(a, f + "base.vmdk", 0x11);
    img::WriteDelta({img::DeltaKind::VmfsSparse, b, {}, "base.vmdk", 0x22, 0x11}, f + "base-000001.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, c, {}, "base-000001.vmdk", 0x33, 0x22}, f + "base-000002.vmdk");
    img::WriteVM(f, "twosnaps", "564d0000-0000-4000-8000-000000000002", "base-000002.vmdk",
                 {"base.vmdk", "base-000001.vmdk"});
    f = Folder("qchain");
    ASSERT_EQ(img::Sh("cd " + f + " && qemu-img convert -O qcow2 " + a +
                      " q.qcow2 && qemu-img create -q -f qcow2 -b q.qcow2 -F qcow2 q-top.qcow2"),
              0);
    img::WriteVM(f, "qchain", "564d0000-0000-4000-8000-000000000003", "q-top.qcow2", {"q.qcow2"});
    img::WriteVM(f, "qplain", "564d0000-0000-4000-8000-000000000004", "q.qcow2", {});

    struct Case {
        const char* vm;
        const char* read;  // the file read, in the VM folder
        const char* name;
        int32_t type;
    };
    for (const Case& k :
         {Case{"flatdelta", "web.vmdk", "web.vmdk", 1}, Case{"twosnaps", "base-000001.vmdk", "base.vmdk", 4},
          Case{"qchain", "q.qcow2", "q.qcow2", 5}, Case{"qplain", "q.qcow2", "q.qcow2", 5}}) {
        std::vector<VMInfoStructs::SDisk> disks;
        ASSERT_EQ(Mount(k.vm, disks), 0) << k.vm << ": " << log.Last();
        ASSERT_EQ(disks.size(), 1u) << k.vm;
        const std::string folder = std::string(k.vm) == "qplain" ? "qchain" : k.vm;
        EXPECT_EQ(disks[0].sDiskPath, ds1 + "/" + folder + "/" + k.read) << k.vm;
        EXPECT_EQ(disks[0].sDiskName, k.name) << k.vm;
        EXPECT_EQ(disks[0].sSecondName, "[ds1] " + folder + "/" + k.name) << k.vm;
        EXPECT_EQ(disks[0].nDiskType, k.type) << k.vm;
        EXPECT_EQ(disks[0].ullSize, 8 * kMiB) << k.vm;
    }

    std::vector<VMInfoStructs::SDisk> disks;
    for (const auto& [filter, count] : {std::pair<const char*, size_t>{"base-000002.vmdk", 1},
                                        {"base.vmdk", 1},
                                        {"[ds1] twosnaps/base.vmdk", 1},
                                        {"base-000001.vmdk", 0}}) {
        ASSERT_EQ(Mount("twosnaps", disks, {filter}), 0);
        EXPECT_EQ(disks.size(), count) << filter;
    }
    ASSERT_EQ(Mount("flatdelta", disks), 0);
    const std::string changeId = disks.at(0).sChangeId;
    img::WriteVM(ds1 + "/flatdelta", "flatdelta", "564d0000-0000-4000-8000-000000000001", "web.vmdk", {});
    ASSERT_EQ(Mount("flatdelta", disks), 0);
    EXPECT_EQ(disks.at(0).sChangeId, changeId);  // the same disk before its VM snapshot was taken
}

// A delta whose consistent point cannot be found, or whose chain is broken, fails its
// VM with error 23 and a reason that names the file; nothing of it is read.
TEST_F(Chains, ChainsWithoutAConsistentPointAreRefused) {
    const std::string a = home.sub("a.raw"), b = home.sub("b.raw");
    struct Case {
        const char* vm;
        std::string parent;             // the delta's parent hint
        uint32_t parentCid;             // the CID the delta says its parent has (the base has 0x11)
        std::vector<std::string> vmsd;  // the snapshots' disk files
        const char* reason;
    };
    const Case cases[] = {
        {"novmsd", "base.vmdk", 0x11, {}, "names no snapshot"},
        {"stray", "base.vmdk", 0x11, {"other.vmdk"}, "other.vmdk for device scsi0:0, which is not a parent of"},
        {"itself", "base.vmdk", 0x11, {"base-000001.vmdk"}, "which is not a parent of"},
        {"orphan", "gone.vmdk", 0x11, {"gone.vmdk"}, "gone.vmdk: cannot be opened: No such file"},
        {"stale", "base.vmdk", 0x99, {"base.vmdk"}, "broken chain: "},
        {"escape", "../../../../dummy.img", 0x11, {"base.vmdk"}, "leads out of the volume"},
    };
    for (const Case& k : cases) {
        const std::string f = Folder(k.vm);
        img::WriteFlat(a, f + "base.vmdk", 0x11);
        img::WriteFlat(a, f + "other.vmdk", 0x44);
        img::WriteDelta({img::DeltaKind::SeSparse, b, {}, k.parent, 0x22, k.parentCid}, f + "base-000001.vmdk");
        img::WriteVM(f, k.vm, "564d0000-0000-4000-8000-0000000001" + std::to_string(10 + (&k - cases)),
                     "base-000001.vmdk", k.vmsd);
        std::vector<VMInfoStructs::SDisk> disks;
        EXPECT_EQ(Mount(k.vm, disks), 23) << k.vm;
        EXPECT_NE(log.Last().find(k.reason), std::string::npos) << k.vm << ": " << log.Last();
    }
}

}  // namespace
