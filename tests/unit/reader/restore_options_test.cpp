#include "probe.h"
#include "temp_home.h"

#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/job.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr KTJobID kJob = 4711;

// One restore: applications in the catalog, a job with task options, and readers of
// that job.
class RestoreOptions : public ::testing::Test {
protected:
    void SetUp() override {
        m_ProxyDecryptedPassword = "unset";
        job.jobId = kJob;
        job.appId1 = 3;
        job.appId2 = 9;
        job.hasJobOptions = true;
    }
    void TearDown() override {
        vshost::UnregisterJob(kJob);
        m_ProxyDecryptedPassword.clear();
    }

    static vshost::AppRecord App(unsigned long appId2, int instanceType, const std::string& server,
                                 const std::string& snapMountEsx = "") {
        vshost::AppRecord app;
        app.appId1 = 3;
        app.appId2 = appId2;
        app.instanceType = instanceType;
        app.serverHostName = server;
        app.snapMountEsxServer = snapMountEsx;
        return app;
    }
    // Stores a credential record and returns its stored password.
    std::string Credential(unsigned long appId2, const std::string& server, const std::string& user,
                           const std::string& password) {
        SHostCredentials c;
        c.sServer = server;
        c.sUser = user;
        c.sPassword = password;
        catalog.AddCredential(3, appId2, c);
        for (const SHostCredentials& stored : catalog.Credentials(3, appId2))
            if (stored.sServer == server && stored.sUser == user) return stored.sPassword;
        return {};
    }

    // The settled options of a fresh reader of the job, settled as the open does
    // (application selected, list of one file), its four values starting as sentinels.
    struct Values {
        int rc;
        std::string vc, esx, user, password, plain;
        bool operator==(const Values&) const = default;
        friend std::ostream& operator<<(std::ostream& os, const Values& v) {
            return os << v.rc << " {" << v.vc << ", " << v.esx << ", " << v.user << ", " << v.password << ", "
                      << v.plain << "}";
        }
    };
    Values Settle(unsigned int snapEngine = 0) {
        vshost::RegisterJob(job);
        m_ProxyDecryptedPassword = "unset";
        Probe r(&event, kJob);
        r.SetSnapEngineID(snapEngine);
        r.m_sVCName = "keep-vc";
        r.m_sESXServerName = "keep-esx";
        r.m_sUserName = "keep-user";
        r.m_sPassword = "keep-pw";
        r.m_afileIds.push_back(AFileID{55});
        r.m_appMgr.setAppId(3, 9);
        const int rc = r.getInPlaceRestoreOptions(3, 9);
        return {rc, r.m_sVCName, r.m_sESXServerName, r.m_sUserName, r.m_sPassword, m_ProxyDecryptedPassword};
    }

    vstest::TempHome home;
    vshost::Catalog catalog;
    vshost::LogCapture log;
    vshost::JobDescription job;
    KtEvent event;
};

