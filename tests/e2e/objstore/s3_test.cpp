// Streams on a real S3 object store (scripts/s3-test-server): vsdm run and backup write
// them, vsstream reads them back; a store that goes away mid-run fails the job and
// records nothing; nothing is left in the bucket but whole objects.
#include "disk_images.h"
#include "relay.h"
#include "run_support.h"
#include "s3_server.h"
#include "stream_support.h"

#include "hostapi/appmgr.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vshost/queue.h"
#include "vsobj/s3.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

namespace {

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;
using vstest::Tree;

const std::string kVsdm = vstest::Vsdm();
const std::string kVsstream = vstest::Vsstream();

::testing::Environment* const g_s3 = ::testing::AddGlobalTestEnvironment(new vstest::S3Server);

using vstest::Bucket;

std::string Url(const std::string& key) {
    return "s3://" + Bucket() + "/" + key;
}

std::vector<std::string> OpenUploads() {
    return vsobj::S3Client(vsobj::SettingsFromEnvironment()).OpenUploads(Bucket());
}

bool ObjectExists(const std::string& key) {
    try {
        vsobj::S3Client(vsobj::SettingsFromEnvironment()).Size({Bucket(), key});
        return true;
    } catch (const vsobj::S3Error&) {
        return false;
    }
}

// The object `key` whole, into the file `path`.
void Download(const std::string& key, const std::string& path) {
    vsobj::S3Client client(vsobj::SettingsFromEnvironment());
    std::ofstream out(path, std::ios::binary);
    std::vector<char> buffer(1u << 20);
    const uint64_t size = client.Size({Bucket(), key});
    for (uint64_t at = 0; at < size;) {
        const size_t n = client.Read({Bucket(), key}, at, buffer.data(), buffer.size());
        ASSERT_GT(n, 0u) << key;
        out.write(buffer.data(), static_cast<std::streamsize>(n));
        at += n;
    }
}

size_t RecordedDisks(int64_t job) {
    return vshost::changetrack::JobDisks(job).size();
}

// The store's network end as vsdm sees it, failing once vsdm has sent `cutAfter` bytes.
struct StoreThatDies : vstest::Relay {
    explicit StoreThatDies(size_t cutAfter, vstest::Fault fault = vstest::Fault::Die)
        : Relay({}, {"", Port()}, cutAfter, fault) {}
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(end().port); }
    static int Port() {
        const std::string endpoint = std::getenv("AWS_ENDPOINT_URL");
        return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
    }
};

}  // namespace

