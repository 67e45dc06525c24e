// Snapshot and VM mounts of the readers against a generated datastore snapshot and the
// reference VM-info library.
#include "open_sample.h"
#include "probe.h"
#include "temp_home.h"

#include "hostapi/xmlfile.h"
#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/pending.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr KTJobID kJob = 4711;

class Mounts : public ::testing::Test {
protected:
    void SetUp() override { sample = vssample::GenerateSample(); }

    // A reader of the sample's job, initialised, with the sample's list pre-opened.
    void Ready(Probe& r, int instanceType = 102, int mountType = 0) {
        vstest::PrepareOnSample(r, sample, instanceType);
        r.setMountType(static_cast<MountType>(mountType));
    }
    int Open(Probe& r, uint64_t afileId) { return vstest::OpenSampleArchiveFile(r, sample, kJob, afileId); }
    std::vector<VMInfoStructs::SDisk> Disks(Probe& r, DataReaderVMCtx& vm) {
        std::vector<VMInfoStructs::SMountInfoFull> infos;
        EXPECT_NE(r.m_pVMInfo->GetFullMountInfo(vm.mountCtx, infos), 0);
        std::vector<VMInfoStructs::SDisk> disks;
        for (const auto& info : infos)
            for (const auto& d : info.disks)
                if (d.nBackupType != VMInfoStructs::kBackupTypeConfigFile) disks.push_back(d);
        return disks;
    }
    std::vector<int> Causes() {
        std::vector<int> ids;
        for (const auto& c : vshost::PendingCauses(kJob)) ids.push_back(c.causeId);
        return ids;
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
};

TEST_F(Mounts, OneMountServesTheListAndTheLastCloseUnmounts) {
    Probe r(&event, kJob);
    Ready(r);
    ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::MountSnap: Media Agent " + sample.mediaAgentName +
                             " client id = " + std::to_string(sample.mediaAgentClientId) + "."));
    EXPECT_TRUE(log.Contains("Mounted Snapshot from Job Id [" + std::to_string(sample.snapJobId) + "]."));
    EXPECT_TRUE(log.Contains("Copy Precedence: [" + std::to_string(sample.copyPrecedence) + "]"));
    for (const AFileID& a : r.m_afileIds) EXPECT_TRUE(a.bMounted);
    EXPECT_EQ(r.m_snapJobId, sample.snapJobId);
    // Instance type 102 keeps its results in a folder named by the job.
    EXPECT_EQ(r.m_sJobResultsFolder, home.sub("JobResults/4711/"));
    ASSERT_EQ(r.m_mountCtxs.size(), 1u);
    EXPECT_EQ(r.m_mountCtxs[0].afileIds, sample.afileIds);
    EXPECT_FALSE(r.m_mountCtxs[0].bBlockLevelBrowseApplies);

    // The list's other archive file is already mounted; one outside the list mounts again.
    ASSERT_EQ(Open(r, sample.afileIds[1]), 0);
    EXPECT_EQ(log.Count("client id = "), 1u);
    ASSERT_EQ(Open(r, 9999), 0);
    EXPECT_EQ(log.Count("client id = "), 2u);
    EXPECT_EQ(r.m_mountCtxs.size(), 2u);

    DataReaderVMCtx vm;
    ASSERT_EQ(r.MountVM(sample.vm("web01").biosUuid, vm, {}), 0);
    EXPECT_EQ(vm.mountCtx.sMountedName, "web01");
    EXPECT_EQ(vm.mountCtx.nJobId, sample.snapJobId);
    // Every mount that gets past the client lookup extends the results folder again.
    EXPECT_EQ(vm.mountCtx.sMountPoint,
              home.sub("JobResults/4711/4711/JobID_4711_Mount_") + sample.vm("web01").biosUuid);

    for (size_t i = 0; i < sample.afileIds.size() - 1; ++i) EXPECT_EQ(r.Close(1), 0);
    EXPECT_FALSE(log.Contains("Unmounting All VMs"));
    EXPECT_EQ(r.Close(1), 0);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::UnMountAllMountedVMs: Unmounting VM [" + sample.vm("web01").biosUuid + "]"));
    EXPECT_EQ(log.Count("UnMounting snapshot for archive file Id [" + std::to_string(sample.afileIds[0]) + "]"), 2u);
    EXPECT_EQ(r.m_pVMInfo, nullptr);
}

