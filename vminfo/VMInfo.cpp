#include "VMInfo.h"

#include "hostapi/appmgr.h"
#include "vshost/vminfohost.h"

#include <nlohmann/json.hpp>

#include <unistd.h>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <new>

namespace vminfo {

VMInfo::VMInfo(int instanceType, long long jobId) : m_instanceType(instanceType), m_jobId(jobId) {
    InitKTlog(&m_log, "VMINFO\t", "nVMINFO", static_cast<unsigned long>(gettid()));
    KTlogSetJobID(&m_log, jobId);
    KTlog(&m_log, 2, "VMInfo: created for instance type [%d]", instanceType);
}

VMInfo::~VMInfo() {
    KTlog(&m_log, 2, "VMInfo: released");
}

bool VMInfo::Faulted(const char* operation) {
    std::string value;
    if (!vshost::vminfohost::Setting("VMInfoFaults", operation, value)) return false;
    char* end = nullptr;
    const long code = std::strtol(value.c_str(), &end, 0);
    if (end == value.c_str()) return false;
    KTlog(&m_log, 1, "VMInfo::%s: failing with injected error [%ld]", operation, code);
    m_lastError = static_cast<int>(code);
    return true;
}

void VMInfo::Record(const char* operation, const MountCtx& ctx) {
    std::string file;
    if (!vshost::vminfohost::Setting("VMInfoRecord", "sFile", file) || file.empty()) return;
    nlohmann::json filters = nlohmann::json::array();
    for (const SDiskFilter& f : ctx.diskFilters) filters.push_back({f.nFilterType, f.sDiskName});
    // The password is the stored (encrypted) form the readers put in a mount context.
    const nlohmann::json line = {
        {"op", operation},
        {"nMountMode", ctx.nMountMode},
        {"sVMName", ctx.sVMName},
        {"sMountPoint", ctx.sMountPoint},
        {"sJobResultsDir", ctx.sJobResultsDir},
        {"nJobId", ctx.nJobId},
        {"nSnapJobId", ctx.nSnapJobId},
        {"nClientId", ctx.nClientId},
        {"nClientId2", ctx.nClientId2},
        {"nAppId2", ctx.nAppId2},
        {"nHubcellId", ctx.nHubcellId},
        {"nSnapEngineId", ctx.nSnapEngineId},
        {"bMountRequest", ctx.bMountRequest},
        {"bOption1", ctx.bOption1},
        {"bMountFlag", ctx.bMountFlag},
        {"bVMMountFlag", ctx.bVMMountFlag},
        {"sSnapMountPath", ctx.sSnapMountPath},
        {"sRemoteCacheDir", ctx.sRemoteCacheDir},
        {"bPathMount", ctx.bPathMount},
        {"sHost", ctx.hostCredentials.sHost},
        {"sServer", ctx.hostCredentials.sServer},
        {"sUser", ctx.hostCredentials.sUser},
        {"sPassword", ctx.hostCredentials.sPassword},
        {"nCopyId", ctx.nCopyId},
        {"nCopyPrecedence", ctx.nCopyPrecedence},
        {"bOptionType102", ctx.bOptionType102},
        {"bOptionType100", ctx.bOptionType100},
        {"bUseCBT", ctx.bUseCBT},
        {"bBlockLevelBrowseApplies", ctx.bBlockLevelBrowseApplies},
        {"bBlockLevelBrowse", ctx.bBlockLevelBrowse},
        {"bIndexingV2", ctx.bIndexingV2},
        {"llBackupJobId", ctx.vmInfo.llBackupJobId},
        {"afileIds", ctx.afileIds},
        {"diskFilters", filters},
    };
    std::ofstream(file, std::ios::app) << line.dump() << "\n";
}

int VMInfo::Fail(int code) {
    m_lastError = code;
    return 0;
}

int VMInfo::Init(int flags) {
    if (Faulted("Init")) return 0;
    KTlog(&m_log, 2, "VMInfo::Init: flags [%d]", flags);
    m_initialised = true;
    return 1;
}

int VMInfo::Uninit(int) {
    if (Faulted("Uninit")) return 0;
    m_connected = false;
    m_initialised = false;
    return 1;
}

bool VMInfo::CredentialsMatch(const std::string& server, const std::string& user, const std::string& password) {
    try {
        vsAppMgr appMgr;
        for (const SHostCredentials& stored : vshost::vminfohost::StoredCredentials(server)) {
            if (stored.sUser != user) continue;
            std::string plain;
            if (appMgr.decryptPassword(stored.sPassword, &plain) == 0 && plain == password) return true;
        }
    } catch (const std::exception& e) {
        KTlog(&m_log, 1, "VMInfo::Connect: catalog unavailable: %s", e.what());
    }
    return false;
}

int VMInfo::Connect(const std::string& server, const std::string& user, const std::string& password,
                    const std::vector<SHostCredentials>& hosts) {
    KTlog(&m_log, 1, "VMInfo::Connect: server [%s] user [%s] password length [%zu] host records [%zu]", server.c_str(),
          user.c_str(), password.size(), hosts.size());
    if (Faulted("Connect")) return 0;
    if (!m_initialised) {
        KTlog(&m_log, 1, "VMInfo::Connect: not initialised");
        return Fail(kErrConnect);
    }
    // Without a server the session reads snapshots only; with one, the server's
    // credentials must be those the catalog stores for it.
    if (!server.empty() && !CredentialsMatch(server, user, password)) {
        KTlog(&m_log, 1, "VMInfo::Connect: credentials rejected for server [%s] user [%s]", server.c_str(),
              user.c_str());
        return Fail(kErrConnect);
    }
    m_connected = true;
    m_lastError = kNoError;
    return 1;
}

int VMInfo::Disconnect() {
    if (Faulted("Disconnect")) return 0;
    m_connected = false;
    return 1;
}

int VMInfo::SetOption(const std::string& name, int value) {
    if (Faulted("SetOption")) return 0;
    KTlog(&m_log, 2, "VMInfo::SetOption: [%s] = [%d]", name.c_str(), value);
    m_options[name] = value;
    return 1;
}

int VMInfo::Fail(const char* operation, const Failure& failure) {
    KTlog(&m_log, 1, "VMInfo::%s: error [%d]: %s", operation, failure.code, failure.reason.c_str());
    m_lastError = failure.code;
    return 0;
}

const Snapshot* VMInfo::SnapshotOf(const MountCtx& ctx) const {
    auto it = m_snapshots.find(ctx.nSnapJobId != 0 ? ctx.nSnapJobId : ctx.nJobId);
    return it == m_snapshots.end() ? nullptr : &it->second;
}

const MountedVM* VMInfo::MountedOf(const MountCtx& ctx, const char* operation) {
    auto it = m_vms.find(ctx.sVMName);
    if (it != m_vms.end()) return &it->second;
    Fail(operation, Failure{kErrVMNotFound, "VM [" + ctx.sVMName + "] is not mounted"});
    return nullptr;
}

namespace {

std::vector<SVolSnap> VolSnapsOf(const Snapshot& snap) {
    std::vector<SVolSnap> out;
    for (size_t i = 0; i < snap.volumes.size(); ++i) {
        const Volume& v = snap.volumes[i];
        SVolSnap vol;
        vol.sVolume = v.datastore;
        vol.sSnapVolume = v.afileName;
        vol.sMountPath = v.path;
        vol.ullAfileId = v.afileId;
        for (const VMRecord& vm : snap.vms)
            if (vm.volume == i && vm.problem.empty()) vol.vmGuids.push_back(vm.cfg.biosUuid);
        out.push_back(vol);
    }
    return out;
}

}  // namespace

int VMInfo::MountSnap(MountCtx& ctx) {
    Record("MountSnap", ctx);
    if (Faulted("MountSnap")) return 0;
    Snapshot snap;
    Failure failure;
    if (!Snapshot::Mount(ctx.afileIds, static_cast<unsigned>(ctx.nSnapEngineId), snap, failure))
        return Fail("MountSnap", failure);

    ctx.nSnapJobId = snap.jobId;
    ctx.volSnaps = VolSnapsOf(snap);
    std::string datastores;
    for (const Volume& v : snap.volumes) datastores += (datastores.empty() ? "" : " ") + v.datastore;
    KTlog(&m_log, 1, "VMInfo::MountSnap: snapshot of job [%lld] mounted: datastores [%s], VMs [%zu]",
          static_cast<long long>(snap.jobId), datastores.c_str(), snap.vms.size());
    for (const VMRecord& vm : snap.vms)
        if (!vm.problem.empty())
            KTlog(&m_log, 1, "VMInfo::MountSnap: VM of folder [%s] cannot be mounted: %s", vm.folder.c_str(),
                  vm.problem.c_str());
    m_snapshots[snap.jobId] = std::move(snap);
    m_lastError = kNoError;
    return 1;
}

int VMInfo::UnMountSnap(MountCtx& ctx) {
    if (Faulted("UnMountSnap")) return 0;
    if (m_snapshots.erase(ctx.nSnapJobId) != 0)
        KTlog(&m_log, 1, "VMInfo::UnMountSnap: snapshot of job [%lld] unmounted",
              static_cast<long long>(ctx.nSnapJobId));
    return 1;
}

int VMInfo::MountVM(MountCtx& ctx) {
    Record("MountVM", ctx);
    if (Faulted("MountVM")) return 0;
    const Snapshot* snap = SnapshotOf(ctx);
    if (!snap)
        return Fail("MountVM", Failure{kErrMountSnapVolumes,
                                       "snapshot of job " + std::to_string(ctx.nSnapJobId) + " is not mounted"});
    MountedVM vm;
    Failure failure;
    if (!MountVMFrom(*snap, ctx.sVMName, ctx.diskFilters, vm, failure)) {
        SFailure item;
        item.sItem = ctx.sVMName;
        item.nErrorCode = failure.code;
        item.sReason = failure.reason;
        ctx.failures.push_back(item);
        // The name asked for, so that whoever reports the failure can say which VM.
        if (ctx.sMountedName.empty()) ctx.sMountedName = ctx.sVMName;
        return Fail("MountVM", failure);
    }
    ctx.sMountedName = vm.displayName;
    ctx.sMountedPath = vm.folder;
    // The volumes the VM's files lie on: whoever opens its disks opens them below these.
    ctx.volSnaps = VolSnapsOf(*snap);
    ctx.vmInfo.sVMName = vm.displayName;
    ctx.vmInfo.sVMGuid = vm.guid;
    KTlog(&m_log, 1, "VMInfo::MountVM: VM [%s] mounted from [%s] with [%zu] items", ctx.sVMName.c_str(),
          vm.folder.c_str(), vm.items.size());
    m_vms[ctx.sVMName] = std::move(vm);
    m_lastError = kNoError;
    return 1;
}

int VMInfo::UnMountVM(const MountCtx& ctx) {
    if (Faulted("UnMountVM")) return 0;
    m_vms.erase(ctx.sVMName);
    return 1;
}

int VMInfo::GetFileMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFile>& files) {
    if (Faulted("GetFileMountInfo")) return 0;
    const MountedVM* vm = MountedOf(ctx, "GetFileMountInfo");
    if (!vm) return 0;
    files.clear();
    for (const GuestVolume& v : vm->guestVolumes) {
        std::error_code ec;
        if (!std::filesystem::is_directory(v.folder, ec))
            return Fail("GetFileMountInfo",
                        Failure{kErrMountSnapVolumes, "guest volume " + v.guid + " of VM [" + ctx.sVMName +
                                                          "]: folder " + v.folder + " is missing"});
        VMInfoStructs::SMountInfoFile file;
        file.sDevicePath = v.devicePath;
        file.sVolumeGuid = v.guid;
        file.sLocalMountPath = v.folder + "/";
        file.sVolumeName = v.name;
        file.ullSize = FolderBytes(v.folder);
        files.push_back(file);
    }
    return 1;
}

