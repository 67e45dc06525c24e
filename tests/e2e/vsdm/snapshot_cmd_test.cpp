// vsdm snapshot add|list|remove and vsdm backup: a snapshot registered from read-only
// folders outside the home backs up and restores with one command each, and no command
// changes a file of its volumes.
#include "run_support.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using vstest::Shell;

namespace {

void SetWritable(const std::string& dir, bool writable) {
    for (const auto& e : fs::recursive_directory_iterator(dir))
        fs::permissions(e.path(), fs::perms::owner_write, writable ? fs::perm_options::add : fs::perm_options::remove);
    fs::permissions(dir, fs::perms::owner_write, writable ? fs::perm_options::add : fs::perm_options::remove);
}

}  // namespace

TEST(VsdmSnapshots, RegisteredVolumesBackUpWithOneCommandEachAndAreNeverWritten) {
    vstest::TempHome scratch;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const std::string vols = scratch.sub("vols"), home = scratch.sub("h"), at = " --home " + home;
    const std::string sampleRoot = scratch.sub("Snapshots/" + std::to_string(s.snapJobId));
    fs::copy(sampleRoot, vols, fs::copy_options::recursive);
    SetWritable(vols, false);
    const std::string volumes = " ds1=" + vols + "/ds1 ds2=" + vols + "/ds2";
    auto before = vstest::FileStates(vols);

    const struct {
        std::string args;
        int status;
        std::string says;
    } steps[] = {
        {"snapshot list" + at, 64, "does not exist"},
        {"snapshot add --snap-job 77" + at + volumes, 0, "volume ds2 = " + vols + "/ds2"},
        {"snapshot add --snap-job 77" + at + volumes, 64, "registered already"},
        {"snapshot add --snap-job 78" + at + " ds1=" + vols + "/ds1 ds1=" + vols + "/ds2", 64, "named twice"},
        {"snapshot add --snap-job 78" + at + " ds1=" + vols + "/none", 64, "is not a folder"},
        {"snapshot add --snap-job 78" + at + " ds1=" + scratch.path(), 64, "holds the host home"},
        {"snapshot add --snap-job 78" + at + " ds1", 64, "DATASTORE=FOLDER"},
        {"snapshot list" + at, 0, "disk web01_1.vmdk: flat VMDK, 16777216 bytes"},
        {"snapshot remove 99" + at, 64, "not registered"},
        {"backup --snapshot 99 --out x" + at, 64, "not registered"},
        {"backup --snapshot 77 --vm nosuch --out x" + at, 64, "VM nosuch is not in snapshot 77"},
        {"backup --snapshot 77 --reader tape --out x" + at, 64, "--reader must be"},
        {"backup --snapshot 77 --vm web01 --vm db01 --out " + home + "/full" + at, 0, "2 of 2 items succeeded"},
    };
    for (const auto& step : steps) {
        const vstest::RunResult r = Shell(vstest::Vsdm() + " " + step.args);
        EXPECT_EQ(r.status, step.status) << step.args << "\n" << r.output;
        EXPECT_NE(r.output.find(step.says), std::string::npos) << step.args << "\n" << r.output;
    }
    EXPECT_EQ(vstest::FileStates(vols), before);

    // The world moves on: the next snapshot of the same folders holds a changed web01.
    const std::string flat = vols + "/ds1/web01/web01-flat.vmdk";
    SetWritable(vols, true);
    {
        std::fstream f(flat, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(5 << 20);
        f << "changed between the two snapshots";
    }
    SetWritable(vols, false);
    before = vstest::FileStates(vols);
    ASSERT_EQ(Shell(vstest::Vsdm() + " snapshot add --snap-job 78" + at + volumes).status, 0);
    const vstest::RunResult incr =
        Shell(vstest::Vsdm() + " backup --snapshot 78 --vm web01 --incremental --out " + home + "/incr" + at);
    ASSERT_EQ(incr.status, 0) << incr.output;
    EXPECT_NE(incr.output.find("2 disk(s) read against their last backup"), std::string::npos) << incr.output;
    EXPECT_LT(fs::file_size(home + "/incr") * 4, fs::file_size(home + "/full"));
    EXPECT_EQ(vstest::FileStates(vols), before);

    const std::string restored = home + "/r/" + s.vm("web01").biosUuid + "/web01-flat.vmdk";
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home + "/full --to " + home + "/r").status, 0);
    EXPECT_NE(vstest::ReadAll(restored), vstest::ReadAll(flat));
    const vstest::RunResult onto = Shell(vstest::Vsstream() + " restore " + home + "/incr --onto " + home + "/r");
    ASSERT_EQ(onto.status, 0) << onto.output;
    EXPECT_EQ(vstest::ReadAll(restored), vstest::ReadAll(flat));

    // Removing a snapshot forgets it and touches none of its files.
    EXPECT_EQ(Shell(vstest::Vsdm() + " snapshot remove 77" + at).status, 0);
    EXPECT_EQ(Shell(vstest::Vsdm() + " snapshot list" + at).output.find("snapshot 77 "), std::string::npos);
    EXPECT_EQ(vstest::FileStates(vols), before);
    SetWritable(vols, true);  // so that the temporary folder can go
}