// What the VM-info library is handed, as it records it: the snapshot's context, then
// the VM's, field by field.
TEST_F(Mounts, TheLibraryIsHandedTheContextsOfTheMounts) {
    const std::string record = home.sub("contexts.jsonl");
    vshost::settings::Set("VMInfoRecord", "sFile", record);
    vshost::settings::Set("VirtualServer", "sProxyESX", "esx-proxy");
    Probe r(&event, kJob);
    Ready(r);
    r.m_bUseCBT = true;
    r.m_initParams.appId1 = sample.appId1;
    r.m_initParams.appId2 = sample.appId2;
    r.m_initParams.jobId = kJob;
    r.m_initParams.mediaAgentName = sample.mediaAgentName;
    r.m_openArchiveParams.archiveFileId = static_cast<uint32_t>(sample.afileIds[0]);
    r.m_openArchiveParams.archGroupId = static_cast<uint32_t>(sample.archGroupId);
    r.m_openArchiveParams.copyId = static_cast<uint32_t>(sample.copyId);
    r.m_openArchiveParams.hubcellId = 77;
    ASSERT_TRUE(r.PrepareVMInfoObject());
    r.m_sVCName = "vc1";
    r.m_sESXServerName = "esx-own";
    r.m_sUserName = "admin";
    r.m_sPassword = "c3RvcmVkLWZvcm0=";
    ASSERT_EQ(r.MountSnap(), 0);
    DataReaderVMCtx vm;
    ASSERT_EQ(r.MountVM("web01", vm, {"web01.vmdk"}), 0);

    std::ifstream in(record);
    std::vector<nlohmann::json> ctx;
    for (std::string line; std::getline(in, line);) ctx.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(ctx.size(), 2u);
    const nlohmann::json& snap = ctx[0];
    const nlohmann::json& mount = ctx[1];
    const std::string path = "{vcname:vc1,esxname:esx-proxy,username:admin,password:c3RvcmVkLWZvcm0=}";
    // The ESX host is copied before the configured proxy replaces it for the path (and
    // for every later caller).
    EXPECT_EQ(r.m_sESXServerName, "esx-proxy");
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getSnapMountPath: Proxy ESX:[esx-proxy] found in the registry"));
    // clang-format off
    const std::vector<std::pair<const char*, nlohmann::json>> expectSnap = {
        {"op", "MountSnap"}, {"nSnapEngineId", sample.snapEngineId}, {"bMountRequest", true}, {"nHubcellId", 77},
        {"nClientId", sample.mediaAgentClientId}, {"nClientId2", sample.mediaAgentClientId}, {"nJobId", kJob},
        {"sJobResultsDir", home.sub("JobResults/4711/")}, {"sHost", "esx-own"}, {"sServer", "esx-own"},
        {"sUser", "admin"}, {"sPassword", "c3RvcmVkLWZvcm0="}, {"bMountFlag", true}, {"bOption1", false},
        {"sSnapMountPath", path}, {"nCopyId", sample.copyId}, {"nCopyPrecedence", sample.copyPrecedence},
        {"bPathMount", true}, {"bIndexingV2", false}, {"afileIds", sample.afileIds}};
    // clang-format on
    for (const auto& [key, value] : expectSnap) EXPECT_EQ(snap[key], value) << key;
    // clang-format off
    const std::vector<std::pair<const char*, nlohmann::json>> expectVM = {
        {"op", "MountVM"}, {"bVMMountFlag", true}, {"nSnapJobId", sample.snapJobId}, {"nJobId", sample.snapJobId},
        {"sJobResultsDir", home.sub("JobResults/4711/")}, {"sHost", "esx-proxy"}, {"sServer", "esx-proxy"},
        {"sUser", "admin"}, {"sPassword", "c3RvcmVkLWZvcm0="}, {"bOption1", false},
        {"nSnapEngineId", sample.snapEngineId}, {"diskFilters", nlohmann::json::array({{7, "web01.vmdk"}})},
        {"bOptionType102", snap["bOptionType102"]}, {"nClientId", sample.mediaAgentClientId},
        {"nClientId2", sample.mediaAgentClientId}, {"bMountFlag", true}, {"nHubcellId", 77},
        {"nAppId2", sample.appId2}, {"nMountMode", 0}, {"bPathMount", true}, {"sSnapMountPath", path},
        {"bUseCBT", true}, {"sMountPoint", home.sub("JobResults/4711/JobID_4711_Mount_web01")}, {"sVMName", "web01"}};
    // clang-format on
    for (const auto& [key, value] : expectVM) EXPECT_EQ(mount[key], value) << key;
}

