// Live browse: mounts VMs of a snapshot through the VM-info library so that the files
// of their guest volumes can be read, and remembers where each volume lives.
#include "hostapi/filebackup.h"

#include "hostapi/IVMInfo.h"
#include "vshost/catalog.h"

#include <dlfcn.h>
#include <strings.h>
#include <filesystem>
#include <mutex>

namespace {

KTLOGHANDLE Log() {
    static KTLogObject* h = [] {
        auto* log = new KTLogObject;
        InitKTlog(log, "LIVEBROWSE\t", "nLIVEBROWSE", 0);
        return log;
    }();
    return h;
}

bool SameText(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The VM-info library beside this one; loaded once, never unloaded.
struct VMInfoLib {
    CreateVMInfoObjectByJobIdFn create = nullptr;
    DeleteVMInfoObjectFn destroy = nullptr;
    std::string error;
};

// Kept for the life of the process (never destroyed): mounts still registered at exit
// are released by the library's own end, not by static destructors in unknown order.
const VMInfoLib& Library() {
    static const VMInfoLib& lib = *[] {
        auto* lp = new VMInfoLib;
        VMInfoLib& l = *lp;
        Dl_info info{};
        std::string path = VMINFO_LIBRARY_NAME;
        if (dladdr(reinterpret_cast<void*>(&VMLivebrowse::UnmountAll), &info) && info.dli_fname) {
            std::string self = info.dli_fname;
            const size_t slash = self.rfind('/');
            if (slash != std::string::npos) path = self.substr(0, slash + 1) + VMINFO_LIBRARY_NAME;
        }
        void* h = dlopen(path.c_str(), RTLD_LAZY);
        if (!h) {
            const char* why = dlerror();
            l.error = "cannot load " + path + ": " + (why ? why : "unknown error");
            return lp;
        }
        l.create = reinterpret_cast<CreateVMInfoObjectByJobIdFn>(dlsym(h, VMINFO_CREATE_SYMBOL));
        l.destroy = reinterpret_cast<DeleteVMInfoObjectFn>(dlsym(h, VMINFO_DELETE_SYMBOL));
        if (!l.create || !l.destroy) l.error = path + " lacks its entry points";
        return lp;
    }();
    return lib;
}

}  // namespace

// One mounted snapshot: the VM-info object that mounted it and the VMs mounted from it.
struct VMLivebrowse::Session {
    struct VM {
        MountCtx ctx;
        std::vector<VMInfoStructs::SMountInfoFile> volumes;
    };
    IVMInfo* vmInfo = nullptr;
    MountCtx snapCtx;
    std::map<std::string, VM> vms;  // by the name the VM was mounted with

    ~Session() {
        if (!vmInfo) return;
        for (auto& [name, vm] : vms) vmInfo->UnMountVM(vm.ctx);
        vmInfo->UnMountSnap(snapCtx);
        vmInfo->Uninit(0);
        Library().destroy(vmInfo);
    }

    const VM* Find(const std::string& vmGuid) const {
        for (const auto& [name, vm] : vms)
            if (SameText(name, vmGuid) || SameText(vm.ctx.vmInfo.sVMGuid, vmGuid) ||
                SameText(vm.ctx.sMountedName, vmGuid))
                return &vm;
        return nullptr;
    }
};

namespace {

std::mutex g_mutex;
// Never destroyed, like the library (see Library()).
std::map<unsigned, boost::shared_ptr<VMLivebrowse>>& g_objects =
    *new std::map<unsigned, boost::shared_ptr<VMLivebrowse>>;

}  // namespace

VMLivebrowse::VMLivebrowse(unsigned afileId, boost::shared_ptr<Session> session)
    : m_afileId(afileId), m_session(std::move(session)) {}

VMLivebrowse::~VMLivebrowse() = default;

boost::shared_ptr<VMLivebrowse> VMLivebrowse::GetLivebrowseObject(unsigned archiveFileId, unsigned instanceType, bool,
                                                                  bool, LiveBrowseMountPurpose) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_objects.find(archiveFileId);
    if (it != g_objects.end()) return it->second;

    const VMInfoLib& lib = Library();
    if (!lib.error.empty()) {
        KTlog(Log(), 1, "Live browse of archive file [%u]: %s", archiveFileId, lib.error.c_str());
        return {};
    }
    // The whole snapshot that holds the archive file: a VM's folder and its guest
    // volumes may lie on any of its datastores.
    std::vector<vshost::ArchiveFileRecord> afiles;
    try {
        vshost::Catalog catalog;
        const auto afile = catalog.ArchiveFile(archiveFileId);
        if (!afile) {
            KTlog(Log(), 1, "Live browse: archive file [%u] is not in the catalog", archiveFileId);
            return {};
        }
        afiles = catalog.ArchiveFilesOfSnapJob(afile->snapJobId);
        if (afiles.empty()) afiles.push_back(*afile);
    } catch (const std::exception& e) {
        KTlog(Log(), 1, "Live browse of archive file [%u]: %s", archiveFileId, e.what());
        return {};
    }

    auto session = boost::shared_ptr<Session>(new Session);
    IVMInfo* vmInfo = nullptr;
    if (!lib.create(static_cast<int>(instanceType), 0, &vmInfo) || !vmInfo) {
        KTlog(Log(), 1, "Live browse of archive file [%u]: no VM-info object", archiveFileId);
        return {};
    }
    session->vmInfo = vmInfo;
    if (!vmInfo->Init(0)) {
        KTlog(Log(), 1, "Live browse of archive file [%u]: VM-info initialisation failed, error [%d]", archiveFileId,
              vmInfo->GetErrorInfo());
        return {};
    }
    MountCtx& ctx = session->snapCtx;
    ctx.nSnapEngineId = static_cast<int32_t>(afiles.front().snapEngineId);
    for (const auto& a : afiles) ctx.afileIds.push_back(a.afileId);
    if (!vmInfo->MountSnap(ctx)) {
        KTlog(Log(), 1, "Live browse of archive file [%u]: snapshot mount failed, error [%d]", archiveFileId,
              vmInfo->GetErrorInfo());
        return {};
    }
    KTlog(Log(), 1, "Live browse of archive file [%u]: snapshot of job [%lld] mounted", archiveFileId,
          static_cast<long long>(ctx.nSnapJobId));
    boost::shared_ptr<VMLivebrowse> object(new VMLivebrowse(archiveFileId, session));
    g_objects[archiveFileId] = object;
    return object;
}

