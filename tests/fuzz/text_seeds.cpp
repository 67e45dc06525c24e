// Writes the seed corpora of the text-format fuzz targets: the files of a generated
// sample snapshot, options XML made by the encoder, job files like the demo's, backup
// XMLs written by the host's own writer, and items of each reader over the sample.
#include "backup_info.h"
#include "hostapi/archive.h"
#include "hostapi/snapsrc.h"
#include "hostapi/xmlfile.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

void Write(const fs::path& p, const std::string& text) {
    std::ofstream(p, std::ios::binary) << text;
}

using vstest::VM;

// Backup XMLs as the host writes them (one per backup job and one per VM), and by hand
// in the other forms the loader accepts: absent values, additions it skips, comments,
// character references.
void BackupXmlSeeds(const vssample::SampleSnapshot& s, const fs::path& dir) {
    CNMessageBase job(26, 13);
    VirtualServer::Backup backup;
    backup.llJobId = s.snapJobId;
    int32_t clientId = 31;
    for (const std::string& ds : s.datastores) {
        VirtualServer::VMDatastoreInfo datastore = vstest::Datastore(ds, {});
        for (const vssample::SampleVM& vm : s.vms)
            for (const vssample::SampleDisk& disk : vm.disks)
                if (disk.datastore == ds) {
                    datastore.vmInfoList.push_back(VM(vm.biosUuid, clientId++, s.snapJobId + 1, vm.name));
                    break;
                }
        backup.datastoreList.push_back(datastore);
    }
    job.backupList.push_back(backup);
    if (!vsXMLFile((dir / "job").string()).Save(job)) throw std::runtime_error("cannot write a backup XML seed");

    CNMessageBase perVM(26, 13);
    VirtualServer::Backup one;
    one.llJobId = -9223372036854775807LL - 1;
    one.datastoreList.push_back(vstest::Datastore(
        "ds <1> & \"2\"",
        {VM(s.vms.front().vcUuid, 2147483647, 9223372036854775807LL, ""), VM("VM-A", -2147483647 - 1, 0, "a\tb")}));
    perVM.backupList = {one, VirtualServer::Backup{}};
    if (!vsXMLFile((dir / "vm").string()).Save(perVM)) throw std::runtime_error("cannot write a backup XML seed");
    if (!vsXMLFile((dir / "empty").string()).Save(CNMessageBase(26, 13)))
        throw std::runtime_error("cannot write a backup XML seed");

    Write(dir / "by-hand", R"(<?xml version="1.0"?>
<!-- written by a later version -->
<SnapBackupInfo version="2">
  <Backup jobId="-7"><Note>skipped</Note>
    <Datastore><VM guid="x" /></Datastore>
    <Datastore name="d&#x41;&amp;"><VM guid="&#52;230" clientId="0" jobId="-0" clientName="&lt;n&gt;" extra="1"/></Datastore>
  </Backup>
  <Backup/>
  <Other><Backup jobId="not read"/></Other>
</SnapBackupInfo>
)");
}