TEST(VsdmObjectStore, StreamsAndSetsGoToObjectsAndRestoreAsLocalOnes) {
    VS_NEEDS_S3();
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    for (int job : {61, 62, 63})
        std::ofstream(home.sub(std::to_string(job) + ".json"))
            << vstest::SampleJob(home, s, job, vstest::ThreeItems(s), true).dump();
    // The keys from the home's settings, the secret in its stored form; the AWS_*
    // variables of the endpoint alone.
    const std::string secret = vstest::Secret(std::getenv("AWS_SECRET_ACCESS_KEY"));
    vshost::settings::Set("ObjectStore", "sAccessKey", std::getenv("AWS_ACCESS_KEY_ID"));
    vshost::settings::Set("ObjectStore", "sSecretKey", vsAppMgr::encryptPassword(secret));
    vshost::settings::Save();
    const std::string keysFromHome = "env -u AWS_ACCESS_KEY_ID -u AWS_SECRET_ACCESS_KEY " + kVsdm;

    RunResult r = Shell(kVsdm + " run " + home.sub("61.json") + " --out " + home.sub("local.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(keysFromHome + " run " + home.sub("62.json") + " --out " + Url("jobs/62.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("VMs 3, disks completed 4"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("stream " + Url("jobs/62.stream") + ": complete"), std::string::npos) << r.output;
    EXPECT_EQ(RecordedDisks(62), 4u);
    r = Shell(kVsdm + " run " + home.sub("63.json") + " --streams 2 --out " + Url("jobs/63.set"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("(2 streams): complete"), std::string::npos) << r.output;
    EXPECT_EQ(RecordedDisks(63), 4u);
    EXPECT_TRUE(ObjectExists("jobs/63.set.1") && ObjectExists("jobs/63.set.2"));
    // Each stream's index is stored beside it, as `vsstream index` makes it from the
    // stream's bytes; a set's manifest has none.
    for (const std::string key : {"jobs/62.stream", "jobs/63.set.1", "jobs/63.set.2"}) {
        const std::string copy = home.sub(key.substr(5));
        Download(key, copy);
        Download(key + ".idx", copy + ".written-idx");
        ASSERT_EQ(Shell(kVsstream + " index " + copy).status, 0) << key;
        EXPECT_TRUE(vstest::ReadAll(copy + ".idx") == vstest::ReadAll(copy + ".written-idx")) << key;
    }
    EXPECT_FALSE(ObjectExists("jobs/63.set.idx"));

    r = Shell(kVsstream + " verify " + Url("jobs/63.set"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("streams: 2 of 2 read, complete"), std::string::npos) << r.output;
    const struct {
        std::string from, to;
    } restores[] = {{home.sub("local.stream"), "r0"}, {Url("jobs/62.stream"), "r1"}, {Url("jobs/63.set"), "r2"}};
    for (const auto& [from, to] : restores) {
        r = Shell(kVsstream + " restore " + from + " --to " + home.sub(to));
        ASSERT_EQ(r.status, 0) << from << ": " << r.output;
    }
    const auto local = Tree(home.sub("r0"));
    EXPECT_GT(local.size(), 10u);
    EXPECT_TRUE(local == Tree(home.sub("r1")));
    EXPECT_TRUE(local == Tree(home.sub("r2")));

    // A set missing a member is incomplete, as a local one is.
    vsobj::S3Client(vsobj::SettingsFromEnvironment()).Delete({Bucket(), "jobs/63.set.2"});
    r = Shell(kVsstream + " verify " + Url("jobs/63.set"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find("jobs/63.set.2 is missing"), std::string::npos) << r.output;

    // vsdm backup writes an object too; a secret that does not decrypt is refused, not
    // sent.
    const std::string vols = home.sub("Snapshots/" + std::to_string(s.snapJobId)), h2 = home.sub("h2");
    r = Shell(kVsdm + " snapshot add --home " + h2 + " --snap-job 77 ds1=" + vols + "/ds1 ds2=" + vols + "/ds2");
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(kVsdm + " backup --home " + h2 + " --snapshot 77 --vm web01 --vm db01 --out " + Url("backup.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(kVsstream + " verify " + Url("backup.stream"));
    EXPECT_EQ(r.status, 0) << r.output;
    std::ofstream(h2 + "/settings.ini", std::ios::app) << "[ObjectStore]\nsSecretKey=bm90IGEgc3RvcmVkIGZvcm0=\n";
    r = Shell(keysFromHome + " backup --home " + h2 + " --snapshot 77 --out " + Url("backup2.stream"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find("sSecretKey does not decrypt"), std::string::npos) << r.output;
    EXPECT_FALSE(ObjectExists("backup2.stream"));
    EXPECT_EQ(OpenUploads(), std::vector<std::string>{});
}

// A disk of a stream object served over NBD, read with ranged GETs through the index
// stored beside it (never downloaded), as qemu reads the source; verify --deep reads it
// so too; without its index it is refused until `vsstream index` stores one.
TEST(VsdmObjectStore, AStreamObjectIsServedThroughItsIndex) {
    VS_NEEDS_S3();
#ifdef __SANITIZE_ADDRESS__
    // nbdkit is not built with AddressSanitizer, so it cannot load a plug-in that is.
    GTEST_SKIP() << "the NBD plug-in is not served by nbdkit in a sanitizer build";
#endif
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const vssample::SampleVM& web = s.vm("web01");
    vstest::images::Fill(web.folder + "/web01-flat.vmdk", 3u << 20, 1u << 20, 64);
    std::ofstream(home.sub("64.json")) << vstest::SampleJob(home, s, 64, {web.biosUuid}, true).dump();
    const std::string stream = Url("serve/64.stream");
    RunResult r = Shell(kVsdm + " run " + home.sub("64.json") + " --out " + stream);
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(kVsstream + " verify --deep " + stream);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("index " + stream + ".idx: matches the stream"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("web01.vmdk: "), std::string::npos) << r.output;

    vsobj::S3Client(vsobj::SettingsFromEnvironment()).Delete({Bucket(), "serve/64.stream.idx"});
    const std::string serve = kVsstream + " serve " + stream + " --disk " + web.biosUuid + "/web01.vmdk --socket ";
    r = Shell("timeout 60 " + serve + home.sub("none.sock"));
    EXPECT_EQ(r.status, 3) << r.output;
    EXPECT_NE(r.output.find("vsstream index makes one"), std::string::npos) << r.output;
    r = Shell(kVsstream + " index " + stream);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(ObjectExists("serve/64.stream.idx"));

    const std::string socket = home.sub("web01.sock");
    r = Shell(serve + socket + " >" + home.sub("serve.log") + " 2>&1 & echo $!");
    const pid_t server = std::stoi(r.output);
    for (int i = 0; i < 1000 && !fs::exists(socket); ++i) ::usleep(10000);
    EXPECT_EQ(vstest::images::Compare("nbd+unix:///?socket=" + socket, "raw", web.disks[0].path, "vmdk"), "")
        << vstest::ReadAll(home.sub("serve.log"));
    ::kill(server, SIGTERM);
}

TEST(VsdmObjectStore, AStoreThatGoesAwayFailsTheJobRecordsNothingAndTheNextRunGoesOn) {
    VS_NEEDS_S3();
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    for (int job : {71, 72, 73})
        std::ofstream(home.sub(std::to_string(job) + ".json"))
            << vstest::SampleJob(home, s, job, vstest::ThreeItems(s), true).dump();
    const std::string out = " --out " + Url("faults/71.stream");

    // No store at all: the job cannot start, and says why.
    RunResult r = Shell("AWS_ENDPOINT_URL=http://127.0.0.1:1 " + kVsdm + " run " + home.sub("71.json") + out);
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find("object storage: "), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Couldn't connect"), std::string::npos) << r.output;

    // The store dies once the upload has begun, before the stream's bytes are stored.
    {
        StoreThatDies store(4096);
        r = Shell("AWS_ENDPOINT_URL=" + store.endpoint() + " " + kVsdm + " run " + home.sub("71.json") + out);
        EXPECT_TRUE(store.died());
    }
    EXPECT_EQ(r.status, 3) << r.output;
    EXPECT_NE(r.output.find("the stream could not be written: object storage: PUT " + Url("faults/71.stream")),
              std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("4 completed disk(s) not recorded: the stream was not stored"), std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("INCOMPLETE"), std::string::npos) << r.output;
    EXPECT_EQ(RecordedDisks(71), 0u);
    EXPECT_FALSE(ObjectExists("faults/71.stream"));
    // Its upload could not be aborted with the store gone; nothing else is left.
    EXPECT_EQ(OpenUploads(), std::vector<std::string>{"faults/71.stream"});
    r = Shell(kVsdm + " run " + home.sub("71.json") + " --resume " + Url("faults/71.stream") + " --out " +
              Url("faults/71b.stream"));
    EXPECT_EQ(r.status, 64) << r.output;
    EXPECT_NE(r.output.find("is not on the object store (no part of its upload was stored)"), std::string::npos)
        << r.output;

    // A part damaged on its way is refused by the store, which checks each body's
    // SHA-256; the upload is aborted and nothing recorded.
    {
        StoreThatDies store(4096, vstest::Fault::Damage);
        r = Shell("AWS_ENDPOINT_URL=" + store.endpoint() + " " + kVsdm + " run " + home.sub("71.json") + out);
        EXPECT_TRUE(store.damaged());
    }
    EXPECT_EQ(r.status, 3) << r.output;
    EXPECT_NE(r.output.find("400 XAmzContentSHA256Mismatch"), std::string::npos) << r.output;
    EXPECT_EQ(RecordedDisks(71), 0u);
    EXPECT_FALSE(ObjectExists("faults/71.stream"));

    // The next run of the key goes on, and takes the dead attempt's upload away.
    r = Shell(kVsdm + " run " + home.sub("71.json") + out);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(RecordedDisks(71), 4u);
    EXPECT_EQ(OpenUploads(), std::vector<std::string>{});
    // The store going away at any point of a deep verify of that stream: the verify fails
    // with what the store did, never as if the stream ended early.
    for (size_t cut = 0;; cut += 256) {
        StoreThatDies store(cut);
        r = Shell("AWS_ENDPOINT_URL=" + store.endpoint() + " " + kVsstream + " verify --deep " +
                  Url("faults/71.stream"));
        if (!store.died()) {
            EXPECT_EQ(r.status, 0) << r.output;
            break;
        }
        EXPECT_NE(r.status, 0) << cut << ": " << r.output;
        EXPECT_EQ(r.output.find("ends before"), std::string::npos) << cut << ": " << r.output;
        EXPECT_NE(r.output.find("object storage: "), std::string::npos) << cut << ": " << r.output;
    }

    // A job that does not start stores no object; one with a failed item stores its
    // stream, which the next attempt resumes from, through the store.
    vshost::settings::Set("VMInfoFaults", "MountSnap", "30");
    vshost::settings::Save();
    r = Shell(kVsdm + " run " + home.sub("72.json") + " --out " + Url("faults/72.stream"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_FALSE(ObjectExists("faults/72.stream"));
    vshost::settings::Erase("VMInfoFaults", "MountSnap");
    vshost::settings::Set("VDiskFaults", "web01.vmdk", "3");
    vshost::settings::Save();
    r = Shell(kVsdm + " run " + home.sub("73.json") + " --out " + Url("faults/73a.stream"));
    EXPECT_EQ(r.status, 1) << r.output;
    const size_t firstAttempt = RecordedDisks(73);
    EXPECT_GT(firstAttempt, 0u);
    EXPECT_LT(firstAttempt, 4u);
    vshost::settings::Erase("VDiskFaults", "web01.vmdk");
    vshost::settings::Save();
    r = Shell(kVsdm + " run " + home.sub("73.json") + " --resume " + Url("faults/73a.stream") + " --out " +
              Url("faults/73b.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("going on from where the stopped attempt left them"), std::string::npos) << r.output;
    EXPECT_EQ(RecordedDisks(73), 4u);
    r = Shell(kVsstream + " restore " + Url("faults/73a.stream") + " --to " + home.sub("r"));
    EXPECT_EQ(r.status, 0) << r.output;
    r = Shell(kVsstream + " restore " + Url("faults/73b.stream") + " --onto " + home.sub("r"));
    EXPECT_EQ(r.status, 0) << r.output;
    r = Shell(kVsdm + " run " + home.sub("72.json") + " --out " + home.sub("whole.stream"));
    ASSERT_EQ(r.status, 0) << r.output;
    r = Shell(kVsstream + " restore " + home.sub("whole.stream") + " --to " + home.sub("w"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(Tree(home.sub("w")) == Tree(home.sub("r")));
}

// Three workers share a job on the object store; one is killed while its stream is being
// uploaded. It leaves an open upload; the worker that takes its item over keeps the parts
// stored as the dead attempt's stream and goes on from what they hold. Every disk is
// recorded once, the streams restore every disk whole, and the bucket holds the job's
// streams and nothing else.
TEST(VsdmObjectStore, ThreeWorkersOneKilledMidUploadBackUpEveryDiskOnce) {
    VS_NEEDS_S3();
    vstest::TempHome scratch;
    std::vector<std::string> images;
    for (const uint64_t size : {24u << 20, 3u << 20, 3u << 20, 3u << 20}) {
        images.push_back(scratch.sub("img" + std::to_string(images.size()) + ".raw"));
        vstest::images::MakeRaw(images.back(), size);
        vstest::images::Fill(images.back(), 0, size, static_cast<uint32_t>(images.size()));
    }
    vssample::SampleOptions options;
    options.snapJobId = 78;
    const vssample::SampleSnapshot s = vssample::GenerateImagesSnapshot(images, options);
    const std::vector<std::string> homes =
        vstest::SharedHomes(scratch, "file:" + scratch.sub("shared.db"), 78, "ds1=" + scratch.sub("Snapshots/78/ds1"));
    const std::string job = vstest::CreateJob(homes[1], 78, "--out " + Url("taken/"));
    vshost::OpenHome(homes[1]);
    const auto state = [&] {
        std::string text;
        for (const auto& item : vshost::queue::Items(std::stoll(job))) text += item.state + " ";
        return text;
    };

    vsobj::S3Client client(vsobj::SettingsFromEnvironment());
    {
        // A store that goes away fails no item: the worker gives its item back and stops.
        StoreThatDies store(200000);
        const pid_t gone = vstest::StartShell(
            "env AWS_ENDPOINT_URL=" + store.endpoint() + " " + kVsdm + " worker --job " + job + " --home " + homes[0],
            scratch.sub("gone.out"));
        const int status = vstest::WaitFor(gone);
        const std::string told = vstest::ReadAll(scratch.sub("gone.out"));
        EXPECT_EQ(status, 2) << told;
        EXPECT_NE(told.find("is given back: its stream could not be written"), std::string::npos) << told;
        EXPECT_NE(told.find("0 item(s) done, 0 failed"), std::string::npos) << told;
    }
    pid_t b = 0, c = 0;
    {
        // Worker a takes item 1; the store stops taking its bytes inside the second part.
        // Once the first is stored, b and c start, do the other items and wait on item 1;
        // then a is killed.
        StoreThatDies store(12u << 20, vstest::Fault::Stall);
        const pid_t a = vstest::StartShell("env AWS_ENDPOINT_URL=" + store.endpoint() + " " + kVsdm +
                                               " worker --once --job " + job + " --home " + homes[0],
                                           scratch.sub("a.out"));
        size_t stored = 0;
        for (int i = 0; i < 600 && stored == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            for (const std::string& key : OpenUploads())
                for (const std::string& id : client.UploadsOf({Bucket(), key}))
                    if (key.starts_with("taken/")) stored += client.Parts({Bucket(), key}, id).size();
        }
        b = vstest::StartShell(kVsdm + " worker --job " + job + " --home " + homes[1], scratch.sub("b.out"));
        c = vstest::StartShell(kVsdm + " worker --job " + job + " --home " + homes[2], scratch.sub("c.out"));
        for (int i = 0; i < 600 && state() != "running done done done "; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(state(), "running done done done ");
        kill(a, SIGKILL);
        EXPECT_EQ(vstest::WaitFor(a), 128 + SIGKILL);
        ASSERT_TRUE(store.stalled() && stored == 1) << stored << vstest::ReadAll(scratch.sub("a.out"));
    }
    EXPECT_EQ(vstest::WaitFor(b), 0);
    EXPECT_EQ(vstest::WaitFor(c), 0);
    const std::string said = vstest::ReadAll(scratch.sub("b.out")) + vstest::ReadAll(scratch.sub("c.out"));
    EXPECT_NE(said.find("its upload was never completed: the 8388608 bytes of its parts stored are kept"),
              std::string::npos)
        << said;
    EXPECT_NE(said.find(".idx: 1 disks, "), std::string::npos) << said;
    EXPECT_NE(said.find("0 disk(s) already read, 1 going on"), std::string::npos) << said;
    EXPECT_EQ(OpenUploads(), std::vector<std::string>{});

    const auto items = vshost::queue::Items(std::stoll(job));
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(std::make_tuple(items[0].state, items[0].generation), std::make_tuple(std::string("done"), int64_t{3}));
    ASSERT_EQ(items[0].streams.size(), 3u);
    EXPECT_EQ(vshost::changetrack::JobDisks(std::stoll(job)).size(), 4u);
    // Item 1's first attempt stored nothing (its upload aborted by the next); the kept
    // stream is cut off (restore exits 2); the third completes the disk.
    EXPECT_NE(said.find(items[0].streams[0] + ": no part of its upload was stored"), std::string::npos) << said;
    RunResult r = Shell(kVsstream + " verify --deep " + items[0].streams[1]);
    EXPECT_NE(r.output.find("index " + items[0].streams[1] + ".idx: matches the stream"), std::string::npos)
        << r.output;
    const std::string restored = scratch.sub("r");
    std::set<std::string> objects;
    for (const auto& item : items) {
        for (size_t i = item.itemNo == 1 ? 1 : 0; i < item.streams.size(); ++i) {
            r = Shell(kVsstream + " restore " + item.streams[i] + (objects.empty() ? " --to " : " --onto ") + restored);
            EXPECT_EQ(r.status, item.itemNo == 1 && i == 1 ? 2 : 0) << item.streams[i] << r.output;
            objects.insert(item.streams[i]);
            objects.insert(item.streams[i] + ".idx");
        }
    }
    for (size_t i = 0; i < s.vms.size(); ++i) {
        const vssample::SampleVM& vm = s.vms[i];
        EXPECT_TRUE(vstest::ReadAll(restored + "/" + vm.biosUuid + "/" + vm.disks.at(0).name) ==
                    vstest::ReadAll(images[i]))
            << vm.name;
    }
    // Every stream has its index beside it, the kept one too; nothing else is there.
    const auto keys = client.Keys(Bucket(), "taken/");
    EXPECT_EQ(keys.size(), objects.size());
    for (const std::string& key : keys)
        EXPECT_EQ(objects.count("s3://" + Bucket() + "/" + key), 1u) << key << " is not a stream of the job";
}
