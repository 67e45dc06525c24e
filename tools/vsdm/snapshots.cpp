#include "snapshots.h"

#include "Snapshot.h"

#include "vshost/catalog.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <nlohmann/json.hpp>

#include <unistd.h>
#include <ctime>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace vsdm {
namespace {

// The application, copy and media agent of the jobs this home makes itself, when the
// catalog has none of its own yet.
constexpr unsigned long kHomeAppId1 = 1, kHomeAppId2 = 1;
constexpr int kHomeInstanceType = 102;

std::string HostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

bool Inside(const fs::path& inner, const fs::path& outer) {
    const auto [o, i] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
    return o == outer.end();
}

// The volume's folder as it will be recorded: absolute, links resolved, readable.
fs::path CheckVolumeFolder(const VolumeArg& v) {
    std::error_code ec;
    fs::path folder = fs::canonical(v.folder, ec);
    if (ec || !fs::is_directory(folder, ec))
        throw UsageError("volume " + v.datastore + ": " + v.folder + " is not a folder");
    if (::access(folder.c_str(), R_OK | X_OK) != 0)
        throw UsageError("volume " + v.datastore + ": " + v.folder + " cannot be read");
    // The home writes job results, logs and the catalog: a volume holding it would be
    // written into.
    const fs::path home = fs::canonical(vshost::HomeDir(), ec);
    if (!ec && Inside(home, folder))
        throw UsageError("volume " + v.datastore + ": " + folder.string() + " holds the host home " + home.string() +
                         ", which is written to during a backup");
    return folder;
}

unsigned long MediaAgentClient(vshost::Catalog& catalog, const std::string& name) {
    if (const auto id = catalog.ClientId(name)) return *id;
    unsigned long id = 1;
    while (catalog.ClientName(id)) ++id;
    catalog.AddClient(id, name);
    return id;
}

std::string When(int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    char text[32] = "?";
    if (gmtime_r(&t, &tm)) (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &tm);
    return text;
}

std::vector<uint64_t> ArchiveFileIds(const std::vector<vshost::ArchiveFileRecord>& volumes) {
    std::vector<uint64_t> ids;
    ids.reserve(volumes.size());
    for (const auto& v : volumes) ids.push_back(v.afileId);
    return ids;
}

const char* FormatName(int32_t diskType) {
    switch (diskType) {
        case vminfo::kDiskTypeFlatVmdk:
            return "flat VMDK";
        case vminfo::kDiskTypeRawImage:
            return "raw image";
        case vminfo::kDiskTypeFolder:
            return "file collection";
        case vminfo::kDiskTypeQemuVmdk:
            return "sparse VMDK or VMDK chain";
        case vminfo::kDiskTypeQcow2:
            return "qcow2";
        default:
            return "disk";
    }
}

void ListVMs(const vminfo::Snapshot& snap, std::ostream& out) {
    for (const vminfo::VMRecord& rec : snap.vms) {
        if (!rec.problem.empty()) {
            out << "  VM in " << rec.folder << ": REFUSED: " << rec.problem << "\n";
            continue;
        }
        const std::string key = rec.cfg.displayName.empty() ? rec.cfg.biosUuid : rec.cfg.displayName;
        vminfo::MountedVM vm;
        vminfo::Failure failure;
        out << "  VM " << key << " (" << (rec.cfg.biosUuid.empty() ? rec.cfg.vcUuid : rec.cfg.biosUuid) << ")";
        if (!vminfo::MountVMFrom(snap, key, {}, vm, failure)) {
            out << ": REFUSED: " << failure.reason << " (error " << failure.code << ")\n";
            continue;
        }
        unsigned configs = 0;
        for (const auto& item : vm.items) configs += item.nBackupType == 0 ? 1 : 0;
        out << ", " << configs << " configuration files\n";
        for (const auto& item : vm.items)
            if (item.nBackupType != 0)
                out << "    disk " << item.sDiskName << ": " << FormatName(item.nDiskType) << ", " << item.ullSize
                    << " bytes\n";
        for (const auto& g : vm.guestVolumes) out << "    guest volume " << g.name << " (" << g.guid << ")\n";
    }
}

vminfo::Snapshot MountForInventory(int64_t snapJobId, unsigned engine,
                                   const std::vector<vshost::ArchiveFileRecord>& volumes) {
    vminfo::Snapshot snap;
    vminfo::Failure failure;
    if (!vminfo::Snapshot::Mount(ArchiveFileIds(volumes), engine, snap, failure))
        throw UsageError("snapshot " + std::to_string(snapJobId) + " cannot be mounted: " + failure.reason +
                         " (error " + std::to_string(failure.code) + ")");
    return snap;
}

// One item per VM (per guest volume for the file-level reader), change tracking asked for.
nlohmann::json ItemsOf(const vminfo::Snapshot& snap, const BackupRequest& r, std::ostream& report) {
    std::vector<const vminfo::VMRecord*> chosen;
    if (r.vms.empty()) {
        for (const auto& rec : snap.vms) chosen.push_back(&rec);
    } else {
        for (const std::string& key : r.vms) {
            const vminfo::VMRecord* rec = snap.Find(key);
            if (!rec) throw UsageError("VM " + key + " is not in snapshot " + std::to_string(r.snapJobId));
            chosen.push_back(rec);
        }
    }
    const std::vector<vshost::changetrack::JobDisk> latest =
        r.incremental ? vshost::changetrack::LatestDisks() : std::vector<vshost::changetrack::JobDisk>{};
    nlohmann::json items = nlohmann::json::array();
    for (const vminfo::VMRecord* rec : chosen) {
        const std::string guid = rec->cfg.biosUuid.empty() ? rec->cfg.vcUuid : rec->cfg.biosUuid;
        // A VM whose .vmx cannot be read still gets its item, by folder, so that the run
        // fails it aloud instead of leaving it out.
        const std::string key = !guid.empty()                   ? guid
                                : !rec->cfg.displayName.empty() ? rec->cfg.displayName
                                                                : fs::path(rec->folder).filename().string();
        VirtualServer::SnapSrcPathOptions options;
        options.useCBT = 1;
        size_t based = 0;
        for (const auto& d : latest)
            if (d.vmGuid == key) {
                DiskEntry(options, d.diskName).changeId = d.changeId;
                ++based;
            }
        if (r.incremental) report << "VM " << key << ": " << based << " disk(s) read against their last backup\n";
        if (r.reader != ReaderKind::FileLevel) {
            items.push_back({{"path", key}, {"options", options.Serialize()}});
            continue;
        }
        vminfo::MountedVM vm;
        vminfo::Failure failure;
        if (!vminfo::MountVMFrom(snap, key, {}, vm, failure) || vm.guestVolumes.empty()) {
            items.push_back({{"path", key}});  // fails in the run, with the reason
            continue;
        }
        for (const auto& g : vm.guestVolumes)
            items.push_back({{"path", key + "\\" + g.guid}, {"clientPath", key + "\\" + g.guid}});
    }
    if (items.empty()) throw UsageError("snapshot " + std::to_string(r.snapJobId) + " holds no VM");
    return items;
}

}  // namespace

