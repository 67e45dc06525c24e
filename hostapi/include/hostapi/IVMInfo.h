// Interface of the VM-info library, which the readers load at run time with dlopen and
// never link. Operations are in the library's slot order; new ones go after the last.
#pragma once

#include "hostapi/VMInfoStructs.h"
#include "hostapi/records.h"

#include <string>
#include <vector>

class IVMInfo {
public:
    // Non-zero on success.
    virtual int Init(int flags) = 0;
    virtual int Uninit(int flags) = 0;
    // Connects to the virtualization server; `hosts` carries clear passwords.
    virtual int Connect(const std::string& server, const std::string& user, const std::string& password,
                        const std::vector<SHostCredentials>& hosts) = 0;
    virtual int Disconnect() = 0;
    // The library's last error code (0 when none was recorded).
    virtual int GetErrorInfo() = 0;
    virtual int SetOption(const std::string& name, int value) = 0;
    virtual int MountVM(MountCtx& ctx) = 0;
    virtual int UnMountVM(const MountCtx& ctx) = 0;
    virtual int GetFileMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFile>& files) = 0;
    virtual int GetFullMountInfo(MountCtx& ctx, std::vector<VMInfoStructs::SMountInfoFull>& infos) = 0;
    // How many disks of the VM lie on the volume of archive file `afileId`.
    virtual int GetVMDisksOnVolume(const MountCtx& vmCtx, uint64_t afileId, uint32_t& count) = 0;
    virtual int MountSnap(MountCtx& ctx) = 0;
    virtual int UnMountSnap(MountCtx& ctx) = 0;

protected:
    // Objects are released through DeleteVMInfoObject only.
    ~IVMInfo() = default;
};

// Entry points of the library, looked up by name.
#define VMINFO_LIBRARY_NAME "libVMInfo.so"
#define VMINFO_CREATE_SYMBOL "CreateVMInfoObjectByJobId"
#define VMINFO_DELETE_SYMBOL "DeleteVMInfoObject"

extern "C" {
typedef int (*CreateVMInfoObjectByJobIdFn)(int instanceType, long long jobId, IVMInfo** out);
typedef void (*DeleteVMInfoObjectFn)(IVMInfo* obj);
}
