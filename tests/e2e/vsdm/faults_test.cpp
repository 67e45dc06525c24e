// Whole jobs under faults: failing and damaged disks, an output that fails, the VM-info
// library failing at each step, and a job killed mid-stream that a later attempt
// completes. Nothing may be reported as done that the stream does not hold, and no job
// leaves its temporary folders behind.
#include "run_support.h"
#include "stream_support.h"

#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>

namespace {

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;
using vstest::WriteJob;

std::set<std::string> CatalogDisks(int64_t jobId) {
    std::set<std::string> out;
    for (const auto& d : vshost::changetrack::JobDisks(jobId)) out.insert(d.vmGuid + "\\" + d.diskName);
    return out;
}

// The disks a stream marks as completely read, and the offset just past each marker.
std::vector<std::pair<std::string, uint64_t>> DoneMarkers(const std::string& path) {
    std::vector<std::pair<std::string, uint64_t>> out;
    const auto records = vstest::DecodeBytes(vstest::ReadAll(path)).records;
    for (size_t i = 0; i + 1 < records.size(); ++i)
        if (auto* d = std::get_if<vshost::DiskReadCompletedRecord>(&records[i].record.body))
            out.emplace_back(d->vmGuid + "\\" + d->diskName, records[i + 1].record.offset);
    return out;
}

std::set<std::string> Names(const std::vector<std::pair<std::string, uint64_t>>& markers) {
    std::set<std::string> out;
    for (const auto& m : markers) out.insert(m.first);
    return out;
}

// What a job left in the host home's job results area: it must be nothing.
std::vector<std::string> LeftBehind(const vstest::TempHome& home) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::recursive_directory_iterator(home.sub("JobResults"), ec)) out.push_back(e.path().string());
    return out;
}

// The disks of web01, db01 and one disk of fs01: a disk failing mid-read, a disk whose
// image lost its end, and a sound disk. Each failure ends its own item only.
TEST(VsdmFaults, FailingAndDamagedDisksFailTheirItemsAndTheStreamSaysWhich) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const vssample::SampleVM& web = s.vm("web01");
    const vssample::SampleVM& db = s.vm("db01");
    const vssample::SampleVM& fsvm = s.vm("fs01");
    const vssample::SampleDisk& data = [&] {
        for (const auto& d : fsvm.disks)
            if (d.name == "fs01_data.img") return d;
        throw std::runtime_error("no fs01_data.img in the sample");
    }();
    vshost::settings::Set("VDiskFaults", "web01.vmdk", "3");
    vshost::settings::Save();
    fs::resize_file(fs::path(db.disks.at(0).path).parent_path() / "db01 system-flat.vmdk", 5u << 20);

    WriteJob(home, "job.json",
             vstest::SampleJob(home, s, 51, {web.biosUuid, db.biosUuid, fsvm.biosUuid + "\\" + data.name}));
    const RunResult run = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out " + home.sub("s.bin"));
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find("1 of 3 items succeeded"), std::string::npos) << run.output;
    // The summary does not let "stream: complete" stand for the disks it holds in part.
    EXPECT_NE(run.output.find("disk NOT WHOLE \\" + web.biosUuid + "\\web01.vmdk: the reader did not finish it"),
              std::string::npos)
        << run.output;
    const std::string log = vstest::ReadAll(home.sub("Log Files/vsreader.log"));
    EXPECT_NE(log.find("injected"), std::string::npos);
    EXPECT_NE(log.find("the image is cut short"), std::string::npos);

    // The stream itself is sound and names the disk it holds only in part.
    const RunResult verify = Shell(vstest::Vsstream() + " verify " + home.sub("s.bin"));
    EXPECT_EQ(verify.status, 2) << verify.output;  // sound, but not every disk is whole
    EXPECT_NE(verify.output.find("web01.vmdk: incomplete"), std::string::npos) << verify.output;
    EXPECT_EQ(verify.output.find(data.name + ": incomplete"), std::string::npos) << verify.output;
    EXPECT_EQ(Names(DoneMarkers(home.sub("s.bin"))), std::set<std::string>{fsvm.biosUuid + "\\" + data.name});
    EXPECT_EQ(CatalogDisks(51), std::set<std::string>{fsvm.biosUuid + "\\" + data.name});

    const RunResult restore = Shell(vstest::Vsstream() + " restore " + home.sub("s.bin") + " --to " + home.sub("r"));
    EXPECT_EQ(restore.status, 0) << restore.output;
    EXPECT_NE(restore.output.find("web01.vmdk: incomplete in the stream"), std::string::npos) << restore.output;
    EXPECT_EQ(vstest::ReadAll(home.sub("r/" + fsvm.biosUuid + "/" + vstest::RestoredBytes(data.name))),
              vstest::ReadAll(data.path));
    EXPECT_EQ(LeftBehind(home), std::vector<std::string>{});
}

