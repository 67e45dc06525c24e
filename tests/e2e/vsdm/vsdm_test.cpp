// The data mover as a user runs it: job files, exit statuses, the stream on standard
// output, the demo.
#include "disk_images.h"
#include "run_support.h"

#include "vscodec/streamreader.h"
#include "vshost/catalog.h"
#include "vssample/sample.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>

namespace {

using vstest::RunResult;
using vstest::Shell;
using vstest::Vsdm;

TEST(VsdmRun, ExitStatusesAndTheStreamOnStandardOutput) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    nlohmann::json job = vstest::SampleJob(home, s, 31, {s.vm("db01").biosUuid});
    std::ofstream(home.sub("ok.json")) << job.dump();

    // The stream can be piped; the summary goes to stderr.
    RunResult r = Shell(Vsdm() + " run " + home.sub("ok.json") + " --out - 2>" + home.sub("err.txt") +
                        " | '" VSSTREAM_TOOL "' verify -");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("complete:"), std::string::npos) << r.output;
    // Counted as the stream was written: a piped stream is never read back.
    const std::string err = vstest::ReadAll(home.sub("err.txt"));
    EXPECT_NE(err.find("VMs 1, disks completed " + std::to_string(s.vm("db01").disks.size())), std::string::npos)
        << err;

    // A stream with a failed item is complete all the same: its index replaces the one
    // an earlier stream of its name left.
    job["items"].push_back({{"path", "nosuchvm"}});
    std::ofstream(home.sub("partial.json")) << job.dump();
    std::ofstream(home.sub("partial.bin.idx")) << "an earlier stream's index";
    r = Shell(Vsdm() + " run " + home.sub("partial.json") + " --out " + home.sub("partial.bin"));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("1 of 2 items succeeded"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("pending cause 0x5B000004 [nosuchvm]"), std::string::npos) << r.output;
    r = Shell("'" VSSTREAM_TOOL "' verify " + home.sub("partial.bin"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("partial.bin.idx: matches the stream"), std::string::npos) << r.output;
}

// SIGINT while the stream is blocked on a slow consumer: the reader stops after the
// current extent, the job says it was stopped, and the stream ends cleanly, marked
// incomplete (no trailer), with every record before the stop intact.
TEST(VsdmRun, StopSignalEndsTheStreamCleanlyButIncomplete) {
    vstest::TempHome home;
    // A disk of 32 MiB of data: its stream is as large, whatever the stream leaves out.
    const std::string image = home.sub("disk.img");
    std::ofstream(image, std::ios::binary) << std::string(32u << 20, 'x');
    const vssample::SampleSnapshot s = vssample::GenerateImageSnapshot(image);
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, s, 32, {s.vms.at(0).biosUuid}).dump();

    // Full run first, for the number of extents a complete stream holds.
    RunResult full = Shell(Vsdm() + " run " + home.sub("job.json") + " --out " + home.sub("full.bin"));
    ASSERT_EQ(full.status, 0) << full.output;

    // Take the first 2 MiB (vsdm is then inside the disk's extents, at most its
    // pipeline's few MiB ahead), stop it while it waits on this slow consumer, then drain
    // the rest.
    vstest::SlowConsumerRun run(home, home.sub("job.json"));
    ASSERT_TRUE(run.started());
    ASSERT_TRUE(run.ReadUntil(2u << 20));
    const int wstatus = run.SignalAndDrain(SIGINT);
    ASSERT_TRUE(WIFEXITED(wstatus));
    const std::string err = run.errors();
    const std::string& stream = run.stream();
    EXPECT_EQ(WEXITSTATUS(wstatus), 4) << err;
    EXPECT_NE(err.find("INCOMPLETE"), std::string::npos) << err;

    std::ofstream(home.sub("stopped.bin"), std::ios::binary) << stream;
    const RunResult verify = Shell("'" VSSTREAM_TOOL "' verify " + home.sub("stopped.bin"));
    EXPECT_EQ(verify.status, 2) << verify.output;  // incomplete, not corrupt
    const RunResult fullList = Shell("'" VSSTREAM_TOOL "' list " + home.sub("full.bin"));
    const RunResult stoppedList = Shell("'" VSSTREAM_TOOL "' list " + home.sub("stopped.bin"));
    const auto extents = [](const std::string& listing) {
        size_t count = 0;
        for (size_t at = listing.find("Extent"); at != std::string::npos; at = listing.find("Extent", at + 1)) ++count;
        return count;
    };
    EXPECT_GT(extents(stoppedList.output), 0u) << stoppedList.output;
    EXPECT_LT(extents(stoppedList.output), extents(fullList.output));
}

