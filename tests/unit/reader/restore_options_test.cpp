#include "probe.h"
#include "temp_home.h"

#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/job.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr KTJobID kJob = 4711;

// One restore: applications in the catalog, a job with task options, and a reader of
// that job whose four values start as sentinels.
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

    // Settles the options as the open does: application selected, list of one file.
    int Settle(Probe& r, unsigned int snapEngine = 0) {
        vshost::RegisterJob(job);
        m_ProxyDecryptedPassword = "unset";
        r.SetSnapEngineID(snapEngine);
        r.m_sVCName = "keep-vc";
        r.m_sESXServerName = "keep-esx";
        r.m_sUserName = "keep-user";
        r.m_sPassword = "keep-pw";
        AFileID afile;
        afile.afileId = 55;
        r.m_afileIds.push_back(afile);
        r.m_appMgr.setAppId(3, 9);
        return r.getInPlaceRestoreOptions(3, 9);
    }

    struct Values {
        std::string vc, esx, user, password, plain;
        bool operator==(const Values&) const = default;
    };
    static Values Of(Probe& r) {
        return {r.m_sVCName, r.m_sESXServerName, r.m_sUserName, r.m_sPassword, m_ProxyDecryptedPassword};
    }
    friend std::ostream& operator<<(std::ostream& os, const Values& v) {
        return os << "{" << v.vc << ", " << v.esx << ", " << v.user << ", " << v.password << ", " << v.plain << "}";
    }

    vstest::TempHome home;
    vshost::Catalog catalog;
    vshost::LogCapture log;
    vshost::JobDescription job;
    KtEvent event;
};

TEST_F(RestoreOptions, NoServerInTheTaskTakesTheDefaultRecords) {
    // No records at all: success, nothing changed.
    catalog.AddApplication(App(9, 101, "vc1"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"", "keep-esx", "keep-user", "keep-pw", "unset"}));  // the task's empty server
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Default settings taken"));
    }
    // A virtual-center instance takes its first record.
    const std::string stored = Credential(9, "vc1", "admin", "pw-1");
    job.taskOptions[82] = "esx-task";
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc1", "esx-task", "admin", stored, "pw-1"}));
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptionsVirtual Center Instance"));
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions server:[vc1]Username:[admin]"));
    }
    // An ESX instance takes the record of the task's ESX host, and nothing when none matches.
    catalog.AddApplication(App(9, 100, "esxA"));
    const std::string storedB = Credential(9, "ESXB", "root", "pw-b");
    job.taskOptions[82] = "esxb";
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"ESXB", "esxb", "root", storedB, "pw-b"}));
    }
    job.taskOptions[82] = "";
    catalog.AddApplication(App(9, 100, "esxA", "esx-subclient"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"", "esx-subclient", "keep-user", "keep-pw", "unset"}));
        EXPECT_TRUE(log.Contains("Snap mount proxy ESX server from Subclient [esx-subclient]"));
    }
    // A failed snap failover query fails the options when proxy details are set.
    vshost::AppRecord failing = App(9, 101, "vc1");
    failing.proxyDetailsSet = true;
    failing.snapFailoverResult = 6;
    catalog.AddApplication(failing);
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Failed to get Snap Info Details"));
    }
    // Without the ESX option the default walk fails.
    job.taskOptions.erase(82);
    catalog.AddApplication(App(9, 101, "vc1"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("optRstHostHostOrCluster name for this type of restore. Failing the restore"));
    }
}

TEST_F(RestoreOptions, OwnServerWithATaskPasswordDecryptsIt) {
    catalog.AddApplication(App(9, 100, "vc1"));
    const std::string stored = vsAppMgr::encryptPassword(vstest::Secret("s3cret!"));
    job.taskOptions = {{77, "VC1"}, {82, "esx7"}, {75, "admin"}, {76, stored}};
    Probe r(&event, kJob);
    EXPECT_EQ(Settle(r), 1);
    EXPECT_EQ(Of(r), (Values{"VC1", "esx7", "admin", stored, "s3cret!"}));
    EXPECT_TRUE(
        log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:Pwd len:[" + std::to_string(stored.size()) + "]"));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:Encrypted Password:[" + stored + "]"));
    EXPECT_FALSE(log.Contains("Receiving Job Options"));
    EXPECT_FALSE(log.Contains("s3cret!"));

    // A stored form that does not decrypt fails the options.
    job.taskOptions[76] = "bm90IGEgc3RvcmVkIGZvcm0=";
    Probe bad(&event, kJob);
    EXPECT_EQ(Settle(bad), 0);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptionsFailed to get the decrypted password"));

    // Each missing task option fails with its own line.
    for (int option : {76, 75, 82}) {
        job.taskOptions.erase(option);
        Probe missing(&event, kJob);
        EXPECT_EQ(Settle(missing), 0) << option;
    }
    EXPECT_TRUE(log.Contains("Failed to check the user password for this type of restore. Failing the restore"));
    EXPECT_TRUE(log.Contains("Failed to check the user id for this type of restore. Failing the restore"));
    EXPECT_TRUE(log.Contains("Failed to check the optRstHostHostOrCluster name for this type of restore."));
}

