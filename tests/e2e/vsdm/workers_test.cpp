// Workers with homes of their own share one queued job through one catalog (a SQLite file
// the homes share, or PostgreSQL): one is killed in the middle of its item, its lease
// expires, another worker goes on from its stream, and every VM is backed up once.
#include "catalog_backend.h"
#include "relay.h"
#include "run_support.h"
#include "stream_support.h"

#include "resume.h"

#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vshost/queue.h"

#include <gtest/gtest.h>

#include <libpq-fe.h>
#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using vstest::Shell;

namespace {

class VsdmWorkers : public vstest::CatalogBackendTest {};
VS_ON_BOTH_CATALOGS(VsdmWorkers);

pid_t StartWorker(const std::string& home, const std::string& args, const std::string& outPath) {
    return vstest::StartShell(vstest::Vsdm() + " worker --home " + home + " " + args, outPath);
}

// Disks whose read-completed marker `bytes` hold, as "vm/disk".
std::vector<std::string> CompletedDisks(const std::string& bytes) {
    std::vector<std::string> out;
    for (const auto& d : vstest::DecodeBytes(bytes).records)
        if (auto* done = std::get_if<vshost::DiskReadCompletedRecord>(&d.record.body))
            out.push_back(done->vmGuid + "/" + done->diskName);
    return out;
}

// The stream a worker writes into a FIFO, its pipe kept to one page so that the worker
// waits on every page.
struct HeldStream : vstest::HeldFifo {
    explicit HeldStream(const std::string& path) : HeldFifo(path, 4096), m_path(path) {}
    // Reads until the stream holds one disk whole and an extent of the next.
    void ReadIntoTheSecondDisk() {
        ReadUntil([this](const std::string& bytes) { return InTheSecondDisk(bytes); });
    }
    // The same, then kills the worker and keeps the stream of a worker that died there.
    std::string CutInTheSecondDisk(pid_t worker) {
        ReadIntoTheSecondDisk();
        kill(worker, SIGKILL);
        return KeepAsFile();
    }

private:
    bool InTheSecondDisk(const std::string& bytes) const {
        if (CompletedDisks(bytes).size() != 1) return false;
        vstest::WriteFile(m_path + ".so-far", bytes);
        try {
            for (const auto& [vm, disks] : vsdm::ReadResumePoints(m_path + ".so-far"))
                for (const auto& [name, point] : disks)
                    if (!point.done && point.nextExtent > 0) return true;
        } catch (const vsdm::UsageError&) {
        }
        return false;
    }
    std::string m_path;
};

// The Unix socket the PostgreSQL server `server` names listens on (libpq's
// DIR/.s.PGSQL.PORT), and its port.
std::pair<std::string, std::string> PgSocket(const std::string& server) {
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(server.c_str(), &error);
    PQfreemem(error);
    std::string host, port = "5432";
    for (const PQconninfoOption* o = options; o && o->keyword; ++o) {
        if (o->val && std::string(o->keyword) == "host") host = o->val;
        if (o->val && *o->val && std::string(o->keyword) == "port") port = o->val;
    }
    PQconninfoFree(options);
    if (host.empty() || host[0] != '/') throw std::runtime_error("VS_TEST_PG names no Unix socket: " + server);
    return {host + "/.s.PGSQL." + port, port};
}

// Homes a, b and c of one catalog (a SQLite file they share, or this test's PostgreSQL
// schema), leases of 2 s, and snapshot 77 (a fleet of `vms` VMs) registered from a.
struct Cluster {
    vssample::SampleSnapshot s;
    std::vector<std::string> homes;
    std::string out;
};

Cluster MakeCluster(const vstest::TempHome& scratch, const std::string& catalog, unsigned vms) {
    Cluster c;
    vssample::SampleOptions small;
    small.diskSize = 4u << 20;
    c.s = vssample::GenerateFleet(vms, small);
    const std::string vols = scratch.sub("Snapshots/" + std::to_string(c.s.snapJobId));
    c.homes = vstest::SharedHomes(scratch, catalog, 77, "ds1=" + vols + "/ds1 ds2=" + vols + "/ds2");
    c.out = scratch.sub("out/");
    fs::create_directory(c.out);
    return c;
}

std::string CreateJob(const Cluster& c, const std::string& args) {
    return vstest::CreateJob(c.homes[1], 77, "--out " + c.out + " " + args);
}

// Every item of the job done, taken over once (item 1, attempt 2); every disk whole in
// exactly one of the job's streams and recorded for the job once; and the streams,
// restored one after another, equal the source. `cut` is the stream of an attempt that
// ended without its trailer.
void ExpectBackedUpOnce(const Cluster& c, const vstest::TempHome& scratch, const std::string& job,
                        const std::string& cut) {
    size_t disks = 0;
    for (const auto& vm : c.s.vms) disks += vm.disks.size();
    const std::string n = std::to_string(c.s.vms.size());
    const vstest::RunResult status = Shell(vstest::Vsdm() + " job status " + job + " --home " + c.homes[2]);
    EXPECT_NE(status.output.find(n + " item(s), " + n + " done, 0 running, 0 queued, 0 failed"), std::string::npos)
        << status.output;

    vshost::OpenHome(c.homes[2]);
    std::vector<std::string> streams;
    std::multiset<std::string> whole;
    for (const auto& item : vshost::queue::Items(std::stoll(job))) {
        EXPECT_EQ(item.generation, item.itemNo == 1 ? 2 : 1) << item.path;
        for (const std::string& stream : item.streams) {
            streams.push_back(stream);
            for (const std::string& disk : CompletedDisks(vstest::ReadAll(stream))) whole.insert(disk);
        }
    }
    std::set<std::string> recorded;
    for (const auto& d : vshost::changetrack::JobDisks(std::stoll(job))) recorded.insert(d.vmGuid + "/" + d.diskName);
    EXPECT_EQ(recorded.size(), disks);
    EXPECT_EQ(whole, std::multiset<std::string>(recorded.begin(), recorded.end()));

    const std::string restored = scratch.sub("r");
    // (The cut stream is incomplete: 2.)
    for (size_t i = 0; i < streams.size(); ++i)
        ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + streams[i] + (i ? " --onto " : " --to ") + restored).status,
                  streams[i] == cut ? 2 : 0)
            << streams[i];
    for (const auto& vm : c.s.vms)
        for (const auto& disk : vm.disks) {
            const std::string source =
                disk.name.ends_with(".vmdk") ? vm.folder + "/" + vm.name + "-flat.vmdk" : disk.path;
            EXPECT_EQ(vstest::ReadAll(restored + "/" + vm.biosUuid + "/" + vstest::RestoredBytes(disk.name)),
                      vstest::ReadAll(source))
                << vm.name << " " << disk.name;
        }
}

