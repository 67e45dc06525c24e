// Snapshot backup XML of indexing V2: download from the remote cache, the VM's entry,
// and the remote-cache folder of a VM.
#include "probe.h"
#include "temp_home.h"

#include "backup_info.h"
#include "hostapi/xmlfile.h"
#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/vmclients.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <tuple>

namespace fs = std::filesystem;

namespace {

constexpr KTJobID kJobId = 123;
constexpr int64_t kBackupJob = 4711;
constexpr unsigned long kHubcell = 5;  // of the open; the application's own is 9
constexpr unsigned long kSubclient = 33;
const char* const kSubclientGuid = "SC-GUID";
const char* const kDownloadFn = "DataReaderVSBase::getSnapBackupXmlFromIndex";

using vstest::Datastore;
using vstest::VM;

// Three VM entries for "vm-a" in differing case, spread over two datastores and two
// backups, with other VMs between them.
CNMessageBase SampleBackup() {
    CNMessageBase msg(26, 13);
    VirtualServer::Backup first;
    first.llJobId = kBackupJob;
    first.datastoreList = {Datastore("ds1", {VM("vm-a", 1, 10, "a1"), VM("vm-b", 2, 20, "b")}),
                           Datastore("ds2", {VM("VM-A", 3, 30, "a2")})};
    VirtualServer::Backup second;
    second.llJobId = kBackupJob;
    second.datastoreList = {Datastore("ds3", {VM("vm-c", 4, 40, "c")})};
    msg.backupList = {first, second};
    return msg;
}

class BackupXmlTest : public ::testing::Test {
protected:
    BackupXmlTest() {
        vshost::AppRecord app;
        app.appId1 = 1;
        app.appId2 = 2;
        app.indexingV2 = true;
        app.hubcellId = 9;
        app.subclientId = kSubclient;
        app.subclientGuid = kSubclientGuid;
        vshost::Catalog().AddApplication(app);
        results = home.sub("JobResults/123/");
        fs::create_directories(results);
    }

    std::unique_ptr<Probe> Reader(unsigned snapEngine) {
        auto r = std::make_unique<Probe>(&event, kJobId);
        r->m_appMgr.setAppId(1, 2);
        r->m_openArchiveParams.hubcellId = kHubcell;
        r->m_afileBackupJobId = kBackupJob;
        r->m_snapEngineId = snapEngine;
        r->m_sJobResultsDir = home.sub("JobResults/");
        return r;
    }

    // Puts a backup XML into the remote cache of the backup job.
    void Cache(const std::string& name, const CNMessageBase& msg = SampleBackup()) {
        const std::string dir = home.sub("IndexCache/") + kSubclientGuid + "/" + std::to_string(kBackupJob);
        fs::create_directories(dir);
        ASSERT_TRUE(vsXMLFile(dir + "/" + name).Save(msg));
    }