// A stream that cannot be written fails the job with the reason, and the catalog then
// holds no disk of it: nothing counts as backed up that is not in the stream.
TEST(VsdmFaults, AnOutputThatFailsFailsTheJobAndRecordsNothing) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 52, {s.vm("web01").biosUuid, s.vm("db01").biosUuid}));

    RunResult full = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out /dev/full");
    EXPECT_EQ(full.status, 3) << full.output;
    EXPECT_NE(full.output.find("No space left on device"), std::string::npos) << full.output;
    EXPECT_NE(full.output.find("INCOMPLETE"), std::string::npos) << full.output;
    EXPECT_TRUE(CatalogDisks(52).empty());

    WriteJob(home, "job53.json", vstest::SampleJob(home, s, 53, {s.vm("web01").biosUuid, s.vm("db01").biosUuid}));
    // The reader of the stream goes away after a few bytes.
    const RunResult piped =
        Shell("{ " + vstest::Vsdm() + " run " + home.sub("job53.json") + " --out - 2>" + home.sub("err.txt") +
              "; echo $? >" + home.sub("rc.txt") + "; } | head -c 1000 >/dev/null");
    EXPECT_EQ(vstest::ReadAll(home.sub("rc.txt")), "3\n") << vstest::ReadAll(home.sub("err.txt"));
    EXPECT_NE(vstest::ReadAll(home.sub("err.txt")).find("Broken pipe"), std::string::npos)
        << vstest::ReadAll(home.sub("err.txt"));
    EXPECT_TRUE(CatalogDisks(53).empty());
    EXPECT_EQ(LeftBehind(home), std::vector<std::string>{});
}

// Each operation of the VM-info library failing in turn: the job ends with the status
// that step deserves, a failed mount says why in a pending cause (a library that cannot
// start or connect only logs why), whatever was mounted
// is unmounted, and nothing is left behind.
TEST(VsdmFaults, TheVMInfoLibraryFailingAtEachStep) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    struct Step {
        const char* operation;
        int status;              // of vsdm run
        bool causeRaised;        // a pending cause in the summary
        bool snapshotUnmounted;  // "unmounted" by the library at close
    };
    const Step steps[] = {
        {"Init", 2, false, false},        {"Connect", 2, false, false},        {"MountSnap", 2, true, false},
        {"MountVM", 1, true, true},       {"GetFullMountInfo", 1, true, true}, {"UnMountVM", 0, false, true},
        {"UnMountSnap", 0, false, false}, {"Disconnect", 0, false, true},      {"Uninit", 0, false, true},
    };
    int jobId = 60;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.operation);
        vshost::settings::Set("VMInfoFaults", step.operation, "30");
        vshost::settings::Save();
        const std::string log = home.sub("Log Files/vsreader.log");
        fs::remove(log);
        WriteJob(home, "job.json", vstest::SampleJob(home, s, ++jobId, {s.vm("web01").biosUuid}));
        fs::remove(home.sub("s.bin"));
        const RunResult run = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out " + home.sub("s.bin"));
        EXPECT_EQ(run.status, step.status) << run.output;
        EXPECT_EQ(run.output.find("pending cause 0x") != std::string::npos, step.causeRaised) << run.output;
        EXPECT_EQ(vstest::ReadAll(log).find("snapshot of job [5001] unmounted") != std::string::npos,
                  step.snapshotUnmounted);
        // A job that could not start leaves no stream that passes for a backup.
        EXPECT_EQ(Shell(vstest::Vsstream() + " verify " + home.sub("s.bin")).status == 0, step.status != 2);
        EXPECT_EQ(LeftBehind(home), std::vector<std::string>{});
        vshost::settings::Erase("VMInfoFaults", step.operation);
    }
}

