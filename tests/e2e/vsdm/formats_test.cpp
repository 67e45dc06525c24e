// Whole jobs over disks this project did not write: images qemu-img makes (qcow2,
// monolithic and split hosted sparse, stream-optimized VMDK), VMware delta chains
// (SESPARSE and VMFS sparse, written by the test generator), VMDK and qcow2 backing
// chains, each in a VM folder with a hand-written .vmx and .vmsd. Each restored disk is
// compared with qemu-img against the chain at the point that should have been read. The
// volume is registered with vsdm snapshot add in a home of its own and backed up with
// vsdm backup, as an operator would.
#include "disk_images.h"
#include "run_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

namespace {

namespace fs = std::filesystem;
namespace img = vstest::images;
using vstest::RunResult;
using vstest::Shell;

constexpr uint64_t kMiB = 1ull << 20;

struct FormatVM {
    std::string name, uuid;
    std::string restoredName;  // the disk's name in the stream
    std::string expected;      // the image (in the VM folder) the restored disk must read as
    std::string format;        // its qemu format
};

class VsdmFormats : public ::testing::Test {
protected:
    void SetUp() override {
        img::MakeRaw(home.sub("dummy.img"), kMiB);
        snap = vssample::GenerateImageSnapshot(home.sub("dummy.img"));
        ds1 = home.sub("Snapshots/" + std::to_string(snap.snapJobId) + "/ds1/");
        for (const char* name : {"a", "b", "c", "d"}) {
            const std::string raw = home.sub(std::string(name) + ".raw");
            const auto seed = static_cast<uint32_t>(name[0]);
            img::MakeRaw(raw, 24 * kMiB);
            img::Fill(raw, (seed - 'a') * 3 * kMiB + 4096, kMiB, seed);
            img::Fill(raw, 20 * kMiB - seed * 8192, 12288, seed + 100);
        }
    }
    std::string Raw(const char* name) const { return home.sub(std::string(name) + ".raw"); }
    std::string Folder(const FormatVM& vm) const {
        fs::create_directories(ds1 + vm.name);
        return ds1 + vm.name + "/";
    }
    void Add(const FormatVM& vm, const std::string& disk, const std::vector<std::string>& snapshots) {
        img::WriteVM(ds1 + vm.name, vm.name, vm.uuid, disk, snapshots);
        vms.push_back(vm);
    }
    // Backs the VMs up as an operator does: the volume registered in a home of its own
    // (once), then one vsdm backup (change tracking on), the stream in `stream`.
    RunResult Backup(const std::string& stream, const std::string& extra = "") {
        const std::string at = " --home " + home.sub("operator");
        if (!registered) {
            const RunResult add = Shell(vstest::Vsdm() + " snapshot add --snap-job 9000" + at + " ds1=" + ds1);
            if (add.status != 0) return add;
            registered = true;
        }
        std::string command = "timeout 300 " + vstest::Vsdm() + " backup --snapshot 9000 --out " + stream + at;
        for (const FormatVM& vm : vms) command += " --vm " + vm.uuid;
        return Shell(command + " " + extra);
    }
    // Each VM's restored disk (restored in the format it was: a VMDK as a monolithic-flat
    // one) against what it should read as.
    void ExpectRestored(const std::string& restore) const {
        for (const FormatVM& vm : vms) {
            const std::string disk = restore + "/" + vm.uuid + "/" + vm.restoredName;
            EXPECT_EQ(img::Compare(disk, vm.format, ds1 + vm.name + "/" + vm.expected, vm.format), "") << vm.name;
        }
    }
    // How many extents `stream` sent of the disk named `disk`, from `vsstream list`.
    static long ExtentsSent(const std::string& stream, const std::string& disk) {
        const RunResult list = Shell(vstest::Vsstream() + " list " + stream);
        for (size_t at = list.output.find("disk "); at != std::string::npos; at = list.output.find("\ndisk ", at + 1)) {
            const std::string line = list.output.substr(at, list.output.find('\n', at + 1) - at);
            const size_t sent = line.find(" extents sent");
            if (line.find(disk + ": size") == std::string::npos || sent == std::string::npos) continue;
            return std::stol(line.substr(line.rfind(' ', sent - 1) + 1));
        }
        return -1;
    }
    size_t Leftovers() const { return img::QemuNbdUsing(home.path()); }

