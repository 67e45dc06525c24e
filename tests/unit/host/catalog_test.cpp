// Catalog and the managers that answer the plug-in from it, on SQLite and on PostgreSQL.
#include "vshost/catalog.h"
#include "catalog_backend.h"
#include "hostapi/appmgr.h"
#include "hostapi/armgr.h"
#include "hostapi/jobclient.h"
#include "temp_home.h"
#include "vshost/changetrack.h"
#include "vshost/pending.h"
#include "vshost/vmclients.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <algorithm>

#include <sys/stat.h>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

namespace {

SHostCredentials Cred(const std::string& host, const std::string& server, const std::string& password, int type = 1) {
    SHostCredentials c;
    c.sHost = host;
    c.sServer = server;
    c.sUser = "u-" + host;
    c.sPassword = password;
    c.nType = type;
    return c;
}

// Job disks as "vm/disk=change id" words, in order.
std::string Words(const std::vector<vshost::changetrack::JobDisk>& disks) {
    std::string out;
    for (const auto& d : disks) out += (out.empty() ? "" : " ") + d.vmGuid + "/" + d.diskName + "=" + d.changeId;
    return out;
}

TEST(CatalogSetup, NoHomeAndConnectionsThatCannotWork) {
    vshost::CloseHome();  // also rules out a $VSHOST_HOME of the caller
    unsigned long id = 55;
    std::vector<SHostCredentials> hosts;
    GetAfileInfoRetCC_t answer;
    EXPECT_THROW(vshost::Catalog(), std::runtime_error);
    EXPECT_EQ(KTClient(0, "c", false, 0).getClientId(id), EIO);
    EXPECT_EQ(ArMgrClientAPI::getAfileInfo(GetAfileInfoReq{}, answer), EIO);
    EXPECT_NE(vsAppMgr().getCredentials(nullptr, hosts), 0);
    EXPECT_FALSE(vsAppMgr().isUseIndexingV2Enabled());

    // A server that is not there, reached with a password, or a connection string that
    // does not parse: the error says which server, and neither it nor the log shows the
    // password.
    const std::string password = vstest::Secret("catalog-pw-9f3a");
    vstest::TempHome home;
    std::filesystem::remove(home.sub("catalog.db"));  // made by OpenHome before the setting
    const struct {
        std::string connection, says;
    } cases[] = {
        {"host=/nonexistent-vs-socket dbname=vs user=vs password=" + password, "password=***"},
        {"postgresql://vs:" + password + "@/vs?host=/nonexistent-vs-socket", "password=***"},
        {"host=/nonexistent-vs-socket password='" + password, "an unreadable connection string"},
    };
    for (const auto& c : cases) {
        vshost::settings::Set("Catalog", "sConnection", c.connection);
        vshost::LogCapture log;
        try {
            vshost::Catalog();
            ADD_FAILURE() << "a catalog without a server opened";
        } catch (const std::runtime_error& e) {
            const std::string what = e.what();
            EXPECT_EQ(what.find("catalog: cannot connect to PostgreSQL ("), 0u) << what;
            EXPECT_NE(what.find(c.says), std::string::npos) << what;
            EXPECT_NE(what.find(c.says == "password=***" ? "host=/nonexistent-vs-socket" : "unterminated"),
                      std::string::npos)
                << what;
            EXPECT_EQ(what.find(password), std::string::npos) << what;
        }
        EXPECT_EQ(KTClient(0, "c", false, 0).getClientId(id), EIO);
        EXPECT_TRUE(log.Contains("KTClient::getClientId: catalog: cannot connect to PostgreSQL"));
        EXPECT_FALSE(log.Contains(password));
    }
    EXPECT_FALSE(std::filesystem::exists(home.sub("catalog.db")));  // no fall-back to SQLite
    // A path is no connection string: refused rather than opened as a file.
    vshost::settings::Set("Catalog", "sConnection", home.sub("other.db"));
    EXPECT_THROW(vshost::Catalog(), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(home.sub("other.db")));
    // Set empty, it is as if absent: catalog.db in the home.
    vshost::settings::Set("Catalog", "sConnection", "");
    vshost::Catalog().AddClient(1, "c");
    EXPECT_TRUE(std::filesystem::exists(home.sub("catalog.db")));
}

class CatalogOn : public vstest::CatalogBackendTest {};
VS_ON_BOTH_CATALOGS(CatalogOn);

TEST_P(CatalogOn, ClientsAreOneNameWhateverTheCase) {
    vstest::TempHome home(CatalogConnection());
    vshost::Catalog().AddClient(7, "VmProxy01");
    vshost::Catalog cat;  // a second open finds schema and data in place
    EXPECT_EQ(cat.ClientId("vmPROXY01"), 7ul);
    EXPECT_EQ(cat.ClientName(7), "VmProxy01");
    EXPECT_EQ(cat.ClientName(8), std::nullopt);
    EXPECT_THROW(cat.AddClient(9, "VMPROXY01"), std::runtime_error);
    EXPECT_THROW(cat.AddClient(7, "other"), std::runtime_error);
    unsigned long id = 55;
    EXPECT_EQ(KTClient(0, "VMPROXY01", false, 0).getClientId(id), 0);
    EXPECT_EQ(id, 7ul);
    id = 55;
    EXPECT_EQ(KTClient(0, "VmProxy0", false, 0).getClientId(id), ENOENT);
    EXPECT_EQ(KTClient(0, "x' OR '1'='1", false, 0).getClientId(id), ENOENT);
    EXPECT_EQ(id, 55ul);
    // Only the catalog of this backend was written.
    EXPECT_EQ(std::filesystem::exists(home.sub("catalog.db")), !OnPostgres());
}

TEST_P(CatalogOn, CredentialsKeepOrderAndDecrypt) {
    vstest::TempHome home(CatalogConnection());
    vshost::Catalog cat;
    vshost::AppRecord app;
    app.appId1 = 1;
    app.appId2 = 2;
    app.instanceType = 1;
    app.serverHostName = "vc01";
    app.snapMountEsxServer = "esx09";
    app.indexingV2 = true;
    app.subclientGuid = "g-\xC3\xA9";
    cat.AddApplication(app);
    cat.AddCredential(1, 2, Cred("h1", "vc01", vstest::Secret("pw-one")));
    cat.AddCredential(1, 3, Cred("hx", "VC01", "pw-x"));
    cat.AddCredential(1, 2, Cred("h2", "esx02", vstest::Secret("pw-two"), 2));
    cat.AddCredential(1, 2, Cred("h3", "esx03", ""));
    auto stored = cat.Credentials(1, 2);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_NE(stored[0].sPassword, "pw-one");  // kept encrypted
    EXPECT_EQ(stored[0].sUser, "u-h1");
    auto forServer = cat.CredentialsForServer("vc01");
    ASSERT_EQ(forServer.size(), 2u);
    EXPECT_EQ(forServer[1].sHost, "hx");
    EXPECT_EQ(cat.ApplicationWithId2(2)->subclientGuid, "g-\xC3\xA9");
    EXPECT_EQ(cat.ApplicationWithId2(3), std::nullopt);

    vsAppMgr mgr;
    mgr.setAppId(1, 2);
    EXPECT_TRUE(mgr.isUseIndexingV2Enabled());
    vsAppMgrServerCredentials server;
    std::vector<SHostCredentials> hosts = {Cred("stale", "", "")};
    ASSERT_EQ(mgr.getCredentials(&server, hosts), 0);
    EXPECT_EQ(hosts,
              (std::vector{Cred("h1", "vc01", "pw-one"), Cred("h2", "esx02", "pw-two", 2), Cred("h3", "esx03", "")}));
    EXPECT_EQ(server.sServer + " " + server.sUser + " " + server.sPassword, "vc01 u-h1 pw-one");

    // Added again, an application is replaced whole.
    app.indexingV2 = false;
    app.serverHostName = "vc02";
    cat.AddApplication(app);
    EXPECT_FALSE(mgr.isUseIndexingV2Enabled());
    EXPECT_EQ(cat.Application(1, 2)->serverHostName, "vc02");

    mgr.setAppId(4, 4);  // an application without records is no error
    EXPECT_FALSE(mgr.isUseIndexingV2Enabled());
    EXPECT_EQ(mgr.getCredentials(&server, hosts), 0);
    EXPECT_TRUE(hosts.empty());
}

// Hosts that share a catalog must share the key its passwords are stored under.
TEST_P(CatalogOn, HostsSharingACatalogMustShareTheKey) {
    vstest::TempHome first(CatalogConnection());
    vshost::Catalog().AddCredential(1, 2, Cred("h1", "vc01", vstest::Secret("pw-first")));
    vstest::TempHome second(CatalogConnection());  // another key
    if (!OnPostgres())
        std::filesystem::copy_file(first.sub("catalog.db"), second.sub("catalog.db"),
                                   std::filesystem::copy_options::overwrite_existing);
    vshost::LogCapture cap;
    vsAppMgr mgr;
    mgr.setAppId(1, 2);
    std::vector<SHostCredentials> hosts = {Cred("stale", "", "")};
    EXPECT_NE(mgr.getCredentials(nullptr, hosts), 0);
    EXPECT_TRUE(hosts.empty());
    EXPECT_TRUE(cap.Contains("stored password of server [vc01] does not decrypt"));

    // Storing a password the first host could not read is refused, and stores nothing.
    try {
        vshost::Catalog().AddCredential(1, 2, Cred("h2", "vc02", vstest::Secret("pw-second")));
        ADD_FAILURE() << "a password was stored under a second key";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("copy secret.key from a host that shares this catalog"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(vshost::Catalog().Credentials(1, 2).size(), 1u);

    // With the first host's key copied in (the owner's alone), both read and write.
    std::filesystem::copy_file(first.sub("keys/secret.key"), second.sub("keys/secret.key"),
                               std::filesystem::copy_options::overwrite_existing);
    ASSERT_EQ(chmod(second.sub("keys/secret.key").c_str(), 0600), 0);
    vshost::Catalog().AddCredential(1, 2, Cred("h2", "vc02", "pw-second"));
    ASSERT_EQ(mgr.getCredentials(nullptr, hosts), 0);
    EXPECT_EQ(hosts, (std::vector{Cred("h1", "vc01", "pw-first"), Cred("h2", "vc02", "pw-second")}));
}

TEST_P(CatalogOn, ArchiveFilesCopiesAndVMClients) {
    vstest::TempHome home(CatalogConnection());
    vshost::Catalog cat;
    const uint64_t bigId = 0xFFFFFFFF00000001ull;  // beyond the databases' signed range
    cat.AddArchiveFile({bigId, 2, 123456789012ll, "AF_1", "/vol/old", 54, 88, "ds1"});
    cat.AddArchiveFile({bigId, 2, 123456789012ll, "AF_1", "/vol/ds1", 54, 88, "ds1"});  // replaces
    cat.AddCopy(10, 2, 3);
    GetAfileInfoReq req;
    req.afileId = bigId;
    GetAfileInfoRetCC_t answer;
    ASSERT_EQ(ArMgrClientAPI::getAfileInfo(req, answer), 0);
    EXPECT_EQ(answer.sName + " " + answer.sVolume, "AF_1 /vol/ds1");
    EXPECT_EQ(answer.backupJobId, 123456789012ll);
    EXPECT_EQ(answer.snapEngineId, 54u);
    req.afileId = 1;
    EXPECT_EQ(ArMgrClientAPI::getAfileInfo(req, answer), ENOENT);

    unsigned long precedence = 0;
    EXPECT_EQ(ArMgrClientAPI::convertCopyIdToCopyPrecedence({10, 2}, precedence), 0);
    EXPECT_EQ(precedence, 3ul);
    EXPECT_EQ(ArMgrClientAPI::convertCopyIdToCopyPrecedence({11, 2}, precedence), ENOENT);
    cat.AddCopy(11, 1, 2);
    EXPECT_EQ(cat.FirstCopy(), std::make_pair(11ul, 1ul));
    cat.AddCopy(11, 1, 7);  // replaces its precedence
    EXPECT_EQ(cat.FirstCopy(), std::make_pair(10ul, 2ul));

    vshost::AddVMClient(5, 6, "vm-a", true, "uuid-a");
    vshost::AddVMClient(5, 6, "vm-b", false, "");
    const auto client = vshost::FindVMClient(5, 6);
    ASSERT_TRUE(client.has_value());
    EXPECT_EQ(client->clientName + " " + std::to_string(client->hasProperties), "vm-b 0");
    EXPECT_FALSE(vshost::FindVMClient(6, 5).has_value());
}

TEST_P(CatalogOn, ConcurrentWritersKeepEveryCredential) {
    vstest::TempHome home(CatalogConnection());
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([t] {
            vshost::Catalog mine;
            for (int i = 0; i < 10; ++i)
                mine.AddCredential(1, 2, Cred("t" + std::to_string(t), std::to_string(i), "p"));
        });
    for (auto& w : writers) w.join();
    auto all = vshost::Catalog().Credentials(1, 2);
    ASSERT_EQ(all.size(), 40u);
    std::map<std::string, int> next;  // each writer's records in the order it added them
    for (const auto& c : all) EXPECT_EQ(c.sServer, std::to_string(next[c.sHost]++));
}

TEST_P(CatalogOn, SnapshotsTakeFreeIdsAndAFailedOneLeavesNothing) {
    vstest::TempHome home(CatalogConnection());
    vshost::Catalog cat;
    cat.AddArchiveFile({40, 0, 0, "other", "/v/other", 0, 0, ""});
    std::vector<vshost::ArchiveFileRecord> volumes(2);
    volumes[0].datastore = "ds1";
    volumes[1].datastore = "ds2";
    volumes[1].afileId = 7;  // a given id is kept
    const auto added = cat.AddSnapshot({77, 5, 1700000000}, volumes);
    ASSERT_EQ(added.size(), 2u);
    EXPECT_EQ(added[0].afileId, 41u);  // beyond every id in use
    EXPECT_EQ(added[1].afileId, 7u);
    EXPECT_EQ(cat.ArchiveFilesOfSnapJob(77).size(), 2u);
    EXPECT_EQ(cat.ArchiveFile(41)->snapEngineId, 5u);

    // The same snapshot again, or one that would take another's archive file: refused
    // whole, nothing of it kept.
    EXPECT_THROW(cat.AddSnapshot({77, 5, 0}, {vshost::ArchiveFileRecord{}}), std::runtime_error);
    std::vector<vshost::ArchiveFileRecord> clash(2);
    clash[1].afileId = 40;
    EXPECT_THROW(cat.AddSnapshot({78, 5, 0}, clash), std::runtime_error);
    EXPECT_FALSE(cat.Snapshot(78).has_value());
    EXPECT_TRUE(cat.ArchiveFilesOfSnapJob(78).empty());
    EXPECT_EQ(cat.ArchiveFile(40)->name, "other");
    EXPECT_FALSE(cat.ArchiveFile(42).has_value());

    EXPECT_EQ(cat.Snapshot(77)->added, 1700000000);
    EXPECT_EQ(cat.Snapshots().size(), 1u);
    EXPECT_TRUE(cat.RemoveSnapshot(77));
    EXPECT_FALSE(cat.RemoveSnapshot(77));
    EXPECT_TRUE(cat.Snapshots().empty());
    EXPECT_FALSE(cat.ArchiveFile(41).has_value());
    EXPECT_TRUE(cat.ArchiveFile(40).has_value());
}

// Several hosts (here processes, each with threads) make job ids at once: each is new,
// beyond every job the catalog has seen.
TEST_P(CatalogOn, NewJobIdsAreUniqueAcrossProcesses) {
    vstest::TempHome home(CatalogConnection());
    vshost::changetrack::RecordJobDisk(500, {"vm", "d", "c1"});
    KTRstJobClient client;
    client.init("x", 900, 2, false, nullptr);
    ASSERT_EQ(client.setPendingCauseAndEvent(1, 0, 0, false, 0, false, 0, 0, 0, 0), 0);
    EXPECT_EQ(vshost::Catalog().NewJobId(77), 901);

    constexpr int kProcesses = 3, kThreads = 2, kEach = 8;
    const auto taken = vstest::TakenInProcesses(home.path(), kProcesses, kThreads, [](int, int) {
        std::vector<int64_t> got;
        for (int i = 0; i < kEach; ++i) got.push_back(vshost::Catalog().NewJobId(77));
        return got;
    });
    const std::set<int64_t> all(taken.begin(), taken.end());
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.size(), static_cast<size_t>(kProcesses * kThreads * kEach));
    EXPECT_EQ(*all.begin(), 902);
    EXPECT_EQ(*all.rbegin(), 901 + kProcesses * kThreads * kEach);
}

TEST_P(CatalogOn, TheLatestDiskIsTheLastRecordedAndDigestsKeepEveryByte) {
    vstest::TempHome home(CatalogConnection());
    namespace ct = vshost::changetrack;
    ct::RecordJobDisk(20, {"vm1", "b.vmdk", "c20b"});
    ct::RecordJobDisk(20, {"vm1", "a.vmdk", "c20a"});
    ct::RecordJobDisk(10, {"vm1", "a.vmdk", "c10a"});  // a lower job id, recorded later
    ct::RecordJobDisk(30, {"vm1", "b.vmdk", ""});      // no change id: never a base
    ct::RecordJobDisk(30, {"vm2", "a.vmdk", "c30"});
    EXPECT_EQ(Words(ct::JobDisks(20)), "vm1/b.vmdk=c20b vm1/a.vmdk=c20a");
    EXPECT_EQ(Words(ct::LatestDisks()), "vm1/a.vmdk=c10a vm1/b.vmdk=c20b vm2/a.vmdk=c30");
    ct::RecordJobDisk(20, {"vm1", "a.vmdk", "c20a2"});  // recorded again: the latest again
    EXPECT_EQ(Words(ct::LatestDisks()), "vm1/a.vmdk=c20a2 vm1/b.vmdk=c20b vm2/a.vmdk=c30");
    EXPECT_EQ(Words(ct::JobDisks(20)), "vm1/b.vmdk=c20b vm1/a.vmdk=c20a2");

    // Every byte value, NUL first, survives the trip, set in any order; storing again replaces.
    ct::DiskDigests digests;
    digests.diskSize = (1ull << 40) + 3;
    digests.extentSize = 1 << 20;
    for (uint64_t k = 0; k < 256; ++k) {
        const uint64_t i = k * 101 % 256;
        digests.extents[i] = ct::Digest{i * 0x0101010101010101ull, ~i};
    }
    ASSERT_EQ(digests.extents.size(), 256u);
    EXPECT_TRUE(std::is_sorted(digests.extents.begin(), digests.extents.end(),
                               [](const auto& a, const auto& b) { return a.first < b.first; }));
    ct::Store("cid", digests);
    auto back = ct::Load("cid");
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->diskSize, digests.diskSize);
    EXPECT_EQ(back->extents, digests.extents);
    digests.extents.erase(0);
    ct::Store("cid", digests);
    EXPECT_EQ(ct::Load("cid")->extents.size(), 255u);
    EXPECT_FALSE(ct::Load("none").has_value());
}

// Hosts that start on an empty catalog at once: one makes the schema, none fails.
TEST_P(CatalogOn, HostsStartingTogetherMakeTheSchemaOnce) {
    vstest::TempHome home(CatalogConnection());
    ASSERT_TRUE(vstest::InProcesses(4, [](int p) {
        vshost::Catalog().AddClient(static_cast<unsigned long>(p + 1), "host" + std::to_string(p));
        return 0;
    }));
    for (unsigned long id = 1; id <= 4; ++id)
        EXPECT_EQ(vshost::Catalog().ClientName(id), "host" + std::to_string(id - 1));
}

// What only a server shared by hosts goes through.
class CatalogServer : public vstest::CatalogBackendTest {};
INSTANTIATE_TEST_SUITE_P(Catalog, CatalogServer, testing::Values(vstest::Backend::PostgreSQL), vstest::BackendName);

// Readers never wait for a writer; a writer waits for another host's write transaction
// and, when that host hangs, fails after the lock timeout instead of waiting for ever.
// Connections the server dropped (a restart) are not handed out again.
TEST_P(CatalogServer, WritersQueueAndDroppedConnectionsAreReplaced) {
    vstest::TempHome home(CatalogConnection() + " options='-c search_path=" + Schema().Name() +
                          " -c lock_timeout=300ms'");
    vshost::Catalog().AddCopy(1, 1, 5);
    vstest::ServerSession otherHost(vstest::TestServer());
    otherHost.Exec("SET search_path = " + Schema().Name());
    otherHost.Exec("BEGIN");
    otherHost.Exec("SELECT pg_advisory_xact_lock(1987273569, hashtext(current_schema()))");
    EXPECT_EQ(vshost::Catalog().CopyPrecedence(1, 1), 5ul);
    try {
        vshost::Catalog().NewJobId(1);
        ADD_FAILURE() << "a write ran beside another host's";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("lock timeout"), std::string::npos) << e.what();
    }
    otherHost.Exec("COMMIT");
    EXPECT_EQ(vshost::Catalog().NewJobId(1), 1);

