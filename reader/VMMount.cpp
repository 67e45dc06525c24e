// Registry of the VMs mounted out of the snapshot, and their temporary mount points.
#include "DataReaderVSBase.h"

#include "hostapi/fileutil.h"

bool DataReaderVSBase::GetVMMountContext(const std::string& vmName, DataReaderVMCtx& out) {
    auto it = m_vmMountCtxMap.find(vmName);
    if (it == m_vmMountCtxMap.end()) return false;
    out = it->second;
    return true;
}

int DataReaderVSBase::MountVM(const std::string& vmName, DataReaderVMCtx& out, const std::vector<std::string>&) {
    static const char* const kFn = "DataReaderVSBase::MountVM";
    KTlog(m_hLog, 1, "%s: MountVM Start >>", kFn);
    if (GetVMMountContext(vmName, out)) {
        KTlog(m_hLog, 1, "%s: VM [%s] Already Mounted", kFn, vmName.c_str());
        return 0;
    }
    // VM mounting arrives with the datastore snapshot support of the VM-info library.
    KTlog(m_hLog, 1, "%s: VM mounting is not available in this build.", kFn);
    return -1;
}

bool DataReaderVSBase::GetDiskFiltersForRestore(std::vector<SDiskFilter>& filters,
                                                const std::vector<std::string>& diskNames) {
    // No names: the caller's earlier filters stay as they are.
    if (diskNames.empty()) return true;
    filters.clear();
    for (const std::string& name : diskNames) {
        SDiskFilter filter;
        filter.nFilterType = SDiskFilter::kByDiskName;
        filter.sDiskName = name;
        filters.push_back(filter);
    }
    return true;
}

int DataReaderVSBase::UnMountAllMountedVMs() {
    static const char* const kFn = "DataReaderVSBase::UnMountAllMountedVMs";
    if (m_vmMountCtxMap.empty()) return 0;
    KTlog(m_hLog, 1, "%s: Unmounting All VMs", kFn);
    for (const auto& [name, vmCtx] : m_vmMountCtxMap) {
        KTlog(m_hLog, 1, "%s: Unmounting VM [%s]", kFn, name.c_str());
        if (m_pVMInfo) {
            const MountCtx ctx = vmCtx.mountCtx;
            m_pVMInfo->UnMountVM(ctx);
        }
    }
    m_vmMountCtxMap.clear();
    KTlog(m_hLog, 1, "%s: All VMs unmounted", kFn);
    return 0;
}

int DataReaderVSBase::UnRegisterAllRegisteredVMs() {
    // VMs are mounted from the snapshot without registering them anywhere.
    return 0;
}

std::string DataReaderVSBase::CreateTempMountPointDirectory(const std::string& vmName) {
    std::string path = m_sJobResultsDir;
    path += FXString::Format("JobID_%lld", m_initParams.jobId);
    path += FXString::Format("_Mount_%s", vmName.c_str());
    m_tempFolders.push_back(path);
    return path;
}

void DataReaderVSBase::DeleteTempMountPointDirectory(const std::string& path) {
    const CQiError err = CQiDirectory::Remove(path, false);
    if (err.IsError())
        KTlog(m_hLog, 1, "%s: While removing tmp mountpoint [%s], CQiDirectory::Remove failed, error=%s",
              "DataReaderVSBase::DeleteTempMountPoint", path.c_str(), err.AsString().c_str());
}

void DataReaderVSBase::CleanupTempFilesAndFolders() {
    for (const std::string& path : m_tempFolders) {
        if (!CQiPath::Exists(path)) continue;
        if (CQiPath::IsDirectory(path)) {
            KTlog(m_hLog, 1, "Cleaning up temp folder [%s]", path.c_str());
            CQiDirectory::Remove(path, true, true);
        } else if (CQiPath::IsFile(path)) {
            KTlog(m_hLog, 1, "Cleaning up file [%s]", path.c_str());
            CQiFile::Delete(path, true);
        }
    }
}