// Items of each reader over the sample: the selector byte, the snap source path, a
// newline, then options XML (extent and file-collection readers) or the client path
// (file-level reader, without and with a name filter).
void SnapSrcSeeds(const vssample::SampleSnapshot& s, const fs::path& dir) {
    const vssample::SampleVM& web = s.vm("web01");
    const vssample::SampleVM& db = s.vm("db01");
    const vssample::SampleVM& fs01 = s.vm("fs01");
    auto options = [](int64_t cbt, std::vector<VirtualServer::SnapSrcPathDiskInfo> disks,
                      std::vector<std::string> mount = {}) {
        VirtualServer::SnapSrcPathOptions o;
        o.useCBT = cbt;
        o.diskInfo = std::move(disks);
        o.mountDiskNames = std::move(mount);
        return o.Serialize();
    };
    std::string extent;
    ExtentNameConverter::GetFilePath(3, extent);
    const std::string volC = db.guestVolumeGuids.at(0);
    const std::vector<std::pair<std::string, std::string>> items = {
        {"extent-vm", "0" + web.biosUuid + "\n"},
        {"extent-vm-by-name", "0" + db.name + "\n" + options(0, {})},
        {"extent-cbt", "0" + web.biosUuid + "\n" + options(1, {{"web01.vmdk", "", "0f1e2d3c/5001", 0, 0}})},
        {"extent-resume",
         "0" + web.biosUuid + "\n" + options(1, {{"web01.vmdk", "", "", 1, 0}, {"web01_1.vmdk", "", "", 0, 5}})},
        {"extent-alternate", "0" + db.vcUuid + "\n" + options(0, {{"restored.vmdk", "db01.vmdk", "", 0, 0}})},
        {"extent-mount-disks", "0" + web.biosUuid + "\n" + options(0, {}, {"web01_1.vmdk"})},
        {"extent-disk", "0" + web.biosUuid + "\\web01.vmdk\n"},
        {"extent-one", "0" + web.biosUuid + "\\web01.vmdk\\" + extent + "\n"},
        {"extent-config", "0" + web.biosUuid + "\\" + web.configFiles.front() + "\n"},
        {"collection-vm", "1" + fs01.biosUuid + "\n"},
        {"collection-disk", "1" + fs01.biosUuid + "\\fs01_home\n" + options(0, {{"fs01.vmdk", "", "", 1, 0}})},
        {"collection-alternate", "1" + fs01.name + "\n" + options(0, {{"copy.vmdk", "fs01.vmdk", "", 0, 0}})},
        {"file-volume", "2" + db.biosUuid + "\\" + volC + "\n" + db.biosUuid + "\\" + volC},
        {"file-folder", "2" + db.biosUuid + "\\" + volC + "\n" + db.biosUuid + "\\" + volC + "/Windows"},
        {"file-by-name", "2" + db.name + "\\D:\n" + db.name + "\\D:/data\x12trailing"},
        {"file-filter", "3" + db.biosUuid + "\\" + volC + "\n" + db.biosUuid + "\\" + volC + "/Windows/*.ini"},
    };
    for (const auto& [name, text] : items) Write(dir / name, text);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_ROOT\n", argv[0]);
        return 2;
    }
    const fs::path root = argv[1];
    for (const char* d : {"options_xml", "vmdk", "vmx", "job_file", "backup_xml", "snap_src"})
        fs::create_directories(root / d);
    try {
        char tmpl[] = "/tmp/vsseeds-XXXXXX";
        if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
        vshost::OpenHome(tmpl);
        const vssample::SampleSnapshot s = vssample::GenerateSample();
        int n = 0;
        for (const auto& e : fs::recursive_directory_iterator(fs::path(tmpl) / "Snapshots")) {
            if (!e.is_regular_file() || e.file_size() > 4096) continue;
            const std::string ext = e.path().extension().string();
            std::ifstream in(e.path(), std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(in)), {});
            if (ext == ".vmx") Write(root / "vmx" / ("seed" + std::to_string(n++)), text);
            if (ext == ".vmdk") Write(root / "vmdk" / ("seed" + std::to_string(n++)), text);
        }

        VirtualServer::SnapSrcPathOptions o;
        Write(root / "options_xml/empty", o.Serialize());
        o.useCBT = 1;
        o.diskInfo.push_back({"web01.vmdk", "[ds1] web01/web01.vmdk", "0f1e2d3c/5001", 0, 42});
        o.diskInfo.push_back({"db01.vmdk", "", "", 1, 0});
        o.mountDiskNames = {"web01.vmdk"};
        Write(root / "options_xml/full", o.Serialize());

        const std::string job =
            R"({"jobId": 101, "appId": [3, 17], "jobOptions": {"restoreOptions": {"lookupInstanceFromTask": 1}},
 "taskOptions": {"77": "vc1", "75": "user"}, "eventOptions": {"120015": false},
 "reader": "fileLevel", "instanceType": 102, "mediaAgent": "ma01", "archiveFiles": [1207, 1208],
 "open": {"archGroupId": 11, "copyId": 1}, "out": "s.stream", "home": "h",
 "items": [{"path": "vm\\vol", "clientPath": "vm\\vol/dir", "filter": 1, "options": "<SnapSrcPathOptions/>"}]})";
        Write(root / "job_file/full", job);
        Write(root / "job_file/minimal",
              R"({"jobId": 1, "mediaAgent": "m", "archiveFiles": [1], "items": [{"path": "v"}]})");
        BackupXmlSeeds(s, root / "backup_xml");
        SnapSrcSeeds(s, root / "snap_src");
        vshost::CloseHome();
        fs::remove_all(tmpl);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cannot write the seed corpora: %s\n", e.what());
        return 1;
    }
    return 0;
}
