// Whole jobs over snapshots that try to reach outside themselves or change under the
// reader: a disk cut short while it is read, files that lead out of their volume, FIFOs
// in place of files and oversized text files. Each fails its own item with the reason
// and nothing counts as backed up that the stream does not hold in full.
#include "run_support.h"

#include "vshost/changetrack.h"
#include "vshost/fd.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace {

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;

constexpr uint64_t kMiB = 1ull << 20;

size_t CatalogDisks(int64_t jobId) { return vshost::changetrack::JobDisks(jobId).size(); }

// A disk of 64 MiB with data in every MiB is cut to 8 MiB once the stream holds 4 MiB:
// the job writes into a FIFO this test reads, and writes in batches of 1 MiB, so the
// reader cannot be past the cut yet. The item fails; the disk is neither marked read to
// its end nor recorded in the catalog.
TEST(VsdmConfinement, ADiskCutShortWhileItIsReadFailsItsItem) {
    vstest::TempHome home;
    const std::string image = home.sub("disk.img");
    {
        const vshost::Fd fd(::open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        ASSERT_EQ(::ftruncate(fd.get(), static_cast<off_t>(64 * kMiB)), 0);
        const std::string run(64 << 10, 'x');
        for (uint64_t k = 0; k < 64; ++k)
            ASSERT_EQ(::pwrite(fd.get(), run.data(), run.size(), static_cast<off_t>(k * kMiB + 4096)),
                      static_cast<ssize_t>(run.size()));
    }
    const vssample::SampleSnapshot s = vssample::GenerateImageSnapshot(image);
    const vssample::SampleVM& vm = s.vms.at(0);
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, s, 61, {vm.biosUuid + "\\" + vm.disks.at(0).name}, true).dump();

    vstest::SlowConsumerRun run(home, home.sub("job.json"));
    ASSERT_TRUE(run.started());
    ASSERT_TRUE(run.ReadUntil(4 * kMiB));
    ASSERT_EQ(::truncate(image.c_str(), static_cast<off_t>(8 * kMiB)), 0);
    const int wstatus = run.Drain();
    ASSERT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(WEXITSTATUS(wstatus), 1) << run.errors();
    EXPECT_NE(vstest::ReadAll(home.sub("Log Files/vsreader.log")).find("cut short"), std::string::npos);

    std::ofstream(home.sub("s.bin"), std::ios::binary) << run.stream();
    const RunResult verify = Shell(vstest::Vsstream() + " verify " + home.sub("s.bin"));
    EXPECT_NE(verify.output.find(vm.disks.at(0).name + ": incomplete"), std::string::npos) << verify.output;
    EXPECT_EQ(CatalogDisks(61), 0u);
}

// Damage of one VM fails that VM with the reason and the other VM of the job is backed
// up; no byte of a file outside the snapshot reaches the stream, and nothing waits on a
// FIFO (the job runs under `timeout`). A FIFO in place of snapshot.json fails the job.
TEST(VsdmConfinement, SnapshotFilesThatLeadOutOrAreNoFilesFailTheirVMOnly) {
    struct Case {
        const char* name;
        std::function<void(const vssample::SampleSnapshot&, const std::string& secret)> damage;
        const char* reason;
        bool wholeJob = false;
    };
    const auto web = [](const vssample::SampleSnapshot& s) { return s.vm("web01").folder + "/"; };
    const auto replace = [](const std::string& path, const std::string& target) {
        fs::remove(path);
        fs::create_symlink(target, path);
    };
    const Case cases[] = {
        {"absolute extent name",
         [&](const auto& s, const auto& secret) {
             std::ofstream(web(s) + "web01.vmdk") << "# Disk DescriptorFile\nRW " << s.vm("web01").disks[0].size / 512
                                                  << " FLAT \"" << secret << "\" 0\n";
         },
         "absolute names and .. are refused"},
        {"flat file links out", [&](const auto& s, const auto& secret) { replace(web(s) + "web01-flat.vmdk", secret); },
         "web01-flat.vmdk: leads out of"},
        {"nvram links out", [&](const auto& s, const auto& secret) { replace(web(s) + "web01.nvram", secret); },
         "web01.nvram: leads out of"},
        {"flat file is a FIFO",
         [&](const auto& s, const auto&) {
             fs::remove(web(s) + "web01-flat.vmdk");
             mkfifo((web(s) + "web01-flat.vmdk").c_str(), 0600);
         },
         "web01-flat.vmdk: not a regular file"},
        {"oversized configuration",
         [&](const auto& s, const auto&) { fs::resize_file(web(s) + "web01.vmx", 64 * kMiB); },   // sparse
         "web01.vmx: holds 67108864 bytes"},
        {"snapshot.json is a FIFO",
         [&](const auto& s, const auto&) {
             const std::string meta = fs::path(s.vm("web01").folder).parent_path().parent_path() / "snapshot.json";
             fs::remove(meta);
             mkfifo(meta.c_str(), 0600);
         },
         "snapshot.json: not a regular file", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vstest::TempHome home;
        const vssample::SampleSnapshot s = vssample::GenerateSample();
        const std::string marker = "SECRET-OF-THE-BACKUP-HOST;";
        std::string secret;
        while (secret.size() < 2 * kMiB) secret += marker;
        std::ofstream(home.sub("secret")) << secret;
        fs::resize_file(home.sub("secret"), s.vm("web01").disks[0].size);   // as large as the disk it stands in for
        c.damage(s, home.sub("secret"));
        std::ofstream(home.sub("job.json"))
            << vstest::SampleJob(home, s, 71, {s.vm("web01").biosUuid, s.vm("db01").biosUuid}).dump();

        const RunResult run = Shell("timeout 120 " + vstest::Vsdm() + " run " + home.sub("job.json") + " --out " +
                                    home.sub("s.bin"));
        EXPECT_NE(run.status, 124) << "the job hung";
        EXPECT_NE(run.status, 0) << run.output;
        if (!c.wholeJob) {
            EXPECT_NE(run.output.find("1 of 2 items succeeded"), std::string::npos) << run.output;
        }
        EXPECT_NE(vstest::ReadAll(home.sub("Log Files/vsreader.log")).find(c.reason), std::string::npos);
        EXPECT_EQ(vstest::ReadAll(home.sub("s.bin")).find(marker), std::string::npos);
        EXPECT_EQ(CatalogDisks(71), c.wholeJob ? 0u : s.vm("db01").disks.size());
    }
}

}  // namespace