VolumeArg ParseVolumeArg(const std::string& text) {
    const size_t eq = text.find('=');
    VolumeArg v;
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size())
        throw UsageError("a volume is DATASTORE=FOLDER, not \"" + text + "\"");
    v.datastore = text.substr(0, eq);
    v.folder = text.substr(eq + 1);
    if (v.datastore.find_first_of("[]/\\") != std::string::npos)
        throw UsageError("datastore name \"" + v.datastore + "\" holds one of [ ] / \\");
    return v;
}

void AddSnapshot(const SnapshotAdd& add, std::ostream& out) {
    if (add.snapJobId <= 0) throw UsageError("--snap-job must be a positive job id");
    if (add.volumes.empty()) throw UsageError("give the snapshot's volumes as DATASTORE=FOLDER");
    std::set<std::string> names;
    std::vector<fs::path> folders;
    std::vector<vshost::ArchiveFileRecord> volumes;
    for (const VolumeArg& v : add.volumes) {
        if (!names.insert(v.datastore).second) throw UsageError("datastore " + v.datastore + " is named twice");
        const fs::path folder = CheckVolumeFolder(v);
        for (const fs::path& other : folders)
            if (Inside(folder, other) || Inside(other, folder))
                throw UsageError("volume folders " + other.string() + " and " + folder.string() + " overlap");
        folders.push_back(folder);
        vshost::ArchiveFileRecord rec;
        rec.backupJobId = add.snapJobId;
        rec.name = "SNAP_" + std::to_string(add.snapJobId) + "_" + v.datastore;
        rec.volume = folder.string();
        rec.datastore = v.datastore;
        volumes.push_back(rec);
    }
    vshost::Catalog catalog;
    if (catalog.Snapshot(add.snapJobId))
        throw UsageError("snapshot " + std::to_string(add.snapJobId) + " is registered already");
    const unsigned long client = MediaAgentClient(catalog, add.mediaAgent.empty() ? HostName() : add.mediaAgent);
    auto app = catalog.Application(kHomeAppId1, kHomeAppId2);
    if (!app) {
        vshost::AppRecord home;
        home.appId1 = kHomeAppId1;
        home.appId2 = kHomeAppId2;
        home.instanceType = kHomeInstanceType;
        home.clientId = client;
        catalog.AddApplication(home);
    }
    if (!catalog.FirstCopy()) catalog.AddCopy(1, 1, 1);
    for (auto& v : volumes) v.appId2 = kHomeAppId2;
    const vshost::SnapshotRecord snapshot{add.snapJobId, add.snapEngineId, static_cast<int64_t>(std::time(nullptr))};
    for (const auto& v : catalog.AddSnapshot(snapshot, volumes))
        out << "snapshot " << add.snapJobId << ": volume " << v.datastore << " = " << v.volume << " (archive file "
            << v.afileId << ")\n";
}

