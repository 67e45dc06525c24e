// Index client over the remote cache, the backup XML file, VM clients of subclients, and
// the folder and path helpers they use.
#include "hostapi/indexclient.h"
#include "backup_info.h"
#include "hostapi/appclient.h"
#include "hostapi/appmgr.h"
#include "hostapi/fileutil.h"
#include "hostapi/xmlfile.h"
#include "temp_home.h"
#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/vmclients.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>
#include <string>

namespace fs = std::filesystem;

namespace {

using vstest::ReadAll;
using vstest::WriteFile;

std::set<std::string> Names(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    return names;
}

using vstest::VM;

// Every field of a backup description, one line a VM, datastore or backup.
std::string Text(const CNMessageBase& msg) {
    std::ostringstream out;
    for (const auto& b : msg.backupList) {
        out << "backup " << b.llJobId << "\n";
        for (const auto& ds : b.datastoreList) {
            out << " datastore [" << ds.sName << "]\n";
            for (const auto& vm : ds.vmInfoList)
                out << "  vm [" << vm.sGuid << "] " << vm.nClientId << " " << vm.llJobId << " [" << vm.sClientName
                    << "]\n";
        }
    }
    return out.str();
}

class HostIndexTest : public ::testing::Test {
protected:
    std::string Cache(const std::string& rel) const { return home.sub("IndexCache/" + rel); }

    vstest::TempHome home;
    vshost::LogCapture log;
};

}  // namespace

TEST_F(HostIndexTest, AppendAndCreateFolder) {
    std::string out = "stale";
    EXPECT_FALSE(FXPath::Append(out, "/jr/", "backup_1.xml", 0).IsError());
    EXPECT_EQ(out, "/jr/backup_1.xml");
    FXPath::Append(out, "/jr", "backup_1.xml", 0);
    EXPECT_EQ(out, "/jr/backup_1.xml");
    std::string same = "/jr";
    FXPath::Append(same, same, "f", 0);  // output may be the folder argument itself
    EXPECT_EQ(same, "/jr/f");

    EXPECT_EQ(CQiDirectory::Create(home.sub("a/b/c").c_str(), false).Errno(), ENOENT);
    EXPECT_FALSE(CQiDirectory::Create(home.sub("a/b/c").c_str(), true).IsError());
    EXPECT_TRUE(fs::is_directory(home.sub("a/b/c")));
    EXPECT_FALSE(CQiDirectory::Create(home.sub("a/b/c").c_str(), false).IsError());  // already there
    EXPECT_FALSE(CQiDirectory::Create(home.sub("a/b/d").c_str(), false).IsError());
    EXPECT_TRUE(fs::is_directory(home.sub("a/b/d")));
    WriteFile(home.sub("a/file"), "x");
    EXPECT_EQ(CQiDirectory::Create(home.sub("a/file").c_str(), false).Errno(), ENOTDIR);
    EXPECT_TRUE(CQiDirectory::Create(home.sub("a/file/sub").c_str(), true).IsError());
    EXPECT_TRUE(CQiDirectory::Create(nullptr, true).IsError());
    EXPECT_TRUE(CQiDirectory::Create("", false).IsError());
}

TEST_F(HostIndexTest, BackupXmlRoundTrip) {
    CNMessageBase out(26, 13);
    VirtualServer::Backup first;
    first.llJobId = 4711;
    first.datastoreList = {vstest::Datastore("ds <one> & \"two\"", {VM("G-1", std::numeric_limits<int32_t>::min(),
                                                                       std::numeric_limits<int64_t>::max(), "a&b"),
                                                                    VM("g-2", 7, -1, "")}),
                           vstest::Datastore("empty", {})};
    VirtualServer::Backup second;
    second.llJobId = -5;
    out.backupList = {first, second};

    const std::string path = home.sub("JobResults/backup_4711.xml");
    ASSERT_TRUE(vsXMLFile(path).Save(out));
    EXPECT_EQ(Names(home.sub("JobResults")), std::set<std::string>{"backup_4711.xml"});  // no temporary left

    // Loading replaces what the message held; saving again replaces the file whole.
    CNMessageBase in(26, 13);
    in.backupList.resize(3);
    ASSERT_TRUE(vsXMLFile(path).Load(&in));
    EXPECT_EQ(Text(in), Text(out));
    out.backupList = {second};
    ASSERT_TRUE(vsXMLFile(path).Save(out));
    ASSERT_TRUE(vsXMLFile(path).Load(&in));
    EXPECT_EQ(Text(in), Text(out));

    // A VM without GUID could never be matched: refused, and the old file stays.
    out.backupList.front().datastoreList = {first.datastoreList.front()};
    out.backupList.front().datastoreList.front().vmInfoList.push_back(VM("", 1, 1, "nameless"));
    EXPECT_FALSE(vsXMLFile(path).Save(out));
    EXPECT_TRUE(log.Contains("has no GUID"));
    ASSERT_TRUE(vsXMLFile(path).Load(&in));
    EXPECT_TRUE(in.backupList.front().datastoreList.empty());

    EXPECT_FALSE(vsXMLFile(home.sub("missing/dir/backup.xml")).Save(out));
    EXPECT_FALSE(fs::exists(home.sub("missing")));
}