    MountCtx SnapCtx() const {
        MountCtx ctx;
        ctx.sJobResultsDir = results;
        return ctx;
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    std::string results;
};

// The fields a VM's entry in the backup XML fills.
std::tuple<int32_t, int64_t, std::string> Fields(const MountCtx& c) {
    return {c.nXmlVMValue, c.nXmlVMValue64, c.sXmlVMText};
}
std::tuple<int32_t, int64_t, std::string> Fields(int32_t value, int64_t value64, const std::string& text) {
    return {value, value64, text};
}

bool Recorded(const Probe& r, const std::string& path) {
    return std::count(r.m_tempFolders.begin(), r.m_tempFolders.end(), path) == 1;
}

}  // namespace

TEST_F(BackupXmlTest, DownloadsJobFileForOtherEnginesAndCleansItUp) {
    Cache("backup_4711.xml");
    const std::string path = results + "backup_4711.xml";
    for (unsigned engine : {0u, 57u, 60u, 67u, 83u}) {
        SCOPED_TRACE(engine);
        fs::remove(path);
        {
            auto r = Reader(engine);
            ASSERT_TRUE(r->DownloadSnapXMLFromIndex(SnapCtx()));
            EXPECT_TRUE(fs::is_regular_file(path));
            EXPECT_TRUE(Recorded(*r, path));
            EXPECT_EQ(r->m_jobMgr.jobId(), "123");
            EXPECT_EQ(r->m_appMgr.getHubCellId(), kHubcell);

            // What was downloaded is what GetVMClientInfo reads.
            MountCtx vm;
            vm.sJobResultsDir = results;
            vm.sVMName = "vm-b";
            ASSERT_TRUE(r->GetVMClientInfo(vm));
            EXPECT_EQ(vm.nXmlVMValue, 2);
        }
        // Removed with the reader.
        EXPECT_FALSE(fs::exists(path));
    }
    EXPECT_EQ(log.Count(kDownloadFn), 0u);

    // A results folder without a trailing delimiter is joined with one.
    auto r = Reader(0);
    MountCtx bare = SnapCtx();
    bare.sJobResultsDir.pop_back();
    ASSERT_TRUE(r->DownloadSnapXMLFromIndex(bare));
    EXPECT_TRUE(Recorded(*r, path));
    EXPECT_TRUE(fs::is_regular_file(path));

    // Not in the cache: false, and the name is still recorded for clean-up. The reader
    // leaves the reporting to the index client.
    auto other = Reader(0);
    other->m_afileBackupJobId = 4712;
    log.Clear();
    EXPECT_FALSE(other->DownloadSnapXMLFromIndex(SnapCtx()));
    EXPECT_TRUE(Recorded(*other, results + "backup_4712.xml"));
    EXPECT_FALSE(fs::exists(results + "backup_4712.xml"));
    EXPECT_EQ(log.Count(kDownloadFn), 0u);
    EXPECT_TRUE(log.Contains("file [backup_4712.xml] is not in the remote cache"));
}

TEST_F(BackupXmlTest, DownloadsPerVMFileForVVOLAndVMCentricEngines) {
    // Recorded under the open's hubcell, not the application's: found only when the
    // reader hands its own hubcell to the application manager.
    vshost::AddVMClient(kHubcell, kSubclient, "vmclient", true, "VM-UUID-1");
    Cache("backup_4711_VM-UUID-1.xml");
    const std::string path = results + "backup_4711_VM-UUID-1.xml";
    for (unsigned engine : {58u, 59u, 66u, 77u, 82u}) {
        SCOPED_TRACE(engine);
        fs::remove(path);
        auto r = Reader(engine);
        ASSERT_TRUE(r->DownloadSnapXMLFromIndex(SnapCtx()));
        EXPECT_TRUE(fs::is_regular_file(path));
        EXPECT_TRUE(Recorded(*r, path));
        EXPECT_FALSE(Recorded(*r, results + "backup_4711.xml"));
    }
    EXPECT_EQ(log.Count(kDownloadFn), 0u);
}

TEST_F(BackupXmlTest, VMGuidLookupFailuresAreAlwaysLoggedAndStopTheDownload) {
    // Debug level 0: only the lines that must always appear are written.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    Cache("backup_4711.xml");
    Cache("backup_4711_.xml");
    auto expectFailure = [&](unsigned engine, const std::string& line) {
        SCOPED_TRACE(line);
        auto r = Reader(engine);
        log.Clear();
        EXPECT_FALSE(r->DownloadSnapXMLFromIndex(SnapCtx()));
        EXPECT_EQ(log.Count(std::string(kDownloadFn) + ": " + line + ": 33 "), 1u);
        EXPECT_EQ(log.Count(kDownloadFn), 1u);
        EXPECT_TRUE(r->m_tempFolders.empty());
        EXPECT_TRUE(fs::is_empty(results));
    };
    expectFailure(58, "Failed to fetch client for vm [subclient id]");
    // A client of the application's own hubcell does not count.
    vshost::AddVMClient(9, kSubclient, "vmclient", true, "VM-UUID-1");
    expectFailure(82, "Failed to fetch client for vm [subclient id]");
    vshost::AddVMClient(kHubcell, kSubclient, "vmclient", false, "VM-UUID-1");
    expectFailure(59, "Failed to fetch client properties for vm client [subclient id]");
    vshost::AddVMClient(kHubcell, kSubclient, "vmclient", true, "");
    expectFailure(66, "Failed to get Virtual Machine GUID for vm [subclient id]");
}

TEST_F(BackupXmlTest, TakesTheLastMatchingVMEntry) {
    ASSERT_TRUE(vsXMLFile(results + "backup_4711.xml").Save(SampleBackup()));
    auto r = Reader(0);
    MountCtx ctx;
    ctx.sJobResultsDir = results;
    ctx.nXmlVMValue = -7;
    ctx.nXmlVMValue64 = -70;
    ctx.sXmlVMText = "earlier";

    // GUIDs compare case-insensitively; the entry in the later datastore wins.
    ctx.sVMName = "Vm-A";
    ASSERT_TRUE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(Fields(ctx), Fields(3, 30, "a2"));

    // A single match is not overwritten by the entries after it.
    ctx.sVMName = "vm-b";
    ASSERT_TRUE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(Fields(ctx), Fields(2, 20, "b"));

    // No match: still true, and the fields keep what they held.
    ctx.sVMName = "vm-a-2";
    ASSERT_TRUE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(Fields(ctx), Fields(2, 20, "b"));

    // Match-any takes every entry, so the last one of the file remains.
    r->m_bMatchAnyVM = true;
    ctx.sVMName = "unrelated";
    ASSERT_TRUE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(Fields(ctx), Fields(4, 40, "c"));

    // VVOL and VM-centric engines read the VM's own file, named after its GUID.
    auto vvol = Reader(77);
    MountCtx vm;
    vm.sJobResultsDir = results;
    vm.sVMName = "vm-c";
    log.Clear();
    EXPECT_FALSE(vvol->GetVMClientInfo(vm));
    EXPECT_EQ(log.Count("DataReaderVSBase::GetVMClientInfo:File[" + results + "backup_4711_vm-c.xml] does not exist."),
              1u);
    ASSERT_TRUE(vsXMLFile(results + "backup_4711_vm-c.xml").Save(SampleBackup()));
    ASSERT_TRUE(vvol->GetVMClientInfo(vm));
    EXPECT_EQ(vm.nXmlVMValue, 4);
    EXPECT_EQ(vm.sXmlVMText, "c");
}

TEST_F(BackupXmlTest, MissingOrMalformedBackupXml) {
    auto r = Reader(0);
    MountCtx ctx;
    ctx.sJobResultsDir = results;
    ctx.sVMName = "vm-a";
    ctx.nXmlVMValue = 11;
    const std::string path = results + "backup_4711.xml";

    EXPECT_FALSE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(log.Count("DataReaderVSBase::GetVMClientInfo:File[" + path + "] does not exist."), 1u);

    std::ofstream(path) << "<SnapBackupInfo><Backup><Datastore name=\"d\"><VM guid=\"vm-a\" clientId=\"5\">";
    log.Clear();
    EXPECT_FALSE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(log.Count("DataReaderVSBase::GetVMClientInfo:Failed to load file [" + path + "]"), 1u);
    EXPECT_TRUE(log.Contains("cannot load [" + path + "]"));  // the host's reason
    EXPECT_EQ(ctx.nXmlVMValue, 11);

    // Both lines are ordinary (level 1): gone at debug level 0.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    log.Clear();
    EXPECT_FALSE(r->GetVMClientInfo(ctx));
    fs::remove(path);
    EXPECT_FALSE(r->GetVMClientInfo(ctx));
    EXPECT_EQ(log.Count("DataReaderVSBase::GetVMClientInfo"), 0u);
}

TEST_F(BackupXmlTest, RemoteCacheFolder) {
    auto r = Reader(0);
    const std::string folder = r->CreateTempMountPointDirectoryForRemoteCache("web01");
    EXPECT_EQ(folder, home.sub("JobResults/web01_SnapCache"));
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(r->m_tempFolders, std::vector<std::string>{folder});
    // A second VM mount of the same VM finds the folder there.
    EXPECT_EQ(r->CreateTempMountPointDirectoryForRemoteCache("web01"), folder);

    // A VM name that climbs out of the results folder: nothing is made there, and a
    // folder recorded out there by any other way is never removed with the reader.
    const std::string victim = home.sub("victim_SnapCache");
    fs::create_directories(victim);
    std::ofstream(victim + "/keep.txt") << "mine";
    EXPECT_EQ(r->CreateTempMountPointDirectoryForRemoteCache("../victim"), "");
    EXPECT_EQ(r->CreateTempMountPointDirectoryForRemoteCache("../../elsewhere"), "");
    EXPECT_TRUE(log.Contains("Refusing remote cache folder"));
    EXPECT_EQ(r->m_tempFolders.size(), 2u);  // web01 twice, nothing else
    r->m_tempFolders.push_back(home.sub("JobResults/JobID_1_Mount_x/../../victim_SnapCache"));
    fs::create_directories(home.sub("JobResults/JobID_1_Mount_x"));

    // Nothing is inserted between the results folder and the name.
    r->m_sJobResultsDir = home.sub("JobResults/deep/er");
    const std::string joined = r->CreateTempMountPointDirectoryForRemoteCache("web02");
    EXPECT_EQ(joined, home.sub("JobResults/deep/erweb02_SnapCache"));
    EXPECT_TRUE(fs::is_directory(joined));

    // Cannot be made: an empty name, nothing recorded and nothing logged.
    std::ofstream(home.sub("JobResults/afile")) << "x";
    r->m_sJobResultsDir = home.sub("JobResults/afile/");
    const size_t recorded = r->m_tempFolders.size();
    log.Clear();
    EXPECT_EQ(r->CreateTempMountPointDirectoryForRemoteCache("web03"), "");
    EXPECT_EQ(r->m_tempFolders.size(), recorded);
    EXPECT_TRUE(log.Lines().empty());

    r.reset();
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_FALSE(fs::exists(joined));
    EXPECT_TRUE(fs::exists(victim + "/keep.txt"));
    EXPECT_TRUE(log.Contains("lies outside the job results folder"));
}

// A VM mount under indexing V2: the VM's client information from the backup XML, then
// its metadata from the remote cache, each failing with its own text; VVOL and
// VM-centric engines hand the library the backup job id.
TEST_F(BackupXmlTest, VMMountsUnderIndexingV2) {
    const std::string record = home.sub("contexts.jsonl");
    vshost::settings::Set("VMInfoRecord", "sFile", record);
    const std::string vmCache = home.sub("IndexCache/") + kSubclientGuid + "/" + std::to_string(kBackupJob) + "/vm-b";
    const struct {
        unsigned engine;
        const char* xml;
        int64_t backupJobId;
    } cases[] = {
        {58, "backup_4711_vm-b.xml", kBackupJob}, {66, "backup_4711_vm-b.xml", kBackupJob}, {0, "backup_4711.xml", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.engine);
        fs::remove_all(home.sub("IndexCache"));
        fs::remove(record);
        auto r = Reader(c.engine);
        ASSERT_EQ(r->Initialize(), 0);
        ASSERT_TRUE(r->PrepareVMInfoObject());
        MountCtx snap = SnapCtx();
        snap.nSnapJobId = kBackupJob;  // where the cache keeps the VM of the other engines
        r->m_mountCtxs.push_back(snap);
        r->m_sJobResultsFolder = results;
        DataReaderVMCtx out;
        log.Clear();
        EXPECT_EQ(r->MountVM("vm-b", out, {}), -1);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::MountVM: Failed to get VM Client Info from backup file"));

        ASSERT_TRUE(vsXMLFile(results + c.xml).Save(SampleBackup()));
        EXPECT_EQ(r->MountVM("vm-b", out, {}), -1);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::MountVM: Failed to download the file from location:[" +
                                 home.sub("JobResults/vm-b_SnapCache") + "]"));
        EXPECT_FALSE(fs::exists(record));

        fs::create_directories(vmCache);
        std::ofstream(vmCache + "/vm-b.vmx") << "x";
        EXPECT_EQ(r->MountVM("vm-b", out, {}), -1);  // the library has no snapshot mounted
        std::ifstream in(record);
        std::string line;
        ASSERT_TRUE(std::getline(in, line));
        const nlohmann::json ctx = nlohmann::json::parse(line);
        EXPECT_EQ(ctx["bIndexingV2"], true);
        EXPECT_EQ(ctx["sRemoteCacheDir"], home.sub("JobResults/vm-b_SnapCache"));
        EXPECT_EQ(ctx["llBackupJobId"], c.backupJobId);
        fs::remove(results + c.xml);
    }
}
