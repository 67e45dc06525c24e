#include "probe.h"
#include "temp_home.h"

#include "hostapi/appmgr.h"
#include "vshost/catalog.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::vector<uint64_t> Ids(const Probe& r) {
    std::vector<uint64_t> ids;
    for (const AFileID& a : r.m_afileIds) ids.push_back(a.afileId);
    return ids;
}

// An application the catalog knows, so that the open can settle its restore options.
void AddApp(unsigned long appId1, unsigned long appId2) {
    vshost::AppRecord app;
    app.appId1 = appId1;
    app.appId2 = appId2;
    vshost::Catalog().AddApplication(app);
}

class ReaderLifecycle : public ::testing::Test {
protected:
    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
};

TEST_F(ReaderLifecycle, ArchiveFileListAndReferenceCount) {
    Probe r(&event);

    EXPECT_EQ(r.PreOpenArchiveFile(nullptr), 0);
    EXPECT_EQ(r.m_afileRefCount, 0);
    EXPECT_TRUE(r.m_afileIds.empty());

    std::string empty;
    EXPECT_EQ(r.PreOpenArchiveFile(empty.data()), -1);
    EXPECT_EQ(r.m_afileRefCount, 0);

    // Tokens that are not numbers still count, with id 0.
    std::string list = "12|x|14";
    EXPECT_EQ(r.PreOpenArchiveFile(list.data()), 0);
    EXPECT_EQ(Ids(r), (std::vector<uint64_t>{12, 0, 14}));
    EXPECT_EQ(r.m_afileRefCount, 3);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::PreOpenArchiveFile AFileList:[12|x|14]"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::PreOpenArchiveFile AFileList Ref Count:[3]"));

    // A list that was not closed stays; the count restarts with the new list.
    std::string more = "15|7abc";
    EXPECT_EQ(r.PreOpenArchiveFile(more.data()), 0);
    EXPECT_EQ(Ids(r), (std::vector<uint64_t>{12, 0, 14, 15, 7}));
    EXPECT_EQ(r.m_afileRefCount, 2);

    // Large ids are kept whole.
    Probe big(&event);
    std::string wide = "8589934593";
    EXPECT_EQ(big.PreOpenArchiveFile(wide.data()), 0);
    EXPECT_EQ(Ids(big), (std::vector<uint64_t>{8589934593ULL}));
}

TEST_F(ReaderLifecycle, CloseCountsDownAndUnmountsOnlyAtZero) {
    Probe r(&event);
    std::string list = "7|8|9";
    ASSERT_EQ(r.PreOpenArchiveFile(list.data()), 0);
    MountCtx snap;
    snap.afileIds = {7, 8, 9};
    snap.nClientId = 3;
    r.m_mountCtxs.push_back(snap);
    r.m_vmMountCtxMap["web01"] = DataReaderVMCtx{};
    r.m_processedSnapPaths["guid-1"] = true;

    EXPECT_EQ(r.Close(1), 0);
    EXPECT_EQ(r.Close(1), 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::Close AFileList Ref Count:[1]"));
    EXPECT_FALSE(log.Contains("Unmounting All VMs"));
    EXPECT_FALSE(log.Contains("UnMounting snapshot"));
    EXPECT_EQ(r.m_afileIds.size(), 3u);
    EXPECT_EQ(r.m_vmMountCtxMap.size(), 1u);

    EXPECT_EQ(r.Close(1), 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::Close AFileList Ref Count:[0]"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::UnMountAllMountedVMs: Unmounting VM [web01]"));
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::UnMountPath: UnMounting snapshot for archive file Id [7] cliendId [3]."));
    EXPECT_TRUE(r.m_afileIds.empty());
    EXPECT_TRUE(r.m_vmMountCtxMap.empty());
    EXPECT_TRUE(r.m_processedSnapPaths.empty());

    // At zero the count stays; the unmount steps run again on what is left.
    log.Clear();
    EXPECT_EQ(r.Close(1), 0);
    EXPECT_EQ(r.m_afileRefCount, 0);
    EXPECT_FALSE(log.Contains("Ref Count"));
    EXPECT_FALSE(log.Contains("Unmounting All VMs"));  // registry already empty: silent
    EXPECT_TRUE(log.Contains("UnMounting snapshot for archive file Id [7]"));
}