    // The pool holds this process's idle connections; the server ends them all.
    vstest::ServerExec(
        vstest::TestServer(),
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = '" + Schema().Name() + "'");
    EXPECT_EQ(vshost::Catalog().NewJobId(1), 2);
}

// A catalog from before disks were numbered in the order recorded: the order SQLite kept
// them in carries over.
TEST(CatalogUpgrade, DisksOfAnOlderCatalogKeepTheOrderTheyWereRecordedIn) {
    vstest::TempHome home;
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(home.sub("catalog.db").c_str(), &db), SQLITE_OK);
    const char* old = R"sql(
        CREATE TABLE schema_version (version INTEGER NOT NULL);
        INSERT INTO schema_version VALUES (6);
        CREATE TABLE job_disks (job_id INTEGER NOT NULL, vm_guid TEXT NOT NULL, disk_name TEXT NOT NULL,
                                change_id TEXT NOT NULL, PRIMARY KEY (job_id, vm_guid, disk_name));
        INSERT INTO job_disks VALUES (9, 'vm', 'b', 'c9b');
        INSERT INTO job_disks VALUES (9, 'vm', 'a', 'c9a');
        INSERT INTO job_disks VALUES (3, 'vm', 'a', 'c3a');
        )sql";
    ASSERT_EQ(sqlite3_exec(db, old, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    EXPECT_EQ(Words(vshost::changetrack::JobDisks(9)), "vm/b=c9b vm/a=c9a");
    EXPECT_EQ(Words(vshost::changetrack::LatestDisks()), "vm/a=c3a vm/b=c9b");
    vshost::changetrack::RecordJobDisk(3, {"vm", "b", "c3b"});
    EXPECT_EQ(Words(vshost::changetrack::LatestDisks()), "vm/a=c3a vm/b=c3b");
}

}  // namespace
