// Catalog and the managers that answer the plug-in from it.
#include "vshost/catalog.h"
#include "hostapi/appmgr.h"
#include "hostapi/armgr.h"
#include "temp_home.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>
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
}  // namespace

TEST(CatalogTest, ClientsAndMissingHome) {
    vshost::CloseHome();  // also rules out a $VSHOST_HOME of the caller
    unsigned long id = 55;
    std::vector<SHostCredentials> hosts;
    GetAfileInfoRetCC_t answer;
    EXPECT_THROW(vshost::Catalog(), std::runtime_error);
    EXPECT_EQ(KTClient(0, "c", false, 0).getClientId(id), EIO);
    EXPECT_EQ(ArMgrClientAPI::getAfileInfo(GetAfileInfoReq{}, answer), EIO);
    EXPECT_NE(vsAppMgr().getCredentials(nullptr, hosts), 0);
    EXPECT_FALSE(vsAppMgr().isUseIndexingV2Enabled());

    vstest::TempHome home;
    vshost::Catalog().AddClient(7, "VmProxy01");
    vshost::Catalog cat;  // a second open finds schema and data in place
    EXPECT_EQ(cat.ClientId("vmPROXY01"), 7ul);
    EXPECT_THROW(cat.AddClient(9, "VMPROXY01"), std::runtime_error);
    EXPECT_EQ(KTClient(0, "VMPROXY01", false, 0).getClientId(id), 0);
    EXPECT_EQ(id, 7ul);
    id = 55;
    EXPECT_EQ(KTClient(0, "VmProxy0", false, 0).getClientId(id), ENOENT);
    EXPECT_EQ(KTClient(0, "x' OR '1'='1", false, 0).getClientId(id), ENOENT);
    EXPECT_EQ(id, 55ul);
}

TEST(CatalogTest, CredentialsKeepOrderAndDecrypt) {
    vstest::TempHome home;
    vshost::Catalog cat;
    vshost::AppRecord app;
    app.appId1 = 1;
    app.appId2 = 2;
    app.instanceType = 1;
    app.serverHostName = "vc01";
    app.snapMountEsxServer = "esx09";
    app.indexingV2 = true;
    cat.AddApplication(app);
    cat.AddCredential(1, 2, Cred("h1", "vc01", vstest::Secret("pw-one")));
    cat.AddCredential(1, 3, Cred("hx", "VC01", "pw-x"));
    cat.AddCredential(1, 2, Cred("h2", "esx02", vstest::Secret("pw-two"), 2));
    cat.AddCredential(1, 2, Cred("h3", "esx03", ""));
    auto stored = cat.Credentials(1, 2);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_NE(stored[0].sPassword, "pw-one");  // kept encrypted
    auto forServer = cat.CredentialsForServer("vc01");
    ASSERT_EQ(forServer.size(), 2u);
    EXPECT_EQ(forServer[1].sHost, "hx");

    vsAppMgr mgr;
    mgr.setAppId(1, 2);
    EXPECT_TRUE(mgr.isUseIndexingV2Enabled());
    vsAppMgrServerCredentials server;
    std::vector<SHostCredentials> hosts = {Cred("stale", "", "")};
    ASSERT_EQ(mgr.getCredentials(&server, hosts), 0);
    EXPECT_EQ(hosts,
              (std::vector{Cred("h1", "vc01", "pw-one"), Cred("h2", "esx02", "pw-two", 2), Cred("h3", "esx03", "")}));
    EXPECT_EQ(server.sServer + " " + server.sUser + " " + server.sPassword, "vc01 u-h1 pw-one");

    mgr.setAppId(4, 4);  // an application without records is no error
    EXPECT_FALSE(mgr.isUseIndexingV2Enabled());
    EXPECT_EQ(mgr.getCredentials(&server, hosts), 0);
    EXPECT_TRUE(hosts.empty());
}

TEST(CatalogTest, UndecryptablePasswordFailsWholeList) {
    vstest::TempHome first;
    vshost::Catalog().AddCredential(1, 2, Cred("h1", "vc01", "pw"));
    vstest::TempHome second;  // another key
    std::filesystem::copy_file(first.sub("catalog.db"), second.sub("catalog.db"),
                               std::filesystem::copy_options::overwrite_existing);
    vshost::LogCapture cap;
    vsAppMgr mgr;
    mgr.setAppId(1, 2);
    std::vector<SHostCredentials> hosts = {Cred("stale", "", "")};
    EXPECT_NE(mgr.getCredentials(nullptr, hosts), 0);
    EXPECT_TRUE(hosts.empty());
    EXPECT_TRUE(cap.Contains("stored password of server [vc01] does not decrypt"));
}

TEST(CatalogTest, ArchiveFilesAndCopies) {
    vstest::TempHome home;
    vshost::Catalog cat;
    const uint64_t bigId = 0xFFFFFFFF00000001ull;  // beyond SQLite's signed range
    cat.AddArchiveFile({bigId, 2, 123456789012ll, "AF_1", "/vol/ds1", 54, 88, "ds1"});
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
}

TEST(CatalogTest, ConcurrentWritersKeepEveryCredential) {
    vstest::TempHome home;
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
