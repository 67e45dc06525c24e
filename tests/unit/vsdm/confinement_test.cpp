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

}  // namespace