// The open settles the copy precedence from the catalog; with no list pre-opened it
// takes the archive file it opens as its list.
TEST_F(ReaderLifecycle, OpenWithoutListAddsTheOpenedArchiveFileAndSettlesTheCopyPrecedence) {
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "2");
    AddApp(3, 9);
    vshost::Catalog().AddCopy(4, 2, 7);
    Probe r(&event);
    ASSERT_EQ(r.Initialize(), 0);
    r.m_bSnapRestore = false;

    DMInitParams init;
    init.appId1 = 3;
    init.appId2 = 9;
    init.jobId = 4711;
    DMOpenArchiveParams open;
    open.archiveFileId = 55;
    open.archGroupId = 4;
    open.copyId = 2;
    EXPECT_EQ(r.OpenArchiveFile(init, open), 0);
    EXPECT_EQ(Ids(r), (std::vector<uint64_t>{55}));
    EXPECT_EQ(r.m_afileRefCount, 1);
    EXPECT_TRUE(log.Contains("App ID String : [3:9]."));
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::OpenArchiveFile: ArchiveFileIDList found empty. Adding archFileId: [55]"));
    EXPECT_TRUE(log.Contains("Non-snap restore"));
    EXPECT_NE(r.m_pVMInfo, nullptr);
    EXPECT_EQ(r.GetCopyPrecedence(), 7u);
    EXPECT_TRUE(log.Contains("Converting Copy ID: [2], ArchGroup: [4]"));
    EXPECT_TRUE(log.Contains("Copy Precedence: [7]"));

    // The next open of the same list does not add it again.
    open.copyId = 3;
    EXPECT_EQ(r.OpenArchiveFile(init, open), 0);
    EXPECT_EQ(r.m_afileRefCount, 1);
    // Even with the reader's lines turned off, the failure line appears.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    log.Clear();
    EXPECT_EQ(r.GetCopyPrecedence(), 0u);
    EXPECT_TRUE(log.Contains("Failed to convert to copy precedence. Return: ["));
    EXPECT_FALSE(log.Contains("Converting Copy ID"));

    EXPECT_EQ(r.Close(1), 0);
    EXPECT_EQ(r.m_pVMInfo, nullptr);
    EXPECT_TRUE(r.m_afileIds.empty());
}

TEST_F(ReaderLifecycle, OpenFailuresReleaseTheVMInfoObjectOnlyOnMountFailure) {
    vshost::Catalog catalog;
    vshost::AppRecord app;
    app.appId1 = 3;
    app.appId2 = 9;
    app.indexingV2 = true;
    catalog.AddApplication(app);

    DMInitParams init;
    init.appId1 = 3;
    init.appId2 = 9;
    DMOpenArchiveParams open;
    open.archiveFileId = 55;

    // Indexing V2 with an archive file the catalog does not know: the object stays.
    Probe unknown(&event);
    ASSERT_EQ(unknown.Initialize(), 0);
    EXPECT_EQ(unknown.OpenArchiveFile(init, open), -1);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::OpenArchiveFile: Failed to get archive file info for Archive file: [55]"));
    EXPECT_NE(unknown.m_pVMInfo, nullptr);

    // A failed snapshot mount releases it.
    vshost::ArchiveFileRecord afile;
    afile.afileId = 55;
    afile.appId2 = 9;
    afile.backupJobId = 900;
    catalog.AddArchiveFile(afile);
    Probe mountFails(&event);
    ASSERT_EQ(mountFails.Initialize(), 0);
    EXPECT_EQ(mountFails.OpenArchiveFile(init, open), -1);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::OpenArchiveFile: Failed to mount path to read data."));
    EXPECT_EQ(mountFails.m_pVMInfo, nullptr);
}