    vstest::TempHome home;
    vssample::SampleSnapshot snap;
    std::string ds1;
    std::vector<FormatVM> vms;
    bool registered = false;
};

TEST_F(VsdmFormats, EveryFormatIsBackedUpAtItsVMSnapshotAndRestoresAsQemuReadsIt) {
    const std::string a = Raw("a"), b = Raw("b"), c = Raw("c"), d = Raw("d");
    struct Converted {
        const char* vm;
        const char* file;
        const char* options;
    };
    for (const Converted& k : {Converted{"qcow", "qcow.qcow2", "-O qcow2"},
                               Converted{"mono", "mono.vmdk", "-O vmdk -o subformat=monolithicSparse"},
                               Converted{"stream", "stream.vmdk", "-O vmdk -o subformat=streamOptimized"}}) {
        const FormatVM vm{k.vm, "564d0000-0000-4000-8000-0000000000" + std::to_string(10 + vms.size()), k.file, k.file,
                          std::string(k.file).ends_with(".qcow2") ? "qcow2" : "vmdk"};
        ASSERT_EQ(img::Sh("qemu-img convert -f raw " + std::string(k.options) + " " + a + " " + Folder(vm) + k.file),
                  0);
        Add(vm, k.file, {});
    }
    // Split sparse files of 2 GiB each, with data across the first boundary.
    const std::string big = home.sub("big.raw");
    img::MakeRaw(big, (2ull << 30) + 24 * kMiB);
    img::Fill(big, (2ull << 30) - kMiB, 2 * kMiB, 7);
    FormatVM vm{"split", "564d0000-0000-4000-8000-000000000020", "split.vmdk", "split.vmdk", "vmdk"};
    ASSERT_EQ(img::Sh("qemu-img convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse " + big + " " + Folder(vm) +
                      "split.vmdk"),
              0);
    Add(vm, "split.vmdk", {});

    // Hosted sparse VMDK and qcow2 backing chains: a user's snapshot, then the backup's.
    auto qemuIo = [](const char* format, int pattern, uint64_t at, const char* file) {
        return std::string(" && qemu-io -f ") + format + " -c 'write -P " + std::to_string(pattern) + " " +
               std::to_string(at) + " 65536' " + file + " >/dev/null";
    };
    vm = {"vchain", "564d0000-0000-4000-8000-000000000021", "base.vmdk", "base-000001.vmdk", "vmdk"};
    ASSERT_EQ(img::Sh("cd " + Folder(vm) + " && qemu-img convert -f raw -O vmdk " + a + " base.vmdk" +
                      " && qemu-img create -q -f vmdk -b base.vmdk -F vmdk base-000001.vmdk" +
                      qemuIo("vmdk", 1, 3 * kMiB, "base-000001.vmdk") +
                      " && qemu-img create -q -f vmdk -b base-000001.vmdk -F vmdk base-000002.vmdk" +
                      qemuIo("vmdk", 2, 5 * kMiB, "base-000002.vmdk")),
              0);
    Add(vm, "base-000002.vmdk", {"base.vmdk", "base-000001.vmdk"});
    vm = {"qchain", "564d0000-0000-4000-8000-000000000022", "base.qcow2", "top1.qcow2", "qcow2"};
    ASSERT_EQ(img::Sh("cd " + Folder(vm) + " && qemu-img convert -f raw -O qcow2 " + a + " base.qcow2" +
                      " && qemu-img create -q -f qcow2 -b base.qcow2 -F qcow2 top1.qcow2" +
                      qemuIo("qcow2", 3, 3 * kMiB, "top1.qcow2") +
                      " && qemu-img create -q -f qcow2 -b top1.qcow2 -F qcow2 top2.qcow2" +
                      qemuIo("qcow2", 4, 5 * kMiB, "top2.qcow2")),
              0);
    Add(vm, "top2.qcow2", {"base.qcow2", "top1.qcow2"});

    // ESX deltas on a flat base: SESPARSE (hiding 64 KiB of the base with zero grains)
    // under VMFS sparse under the backup's SESPARSE delta; and the usual case, one delta
    // whose VM snapshot is the flat base itself, read directly.
    vm = {"esx", "564d0000-0000-4000-8000-000000000023", "web.vmdk", "web-000002.vmdk", "vmdk"};
    std::string f = Folder(vm);
    img::WriteFlat(a, f + "web.vmdk", 0x11);
    std::vector<uint64_t> hidden;
    for (uint64_t g = 256; g < 272; ++g) hidden.push_back(g);  // [1 MiB, 1 MiB + 64 KiB)
    img::WriteDelta({img::DeltaKind::SeSparse, b, hidden, "web.vmdk", 0x22, 0x11}, f + "web-000001.vmdk");
    img::WriteDelta({img::DeltaKind::VmfsSparse, c, {}, "web-000001.vmdk", 0x33, 0x22}, f + "web-000002.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, d, {}, "web-000002.vmdk", 0x44, 0x33}, f + "web-000003.vmdk");
    Add(vm, "web-000003.vmdk", {"web.vmdk", "web-000001.vmdk", "web-000002.vmdk"});
    vm = {"usual", "564d0000-0000-4000-8000-000000000024", "db.vmdk", "db.vmdk", "vmdk"};
    f = Folder(vm);
    img::WriteFlat(b, f + "db.vmdk", 0x55);
    img::WriteDelta({img::DeltaKind::SeSparse, d, {}, "db.vmdk", 0x66, 0x55}, f + "db-000001.vmdk");
    Add(vm, "db-000001.vmdk", {"db.vmdk"});

    const auto volume = vstest::FileStates(ds1);
    const RunResult run = Backup(home.sub("full.bin"));
    EXPECT_EQ(run.status, 0) << run.output << vstest::ReadAll(home.sub("operator/Log Files/vsreader.log"));
    EXPECT_EQ(Leftovers(), 0u);
    for (const auto& e : fs::recursive_directory_iterator(home.path()))
        EXPECT_EQ(e.path().filename().string().rfind("vsnbd-", 0), std::string::npos) << e.path();
    const RunResult restore =
        Shell(vstest::Vsstream() + " restore " + home.sub("full.bin") + " --to " + home.sub("restore"));
    ASSERT_EQ(restore.status, 0) << restore.output;
    ExpectRestored(home.sub("restore"));
    EXPECT_EQ(vstest::FileStates(ds1), volume);  // nothing on the volume was made, removed or changed
    // The .vmx names the disk as restored (the delta it ran on is restored under its
    // base's name); every other line is as it was.
    std::string vmx = vstest::ReadAll(ds1 + "usual/usual.vmx");
    vmx.replace(vmx.find("db-000001.vmdk"), 14, "db.vmdk");
    EXPECT_EQ(vstest::ReadAll(home.sub("restore/" + vms.back().uuid + "/usual.vmx")), vmx);
}

// An incremental of a qcow2 disk and of an ESX delta chain sends only what changed
// since the full, and the two streams restore to the disks as they are now.
TEST_F(VsdmFormats, IncrementalsBuildOnTheDigestsOfAnyFormat) {
    FormatVM vm{"qcow", "564d0000-0000-4000-8000-000000000030", "qcow.qcow2", "qcow.qcow2", "qcow2"};
    ASSERT_EQ(img::Sh("qemu-img convert -f raw -O qcow2 " + Raw("a") + " " + Folder(vm) + "qcow.qcow2"), 0);
    Add(vm, "qcow.qcow2", {});
    vm = {"esx", "564d0000-0000-4000-8000-000000000031", "web.vmdk", "web-000001.vmdk", "vmdk"};
    const std::string f = Folder(vm);
    img::WriteFlat(Raw("a"), f + "web.vmdk", 0x11);
    img::WriteDelta({img::DeltaKind::SeSparse, Raw("b"), {}, "web.vmdk", 0x22, 0x11}, f + "web-000001.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, Raw("c"), {}, "web-000001.vmdk", 0x33, 0x22}, f + "web-000002.vmdk");
    Add(vm, "web-000002.vmdk", {"web.vmdk", "web-000001.vmdk"});

    RunResult run = Backup(home.sub("full.bin"));
    ASSERT_EQ(run.status, 0) << run.output;
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("full.bin") + " --to " + home.sub("r")).status, 0);

    // The next snapshot: a changed cluster of the qcow2 and of the flat base, and a
    // qcow2 cluster that became zeros.
    ASSERT_EQ(img::Sh("qemu-io -f qcow2 -c 'write -P 9 8388608 65536' -c 'write -z 0 65536' " + ds1 +
                      "qcow/qcow.qcow2 >/dev/null"),
              0);
    img::Fill(Raw("a"), 15 * kMiB, 4096, 77);  // the base's flat file is a link to a.raw
    run = Backup(home.sub("incr.bin"), "--incremental");
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(ExtentsSent(home.sub("full.bin"), "qcow.qcow2"), 3);  // [4 KiB, 1 MiB + 4 KiB) and near 20 MiB
    EXPECT_EQ(ExtentsSent(home.sub("incr.bin"), "qcow.qcow2"), 2);  // extents 0 and 8
    EXPECT_EQ(ExtentsSent(home.sub("incr.bin"), "web.vmdk"), 1);    // extent 15
    const RunResult onto = Shell(vstest::Vsstream() + " restore " + home.sub("incr.bin") + " --onto " + home.sub("r"));
    ASSERT_EQ(onto.status, 0) << onto.output;
    ExpectRestored(home.sub("r"));
}

// A data mover killed while qemu-nbd serves it leaves no qemu-nbd behind, and the next
// attempt goes on from its stream: the two restore to the disk as qemu reads it.
TEST_F(VsdmFormats, AKilledJobTakesItsQemuNbdAlongAndIsResumed) {
    const std::string raw = home.sub("dense.raw");
    img::MakeRaw(raw, 24 * kMiB);
    img::Fill(raw, 0, 24 * kMiB, 5);
    FormatVM vm{"qcow", "564d0000-0000-4000-8000-000000000040", "qcow.qcow2", "qcow.qcow2", "qcow2"};
    ASSERT_EQ(img::Sh("qemu-img convert -f raw -O qcow2 " + raw + " " + Folder(vm) + "qcow.qcow2"), 0);
    Add(vm, "qcow.qcow2", {});
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, snap, 1, {vm.uuid}, true).dump();

    vstest::SlowConsumerRun run(home, home.sub("job.json"));
    ASSERT_TRUE(run.started());
    ASSERT_TRUE(run.ReadUntil(8 * kMiB));
    EXPECT_EQ(Leftovers(), 1u);  // the disk is open
    const int wstatus = run.SignalAndDrain(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(wstatus));
    for (int i = 0; i < 500 && Leftovers() > 0; ++i) ::usleep(10000);
    EXPECT_EQ(Leftovers(), 0u);
    std::ofstream(home.sub("killed.bin"), std::ios::binary) << run.stream();

    const RunResult resumed = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --resume " +
                                    home.sub("killed.bin") + " --out " + home.sub("resumed.bin"));
    ASSERT_EQ(resumed.status, 0) << resumed.output;
    EXPECT_LT(fs::file_size(home.sub("resumed.bin")), 20 * kMiB);
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("killed.bin") + " --to " + home.sub("r")).status, 2);
    const RunResult onto =
        Shell(vstest::Vsstream() + " restore " + home.sub("resumed.bin") + " --onto " + home.sub("r"));
    ASSERT_EQ(onto.status, 0) << onto.output;
    ExpectRestored(home.sub("r"));
}

}  // namespace