TEST(VsdmDemo, RestoresWhatItBacksUpAndLeavesTheHomeAskedFor) {
    vstest::TempHome scratch;
    RunResult r = Shell(Vsdm() + " demo --home " + scratch.sub("demo"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("demo passed"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("MISMATCH"), std::string::npos) << r.output;
    r = Shell(Vsdm() + " snapshot list --home " + scratch.sub("demo"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("web01"), std::string::npos) << r.output;
    r = Shell(Vsdm() + " demo --home " + scratch.sub("demo"));
    EXPECT_NE(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("is not empty; give an empty or new folder to --home"), std::string::npos) << r.output;
}

// One job over a snapshot of 200 VMs: every VM and every disk is in the stream exactly
// once, the restore gives every disk back, neither holds descriptors per VM or disk,
// and the job leaves no folder behind.
TEST(VsdmRun, AJobOfTwoHundredVMsBacksUpAndRestoresWhole) {
    vstest::TempHome home;
    // Small disks and extents keep the stream small: the number of VMs is what counts here.
    vssample::SampleOptions small;
    small.diskSize = 1 << 20;
    const vssample::SampleSnapshot s = vssample::GenerateFleet(200, small);
    vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "64");
    vshost::settings::Save();
    std::vector<std::string> vms;
    for (const vssample::SampleVM& vm : s.vms) vms.push_back(vm.biosUuid);
    const nlohmann::json job = vstest::SampleJob(home, s, 33, vms, true);
    std::ofstream(home.sub("fleet.json")) << job.dump();
    // Far fewer descriptors than the job has disks: whatever is opened per VM or per disk
    // must be closed again before the next.
    const std::string fewDescriptors = "ulimit -n 40 && ";
    RunResult r = Shell(fewDescriptors + Vsdm() + " run " + home.sub("fleet.json") + " --out " + home.sub("fleet.bin"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("200 of 200 items succeeded"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("VMs 200, disks completed 400"), std::string::npos) << r.output;

    std::map<std::string, int> vmsDone, disksDone, diskEntries;
    {
        const int fd = ::open(home.sub("fleet.bin").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        vshost::StreamReader reader(fd);
        vshost::StreamRecord rec;
        while (reader.Next(rec)) {
            if (auto* v = std::get_if<vshost::VMReadCompletedRecord>(&rec.body)) ++vmsDone[v->vmGuid];
            if (auto* d = std::get_if<vshost::DiskReadCompletedRecord>(&rec.body))
                ++disksDone[d->vmGuid + "\\" + d->diskName];
            if (auto* h = std::get_if<vshost::FileHeaderRecord>(&rec.body); h && h->extentSize != 0)
                ++diskEntries[h->path];
        }
        EXPECT_EQ(reader.state(), vshost::StreamReader::State::Complete);
        ::close(fd);
    }
    EXPECT_EQ(vmsDone.size(), 200u);
    EXPECT_EQ(disksDone.size(), 400u);
    for (const vssample::SampleVM& vm : s.vms) {
        EXPECT_EQ(vmsDone[vm.biosUuid], 1) << vm.name;
        for (const vssample::SampleDisk& d : vm.disks) {
            EXPECT_EQ(disksDone[vm.biosUuid + "\\" + d.name], 1) << vm.name << " " << d.name;
            EXPECT_EQ(diskEntries["\\" + vm.biosUuid + "\\" + d.name], 1) << vm.name << " " << d.name;
        }
    }

    r = Shell(fewDescriptors + "'" VSSTREAM_TOOL "' restore " + home.sub("fleet.bin") + " --to " + home.sub("restore"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("400 disk images"), std::string::npos) << r.output;
    for (const vssample::SampleVM& vm : s.vms) {
        // The flat VMDK's bytes are its flat extent file's; the raw image's its own.
        const std::string restored = home.sub("restore/" + vm.biosUuid + "/");
        EXPECT_TRUE(vstest::ReadAll(restored + vstest::RestoredBytes(vm.disks[0].name)) ==
                    vstest::ReadAll(vm.folder + "/" + vm.name + "-flat.vmdk"))
            << vm.name;
        EXPECT_TRUE(vstest::ReadAll(restored + vstest::RestoredBytes(vm.disks[1].name)) ==
                    vstest::ReadAll(vm.disks[1].path))
            << vm.name;
    }
    // The job's results folder, with whatever the job made below it, is gone.
    EXPECT_TRUE(std::filesystem::is_empty(home.sub("JobResults")));
}

#ifdef MKSNAP_TOOL
// A disk of 1 TiB holding 4 MiB in 64 scattered runs: the stream holds the extents those
// runs touch and no more, and the restored image is the disk, as sparse as it was.
TEST(VsdmBenchSnapshot, ATebibyteDiskCostsItsDataNotItsSize) {
    vstest::TempHome scratch;
    const std::string home = scratch.sub("home"), job = scratch.sub("job.json"), image = scratch.sub("disk.img");
    RunResult r = Shell("'" MKSNAP_TOOL "' --home " + home + " --image " + image +
                        " --make-image 1T --data 4M --runs 64 --job " + job);
    ASSERT_EQ(r.status, 0) << r.output;
    constexpr uint64_t kExtent = 64 << 10;
    std::ofstream(home + "/settings.ini", std::ios::app) << "[VirtualServer]\nnVDiskExtentSizeKB=64\n";

    r = Shell(Vsdm() + " run " + job + " --out " + scratch.sub("s.bin"));
    ASSERT_EQ(r.status, 0) << r.output;
    // A 64 KiB run at a 4 KiB-aligned place touches one or two extents.
    struct stat st {};
    ASSERT_EQ(::stat(scratch.sub("s.bin").c_str(), &st), 0);
    EXPECT_LE(static_cast<uint64_t>(st.st_size), 2 * 64 * kExtent + (256 << 10));
    EXPECT_GE(static_cast<uint64_t>(st.st_size), 64 * kExtent);

    r = Shell("'" VSSTREAM_TOOL "' restore " + scratch.sub("s.bin") + " --to " + scratch.sub("restore"));
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string vmDisk = nlohmann::json::parse(vstest::ReadAll(job))["items"][0]["path"].get<std::string>();
    const std::string restored = scratch.sub("restore/" + vmDisk.substr(0, vmDisk.find('\\')) + "/img01.img");
    EXPECT_EQ(vstest::images::Compare(restored, "raw", image, "raw"), "");  // reads only where data is
    struct stat ri {
    }, si{};
    ASSERT_EQ(::stat(restored.c_str(), &ri), 0);
    ASSERT_EQ(::stat(image.c_str(), &si), 0);
    EXPECT_EQ(ri.st_size, off_t{1} << 40);
    EXPECT_LE(ri.st_blocks, si.st_blocks + 64);  // zeros inside the extents stay holes
}

// What bench/peers runs: vsdm over a snapshot that mksnap makes around a raw image.
TEST(VsdmBenchSnapshot, AnImageBacksUpAndRestoresAsItself) {
    vstest::TempHome scratch;
    constexpr off_t kMiB = 1 << 20;
    const std::string image = scratch.sub("disk.img");
    {
        // Not a whole number of extents; data at the start, across an extent boundary
        // and in the last byte; an allocated extent of zeros; holes between.
        const int fd = ::open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, 9 * kMiB + 4096), 0);
        const auto put = [fd](off_t at, const std::string& bytes) {
            ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
        };
        std::string data(kMiB + 4900, '\0');
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 23);
        put(0, data.substr(0, 65536));
        put(2 * kMiB, std::string(kMiB, '\0'));
        put(3 * kMiB + 100, data);
        put(9 * kMiB + 4095, "z");
        ::close(fd);
    }
    const std::string home = scratch.sub("home"), job = scratch.sub("job.json");
    RunResult r = Shell("'" MKSNAP_TOOL "' --home " + home + " --image " + image + " --job " + job);
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string vmDisk = nlohmann::json::parse(vstest::ReadAll(job))["items"][0]["path"].get<std::string>();
    const std::string vm = vmDisk.substr(0, vmDisk.find('\\'));

    r = Shell(Vsdm() + " run " + job + " --out " + scratch.sub("s.bin"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("extents sent 5 (1 as holes)"), std::string::npos) << r.output;
    r = Shell("'" VSSTREAM_TOOL "' restore " + scratch.sub("s.bin") + " --to " + scratch.sub("restore"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(vstest::ReadAll(scratch.sub("restore/" + vm + "/img01.img")) == vstest::ReadAll(image));

    // A home that is in use is never written over.
    r = Shell("'" MKSNAP_TOOL "' --home " + home + " --image " + image + " --job " + job);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("is not empty"), std::string::npos) << r.output;
}
#endif

}  // namespace
