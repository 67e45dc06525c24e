#include "VMInfo.h"

#include "hostapi/appmgr.h"
#include "vshost/catalog.h"
#include "vshost/home.h"

#include <cstdlib>
#include <new>
#include <exception>
#include <unistd.h>

namespace vminfo {

VMInfo::VMInfo(int instanceType, long long jobId) : m_instanceType(instanceType), m_jobId(jobId) {
    InitKTlog(&m_log, "VMINFO\t", "nVMINFO", static_cast<unsigned long>(gettid()));
    KTlogSetJobID(&m_log, jobId);
    KTlog(&m_log, 2, "VMInfo: created for instance type [%d]", instanceType);
}

VMInfo::~VMInfo() { KTlog(&m_log, 2, "VMInfo: released"); }

bool VMInfo::Faulted(const char* operation) {
    std::string value;
    if (!vshost::settings::Get("VMInfoFaults", operation, value)) return false;
    char* end = nullptr;
    const long code = std::strtol(value.c_str(), &end, 0);
    if (end == value.c_str()) return false;
    KTlog(&m_log, 1, "VMInfo::%s: failing with injected error [%ld]", operation, code);
    m_lastError = static_cast<int>(code);
    return true;
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
        for (const SHostCredentials& stored : vshost::Catalog().CredentialsForServer(server)) {
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
    KTlog(&m_log, 1, "VMInfo::Connect: server [%s] user [%s] password length [%zu] host records [%zu]",
          server.c_str(), user.c_str(), password.size(), hosts.size());
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

// Snapshot and VM mounting arrive with the datastore snapshot support; until then every
// mount operation fails with the snap-volume mount error.
int VMInfo::MountSnap(MountCtx&) {
    if (Faulted("MountSnap")) return 0;
    KTlog(&m_log, 1, "VMInfo::MountSnap: datastore snapshots are not supported by this build");
    return Fail(kErrMountSnapVolumes);
}

int VMInfo::UnMountSnap(MountCtx&) {
    if (Faulted("UnMountSnap")) return 0;
    return 1;
}

int VMInfo::MountVM(MountCtx&) {
    if (Faulted("MountVM")) return 0;
    KTlog(&m_log, 1, "VMInfo::MountVM: datastore snapshots are not supported by this build");
    return Fail(kErrMountSnapVolumes);
}

int VMInfo::UnMountVM(const MountCtx&) {
    if (Faulted("UnMountVM")) return 0;
    return 1;
}

int VMInfo::GetFileMountInfo(MountCtx&, std::vector<VMInfoStructs::SMountInfoFile>&) {
    if (Faulted("GetFileMountInfo")) return 0;
    return Fail(kErrMountSnapVolumes);
}

int VMInfo::GetFullMountInfo(MountCtx&, std::vector<VMInfoStructs::SMountInfoFull>&) {
    if (Faulted("GetFullMountInfo")) return 0;
    return Fail(kErrMountSnapVolumes);
}

int VMInfo::GetVMDisksOnVolume(const MountCtx&, uint64_t, uint32_t& count) {
    if (Faulted("GetVMDisksOnVolume")) return 0;
    count = 0;
    return 1;
}

}  // namespace vminfo

extern "C" {

__attribute__((visibility("default"))) int CreateVMInfoObjectByJobId(int instanceType, long long jobId,
                                                                     IVMInfo** out) {
    if (!out) return 0;
    *out = new (std::nothrow) vminfo::VMInfo(instanceType, jobId);
    return *out ? 1 : 0;
}

__attribute__((visibility("default"))) void DeleteVMInfoObject(IVMInfo* obj) {
    delete static_cast<vminfo::VMInfo*>(obj);
}

}  // extern "C"