TEST_F(HostIndexTest, BackupXmlLoadFailures) {
    const std::string dir = home.sub("JobResults/");
    CNMessageBase msg(26, 13);
    msg.backupList.resize(2);
    auto loadFails = [&](const std::string& name, const std::string& content, const std::string& reason) {
        const std::string path = dir + name;
        WriteFile(path, content);
        log.Clear();
        EXPECT_FALSE(vsXMLFile(path).Load(&msg)) << name;
        EXPECT_EQ(msg.backupList.size(), 2u) << name << ": message changed by a failed load";
        EXPECT_EQ(log.Count("[" + path + "]"), 1u) << name;
        EXPECT_TRUE(log.Contains(reason)) << name << " lacks: " << reason;
    };
    loadFails("truncated.xml", "<SnapBackupInfo><Backup jobId=\"1\">", "Start-end tags mismatch at offset");
    loadFails("garbage.xml", "\x01\x02 not xml", "No document element found");
    loadFails("empty.xml", "", "No document element found");
    loadFails("root.xml", "<Other><Backup/></Other>", "root element is <Other>, expected <SnapBackupInfo>");
    const std::string head = "<SnapBackupInfo><Backup><Datastore name=\"d\">";
    const std::string tail = "</Datastore></Backup></SnapBackupInfo>";
    loadFails("text.xml", head + "<VM guid=\"g\" clientId=\"12x\"/>" + tail,
              "attribute clientId=\"12x\" of element <VM> at offset");
    loadFails("wide.xml", head + "<VM guid=\"g\" clientId=\"2147483648\"/>" + tail, "is not a 32-bit integer");
    loadFails("blank.xml", head + "<VM guid=\"g\" jobId=\"\"/>" + tail, "is not a 64-bit integer");
    loadFails("spaced.xml", head + "<VM guid=\"g\" jobId=\" 5\"/>" + tail, "is not a 64-bit integer");
    loadFails("backupjob.xml", "<SnapBackupInfo><Backup jobId=\"9223372036854775808\"/></SnapBackupInfo>",
              "of element <Backup>");
    loadFails("noguid.xml", head + "<VM clientId=\"1\"/>" + tail, "has no guid");

    log.Clear();
    EXPECT_FALSE(vsXMLFile(dir + "absent.xml").Load(&msg));
    EXPECT_TRUE(log.Contains("[" + dir + "absent.xml]: open: No such file or directory"));
    EXPECT_FALSE(vsXMLFile(dir).Load(&msg));
    EXPECT_TRUE(log.Contains("[" + dir + "]: not a regular file"));
    ASSERT_EQ(mkfifo((dir + "fifo.xml").c_str(), 0600), 0);  // must not block
    EXPECT_FALSE(vsXMLFile(dir + "fifo.xml").Load(&msg));
    EXPECT_FALSE(vsXMLFile(dir + "absent.xml").Load(nullptr));

    // Absent numbers read as 0, unknown elements and attributes are skipped.
    WriteFile(dir + "lean.xml",
              "<SnapBackupInfo><Note/><Backup><Datastore><VM guid=\"g\" extra=\"1\"/><Disk/>"
              "</Datastore></Backup></SnapBackupInfo>");
    ASSERT_TRUE(vsXMLFile(dir + "lean.xml").Load(&msg));
    ASSERT_EQ(msg.backupList.size(), 1u);
    const VirtualServer::VMInfo& vm = msg.backupList.front().datastoreList.front().vmInfoList.front();
    EXPECT_EQ(vm.sGuid, "g");
    EXPECT_EQ(vm.nClientId, 0);
    EXPECT_EQ(vm.llJobId, 0);
    EXPECT_EQ(msg.backupList.front().datastoreList.front().vmInfoList.size(), 1u);
}