// A worker stopped by SIGTERM gives its item back. A worker stopped (SIGSTOP) inside its
// item past its lease, whose item another worker took meanwhile, records nothing once it
// runs again: neither the disk it completed nor its outcome; it ends the attempt and says why.
TEST_P(VsdmWorkers, AStoppedWorkerGivesItsItemBackOneThatLostItsLeaseRecordsNothing) {
    vstest::TempHome scratch;
    const Cluster c = MakeCluster(scratch, OnPostgres() ? CatalogConnection() : "file:" + scratch.sub("shared.db"), 2);
    vshost::OpenHome(c.homes[1]);
    namespace q = vshost::queue;
    {
        const std::string other = CreateJob(c, "--vm vm0002");
        HeldStream fifo(c.out + "job" + other + ".item1.1");
        const pid_t t = StartWorker(c.homes[0], "--job " + other, scratch.sub("t.err"));
        ASSERT_GT(t, 0);
        fifo.ReadIntoTheSecondDisk();
        kill(t, SIGTERM);
        fifo.Drain();
        EXPECT_EQ(vstest::WaitFor(t), 4) << vstest::ReadAll(scratch.sub("t.err"));
        const auto given = q::Items(std::stoll(other));
        ASSERT_EQ(given.size(), 1u);
        EXPECT_EQ(std::make_tuple(given[0].state, given[0].generation, given[0].streams.size()),
                  std::make_tuple(std::string("queued"), int64_t{1}, size_t{1}));
    }
    const std::string job = CreateJob(c, "--vm vm0001");
    HeldStream fifo(c.out + "job" + job + ".item1.1");
    const pid_t a = StartWorker(c.homes[0], "--job " + job + " --once", scratch.sub("a.err"));
    ASSERT_GT(a, 0);
    fifo.ReadIntoTheSecondDisk();
    kill(a, SIGSTOP);
    std::optional<q::Item> taken;
    for (int i = 0; i < 300 && !taken; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        taken = q::LeaseNext(std::stoll(job), "another worker", std::time(nullptr), 60);
    }
    ASSERT_TRUE(taken.has_value());
    EXPECT_EQ(taken->generation, 2);
    kill(a, SIGCONT);
    fifo.Drain();
    EXPECT_EQ(vstest::WaitFor(a), 1);
    const std::string said = vstest::ReadAll(scratch.sub("a.err"));
    // Whether a renewal or the outcome's record finds the lease gone first is a matter of timing.
    EXPECT_NE(said.find("the lease went to another worker"), std::string::npos) << said;
    EXPECT_NE(said.find("; this attempt records nothing"), std::string::npos) << said;
    EXPECT_NE(said.find("0 of 1 items succeeded"), std::string::npos) << said;
    EXPECT_TRUE(vshost::changetrack::JobDisks(std::stoll(job)).empty());
    const auto items = q::Items(std::stoll(job));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::make_tuple(items[0].state, items[0].owner, items[0].generation),
              std::make_tuple(std::string("running"), std::string("another worker"), int64_t{2}));
}