// The contract passes the object by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void VMLivebrowse::ReleaseLivebrowseObject(unsigned archiveFileId, boost::shared_ptr<VMLivebrowse> object) {
    // The object stays registered: its VMs stay mounted until UnmountAll.
    if (object && object->ArchiveFileId() != archiveFileId)
        KTlog(Log(), 1, "Live browse object of archive file [%u] released as archive file [%u]",
              object->ArchiveFileId(), archiveFileId);
}

void VMLivebrowse::UnmountAll() {
    std::map<unsigned, boost::shared_ptr<VMLivebrowse>> objects;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        objects.swap(g_objects);
    }
    if (!objects.empty()) KTlog(Log(), 1, "Unmounting [%zu] live browse snapshot(s)", objects.size());
}

bool VMLivebrowse::FindVolume(const std::string& vmGuid, const std::string& volume, std::string& localPath) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto& [id, object] : g_objects) {
        const Session::VM* vm = object->m_session->Find(vmGuid);
        if (!vm) continue;
        for (const auto& v : vm->volumes) {
            if (SameText(v.sVolumeGuid, volume) || (!v.sVolumeName.empty() && SameText(v.sVolumeName, volume))) {
                localPath = v.sLocalMountPath;
                return true;
            }
        }
    }
    return false;
}

bool VMLivebrowse::FindVolumeOf(const std::string& path, std::string& localPath) {
    if (path.empty() || path.front() != '/') return false;
    const auto trimmed = [](std::string p) {
        while (p.size() > 1 && p.back() == '/') p.pop_back();
        return std::filesystem::path(p).lexically_normal();
    };
    const std::filesystem::path normal = trimmed(path);
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto& [id, object] : g_objects) {
        for (const auto& [name, vm] : object->m_session->vms) {
            for (const auto& v : vm.volumes) {
                if (v.sLocalMountPath.empty() || v.sLocalMountPath.front() != '/') continue;
                const std::filesystem::path rel = normal.lexically_relative(trimmed(v.sLocalMountPath));
                if (rel.empty() || *rel.begin() == "..") continue;
                localPath = v.sLocalMountPath;
                return true;
            }
        }
    }
    return false;
}

bool VMLivebrowse::IsVMMounted(const std::string& vmGuid) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return m_session->Find(vmGuid) != nullptr;
}

bool VMLivebrowse::GetVolumes(const std::string& vmGuid, std::vector<VMInfoStructs::SMountInfoFile>& out) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    const Session::VM* vm = m_session->Find(vmGuid);
    if (!vm) return false;
    out = vm->volumes;
    return true;
}

bool VMLivebrowse::UnMountVM(const std::string& vmGuid) {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (auto it = m_session->vms.begin(); it != m_session->vms.end(); ++it) {
        if (&it->second != m_session->Find(vmGuid)) continue;
        m_session->vmInfo->UnMountVM(it->second.ctx);
        m_session->vms.erase(it);
        return true;
    }
    return false;
}

bool VMLivebrowse::MountVM(const std::string& vmGuid, std::vector<VMInfoStructs::SMountInfoFile>& volumes,
                           std::string& mountedName, VirtualServer::LBError& error, int, int) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (const Session::VM* vm = m_session->Find(vmGuid)) {
        volumes = vm->volumes;
        mountedName = vm->ctx.sMountedName;
        return true;
    }
    Session::VM vm;
    vm.ctx.bVMMountFlag = true;
    vm.ctx.bMountFlag = true;
    vm.ctx.nMountMode = 1;
    vm.ctx.nSnapJobId = m_session->snapCtx.nSnapJobId;
    vm.ctx.nJobId = m_session->snapCtx.nSnapJobId;
    vm.ctx.nSnapEngineId = m_session->snapCtx.nSnapEngineId;
    vm.ctx.sVMName = vmGuid;
    IVMInfo* vmInfo = m_session->vmInfo;
    if (!vmInfo->MountVM(vm.ctx)) {
        m_lastError = vmInfo->GetErrorInfo();
        error.set("VM [" + vmGuid + "] cannot be mounted, error " + std::to_string(m_lastError));
        KTlog(Log(), 1, "Live browse: %s", error.text().c_str());
        return false;
    }
    if (!vmInfo->GetFileMountInfo(vm.ctx, vm.volumes)) {
        m_lastError = vmInfo->GetErrorInfo();
        error.set("guest volumes of VM [" + vmGuid + "] cannot be listed, error " + std::to_string(m_lastError));
        KTlog(Log(), 1, "Live browse: %s", error.text().c_str());
        vmInfo->UnMountVM(vm.ctx);
        return false;
    }
    for (const auto& v : vm.volumes)
        KTlog(Log(), 2, "Live browse: VM [%s] volume [%s] name [%s] at [%s]", vmGuid.c_str(), v.sVolumeGuid.c_str(),
              v.sVolumeName.c_str(), v.sLocalMountPath.c_str());
    volumes = vm.volumes;
    mountedName = vm.ctx.sMountedName;
    m_session->vms[vmGuid] = std::move(vm);
    return true;
}
