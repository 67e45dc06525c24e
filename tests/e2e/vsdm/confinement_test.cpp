// Whole jobs over snapshots that try to reach outside themselves or change under the
// reader: a disk cut short while it is read, files that lead out of their volume, FIFOs
// in place of files and oversized text files. Each fails its own item with the reason
// and nothing counts as backed up that the stream does not hold in full.
#include "run_support.h"

#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;

constexpr uint64_t kMiB = 1ull << 20;

size_t CatalogDisks(int64_t jobId) {
    return vshost::changetrack::JobDisks(jobId).size();
}

// A disk of 64 MiB of data is cut to 32 MiB once the stream holds 4 MiB: the job writes
// into a FIFO this test reads, through a pipeline of a few MiB, so the reader cannot be
// past the cut yet. The item fails; the disk is neither marked read to its end nor
// recorded in the catalog.
TEST(VsdmConfinement, ADiskCutShortWhileItIsReadFailsItsItem) {
    vstest::TempHome home;
    const std::string image = home.sub("disk.img");
    std::ofstream(image, std::ios::binary) << std::string(64 * kMiB, 'x');
    const vssample::SampleSnapshot s = vssample::GenerateImageSnapshot(image);
    const vssample::SampleVM& vm = s.vms.at(0);
    std::ofstream(home.sub("job.json"))
        << vstest::SampleJob(home, s, 61, {vm.biosUuid + "\\" + vm.disks.at(0).name}, true).dump();

    vstest::SlowConsumerRun run(home, home.sub("job.json"));
    ASSERT_TRUE(run.started());
    ASSERT_TRUE(run.ReadUntil(4 * kMiB));
    ASSERT_EQ(::truncate(image.c_str(), static_cast<off_t>(32 * kMiB)), 0);
    const int wstatus = run.Drain();
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 1) << run.errors();
    EXPECT_NE(vstest::ReadAll(home.sub("Log Files/vsreader.log")).find("cut short"), std::string::npos);

    std::ofstream(home.sub("s.bin"), std::ios::binary) << run.stream();
    const RunResult verify = Shell(vstest::Vsstream() + " verify " + home.sub("s.bin"));
    EXPECT_NE(verify.output.find(vm.disks.at(0).name + ": incomplete"), std::string::npos) << verify.output;
    EXPECT_EQ(CatalogDisks(61), 0u);
}

// One damaged VM fails with the reason while the other VM of the job is backed up; no
// byte of a file outside the snapshot reaches the stream and nothing waits on a FIFO.
TEST(VsdmConfinement, SnapshotFilesThatLeadOutOrAreNoFilesFailTheirVMOnly) {
    const std::pair<std::string, std::string> cases[] = {
        // damage, reason
        {"absolute extent", "absolute names and .. are refused"},
        {"fifo", "web01-flat.vmdk: not a regular file"},
        {"oversized", "web01.vmx: holds 67108864 bytes"},
    };
    for (const auto& [damage, reason] : cases) {
        vstest::TempHome home;
        const vssample::SampleSnapshot s = vssample::GenerateSample();
        const vssample::SampleVM& web = s.vm("web01");
        const std::string marker = "SECRET-OF-THE-BACKUP-HOST;", secret = home.sub("secret");
        std::ofstream(secret) << marker;
        fs::resize_file(secret, web.disks[0].size);  // as large as the disk it stands in for
        if (damage == "absolute extent")
            std::ofstream(web.disks[0].path)
                << "# Disk DescriptorFile\nRW " << web.disks[0].size / 512 << " FLAT \"" << secret << "\" 0\n";
        if (damage == "fifo" && fs::remove(web.folder + "/web01-flat.vmdk"))
            mkfifo((web.folder + "/web01-flat.vmdk").c_str(), 0600);
        if (damage == "oversized") fs::resize_file(web.folder + "/web01.vmx", 64 * kMiB);  // sparse
        std::ofstream(home.sub("job.json"))
            << vstest::SampleJob(home, s, 71, {web.biosUuid, s.vm("db01").biosUuid}).dump();

        const RunResult run =
            Shell("timeout 120 " + vstest::Vsdm() + " run " + home.sub("job.json") + " --out " + home.sub("s.bin"));
        EXPECT_NE(run.output.find("1 of 2 items succeeded"), std::string::npos) << damage << ": " << run.output;
        EXPECT_NE(vstest::ReadAll(home.sub("Log Files/vsreader.log")).find(reason), std::string::npos) << damage;
        EXPECT_EQ(vstest::ReadAll(home.sub("s.bin")).find(marker), std::string::npos) << damage;
        EXPECT_EQ(CatalogDisks(71), s.vm("db01").disks.size()) << damage;
    }
}

}  // namespace