// What the reader's lookups find is checked through the reader (the backup XML tests);
// here what they cannot show: a client recorded again replaces the earlier record, and
// without a home the lookup fails quietly instead of throwing into the caller.
TEST_F(HostIndexTest, VMClientOfSubclient) {
    vshost::AddVMClient(5, 33, "vmclient33", true, "uuid-33");
    vshost::AddVMClient(5, 33, "renamed", true, "uuid-new");
    ApplicationId app(5, 33);  // owns the client it returns
    VMClient* client = app.getClient(nullptr);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->getClientName(), "renamed");
    std::string uuid;
    ASSERT_NE(client->getClientProperties(0), nullptr);
    EXPECT_EQ(client->getClientProperties(0)->getVMInstanceUUID(uuid, nullptr), 0);
    EXPECT_EQ(uuid, "uuid-new");

    vshost::CloseHome();
    EXPECT_EQ(ApplicationId(5, 33).getClient(nullptr), nullptr);
    EXPECT_TRUE(log.Contains("ApplicationId::getClient"));
}

TEST_F(HostIndexTest, DownloadNamedFilesFromRemoteCache) {
    WriteFile(Cache("SC-GUID/4711/backup_4711.xml"), "<xml/>");
    WriteFile(Cache("SC-GUID/4711/second.dat"), std::string(200000, 'z'));  // more than one read buffer
    WriteFile(Cache("SC-GUID/4712/other.xml"), "other job");
    vsIndexClient client(nullptr, nullptr, "ma1");
    const std::string dest = home.sub("JobResults/4711/sub");

    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"backup_4711.xml", "second.dat"}, dest, 4711, "SC-GUID", ""),
              1);
    EXPECT_EQ(ReadAll(dest + "/backup_4711.xml"), "<xml/>");
    EXPECT_EQ(ReadAll(dest + "/second.dat"), std::string(200000, 'z'));
    EXPECT_EQ(Names(dest), (std::set<std::string>{"backup_4711.xml", "second.dat"}));

    // A download replaces an earlier copy.
    WriteFile(Cache("SC-GUID/4711/backup_4711.xml"), "<newer/>");
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"backup_4711.xml"}, dest, 4711, "SC-GUID", ""), 1);
    EXPECT_EQ(ReadAll(dest + "/backup_4711.xml"), "<newer/>");

    // One missing file fails the whole download before anything is copied.
    const std::string fresh = home.sub("JobResults/fresh");
    log.Clear();
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"second.dat", "absent.xml"}, fresh, 4711, "SC-GUID", ""), 0);
    EXPECT_FALSE(fs::exists(fresh + "/second.dat"));
    EXPECT_TRUE(log.Contains("file [absent.xml] is not in the remote cache [" + Cache("SC-GUID/4711") + "]"));
    // Files of another job or subclient are not found.
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"other.xml"}, fresh, 4711, "SC-GUID", ""), 0);
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"backup_4711.xml"}, fresh, 4711, "sc-guid", ""), 0);

    // Names that could leave the cache folder are refused.
    WriteFile(home.sub("IndexCache/secret"), "s");
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"../../secret"}, fresh, 4711, "SC-GUID", ""), 0);
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"secret"}, fresh, 4711, "..", ""), 0);
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"backup_4711.xml"}, fresh, 4711, "", ""), 0);
    EXPECT_TRUE(log.Contains("[../../secret] is not a plain file name"));
    EXPECT_FALSE(fs::exists(fresh + "/secret"));

    // A copy that cannot be put in place fails and leaves no partial file behind.
    const std::string blocked = home.sub("JobResults/blocked");
    fs::create_directories(blocked + "/second.dat/inside");
    log.Clear();
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"second.dat"}, blocked, 4711, "SC-GUID", ""), 0);
    EXPECT_TRUE(log.Contains("cannot copy [second.dat] from the remote cache"));
    EXPECT_EQ(Names(blocked), std::set<std::string>{"second.dat"});
    WriteFile(home.sub("JobResults/plainfile"), "f");
    EXPECT_EQ(client.DownloadMetadataFilesFromRemoteCache({"second.dat"}, home.sub("JobResults/plainfile"), 4711,
                                                          "SC-GUID", ""),
              0);
    EXPECT_TRUE(log.Contains("cannot create folder"));
}