// SIGKILL while the job is inside its second disk: the stream it leaves is incomplete
// (not corrupt), the catalog counts only disks whose marker the stream holds (completed
// disks reach it in batches, so a killed job may have recorded fewer), and a
// second attempt given that stream completes the job without reading them again.
TEST(VsdmFaults, AKilledJobIsDetectedAndTheNextAttemptGoesOnFromItsStream) {
    vstest::TempHome home;
    vssample::SampleOptions options;
    options.diskSize = 32ull << 20;
    const vssample::SampleSnapshot s = vssample::GenerateSample(options);
    const std::vector<std::string> vms = {s.vm("web01").biosUuid, s.vm("db01").biosUuid};

    // An undisturbed run (a job of its own) for the places of the disk markers.
    WriteJob(home, "ref.json", vstest::SampleJob(home, s, 70, vms));
    ASSERT_EQ(Shell(vstest::Vsdm() + " run " + home.sub("ref.json") + " --out " + home.sub("full.bin")).status, 0);
    const auto markers = DoneMarkers(home.sub("full.bin"));
    ASSERT_EQ(markers.size(), 3u);

    WriteJob(home, "job.json", vstest::SampleJob(home, s, 71, vms));
    vstest::SlowConsumerRun run(home, home.sub("job.json"));
    ASSERT_TRUE(run.started());
    const uint64_t killAt = markers[0].second + (markers[1].second - markers[0].second) / 2;
    ASSERT_TRUE(run.ReadUntil(killAt));
    const int wstatus = run.SignalAndDrain(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(wstatus));
    std::ofstream(home.sub("killed.bin"), std::ios::binary) << run.stream();

    const RunResult verify = Shell(vstest::Vsstream() + " verify " + home.sub("killed.bin"));
    EXPECT_EQ(verify.status, 2) << verify.output;  // incomplete, not corrupt
    const std::set<std::string> inStream = Names(DoneMarkers(home.sub("killed.bin")));
    const std::set<std::string> inCatalog = CatalogDisks(71);
    EXPECT_FALSE(inStream.count(markers[2].first));
    for (const std::string& disk : inCatalog)
        EXPECT_TRUE(inStream.count(disk)) << disk << " recorded, not in the stream";

    const RunResult resumed = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --resume " +
                                    home.sub("killed.bin") + " --out " + home.sub("resumed.bin"));
    ASSERT_EQ(resumed.status, 0) << resumed.output;
    EXPECT_NE(resumed.output.find("disk(s) already read"), std::string::npos) << resumed.output;
    EXPECT_LT(fs::file_size(home.sub("resumed.bin")), fs::file_size(home.sub("full.bin")));
    EXPECT_EQ(CatalogDisks(71), Names(markers));
    EXPECT_EQ(LeftBehind(home), std::vector<std::string>{});

    // The stopped attempt and the one that went on restore to what one whole run gives.
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("full.bin") + " --to " + home.sub("one")).status, 0);
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("killed.bin") + " --to " + home.sub("two")).status, 2);
    const RunResult onto =
        Shell(vstest::Vsstream() + " restore " + home.sub("resumed.bin") + " --onto " + home.sub("two"));
    ASSERT_EQ(onto.status, 0) << onto.output;
    const auto one = vstest::Tree(home.sub("one")), two = vstest::Tree(home.sub("two"));
    ASSERT_EQ(one.size(), two.size());
    for (const auto& [name, content] : one) EXPECT_TRUE(two.count(name) && two.at(name) == content) << name;

    // The disk it was inside grows (and changes where the attempt had read it) before
    // another attempt: that disk is read again from its start, so the pair restores to
    // the disk as it is now, not to a mix of the two.
    const vssample::SampleDisk& grown = s.vm("web01").disks.at(1);
    const std::string folder = fs::path(grown.path).parent_path().string() + "/web01_1-";
    std::string descriptor = vstest::ReadAll(grown.path);
    const size_t line = descriptor.find('\n', descriptor.find("-f002.vmdk"));
    std::ofstream(grown.path, std::ios::trunc) << descriptor.insert(line + 1, "RW 2048 ZERO\n");
    std::fstream(folder + "f001.vmdk", std::ios::in | std::ios::out | std::ios::binary) << "rewritten";
    const RunResult again = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --resume " +
                                  home.sub("killed.bin") + " --out " + home.sub("again.bin"));
    ASSERT_EQ(again.status, 0) << again.output;
    EXPECT_NE(again.output.find("disk " + grown.name + " of VM " + vms[0] + " changed size"), std::string::npos)
        << again.output;
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("killed.bin") + " --to " + home.sub("three")).status,
              2);
    ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("again.bin") + " --onto " + home.sub("three")).status,
              0);
    EXPECT_TRUE(vstest::ReadAll(home.sub("three") + "/" + vms[0] + "/" + vstest::RestoredBytes(grown.name)) ==
                vstest::ReadAll(folder + "f001.vmdk") + vstest::ReadAll(folder + "f002.vmdk") +
                    std::string(1 << 20, '\0'))
        << "the restored pair is not the disk as it is now";

    // Resuming into the stream being resumed from would destroy it.
    const RunResult same = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --resume " +
                                 home.sub("killed.bin") + " --out " + home.sub("killed.bin"));
    EXPECT_NE(same.status, 0);
    EXPECT_EQ(vstest::ReadAll(home.sub("killed.bin")), run.stream());
}

}  // namespace