TEST_F(ReaderLifecycle, InitializeNeedsEventResultsAndBaseDirectories) {
    {
        Probe r(nullptr);
        EXPECT_EQ(r.Initialize(), -1);
        EXPECT_TRUE(log.Contains("Invalid KtEvent pointer passed in."));
    }
    const std::string missing = home.sub("no-such-results");
    const std::string noDir = "Job Results directory path is empty, or it does not exist. Path: [";
    const std::tuple<const char*, std::string, std::string> unset[] = {
        {"sJobResultsDir", "", noDir + "]"},
        {"sJobResultsDir", missing, noDir + missing + "]"},
        {"sBaseDir", home.sub("no-such-base"), "Failed to Lookup Tessel Base Directory Error using KTPI_Base."},
    };
    for (const auto& [key, value, says] : unset) {
        vshost::settings::Set("Host", key, value);
        Probe r(&event);
        EXPECT_EQ(r.Initialize(), -1) << says;
        EXPECT_TRUE(log.Contains(says)) << says;
        vshost::settings::Erase("Host", key);
    }
    {
        // A writer that could not attach is not kept: the open fails before the mount.
        DataReaderVSExtent noPipe(nullptr, &event, 4711);
        EXPECT_EQ(noPipe.Initialize(), ~0);
        EXPECT_TRUE(log.Contains("Failed to attach to KTArchive to pipeline."));
        log.Clear();
        EXPECT_EQ(noPipe.OpenArchiveFile(DMInitParams{}, DMOpenArchiveParams{}), ~0);
        EXPECT_FALSE(log.Contains("App ID String"));
    }
    vshost::settings::Set("Host", "sHubServerHostName", "hub.example");
    Probe r(&event);
    log.Clear();
    EXPECT_EQ(r.Initialize(), 0);
    EXPECT_EQ(r.m_sJobResultsDir, home.sub("JobResults") + "/");
    EXPECT_EQ(r.m_sHubServerHostName, "hub.example");
    EXPECT_FALSE(log.Contains("Failed to dynamically load VMInfo library."));
}

TEST_F(ReaderLifecycle, SnapEngineIsSetOnceAndPredicatesMatchTheirSets) {
    Probe r(&event);
    EXPECT_EQ(r.SetSnapEngineID(0), 0);
    EXPECT_EQ(r.m_snapEngineId, 0u);  // 0 leaves it unset
    EXPECT_EQ(r.SetSnapEngineID(5), 0);
    EXPECT_EQ(r.SetSnapEngineID(5), 0);
    EXPECT_EQ(r.SetSnapEngineID(6), -1);
    EXPECT_EQ(r.m_snapEngineId, 5u);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::SetSnapEngineID:[ERROR] Reader doesn't support multiple snap-engines.[5] [6]"));

    for (unsigned id = 0; id < 200; ++id) {
        const bool vvol = id == 58 || id == 59;
        const bool centric = id == 66 || id == 77 || id == 82;
        EXPECT_EQ(DataReaderVSBase::IsVVOLEngine(id), vvol) << id;
        EXPECT_EQ(DataReaderVSBase::isVMImageSnap(static_cast<int>(id)), vvol) << id;
        EXPECT_EQ(DataReaderVSBase::IsVMCentricSnapEngine(id), centric) << id;
    }
}

TEST_F(ReaderLifecycle, StopSignalAndSetters) {
    Probe noEvent(nullptr);
    EXPECT_FALSE(noEvent.IsStopSignaled());

    Probe r(&event);
    EXPECT_FALSE(r.IsStopSignaled());
    event.set();
    EXPECT_TRUE(r.IsStopSignaled());
    EXPECT_TRUE(log.Contains("DataReaderVSBase::IsStopSignaled: Stop signaled by FsRestoreHead."));

    // A missing or empty name leaves the one set.
    r.setShortClientName("ma01");
    r.setShortClientName(nullptr);
    r.setShortClientName("");
    EXPECT_EQ(r.m_sShortClientName, "ma01");
}

