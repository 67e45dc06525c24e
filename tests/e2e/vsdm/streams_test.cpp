// `vsdm run --streams N`: the items shared out among N processes, the stream set they
// leave, and vsstream taking the set as a whole.
#include "run_support.h"
#include "split.h"

#include "hostapi/snapsrc.h"
#include "vshost/changetrack.h"
#include "vshost/pending.h"
#include "vssample/sample.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

namespace fs = std::filesystem;

namespace {

using vstest::RunResult;
using vstest::Shell;
using vstest::Tree;

const std::string kVsdm = vstest::Vsdm();
const std::string kVsstream = vstest::Vsstream();

TEST(VsdmStreams, SplitBalancesExpectedBytesAndDealsTheRestRoundRobin) {
    std::vector<vsdm::JobItem> items(5);
    using Shares = std::vector<std::vector<size_t>>;
    EXPECT_EQ(vsdm::SplitItems(items, 2), (Shares{{0, 2, 4}, {1, 3}}));
    EXPECT_EQ(vsdm::SplitItems(items, 1), (Shares{{0, 1, 2, 3, 4}}));
    // Never more shares than items.
    EXPECT_EQ(vsdm::SplitItems(items, 9).size(), 5u);

    // The largest first, each to the lighter share: 100 | 80 + 10 + 10, then the last
    // 10 to the first share on the tie.
    const uint64_t sizes[] = {100, 10, 10, 10, 80};
    for (size_t i = 0; i < 5; ++i) items[i].expectedBytes = sizes[i];
    EXPECT_EQ(vsdm::SplitItems(items, 2), (Shares{{0, 3}, {1, 2, 4}}));
    // An item without a size weighs the mean of those with one, not nothing.
    items[1].expectedBytes = 0;
    items[4].expectedBytes = 0;  // mean of 100, 10, 10 = 40
    EXPECT_EQ(vsdm::SplitItems(items, 2), (Shares{{0}, {1, 2, 3, 4}}));

    EXPECT_EQ(vsdm::ParseShare(vsdm::FormatShare({0, 3, 17}), 18), (std::vector<size_t>{0, 3, 17}));
    for (const char* bad : {"", "1,", ",1", "1,,2", "a", "-1", "18", "1 2"})
        EXPECT_THROW(vsdm::ParseShare(bad, 18), std::runtime_error) << bad;
}

TEST(VsdmStreams, TwoStreamsRestoreTheSameTreeAsOneAndRecordEveryDisk) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    std::ofstream(home.sub("one.json")) << vstest::SampleJob(home, s, 51, vstest::ThreeItems(s), true).dump();
    std::ofstream(home.sub("two.json")) << vstest::SampleJob(home, s, 52, vstest::ThreeItems(s), true).dump();

