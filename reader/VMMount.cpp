// Registry of the VMs mounted out of the snapshot, and their temporary mount points.
#include "DataReaderVSBase.h"

#include "hostapi/fileutil.h"
#include "hostapi/indexclient.h"
#include "hostapi/platform.h"

#include <filesystem>

bool DataReaderVSBase::GetVMMountContext(const std::string& vmName, DataReaderVMCtx& out) {
    auto it = m_vmMountCtxMap.find(vmName);
    if (it == m_vmMountCtxMap.end()) return false;
    out = it->second;
    return true;
}

// Under indexing v2 the VM's metadata comes from the index: its client and its files,
// into a remote-cache folder of the job.
bool DataReaderVSBase::FetchVMFromIndex(MountCtx& ctx, const std::string& vmName) {
    static const char* const kFn = "DataReaderVSBase::MountVM";
    ctx.sRemoteCacheDir = CreateTempMountPointDirectoryForRemoteCache(vmName);
    ctx.bIndexingV2 = true;
    if (IsVVOLEngine(m_snapEngineId) || IsVMCentricSnapEngine(m_snapEngineId))
        ctx.vmInfo.llBackupJobId = m_afileBackupJobId;
    vsIndexClient indexClient(&m_jobMgr, &m_appMgr, m_sShortClientName);
    if (!GetVMClientInfo(ctx)) {
        KTlog(m_hLog, 1, "%s: Failed to get VM Client Info from backup file", kFn);
        return false;
    }
    if (!indexClient.DownloadVMMetadataFiles(ctx, ctx.sRemoteCacheDir)) {
        KTlog(m_hLog, 1, "%s: Failed to download the file from location:[%s]", kFn, ctx.sRemoteCacheDir.c_str());
        return false;
    }
    return true;
}

int DataReaderVSBase::MountVM(const std::string& vmName, DataReaderVMCtx& out,
                              const std::vector<std::string>& diskNames) {
    static const char* const kFn = "DataReaderVSBase::MountVM";
    KTlog(m_hLog, 1, "%s: MountVM Start >>", kFn);
    if (GetVMMountContext(vmName, out)) {
        KTlog(m_hLog, 1, "%s: VM [%s] Already Mounted", kFn, vmName.c_str());
        return 0;
    }

    MountCtx ctx;
    ctx.bVMMountFlag = true;
    ctx.nSnapJobId = m_snapJobId;
    ctx.sJobResultsDir = m_sJobResultsFolder;
    ctx.hostCredentials = EsxCredentials();
    ctx.bOption1 = false;
    ctx.nSnapEngineId = static_cast<int32_t>(m_snapEngineId);
    GetDiskFiltersForRestore(ctx.diskFilters, diskNames);

    if (m_mountCtxs.empty()) {
        KTlog(m_hLog, 1, "%s: SnapMountCtx is empty. Mounting of Hardware snapshot may have failed.", kFn);
        return -1;
    }
    const MountCtx& snap = m_mountCtxs.front();
    const int instanceType = static_cast<int>(m_vsInstanceType);
    if (instanceType == 102)
        ctx.bOptionType102 = snap.bOptionType102;
    else if (instanceType == 100 || instanceType == 101)
        ctx.bOptionType100 = snap.bOptionType100;
    ctx.nJobId = snap.nSnapJobId;
    ctx.nClientId = snap.nClientId;
    ctx.nClientId2 = snap.nClientId2;
    ctx.bMountFlag = true;
    ctx.nHubcellId = static_cast<int32_t>(m_openArchiveParams.hubcellId);
    ctx.nAppId2 = static_cast<int32_t>(m_initParams.appId2);

    const int mountType = static_cast<int>(m_mountType);
    const bool fileMountInfo = mountType == 1 || mountType == 3;
    if (fileMountInfo) {
        ctx.nMountMode = 1;
    } else {
        ctx.nMountMode = 0;
        ctx.bPathMount = true;
        ctx.sSnapMountPath = getSnapMountPath();
    }
    ctx.bUseCBT = m_bUseCBT;
    ctx.sMountPoint = CreateTempMountPointDirectory(vmName);
    ctx.sVMName = vmName;

    if (m_appMgr.isUseIndexingV2Enabled() && !FetchVMFromIndex(ctx, vmName)) return -1;

    KTlog(m_hLog, 1, "%s: Mounting VM [%s] on [%s] for hubcell id:[%d]", kFn, vmName.c_str(), m_sESXServerName.c_str(),
          static_cast<int>(ctx.nHubcellId));
    if (!m_pVMInfo || m_pVMInfo->MountVM(ctx) == 0) {
        KTlog(m_hLog, 1, "%s: MountVM failed. Hard failure.", kFn);
        CheckVMInfoError(m_pVMInfo, ctx);
        return -1;
    }
    KTlog(m_hLog, 1, "%s: Mounted VM [%s] as [%s][%s]", kFn, vmName.c_str(), ctx.sMountedName.c_str(),
          ctx.sMountedPath.c_str());
    m_vmNameMap[vmName] = ctx.sMountedPath;
    out = DataReaderVMCtx{};
    out.mountCtx = ctx;

    // The VM stays mounted but unregistered when its volumes cannot be listed, so the
    // next item tries again.
    if (fileMountInfo && m_pVMInfo->GetFileMountInfo(out.mountCtx, out.mountInfoFiles) == 0) return -1;

    m_vmMountCtxMap[vmName] = out;
    return 0;
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

bool DataReaderVSBase::InsideJobResults(const std::string& path) const {
    std::error_code ec;
    const std::string root = KTPI_HubClient().getJobResultsDirectory(KTPlatformInfo().getPhysicalMachine());
    if (root.empty()) return false;
    const std::string base = std::filesystem::weakly_canonical(root, ec).string();
    if (ec || base.empty()) return false;
    const std::string real = std::filesystem::weakly_canonical(path, ec).string();
    return !ec && real.size() > base.size() + 1 && real.compare(0, base.size(), base) == 0 &&
           (base.back() == '/' || real[base.size()] == '/');
}

void DataReaderVSBase::CleanupTempFilesAndFolders() {
    for (const std::string& path : m_tempFolders) {
        if (!CQiPath::Exists(path)) continue;
        if (!InsideJobResults(path)) {
            KTlog(m_hLog, 1, "Not removing [%s]: it lies outside the job results folder", path.c_str());
            continue;
        }
        if (CQiPath::IsDirectory(path)) {
            KTlog(m_hLog, 1, "Cleaning up temp folder [%s]", path.c_str());
            CQiDirectory::Remove(path, true, true);
        } else if (CQiPath::IsFile(path)) {
            KTlog(m_hLog, 1, "Cleaning up file [%s]", path.c_str());
            CQiFile::Delete(path, true);
        }
    }
}