// Under indexing version 2 the snapshot's backup XML comes from the index first: without
// it nothing is handed to the library; with it the context says version 2.
TEST_F(Mounts, IndexingVersion2FetchesTheBackupXmlBeforeTheMount) {
    vshost::AppRecord app;
    app.appId1 = sample.appId1;
    app.appId2 = sample.appId2;
    app.instanceType = 102;
    app.clientId = sample.mediaAgentClientId;
    app.indexingV2 = true;
    app.subclientGuid = "SC-GUID";
    vshost::Catalog().AddApplication(app);
    const std::string record = home.sub("contexts.jsonl");
    vshost::settings::Set("VMInfoRecord", "sFile", record);
    {
        Probe r(&event, kJob);
        Ready(r);
        EXPECT_EQ(Open(r, sample.afileIds[0]), -1);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::OpenArchiveFile: Failed to mount path to read data."));
        EXPECT_FALSE(log.Contains("VMInfo::MountSnap() failed."));
        EXPECT_FALSE(fs::exists(record));
    }
    const std::string xml = "backup_" + std::to_string(sample.snapJobId) + ".xml";
    const std::string cache = home.sub("IndexCache/SC-GUID/") + std::to_string(sample.snapJobId);
    fs::create_directories(cache);
    ASSERT_TRUE(vsXMLFile(cache + "/" + xml).Save(CNMessageBase(26, 13)));
    Probe r(&event, kJob);
    Ready(r);
    ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
    std::ifstream in(record);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ(nlohmann::json::parse(line)["bIndexingV2"], true);
    EXPECT_TRUE(fs::is_regular_file(home.sub("JobResults/4711/") + xml));
}

TEST_F(Mounts, BlockLevelBrowseSettingForFileMountsOfServerInstances) {
    {
        Probe r(&event, kJob);
        Ready(r, 101, 1);
        ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
        ASSERT_FALSE(r.m_mountCtxs.empty());
        EXPECT_TRUE(r.m_mountCtxs[0].bBlockLevelBrowseApplies);
        EXPECT_TRUE(r.m_mountCtxs[0].bBlockLevelBrowse);  // absent: enabled
        EXPECT_EQ(r.m_sJobResultsFolder, home.sub("JobResults/"));
    }
    vshost::settings::Set("VirtualServer", "nEnableVMWareSnapBlocklevelBrowse", "0");
    {
        Probe r(&event, kJob);
        Ready(r, 100, 1);
        ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
        EXPECT_TRUE(r.m_mountCtxs[0].bBlockLevelBrowseApplies);
        EXPECT_FALSE(r.m_mountCtxs[0].bBlockLevelBrowse);
    }
    {
        Probe r(&event, kJob);
        Ready(r, 102, 1);
        ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
        EXPECT_FALSE(r.m_mountCtxs[0].bBlockLevelBrowseApplies);
    }
}

TEST_F(Mounts, FailedMountsRaiseTheirCauseAndMarkNothing) {
    vshost::settings::Set("VMInfoFaults", "MountSnap", "30");
    Probe r(&event, kJob);
    Ready(r);
    EXPECT_EQ(Open(r, sample.afileIds[0]), -1);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::MountSnap: VMInfo::MountSnap() failed."));
    EXPECT_EQ(Causes(), std::vector<int>{0x5B00002D});
    for (const AFileID& a : r.m_afileIds) EXPECT_FALSE(a.bMounted);
    EXPECT_TRUE(r.m_mountCtxs.empty());

    // A VM cannot be mounted before the snapshot is.
    DataReaderVMCtx vm;
    EXPECT_EQ(r.MountVM("web01", vm, {}), -1);
    EXPECT_TRUE(log.Contains(
        "DataReaderVSBase::MountVM: SnapMountCtx is empty. Mounting of Hardware snapshot may have failed."));

    // An unknown media agent fails before the library is asked.
    vshost::settings::Erase("VMInfoFaults", "MountSnap");
    Probe stranger(&event, kJob);
    Ready(stranger);
    stranger.setShortClientName("no-such-ma");
    EXPECT_EQ(Open(stranger, sample.afileIds[0]), -1);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::MountSnap: Failed to lookup Media Agent no-such-ma client id.  Error="));

    // A configuration naming a disk that is gone fails the VM mount with the disk cause.
    const vssample::SampleDisk& gone = sample.vm("web01").disks.back();
    fs::remove(gone.path);
    Probe r2(&event, kJob);
    Ready(r2);
    ASSERT_EQ(Open(r2, sample.afileIds[0]), 0);
    EXPECT_EQ(r2.MountVM("web01", vm, {}), -1);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::MountVM: MountVM failed. Hard failure."));
    EXPECT_EQ(Causes(), (std::vector<int>{0x5B00002D, 0x5B00001E}));
    EXPECT_FALSE(r2.GetVMMountContext("web01", vm));

    // A failed mount makes and records no results folder; a retry extends the path
    // again, and nothing of either attempt outlives the reader.
    const std::string own = home.sub("JobResults/4712");
    {
        Probe retry(&event, 4712);
        Ready(retry);
        vshost::settings::Set("VMInfoFaults", "MountSnap", "30");
        EXPECT_EQ(vstest::OpenSampleArchiveFile(retry, sample, 4712), -1);
        EXPECT_TRUE(retry.m_sJobResultsFolder.empty());
        EXPECT_FALSE(fs::exists(own));
        vshost::settings::Erase("VMInfoFaults", "MountSnap");
        ASSERT_EQ(vstest::OpenSampleArchiveFile(retry, sample, 4712), 0);
        EXPECT_EQ(retry.m_sJobResultsFolder, own + "/4712/");
        EXPECT_TRUE(fs::is_directory(retry.m_sJobResultsFolder));
    }
    EXPECT_FALSE(fs::exists(own));
}