TEST_P(VsdmWorkers, AJobOfManyVMsIsBackedUpOnceThoughAWorkerDiesMidItem) {
    vstest::TempHome scratch;
    const Cluster cluster =
        MakeCluster(scratch, OnPostgres() ? CatalogConnection() : "file:" + scratch.sub("shared.db"), 6);
    const std::vector<std::string>& homes = cluster.homes;
    const std::string& out = cluster.out;
    const std::string job = CreateJob(cluster, "");

    // Worker a takes item 1 and dies inside its second disk.
    const std::string held = out + "job" + job + ".item1.1";
    HeldStream fifo(held);
    const pid_t a = StartWorker(homes[0], "--job " + job, scratch.sub("a.err"));
    ASSERT_GT(a, 0);
    const std::vector<std::string> cut = CompletedDisks(fifo.CutInTheSecondDisk(a));
    EXPECT_EQ(vstest::WaitFor(a), 128 + SIGKILL);
    ASSERT_EQ(cut.size(), 1u) << vstest::ReadAll(scratch.sub("a.err"));

    const pid_t b = StartWorker(homes[1], "--job " + job, scratch.sub("b.err"));
    const pid_t c = StartWorker(homes[2], "--job " + job, scratch.sub("c.err"));
    EXPECT_EQ(vstest::WaitFor(b), 0) << vstest::ReadAll(scratch.sub("b.err"));
    EXPECT_EQ(vstest::WaitFor(c), 0) << vstest::ReadAll(scratch.sub("c.err"));
    const std::string said = vstest::ReadAll(scratch.sub("b.err")) + vstest::ReadAll(scratch.sub("c.err"));
    EXPECT_NE(said.find("going on from the earlier attempt's stream " + held), std::string::npos) << said;
    EXPECT_NE(said.find("1 disk(s) already read, 1 going on"), std::string::npos) << said;

    ExpectBackedUpOnce(cluster, scratch, job, held);
}