    RunResult r = Shell(kVsdm + " run " + home.sub("one.json") + " --out " + home.sub("one.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    // More streams than items: one process per item.
    r = Shell(kVsdm + " run " + home.sub("two.json") + " --streams 5 --out " + home.sub("three.set"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("stream set " + home.sub("three.set") + " (3 streams): complete"), std::string::npos)
        << r.output;
    r = Shell(kVsdm + " run " + home.sub("two.json") + " --streams 2 --out " + home.sub("two.set"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("3 of 3 items succeeded"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("VMs 3, disks completed 4"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("(2 streams): complete"), std::string::npos) << r.output;
    EXPECT_TRUE(fs::is_regular_file(home.sub("two.set.1")) && fs::is_regular_file(home.sub("two.set.2")));

    r = Shell(kVsstream + " verify " + home.sub("two.set"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("streams: 2 of 2 read, complete"), std::string::npos) << r.output;
    // Each stream of the set has its own index, written by its own process.
    for (const char* member : {"two.set.1", "two.set.2"})
        EXPECT_NE(r.output.find("index " + home.sub(member) + ".idx: matches the stream"), std::string::npos)
            << r.output;
    EXPECT_FALSE(fs::exists(home.sub("two.set.idx")));

    r = Shell(kVsstream + " restore " + home.sub("one.stream") + " --to " + home.sub("r1"));
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(kVsstream + " restore " + home.sub("two.set") + " --to " + home.sub("r2"));
    ASSERT_EQ(r.status, 0) << r.output;
    const auto one = Tree(home.sub("r1"));
    EXPECT_GT(one.size(), 10u);
    EXPECT_TRUE(one == Tree(home.sub("r2")));
    // The members named one by one restore the same.
    r = Shell(kVsstream + " restore " + home.sub("two.set.2") + " " + home.sub("two.set.1") + " --to " +
              home.sub("r3"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(one == Tree(home.sub("r3")));

    // Every disk of both processes is recorded under the job, so an incremental
    // (parallel too) builds on the parallel run.
    auto disks = [](int64_t job) {
        std::set<std::string> out;
        for (const auto& d : vshost::changetrack::JobDisks(job)) out.insert(d.vmGuid + "/" + d.diskName);
        return out;
    };
    EXPECT_EQ(disks(52), disks(51));
    EXPECT_EQ(disks(52).size(), 4u);
    r = Shell(kVsdm + " run " + home.sub("two.json") + " --streams 2 --incremental-from 52 --out " +
              home.sub("incr.set"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("extents sent 0"), std::string::npos) << r.output;  // nothing changed

    // A set missing a member is incomplete, never fine.
    fs::remove(home.sub("two.set.1"));
    r = Shell(kVsstream + " verify " + home.sub("two.set"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find(home.sub("two.set.1") + " is missing"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("streams: 1 of 2 read, INCOMPLETE"), std::string::npos) << r.output;
    EXPECT_EQ(Shell(kVsstream + " restore " + home.sub("two.set") + " --to " + home.sub("r4")).status, 2);
    // A member of another job does not pass for one of the set.
    fs::copy_file(home.sub("one.stream"), home.sub("two.set.1"));
    r = Shell(kVsstream + " list " + home.sub("two.set"));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("belongs to job 51, not to the set's job 52"), std::string::npos) << r.output;
}

TEST(VsdmStreams, FailedItemsOfEveryStreamMergeUnderTheJob) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    // Round-robin: the two missing VMs land in different streams.
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, s, 53,
                                                             {s.vm("db01").biosUuid, s.vm("web01").biosUuid,
                                                              "nosuchvm1", "nosuchvm2"},
                                                             true)
                                               .dump();
    const RunResult r = Shell(kVsdm + " run " + home.sub("job.json") + " --streams 2 --out " + home.sub("s"));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("2 of 4 items succeeded"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("vsdm [stream 1]: item nosuchvm1: failed"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("vsdm [stream 2]: item nosuchvm2: failed"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("pending cause 0x5B000004 [nosuchvm1]"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("pending cause 0x5B000004 [nosuchvm2]"), std::string::npos) << r.output;
    std::set<int> seqs;
    for (const auto& c : vshost::PendingCauses(53)) seqs.insert(c.seq);
    EXPECT_EQ(seqs, (std::set<int>{1, 2}));
    EXPECT_EQ(Shell(kVsstream + " verify " + home.sub("s")).status, 0);
}

// The child of `parent` that writes stream `number`, once it runs (-1 after 30 s).
pid_t StreamProcess(pid_t parent, int number) {
    const std::string file = "/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children";
    const std::string share = std::string("--share") + '\0' + std::to_string(number) + ":";
    for (int i = 0; i < 30000; ++i) {
        std::ifstream in(file);
        for (pid_t kid = 0; in >> kid;) {
            std::ifstream cmd("/proc/" + std::to_string(kid) + "/cmdline");
            const std::string line((std::istreambuf_iterator<char>(cmd)), std::istreambuf_iterator<char>());
            if (line.find(share) != std::string::npos) return kid;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return -1;
}

// The streams of set `set` held as FIFOs, so that the test holds every stream process in
// the middle of its stream for as long as it likes.
struct HeldSet {
    explicit HeldSet(const std::string& set) {
        for (const char* k : {".1", ".2"}) fifos.emplace_back(set + k);
    }
    // Until every stream has begun: one read of each, as reading a FIFO empty could take a
    // fast stream whole.
    bool AllBegun() {
        return std::all_of(fifos.begin(), fifos.end(), [](vstest::HeldFifo& f) {
            return f.ReadUntil([](const std::string& b) { return !b.empty(); });
        });
    }
    // Reads every stream to its end, all at once, and keeps each as a file.
    void DrainIntoFiles() {
        for (bool open = true; open;) {
            open = false;
            for (auto& f : fifos) open = f.ReadSome() >= 0 || open;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        for (auto& f : fifos) f.KeepAsFile();
    }
    std::deque<vstest::HeldFifo> fifos;
};

TEST(VsdmStreams, AKilledStreamFailsTheRunAndSignalsReachEveryStream) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, s, 54, vstest::ThreeItems(s), true).dump();

    {
        HeldSet held(home.sub("k"));
        const pid_t parent = vstest::StartShell(
            kVsdm + " run " + home.sub("job.json") + " --streams 2 --out " + home.sub("k"), home.sub("k.err"));
        ASSERT_GT(parent, 0);
        ASSERT_TRUE(held.AllBegun());
        const pid_t first = StreamProcess(parent, 1);
        ASSERT_GT(first, 0);
        kill(first, SIGKILL);
        held.DrainIntoFiles();
        EXPECT_EQ(vstest::WaitFor(parent), 3);
    }
    const std::string err = vstest::ReadAll(home.sub("k.err"));
    EXPECT_NE(err.find("stream 1 (" + home.sub("k.1") + ") is incomplete: its process was killed by signal 9"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("(2 streams): INCOMPLETE"), std::string::npos) << err;
    RunResult r = Shell(kVsstream + " verify " + home.sub("k"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find(home.sub("k.2") + ": complete"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("streams: 2 of 2 read, INCOMPLETE"), std::string::npos) << r.output;

    // SIGTERM to the parent stops every stream in the middle; the run says it stopped.
    {
        HeldSet held(home.sub("t"));
        const pid_t parent = vstest::StartShell(
            kVsdm + " run " + home.sub("job.json") + " --streams 2 --out " + home.sub("t"), home.sub("t.err"));
        ASSERT_GT(parent, 0);
        ASSERT_TRUE(held.AllBegun());
        kill(parent, SIGTERM);
        held.DrainIntoFiles();
        EXPECT_EQ(vstest::WaitFor(parent), 4) << vstest::ReadAll(home.sub("t.err"));
    }
    r = Shell(kVsstream + " verify " + home.sub("t.1") + " " + home.sub("t.2"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_EQ(r.output.find(": complete"), std::string::npos) << r.output;  // neither ran to its end
}

}  // namespace