TEST_F(Mounts, VMsAreMountedOnceWithTheirDisksFromEveryDatastore) {
    Probe r(&event, kJob);
    Ready(r);
    ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
    const vssample::SampleVM& web = sample.vm("web01");

    DataReaderVMCtx vm;
    ASSERT_EQ(r.MountVM(web.vcUuid, vm, {}), 0);
    ASSERT_EQ(r.MountVM(web.vcUuid, vm, {}), 0);
    EXPECT_EQ(log.Count("DataReaderVSBase::MountVM: Mounting VM ["), 1u);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::MountVM: VM [" + web.vcUuid + "] Already Mounted"));
    EXPECT_EQ(r.m_vmNameMap[web.vcUuid], vm.mountCtx.sMountedPath);

    std::vector<std::string> datastores;
    for (const auto& d : Disks(r, vm)) datastores.push_back(d.sDatastore);
    std::sort(datastores.begin(), datastores.end());
    datastores.erase(std::unique(datastores.begin(), datastores.end()), datastores.end());
    EXPECT_EQ(datastores.size(), 2u);

    // Disk filters limit a mount to the named disks.
    DataReaderVMCtx one;
    ASSERT_EQ(r.MountVM(web.biosUuid, one, {web.disks.front().name}), 0);
    ASSERT_EQ(one.mountCtx.diskFilters.size(), 1u);
    const auto filtered = Disks(r, one);
    ASSERT_EQ(filtered.size(), 1u);
    EXPECT_EQ(filtered[0].sDiskName, web.disks.front().name);
}

TEST_F(Mounts, FileMountInfoFailureLeavesTheVMUnregistered) {
    vshost::settings::Set("VMInfoFaults", "GetFileMountInfo", "2");
    Probe r(&event, kJob);
    Ready(r, 102, 3);
    ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
    DataReaderVMCtx vm;
    EXPECT_EQ(r.MountVM("db01", vm, {}), -1);
    EXPECT_FALSE(r.GetVMMountContext("db01", vm));

    vshost::settings::Erase("VMInfoFaults", "GetFileMountInfo");
    ASSERT_EQ(r.MountVM("db01", vm, {}), 0);
    EXPECT_EQ(log.Count("DataReaderVSBase::MountVM: Mounting VM [db01]"), 2u);
    EXPECT_EQ(vm.mountCtx.nMountMode, 1);
    EXPECT_FALSE(vm.mountCtx.bPathMount);
    EXPECT_EQ(vm.mountInfoFiles.size(), sample.vm("db01").guestVolumeGuids.size());
    EXPECT_TRUE(r.GetVMMountContext("db01", vm));
}

TEST_F(Mounts, TemporaryMountPointsAreRemovedWithTheReader) {
    std::string kept;
    std::string neverMade;
    {
        Probe r(&event, kJob);
        Ready(r, 101);
        std::string four = sample.afileList + "|" + sample.afileList;  // more than the two closes of a deletion
        ASSERT_EQ(r.PreOpenArchiveFile(four.data()), 0);
        ASSERT_EQ(Open(r, sample.afileIds[0]), 0);
        DataReaderVMCtx vm;
        ASSERT_EQ(r.MountVM("web01", vm, {}), 0);
        ASSERT_EQ(r.MountVM("db01", vm, {}), 0);
        ASSERT_EQ(r.m_tempFolders.size(), 2u);
        kept = r.m_tempFolders[0];
        neverMade = r.m_tempFolders[1];
        EXPECT_EQ(kept, home.sub("JobResults/JobID_4711_Mount_web01"));
        fs::create_directories(kept + "/mnt");  // what a mount leaves behind
    }
    // Deleted with an archive file of its list still open: nothing else would unmount
    // the VMs and the snapshot or release the library's object, so the reader does.
    EXPECT_TRUE(log.Contains("Deleted with [2] archive file(s) still open: unmounting"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::UnMountAllMountedVMs: Unmounting VM [db01]"));
    EXPECT_TRUE(
        log.Contains("VMInfo::UnMountSnap: snapshot of job [" + std::to_string(sample.snapJobId) + "] unmounted"));
    EXPECT_FALSE(fs::exists(kept));
    EXPECT_TRUE(log.Contains("Cleaning up temp folder [" + kept + "]"));
    EXPECT_FALSE(log.Contains("[" + neverMade + "]"));
}

}  // namespace