TEST_F(RestoreOptions, EmptyTaskPasswordComesFromTheInstanceRecords) {
    // Debug level 0: every line asserted here must always appear.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    job.taskOptions = {{77, "vc1"}, {82, "esx7"}, {75, "admin"}, {76, ""}};
    job.instanceId = 12;

    // Instance type 100: job options loaded, no instance lookup, own records searched.
    catalog.AddApplication(App(9, 100, "vc1"));
    Credential(9, "other", "x", "pw-x");
    const std::string own = Credential(9, "VC1", "svc", "pw-own");
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc1", "esx7", "admin", own, "pw-own"}));  // the task's user stays
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Receiving Job Options"));
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Getting the pwd from instance level"));
        EXPECT_FALSE(log.Contains("Instance Id got from the task xml"));
    }
    // An empty task user is taken from the record.
    job.taskOptions[75] = "";
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(r.m_sUserName, "svc");
    }

    // Instance type 301: the instance named by the job options holds the records.
    catalog.AddApplication(App(9, 301, "vc1"));
    catalog.AddApplication(App(12, 301, "vc1"));
    const std::string instance = Credential(12, "vc1", "inst-user", "pw-inst");
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc1", "esx7", "inst-user", instance, "pw-inst"}));
        EXPECT_TRUE(
            log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Instance Id got from the task xml : 12 "));
    }
    // Instance type 101 looks the instance up only when the restore options ask for it.
    catalog.AddApplication(App(9, 101, "vc1"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(r.m_sUserName, "svc");
    }
    job.lookupInstanceFromTask = 1;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(r.m_sUserName, "inst-user");
    }
    // Failures: no instance id, an unknown instance, no job options.
    job.instanceId = 0;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(
            log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to get Instance Id from the task xml"));
    }
    job.instanceId = 99;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(
            log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to credentials for Instance Id - 99."));
    }
    job.hasJobOptions = false;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Failed to recieve the Job Options"));
    }
}

TEST_F(RestoreOptions, CrossServerRestoresMountThroughTheSourceServer) {
    const std::string src = Credential(40, "vc-src", "src-user", "pw-src");
    const std::string dst = Credential(41, "vc-dst", "dst-user", "pw-dst");
    job.taskOptions = {{77, "vc-dst"}, {82, ""}, {75, "admin"}, {76, ""}};

    // Indexing V1: the subclient's proxy ESX host; the source server unless failback.
    catalog.AddApplication(App(9, 101, "vc-src", "esx-proxy"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc-src", "esx-proxy", "src-user", src, "pw-src"}));
        EXPECT_TRUE(log.Contains("This is a cross-vc V1 snap restore - Source [vc-src] Dest [vc-dst]"));
    }
    job.eventOptions[120015] = true;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc-dst", "esx-proxy", "dst-user", dst, "pw-dst"}));
    }
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
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(Of(r), (Values{"vc-src", "esx-parent", "src-user", src, "pw-src"}));
        EXPECT_TRUE(
            log.Contains("DataReaderVSBase::getInPlaceRestoreOptions IndexingV2 enabled. Using parent instance."));
        EXPECT_TRUE(
            log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: Fetched parentAppId [5] for vmAppId:[9]"));
        EXPECT_TRUE(log.Contains("This is a cross-vc V2 snap restore - Source [vc-src] Dest [vc-dst]"));
    }
    job.eventOptions[120015] = true;
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(r.m_sVCName, "vc-dst");
        EXPECT_EQ(r.m_sUserName, "dst-user");
    }
    job.eventOptions.clear();

    // V2 restoring to the parent's own server: user and password from the task.
    job.taskOptions[77] = "VC-SRC";
    job.taskOptions[76] = vsAppMgr::encryptPassword(vstest::Secret("task-pw"));
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 1);
        EXPECT_EQ(r.m_sVCName, "VC-SRC");
        EXPECT_EQ(r.m_sESXServerName, "esx-parent");
        EXPECT_EQ(m_ProxyDecryptedPassword, "task-pw");
    }

    // A VM image snapshot under V2 mounts through the parent instance's server (the VM
    // application names none); a failback job keeps its destination.
    job.taskOptions[77] = "vc-dst";
    job.taskOptions[76] = "";
    for (const bool failback : {false, true}) {
        if (failback) job.eventOptions[120015] = true;
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r, failback ? 58 : 59), 1);
        if (failback) {
            EXPECT_EQ(Of(r), (Values{"vc-dst", "esx-parent", "dst-user", dst, "pw-dst"}));
        } else {
            EXPECT_EQ(Of(r), (Values{"vc-src", "", "src-user", src, "pw-src"}));
            EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions: ESX server for mounting snap:[]"));
        }
    }
    job.eventOptions.clear();

    // A VM image snapshot of another server mounts through the instance's server at once.
    catalog.AddApplication(App(9, 101, "vc-src", "esx-proxy"));
    job.taskOptions[77] = "vc-dst";
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r, 58), 1);
        EXPECT_EQ(Of(r), (Values{"vc-src", "", "src-user", src, "pw-src"}));
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions:User Login :[src-user]"));
    }
}

TEST_F(RestoreOptions, SettingsFailuresFailTheOptions) {
    // Debug level 0: failures of option reading must always appear.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    // Unknown application: the indexing version cannot be asked.
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions Failed to query indexing version."));
    }
    // Instance settings missing without indexing V2 are not tolerated.
    vshost::AppRecord app = App(9, 101, "vc1");
    app.hasSettings = false;
    catalog.AddApplication(app);
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::getInPlaceRestoreOptions App Mgr initialization phase failed"));
    }
    // Under indexing V2 the backup set's settings decide.
    app.indexingV2 = true;
    app.backupSetSettings = false;
    catalog.AddApplication(app);
    {
        Probe r(&event, kJob);
        EXPECT_EQ(Settle(r), 0);
        EXPECT_TRUE(log.Contains("Failed to fetch parentAppId for vmAppId:[9]"));
    }
}

}  // namespace