// The database goes away while a worker is inside an item: the worker cannot renew its
// lease, ends the attempt when the lease runs out, says why, and records nothing false
// (no outcome, no disk its stream does not hold whole). Once the database is back, the
// next worker takes the item over after the lease and finishes the job.
TEST_P(VsdmWorkers, ADatabaseThatGoesAwayMidItemFailsTheAttemptAndTheNextWorkerGoesOn) {
    if (!OnPostgres()) GTEST_SKIP() << "a database server to lose: PostgreSQL only";
    vstest::TempHome scratch;
    // The workers reach the database through a relay (in a connection string, the last of a keyword wins).
    const auto [server, port] = PgSocket(vstest::TestServer());
    fs::create_directory(scratch.sub("db"));
    vstest::Relay db({scratch.sub("db/.s.PGSQL." + port)}, {server});
    const Cluster c = MakeCluster(scratch, CatalogConnection() + " host=" + scratch.sub("db") + " port=" + port, 2);
    // The test's own view of the catalog does not pass through the relay.
    const std::string direct = scratch.sub("direct");
    fs::create_directory(direct);
    std::ofstream(direct + "/settings.ini") << "[Catalog]\nsConnection=" << CatalogConnection() << "\n";
    const std::string job = CreateJob(c, "");
    const std::string held = c.out + "job" + job + ".item1.1";
    HeldStream fifo(held);
    const pid_t a = StartWorker(c.homes[0], "--job " + job, scratch.sub("a.err"));
    ASSERT_GT(a, 0);
    fifo.ReadIntoTheSecondDisk();
    db.Down();
    // The worker, held on its stream, cannot renew the lease: let it go on once the lease
    // has run out and its keeper (every third of the lease) has found so.
    vshost::OpenHome(direct);
    namespace q = vshost::queue;
    const int64_t expires = q::Items(std::stoll(job)).at(0).leaseExpires;
    while (std::time(nullptr) <= expires + 1) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    fifo.Drain();
    const int status = vstest::WaitFor(a);
    const std::string said = vstest::ReadAll(scratch.sub("a.err"));
    EXPECT_EQ(status, 2) << said;
    // One line tells why, in the server's words, and what became of the attempt.
    std::string lost;
    std::istringstream lines(said);
    while (std::getline(lines, lost) && lost.find("the lease could not be renewed") == std::string::npos) {
    }
    EXPECT_NE(lost.find("(catalog: cannot connect to PostgreSQL"), std::string::npos) << said;
    EXPECT_NE(lost.find("Connection refused"), std::string::npos) << said;
    EXPECT_TRUE(lost.ends_with(" and expired; this attempt records nothing")) << said;
    EXPECT_NE(said.find(": the catalog cannot be reached: catalog: "), std::string::npos) << said;

    // Nothing claims the item done; a disk recorded is one the stream holds whole.
    const std::vector<std::string> whole = CompletedDisks(fifo.KeepAsFile());
    const auto items = q::Items(std::stoll(job));
    EXPECT_EQ(std::make_tuple(items.at(0).state, items.at(0).generation, items.at(1).state),
              std::make_tuple(std::string("running"), int64_t{1}, std::string("queued")));
    for (const auto& d : vshost::changetrack::JobDisks(std::stoll(job)))
        EXPECT_NE(std::find(whole.begin(), whole.end(), d.vmGuid + "/" + d.diskName), whole.end()) << d.diskName;

    db.Up();
    const pid_t b = StartWorker(c.homes[1], "--job " + job, scratch.sub("b.err"));
    EXPECT_EQ(vstest::WaitFor(b), 0) << vstest::ReadAll(scratch.sub("b.err"));
    ExpectBackedUpOnce(c, scratch, job, held);
}

}  // namespace
