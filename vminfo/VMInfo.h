// Reference VM-info library: sessions against the host catalog, and (with the snapshot
// support) datastore snapshots read from folders.
#pragma once

#include "Snapshot.h"

#include "hostapi/IVMInfo.h"
#include "hostapi/log.h"

#include <map>
#include <string>

namespace vminfo {

class VMInfo final : public IVMInfo {
public:
    VMInfo(int instanceType, long long jobId);
    ~VMInfo();

    int Init(int flags) override;
    int Uninit(int flags) override;
    int Connect(const std::string& server, const std::string& user, const std::string& password,
                const std::vector<SHostCredentials>& hosts) override;
    int Disconnect() override;
    int GetErrorInfo() override { return m_lastError; }
    int SetOption(const std::string& name, int value) override;
    int MountVM(MountCtx& ctx) override;
    int UnMountVM(const MountCtx& ctx) override;
    int GetFileMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFile>& files) override;
    int GetFullMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFull>& infos) override;
    int GetVMDisksOnVolume(const MountCtx& vmCtx, uint64_t afileId, uint32_t& count) override;
    int MountSnap(MountCtx& ctx) override;
    int UnMountSnap(MountCtx& ctx) override;

private:
    // True (and the last error set) when the settings inject a failure into `operation`:
    // section "VMInfoFaults", key = operation name, value = error code.
    bool Faulted(const char* operation);
    // Appends the context a mount was handed, as one JSON line, to the file named by the
    // setting "VMInfoRecord"/"sFile" (tests assert on what the readers send).
    void Record(const char* operation, const MountCtx& ctx);
    int Fail(int code);
    bool CredentialsMatch(const std::string& server, const std::string& user, const std::string& password);
    // Records `failure` as the last error, logs its reason, and returns 0.
    int Fail(const char* operation, const Failure& failure);
    const Snapshot* SnapshotOf(const MountCtx& ctx) const;
    const MountedVM* MountedOf(const MountCtx& ctx, const char* operation);

    int m_instanceType;
    long long m_jobId;
    int m_lastError = kNoError;
    bool m_initialised = false;
    bool m_connected = false;
    std::map<std::string, int> m_options;
    std::map<int64_t, Snapshot> m_snapshots;  // by snapshot job id
    std::map<std::string, MountedVM> m_vms;   // by the name the VM was mounted under
    KTLogObject m_log;
};

}  // namespace vminfo
