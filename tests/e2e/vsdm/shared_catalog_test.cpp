// Two hosts whose homes share one catalog on PostgreSQL: a snapshot one registers is the
// other's too, and the other's incremental reads against the first's full backup.
#include "catalog_backend.h"
#include "run_support.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using vstest::Shell;

namespace {

class VsdmSharedCatalog : public vstest::CatalogBackendTest {};
INSTANTIATE_TEST_SUITE_P(Catalog, VsdmSharedCatalog, testing::Values(vstest::Backend::PostgreSQL), vstest::BackendName);

TEST_P(VsdmSharedCatalog, TwoHostsBackUpOneSnapshotInTurn) {
    vstest::TempHome scratch;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const std::string vols = scratch.sub("vols"), a = scratch.sub("a"), b = scratch.sub("b");
    fs::copy(scratch.sub("Snapshots/" + std::to_string(s.snapJobId)), vols, fs::copy_options::recursive);
    for (const std::string& home : {a, b}) {
        fs::create_directory(home);
        std::ofstream(home + "/settings.ini") << "[Catalog]\nsConnection=" << CatalogConnection() << "\n";
    }
    const std::string volumes = " ds1=" + vols + "/ds1 ds2=" + vols + "/ds2";
    auto vsdm = [](const std::string& args, const std::string& home) {
        return Shell(vstest::Vsdm() + " " + args + " --home " + home);
    };

    ASSERT_EQ(vsdm("snapshot add --snap-job 77" + volumes, a).status, 0);
    const vstest::RunResult listed = vsdm("snapshot list", b);
    EXPECT_NE(listed.output.find("snapshot 77"), std::string::npos) << listed.output;
    const vstest::RunResult full = vsdm("backup --snapshot 77 --vm web01 --out " + a + "/full", a);
    ASSERT_EQ(full.status, 0) << full.output;
    EXPECT_EQ(vsdm("snapshot add --snap-job 77" + volumes, b).status, 64);  // registered already, by a

    {
        std::fstream f(vols + "/ds1/web01/web01-flat.vmdk", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(5 << 20);
        f << "changed on the second host's watch";
    }
    ASSERT_EQ(vsdm("snapshot add --snap-job 78" + volumes, b).status, 0);
    const vstest::RunResult incr = vsdm("backup --snapshot 78 --vm web01 --incremental --out " + b + "/incr", b);
    ASSERT_EQ(incr.status, 0) << incr.output;
    EXPECT_NE(incr.output.find("2 disk(s) read against their last backup"), std::string::npos) << incr.output;

    const std::string restored = scratch.sub("r/") + s.vm("web01").biosUuid + "/web01-flat.vmdk";
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + a + "/full --to " + scratch.sub("r")).status, 0);
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + b + "/incr --onto " + scratch.sub("r")).status, 0);
    EXPECT_EQ(vstest::ReadAll(restored), vstest::ReadAll(vols + "/ds1/web01/web01-flat.vmdk"));
    // The catalog is the server's alone: neither home has a file of it.
    EXPECT_FALSE(fs::exists(a + "/catalog.db"));
    EXPECT_FALSE(fs::exists(b + "/catalog.db"));
}

}  // namespace