// The destructor removes a results folder only when its last component reads as this
// job's id, only for instance type 102; temporary folders and files always go.
TEST_F(ReaderLifecycle, DestructorRemovesOnlyThisJobsResultsFolder) {
    struct Case {
        const char* folder;
        int instanceType;
        long long jobId;
        bool removed;
    };
    const Case cases[] = {
        {"12345", 102, 12345, true},  {"12345", 101, 12345, false}, {"12345", 102, 999, false},
        {"12345x", 102, 12345, true}, {"abc", 102, 12345, false},   {"0", 102, 0, false},
    };
    for (const Case& c : cases) {
        const std::string folder = home.sub(std::string("JobResults/") + c.folder);
        fs::create_directories(folder + "/inner");
        std::ofstream(folder + "/inner/state.xml") << "x";
        {
            Probe r(&event);
            r.setVSInstanceType(static_cast<VirtualServerInstanceType>(c.instanceType));
            r.m_initParams.jobId = c.jobId;
            r.m_sJobResultsFolder = folder + "/";
        }
        EXPECT_EQ(!fs::exists(folder), c.removed) << c.folder << " type " << c.instanceType << " job " << c.jobId;
        fs::remove_all(folder);
    }

    // Temporary folders and files go; anything recorded outside the job results
    // directory (a VM name spelling "..") stays.
    const std::string dir = home.sub("JobResults/tmpmount");
    const std::string file = home.sub("JobResults/collect.txt");
    const std::string outside = home.sub("mine");
    fs::create_directories(dir + "/sub");
    fs::create_directories(outside);
    std::ofstream(file) << "x";
    {
        Probe r(&event);
        r.m_tempFolders = {dir, file, home.sub("JobResults/never-made"), home.sub("JobResults/x/../../mine"), outside};
        fs::create_directories(home.sub("JobResults/x"));
    }
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(fs::exists(outside));
    EXPECT_EQ(log.Count("lies outside the job results folder"), 2u);
    EXPECT_TRUE(log.Contains("Cleaning up temp folder [" + dir + "]"));
    EXPECT_TRUE(log.Contains("Cleaning up file [" + file + "]"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase deleted successfully."));
}

// Mount point names and their clean-up are checked with real mounts (mount_test); here a
// folder that cannot be removed, and the disk filters of a restore.
TEST_F(ReaderLifecycle, TempMountPointRemovalFailureAndDiskFilters) {
    Probe r(&event);
    ASSERT_EQ(r.Initialize(), 0);
    const std::string name = r.CreateTempMountPointDirectory("web01");
    fs::create_directories(name + "/busy");
    r.DeleteTempMountPointDirectory(name);
    EXPECT_TRUE(fs::exists(name));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::DeleteTempMountPoint: While removing tmp mountpoint [" + name +
                             "], CQiDirectory::Remove failed, error="));

    std::vector<SDiskFilter> filters(1);
    filters[0].sDiskName = "kept";
    EXPECT_TRUE(r.GetDiskFiltersForRestore(filters, {}));
    ASSERT_EQ(filters.size(), 1u);
    EXPECT_EQ(filters[0].sDiskName, "kept");
    EXPECT_TRUE(r.GetDiskFiltersForRestore(filters, {"disk-a", "disk-b"}));
    ASSERT_EQ(filters.size(), 2u);
    EXPECT_EQ(filters[1].sDiskName, "disk-b");
    EXPECT_EQ(filters[1].nFilterType, 7);
}

TEST_F(ReaderLifecycle, SnapMountPathJoinsTheFourValuesAndPrintsThemWithoutThePassword) {
    Probe r(&event);
    EXPECT_EQ(r.getSnapMountPath(), "{vcname:,esxname:,username:,password:}");
    r.PrintSnapMountPath(r.getSnapMountPath());
    EXPECT_TRUE(log.Contains("DataReaderVSBase::PrintSnapMountPath: MountPath VC:[] ESX:[] User:[][0]"));

    r.m_sVCName = "vc1";
    r.m_sESXServerName = "esx7";
    r.m_sUserName = "DOM\\admin";
    r.m_sPassword = "c3RvcmVk";
    const std::string path = r.getSnapMountPath();
    EXPECT_EQ(path, "{vcname:vc1,esxname:esx7,username:DOM\\admin,password:c3RvcmVk}");
    r.PrintSnapMountPath(path);
    EXPECT_TRUE(log.Contains("MountPath VC:[vc1] ESX:[esx7] User:[DOM\\admin][8]"));

    // Values are not escaped: a "," ends the VC when printed, a "}" ends the password.
    r.m_sVCName = "vc,1";
    r.m_sPassword = "ab}cd";
    r.PrintSnapMountPath(r.getSnapMountPath());
    EXPECT_TRUE(log.Contains("MountPath VC:[vc] ESX:[esx7] User:[DOM\\admin][2]"));

    // Missing markers leave their fields empty; the others are still read.
    r.PrintSnapMountPath("{vcname:only,password:xyz}");
    EXPECT_TRUE(log.Contains("MountPath VC:[only] ESX:[] User:[][3]"));
    for (const std::string& line : log.Lines()) EXPECT_EQ(line.find("c3RvcmVk"), std::string::npos) << line;
}

}  // namespace