TEST_F(RestoreOptions, NoServerInTheTaskTakesTheDefaultRecords) {
    // No records at all: success, nothing changed but the task's empty server.
    catalog.AddApplication(App(9, 101, "vc1"));
    EXPECT_EQ(Settle(), (Values{1, "", "keep-esx", "keep-user", "keep-pw", "unset"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Default settings taken"));
    // A virtual-center instance takes its first record.
    const std::string stored = Credential(9, "vc1", "admin", "pw-1");
    job.taskOptions[82] = "esx-task";
    EXPECT_EQ(Settle(), (Values{1, "vc1", "esx-task", "admin", stored, "pw-1"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptionsVirtual Center Instance"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions server:[vc1]Username:[admin]"));
    // An ESX instance takes the record of the task's ESX host, and nothing when none matches.
    catalog.AddApplication(App(9, 100, "esxA"));
    const std::string storedB = Credential(9, "ESXB", "root", "pw-b");
    job.taskOptions[82] = "esxb";
    EXPECT_EQ(Settle(), (Values{1, "ESXB", "esxb", "root", storedB, "pw-b"}));
    job.taskOptions[82] = "";
    catalog.AddApplication(App(9, 100, "esxA", "esx-subclient"));
    EXPECT_EQ(Settle(), (Values{1, "", "esx-subclient", "keep-user", "keep-pw", "unset"}));
    EXPECT_TRUE(log.Contains("Snap mount proxy ESX server from Subclient [esx-subclient]"));
    // A failed snap failover query fails the options when proxy details are set.
    vshost::AppRecord failing = App(9, 101, "vc1");
    failing.proxyDetailsSet = true;
    failing.snapFailoverResult = 6;
    catalog.AddApplication(failing);
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Failed to get Snap Info Details"));
    // Without the ESX option the default walk fails.
    job.taskOptions.erase(82);
    catalog.AddApplication(App(9, 101, "vc1"));
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("optRstHostHostOrCluster name for this type of restore. Failing the restore"));
}

TEST_F(RestoreOptions, OwnServerWithATaskPasswordDecryptsIt) {
    catalog.AddApplication(App(9, 100, "vc1"));
    const std::string stored = vsAppMgr::encryptPassword(vstest::Secret("s3cret!"));
    job.taskOptions = {{77, "VC1"}, {82, "esx7"}, {75, "admin"}, {76, stored}};
    EXPECT_EQ(Settle(), (Values{1, "VC1", "esx7", "admin", stored, "s3cret!"}));
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:Pwd len:[" + std::to_string(stored.size()) + "]"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:Encrypted Password:[" + stored + "]"));
    EXPECT_FALSE(log.Contains("Receiving Job Options"));

    // A stored form that does not decrypt fails the options.
    job.taskOptions[76] = "bm90IGEgc3RvcmVkIGZvcm0=";
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptionsFailed to get the decrypted password"));

    // Each missing task option fails with its own line.
    for (const auto& [option, line] :
         {std::pair{76, "Failed to check the user password for this type of restore."},
          {75, "Failed to check the user id for this type of restore."},
          {82, "Failed to check the optRstHostHostOrCluster name for this type of restore."}}) {
        job.taskOptions.erase(option);
        log.Clear();
        EXPECT_EQ(Settle().rc, 0) << option;
        EXPECT_TRUE(log.Contains(line)) << option;
    }
}

TEST_F(RestoreOptions, EmptyTaskPasswordComesFromTheInstanceRecords) {
    // Debug level 0: every line asserted here must always appear.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    job.taskOptions = {{77, "vc1"}, {82, "esx7"}, {75, "admin"}, {76, ""}};
    job.instanceId = 12;

    // Instance type 100: job options loaded, no instance lookup, own records searched;
    // the task's user stays, an empty one is taken from the record.
    catalog.AddApplication(App(9, 100, "vc1"));
    Credential(9, "other", "x", "pw-x");
    const std::string own = Credential(9, "VC1", "svc", "pw-own");
    EXPECT_EQ(Settle(), (Values{1, "vc1", "esx7", "admin", own, "pw-own"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Receiving Job Options"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Getting the pwd from instance level"));
    EXPECT_FALSE(log.Contains("Instance Id got from the task xml"));
    job.taskOptions[75] = "";
    EXPECT_EQ(Settle(), (Values{1, "vc1", "esx7", "svc", own, "pw-own"}));

    // Instance type 301: the instance named by the job options holds the records.
    catalog.AddApplication(App(9, 301, "vc1"));
    catalog.AddApplication(App(12, 301, "vc1"));
    const std::string instance = Credential(12, "vc1", "inst-user", "pw-inst");
    EXPECT_EQ(Settle(), (Values{1, "vc1", "esx7", "inst-user", instance, "pw-inst"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Instance Id got from the task xml : 12 "));
    // Instance type 101 looks the instance up only when the restore options ask for it.
    catalog.AddApplication(App(9, 101, "vc1"));
    EXPECT_EQ(Settle().user, "svc");
    job.lookupInstanceFromTask = 1;
    EXPECT_EQ(Settle().user, "inst-user");
    // Failures: no instance id, an unknown instance, no job options.
    job.instanceId = 0;
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to get Instance Id from the task xml"));
    job.instanceId = 99;
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to credentials for Instance Id - 99."));
    job.hasJobOptions = false;
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to recieve the Job Options"));
}

TEST_F(RestoreOptions, CrossServerRestoresMountThroughTheSourceServer) {
    const std::string src = Credential(40, "vc-src", "src-user", "pw-src");
    const std::string dst = Credential(41, "vc-dst", "dst-user", "pw-dst");
    job.taskOptions = {{77, "vc-dst"}, {82, ""}, {75, "admin"}, {76, ""}};

    // Indexing V1: the subclient's proxy ESX host; the source server unless failback.
    catalog.AddApplication(App(9, 101, "vc-src", "esx-proxy"));
    EXPECT_EQ(Settle(), (Values{1, "vc-src", "esx-proxy", "src-user", src, "pw-src"}));
    EXPECT_TRUE(log.Contains("This is a cross-vc V1 snap restore - Source [vc-src] Dest [vc-dst]"));
    job.eventOptions[120015] = true;
    EXPECT_EQ(Settle(), (Values{1, "vc-dst", "esx-proxy", "dst-user", dst, "pw-dst"}));
    job.eventOptions.clear();

    // Indexing V2: a VM application without instance settings stands on its parent.
    vshost::AppRecord vm = App(9, 101, "", "");
    vm.hasSettings = false;
    vm.indexingV2 = true;
    vm.parentAppId = 5;
    vm.clientId = 7;
    vm.backupSetId = 8;
    catalog.AddApplication(vm);
    catalog.AddApplication(App(5, 101, "vc-src", "esx-parent"));
    EXPECT_EQ(Settle(), (Values{1, "vc-src", "esx-parent", "src-user", src, "pw-src"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions IndexingV2 enabled. Using parent instance."));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Fetched parentAppId [5] for vmAppId:[9]"));
    EXPECT_TRUE(log.Contains("This is a cross-vc V2 snap restore - Source [vc-src] Dest [vc-dst]"));
    job.eventOptions[120015] = true;
    EXPECT_EQ(Settle(), (Values{1, "vc-dst", "esx-parent", "dst-user", dst, "pw-dst"}));
    job.eventOptions.clear();

    // V2 restoring to the parent's own server: user and password from the task.
    job.taskOptions[77] = "VC-SRC";
    job.taskOptions[76] = vsAppMgr::encryptPassword(vstest::Secret("task-pw"));
    EXPECT_EQ(Settle(), (Values{1, "VC-SRC", "esx-parent", "admin", job.taskOptions[76], "task-pw"}));

    // A VM image snapshot under V2 mounts through the parent instance's server (the VM
    // application names none); a failback job keeps its destination.
    job.taskOptions[77] = "vc-dst";
    job.taskOptions[76] = "";
    EXPECT_EQ(Settle(59), (Values{1, "vc-src", "", "src-user", src, "pw-src"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: ESX server for mounting snap:[]"));
    job.eventOptions[120015] = true;
    EXPECT_EQ(Settle(58), (Values{1, "vc-dst", "esx-parent", "dst-user", dst, "pw-dst"}));
    job.eventOptions.clear();

    // A VM image snapshot of another server mounts through the instance's server at once.
    catalog.AddApplication(App(9, 101, "vc-src", "esx-proxy"));
    EXPECT_EQ(Settle(58), (Values{1, "vc-src", "", "src-user", src, "pw-src"}));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:User Login :[src-user]"));
}

TEST_F(RestoreOptions, SettingsFailuresFailTheOptions) {
    // Debug level 0: failures of option reading must always appear.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    // Unknown application: the indexing version cannot be asked.
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Failed to query indexing version."));
    // Instance settings missing without indexing V2 are not tolerated.
    vshost::AppRecord app = App(9, 101, "vc1");
    app.hasSettings = false;
    catalog.AddApplication(app);
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions App Mgr initialization phase failed"));
    // Under indexing V2 the backup set's settings decide.
    app.indexingV2 = true;
    app.backupSetSettings = false;
    catalog.AddApplication(app);
    EXPECT_EQ(Settle().rc, 0);
    EXPECT_TRUE(log.Contains("Failed to fetch parentAppId for vmAppId:[9]"));
}

}  // namespace