void ListSnapshots(std::ostream& out) {
    vshost::Catalog catalog;
    const auto snapshots = catalog.Snapshots();
    if (snapshots.empty()) out << "no snapshots registered in " << vshost::HomeDir() << "\n";
    for (const auto& s : snapshots) {
        out << "snapshot " << s.snapJobId << " (snap engine " << s.snapEngineId << ", registered " << When(s.added)
            << ")\n";
        const auto volumes = catalog.ArchiveFilesOfSnapJob(s.snapJobId);
        for (const auto& v : volumes)
            out << "  volume " << v.datastore << " = " << v.volume << " (archive file " << v.afileId << ")\n";
        try {
            ListVMs(MountForInventory(s.snapJobId, s.snapEngineId, volumes), out);
        } catch (const UsageError& e) {
            out << "  " << e.what() << "\n";
        }
    }
}

void RemoveSnapshot(int64_t snapJobId, std::ostream& out) {
    if (!vshost::Catalog().RemoveSnapshot(snapJobId))
        throw UsageError("snapshot " + std::to_string(snapJobId) + " is not registered in " + vshost::HomeDir());
    out << "snapshot " << snapJobId << " removed from the home; its volumes are untouched\n";
}

std::map<std::string, std::map<std::string, uint64_t>> CurrentDiskSizes(const DataMoverJob& job,
                                                                        const std::set<std::string>& vms) {
    std::map<std::string, std::map<std::string, uint64_t>> sizes;
    vminfo::Snapshot snap;
    vminfo::Failure failure;
    if (!vminfo::Snapshot::Mount(job.archiveFiles, job.snapEngineId, snap, failure)) return sizes;
    for (const std::string& guid : vms) {
        vminfo::MountedVM vm;
        if (!vminfo::MountVMFrom(snap, guid, {}, vm, failure)) continue;
        for (const auto& item : vm.items)
            if (item.nBackupType != 0) sizes[guid][item.sDiskName] = item.ullSize;
    }
    return sizes;
}

std::string BackupJobText(const BackupRequest& r, std::ostream& report) {
    vshost::Catalog catalog;
    const auto snapshot = catalog.Snapshot(r.snapJobId);
    if (!snapshot) throw UsageError("snapshot " + std::to_string(r.snapJobId) + " is not registered in the home");
    const auto volumes = catalog.ArchiveFilesOfSnapJob(r.snapJobId);
    if (volumes.empty()) throw UsageError("snapshot " + std::to_string(r.snapJobId) + " has no volumes");
    const auto app = catalog.ApplicationWithId2(volumes.front().appId2);
    const auto copy = catalog.FirstCopy();
    const auto mediaAgent = app ? catalog.ClientName(app->clientId) : std::nullopt;
    if (!app || !copy || !mediaAgent)
        throw UsageError("the home has no application, copy or media agent for snapshot " +
                         std::to_string(r.snapJobId) + ": register it with vsdm snapshot add");
    const vminfo::Snapshot snap = MountForInventory(r.snapJobId, snapshot->snapEngineId, volumes);
    nlohmann::json doc = {{"jobId", 0},
                          {"appId", {app->appId1, app->appId2}},
                          {"reader", ReaderName(r.reader)},
                          {"instanceType", app->instanceType},
                          {"snapEngineId", snapshot->snapEngineId},
                          {"mediaAgent", *mediaAgent},
                          {"archiveFiles", ArchiveFileIds(volumes)},
                          {"open", {{"archGroupId", copy->first}, {"copyId", copy->second}}},
                          {"items", ItemsOf(snap, r, report)},
                          {"out", r.out}};
    // The id is taken last, so that a request refused above uses none.
    doc["jobId"] = catalog.NewJobId(r.snapJobId);
    return doc.dump();
}

DataMoverJob MakeBackupJob(const BackupRequest& r, std::ostream& report) {
    DataMoverJob job = ParseJob(BackupJobText(r, report), "vsdm backup", fs::current_path().string());
    report << "job " << job.host.jobId << ": " << job.items.size() << " item(s) of snapshot " << r.snapJobId << "\n";
    return job;
}

}  // namespace vsdm