int VMInfo::GetFullMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFull>& infos) {
    if (Faulted("GetFullMountInfo")) return 0;
    const MountedVM* vm = MountedOf(ctx, "GetFullMountInfo");
    if (!vm) return 0;
    VMInfoStructs::SMountInfoFull info;
    info.sVMName = vm->displayName;
    info.sVMGuid = vm->guid;
    info.disks = vm->items;
    infos.clear();
    infos.push_back(info);
    return 1;
}

int VMInfo::GetVMDisksOnVolume(const MountCtx& vmCtx, uint64_t afileId, uint32_t& count) {
    if (Faulted("GetVMDisksOnVolume")) return 0;
    count = 0;
    const Snapshot* snap = SnapshotOf(vmCtx);
    const Volume* volume = snap ? snap->VolumeOfAfile(afileId) : nullptr;
    auto it = m_vms.find(vmCtx.sVMName);
    if (!volume || it == m_vms.end()) return 1;
    for (const VMInfoStructs::SDisk& d : it->second.items)
        if (d.nBackupType != VMInfoStructs::kBackupTypeConfigFile && d.sDatastore == volume->datastore) ++count;
    return 1;
}

}  // namespace vminfo

extern "C" {

__attribute__((visibility("default"))) int CreateVMInfoObjectByJobId(int instanceType, long long jobId, IVMInfo** out) {
    if (!out) return 0;
    *out = new (std::nothrow) vminfo::VMInfo(instanceType, jobId);
    return *out ? 1 : 0;
}

__attribute__((visibility("default"))) void DeleteVMInfoObject(IVMInfo* obj) {
    delete static_cast<vminfo::VMInfo*>(obj);
}

}  // extern "C"
