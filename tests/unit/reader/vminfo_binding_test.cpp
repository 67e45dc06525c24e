#include "probe.h"
#include "temp_home.h"

#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/job.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class VMInfoBinding : public ::testing::Test {
protected:
    void SetUp() override {
        vshost::settings::Set("Log", "nVMINFO", "2");
        App(0, "");
        m_ProxyDecryptedPassword.clear();
    }
    void TearDown() override {
        vshost::UnregisterJob(kJob);
        m_ProxyDecryptedPassword.clear();
    }

    // The application 3:9 the reader opens.
    void App(int instanceType, const std::string& server) {
        vshost::AppRecord app;
        app.appId1 = 3;
        app.appId2 = 9;
        app.instanceType = instanceType;
        app.serverHostName = server;
        catalog.AddApplication(app);
    }
    // The job's task names the server, ESX host, user and stored password.
    void Task(int instanceType, const std::string& server, const std::string& user, const std::string& password) {
        App(instanceType, server);
        vshost::JobDescription job;
        job.jobId = kJob;
        job.taskOptions = {
            {77, server}, {82, "esx1"}, {75, user}, {76, vsAppMgr::encryptPassword(vstest::Secret(password))}};
        vshost::RegisterJob(job);
    }

    static constexpr KTJobID kJob = 4711;

    // A reader of `instanceType` with the application selected, ready to prepare.
    void Ready(Probe& r, int instanceType) {
        ASSERT_EQ(r.Initialize(), 0);
        r.setVSInstanceType(static_cast<VirtualServerInstanceType>(instanceType));
        r.m_bSnapRestore = false;
    }

    void AddCredential(const std::string& host, const std::string& server, const std::string& user,
                       const std::string& password) {
        SHostCredentials c;
        c.sHost = host;
        c.sServer = server;
        c.sUser = user;
        c.sPassword = password;
        catalog.AddCredential(3, 9, c);
    }

    vstest::TempHome home;
    vshost::Catalog catalog;
    vshost::LogCapture log;
    KtEvent event;
};

// Opens the application so that the reader's application manager selects it.
int Open(Probe& r) {
    DMInitParams init;
    init.appId1 = 3;
    init.appId2 = 9;
    return r.OpenArchiveFile(init, DMOpenArchiveParams{});
}

TEST_F(VMInfoBinding, ServerlessInstanceTypeConnectsWithoutCredentials) {
    Task(102, "vc1", "admin", "pw-102");  // settled, but not used by this instance type
    Probe r(&event, kJob);
    Ready(r, 102);
    ASSERT_EQ(Open(r), 0);
    EXPECT_EQ(r.m_sVCName, "vc1");
    EXPECT_EQ(m_ProxyDecryptedPassword, "pw-102");
    EXPECT_TRUE(log.Contains("VMInfo::Connect: server [] user [] password length [0] host records [0]"));

    // Idempotent: a second prepare keeps the object and makes no new one.
    IVMInfo* first = r.m_pVMInfo;
    EXPECT_TRUE(r.PrepareVMInfoObject());
    EXPECT_EQ(r.m_pVMInfo, first);
    EXPECT_EQ(log.Count("VMInfo: created for instance type [102]"), 1u);

    r.CleanupVMInfoObject();
    r.CleanupVMInfoObject();
    EXPECT_EQ(r.m_pVMInfo, nullptr);
    EXPECT_EQ(log.Count("VMInfo: released"), 1u);
}

TEST_F(VMInfoBinding, ServerInstanceTypesUseTheTaskCredentialsCheckedByTheLibrary) {
    AddCredential("esx1", "vc1", "admin", "s3cret!");
    {
        Task(100, "vc1", "admin", "s3cret!");
        Probe r(&event, kJob);
        Ready(r, 100);
        ASSERT_EQ(Open(r), 0);
        EXPECT_TRUE(log.Contains("VMInfo::Connect: server [vc1] user [admin] password length [7] host records [1]"));
    }
    {
        Task(101, "vc1", "admin", "wrong");
        Probe r(&event, kJob);
        Ready(r, 101);
        EXPECT_EQ(Open(r), -1);
        EXPECT_TRUE(log.Contains("VMInfo::Connect: credentials rejected for server [vc1] user [admin]"));
        EXPECT_TRUE(log.Contains("DataReaderVSBase::PrepareVMInfoObject: IVMInfo::Connect() failed."));
        EXPECT_EQ(r.m_pVMInfo, nullptr);
    }
}

TEST_F(VMInfoBinding, CredentialListSuppliesServerForAzureAndAllForType1501) {
    AddCredential("host-a", "azure-sub", "app-user", "app-pass");
    AddCredential("host-b", "other", "u2", "p2");
    {
        // The task's server is replaced by the first record's; user and password stay.
        Task(402, "vc-task", "app-user", "app-pass");
        Probe r(&event, kJob);
        Ready(r, 402);
        ASSERT_EQ(Open(r), 0);
        EXPECT_TRUE(log.Contains("DataReaderVSBase::PrepareVMInfoObject: Setting Server for Azure [azure-sub]"));
        EXPECT_TRUE(log.Contains("server [azure-sub] user [app-user] password length [8] host records [2]"));
    }
    {
        Task(1501, "vc-task", "task-user", "task-pass");
        Probe r(&event, kJob);
        Ready(r, 1501);
        ASSERT_EQ(Open(r), 0);
        EXPECT_TRUE(log.Contains("server [azure-sub] user [app-user] password length [8] host records [2]"));
    }
}

TEST_F(VMInfoBinding, BlockLevelReaderIsInitialisedButNeverConnected) {
    Task(100, "vc-unknown", "nobody", "nothing");
    Probe r(&event, kJob);
    Ready(r, 100);
    r.setVSBlockLevel(true);
    ASSERT_EQ(Open(r), 0);
    EXPECT_NE(r.m_pVMInfo, nullptr);
    EXPECT_TRUE(log.Contains("VMInfo::Init: flags [0]"));
    EXPECT_FALSE(log.Contains("VMInfo::Connect"));
}

TEST_F(VMInfoBinding, InjectedLibraryFailuresReleaseTheObject) {
    vshost::settings::Set("VMInfoFaults", "Init", "5");
    Probe r(&event);
    Ready(r, 102);
    EXPECT_EQ(Open(r), -1);
    EXPECT_TRUE(log.Contains("DataReaderVSBase::PrepareVMInfoObject: IVMInfo::Init() failed."));
    EXPECT_EQ(r.m_pVMInfo, nullptr);
    EXPECT_EQ(log.Count("VMInfo: released"), 1u);

    vshost::settings::Erase("VMInfoFaults", "Init");
    vshost::settings::Set("VMInfoFaults", "Connect", "19");
    EXPECT_EQ(Open(r), -1);
    EXPECT_TRUE(log.Contains("VMInfo::Connect: failing with injected error [19]"));
    EXPECT_EQ(log.Count("VMInfo: released"), 2u);

    vshost::settings::Erase("VMInfoFaults", "Connect");
    EXPECT_EQ(Open(r), 0);
    EXPECT_NE(r.m_pVMInfo, nullptr);
}

}  // namespace