TEST_F(HostIndexTest, DownloadVMMetadataFiles) {
    vshost::AppRecord app;
    app.appId1 = 1;
    app.appId2 = 2;
    app.subclientGuid = "SC-GUID";
    vshost::Catalog().AddApplication(app);
    vsAppMgr appMgr;
    appMgr.setAppId(1, 2);
    vsJobMgr jobMgr;
    vsIndexClient client(&jobMgr, &appMgr, "ma1");

    WriteFile(Cache("SC-GUID/900/VM-A/vm.cfg"), "config");
    WriteFile(Cache("SC-GUID/900/VM-A/disk0.meta"), "meta");
    WriteFile(Cache("SC-GUID/900/VM-A/.vm.cfg.part-123456"), "half");
    fs::create_directories(Cache("SC-GUID/900/VM-A/nested"));
    WriteFile(Cache("SC-GUID/800/VM-A/snapjob.cfg"), "snap");
    WriteFile(Cache("SC-GUID/700/VM-A/job.cfg"), "job");
    fs::create_directories(Cache("SC-GUID/600/VM-EMPTY"));

    MountCtx ctx;
    ctx.sVMName = "VM-A";
    ctx.vmInfo.llBackupJobId = 900;
    ctx.nSnapJobId = 800;
    ctx.nJobId = 700;
    const std::string dest = home.sub("JobResults/VM-A_SnapCache");
    ASSERT_TRUE(client.DownloadVMMetadataFiles(ctx, dest));
    EXPECT_EQ(Names(dest), (std::set<std::string>{"disk0.meta", "vm.cfg"}));  // no dot files, no folders
    EXPECT_EQ(ReadAll(dest + "/vm.cfg"), "config");

    // The backup job id falls back to the snapshot's job, then to the context's job.
    ctx.vmInfo.llBackupJobId = 0;
    const std::string bySnap = home.sub("JobResults/bySnap");
    ASSERT_TRUE(client.DownloadVMMetadataFiles(ctx, bySnap));
    EXPECT_EQ(Names(bySnap), std::set<std::string>{"snapjob.cfg"});
    ctx.nSnapJobId = 0;
    const std::string byJob = home.sub("JobResults/byJob");
    ASSERT_TRUE(client.DownloadVMMetadataFiles(ctx, byJob));
    EXPECT_EQ(Names(byJob), std::set<std::string>{"job.cfg"});

    MountCtx empty;
    empty.sVMName = "VM-EMPTY";
    empty.nJobId = 600;
    EXPECT_TRUE(client.DownloadVMMetadataFiles(empty, home.sub("JobResults/empty")));
    EXPECT_TRUE(fs::is_directory(home.sub("JobResults/empty")));

    log.Clear();
    ctx.sVMName = "VM-B";
    EXPECT_FALSE(client.DownloadVMMetadataFiles(ctx, home.sub("JobResults/VM-B")));
    EXPECT_TRUE(log.Contains("the remote cache has no folder [" + Cache("SC-GUID/700/VM-B") + "] for VM [VM-B]"));
    EXPECT_FALSE(fs::exists(home.sub("JobResults/VM-B")));
    ctx.sVMName = "..";
    EXPECT_FALSE(client.DownloadVMMetadataFiles(ctx, home.sub("JobResults/up")));
    ctx.sVMName = "";
    EXPECT_FALSE(client.DownloadVMMetadataFiles(ctx, home.sub("JobResults/up")));

    // The subclient GUID comes from the application manager.
    vsAppMgr otherApp;
    otherApp.setAppId(1, 3);  // unknown application: no subclient GUID
    ctx.sVMName = "VM-A";
    EXPECT_FALSE(vsIndexClient(&jobMgr, &otherApp, "ma1").DownloadVMMetadataFiles(ctx, home.sub("JobResults/o")));
    EXPECT_FALSE(vsIndexClient(&jobMgr, nullptr, "ma1").DownloadVMMetadataFiles(ctx, home.sub("JobResults/o")));
    EXPECT_FALSE(fs::exists(home.sub("JobResults/o")));
}
