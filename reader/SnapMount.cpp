// Mounting and unmounting the storage snapshot that holds the archive files.
#include "DataReaderVSBase.h"

#include "hostapi/armgr.h"
#include "hostapi/fileutil.h"
#include "hostapi/platform.h"

#include <filesystem>
#include <string>

SHostCredentials DataReaderVSBase::EsxCredentials() const {
    SHostCredentials c;
    c.sHost = m_sESXServerName;
    c.sServer = m_sESXServerName;
    c.sUser = m_sUserName;
    c.sPassword = m_sPassword;
    return c;
}

// The mount request of the snapshot: the job, its client, the ESX credentials, the
// archive files of the list.
void DataReaderVSBase::FillSnapMountCtx(MountCtx& ctx, unsigned long clientId) {
    static const char* const kFn = "DataReaderVSBase::MountSnap";
    ctx.nSnapEngineId = static_cast<int32_t>(m_snapEngineId);
    ctx.bMountRequest = true;
    ctx.nHubcellId = static_cast<int32_t>(m_openArchiveParams.hubcellId);
    ctx.nClientId = static_cast<int32_t>(clientId);
    ctx.nClientId2 = static_cast<int32_t>(clientId);
    ctx.nJobId = m_initParams.jobId;
    ctx.sJobResultsDir = m_sJobResultsDir;
    // Copied before the mount path is built: a configured proxy ESX host replaces the
    // member for the path only.
    ctx.hostCredentials = EsxCredentials();
    ctx.bMountFlag = true;
    ctx.bOption1 = false;
    ctx.sSnapMountPath = getSnapMountPath();
    PrintSnapMountPath(ctx.sSnapMountPath);
    ctx.nCopyId = static_cast<int32_t>(m_openArchiveParams.copyId);
    ctx.nCopyPrecedence = static_cast<int32_t>(GetCopyPrecedence());
    ctx.bPathMount = true;
    ctx.bIndexingV2 = m_appMgr.isUseIndexingV2Enabled();

    std::string afileText;
    for (const AFileID& afile : m_afileIds) {
        ctx.afileIds.push_back(afile.afileId);
        if (!afileText.empty()) afileText += " ";
        afileText += std::to_string(afile.afileId);
    }
    KTlog(m_hLog, 1, "%s:VMInfo::MountSnap( Afiles [%s] Engine [%u]).", kFn, afileText.c_str(), m_snapEngineId);
}

int DataReaderVSBase::MountSnap() {
    static const char* const kFn = "DataReaderVSBase::MountSnap";

    // Every archive file of the list is marked at once, so later opens of the same list
    // find theirs mounted.
    for (const AFileID& afile : m_afileIds)
        if (afile.afileId == m_openArchiveParams.archiveFileId && afile.bMounted) return 0;

    unsigned long clientId = 0;
    KTClient client(m_initParams.appId1, m_sShortClientName, false, 0);
    const int lookup = client.getClientId(clientId);
    if (lookup != 0) {
        KTlog(m_hLog, 1, "%s: Failed to lookup Media Agent %s client id.  Error=%d", kFn, m_sShortClientName.c_str(),
              lookup);
        return -1;
    }
    KTlog(m_hLog, 1, "%s: Media Agent %s client id = %d.", kFn, m_initParams.mediaAgentName.c_str(),
          static_cast<int>(clientId));
    // Each job keeps its results in a folder of its own, removed again by the destructor.
    // Every attempt that gets this far extends the path again; the folder itself is made
    // only once a mount has succeeded.
    if (static_cast<int>(m_vsInstanceType) == 102 && m_initParams.jobId != 0)
        m_sJobResultsDir += FXString::Format("%lld", m_initParams.jobId) + "/";

    if (m_afileIds.empty()) return 0;

    MountCtx ctx;
    FillSnapMountCtx(ctx, clientId);

    const int instanceType = static_cast<int>(getVSInstanceType());
    if (static_cast<int>(getMountType()) == 1 && (instanceType == 101 || instanceType == 100)) {
        ctx.bBlockLevelBrowseApplies = true;
        unsigned long enabled = 1;  // absent means enabled
        KTPlatformInfo().getNumber("VirtualServer", "nEnableVMWareSnapBlocklevelBrowse", &enabled);
        ctx.bBlockLevelBrowse = enabled != 0;
    }

    if (m_appMgr.isUseIndexingV2Enabled()) {
        if (!DownloadSnapXMLFromIndex(ctx)) return -1;
        ctx.bIndexingV2 = true;
    }

    if (!m_pVMInfo || m_pVMInfo->MountSnap(ctx) == 0) {
        KTlog(m_hLog, 1, "%s: VMInfo::MountSnap() failed.", kFn);
        CheckVMInfoError(m_pVMInfo, ctx);
        return -1;
    }

    for (AFileID& afile : m_afileIds) afile.bMounted = true;
    m_snapJobId = ctx.nSnapJobId;
    MakeJobResultsFolder(ctx.sJobResultsDir);
    m_sJobResultsFolder = ctx.sJobResultsDir;
    m_mountCtxs.push_back(ctx);
    KTlog(m_hLog, 1, "%s: Mounted Snapshot from Job Id [%lld].", kFn, static_cast<long long>(m_snapJobId));
    return 0;
}

unsigned long DataReaderVSBase::GetCopyPrecedence() {
    CopyPrecedenceReq request;
    request.archGroupId = m_openArchiveParams.archGroupId;
    request.copyId = m_openArchiveParams.copyId;
    KTlog(m_hLog, 1, "Converting Copy ID: [%lu], ArchGroup: [%lu]", request.copyId, request.archGroupId);

    unsigned long precedence = 0;
    const int rc = ArMgrClientAPI::convertCopyIdToCopyPrecedence(request, precedence);
    if (rc != 0) {
        // The mount goes on with precedence 0, meaning "not known".
        KTlog(m_hLog, -1, "Failed to convert to copy precedence. Return: [%d]", rc);
        return 0;
    }
    KTlog(m_hLog, 1, "Copy Precedence: [%lu]", precedence);
    return precedence;
}

int DataReaderVSBase::UnMountSnap() {
    for (MountCtx& ctx : m_mountCtxs) {
        const unsigned long afileId = ctx.afileIds.empty() ? 0UL : static_cast<unsigned long>(ctx.afileIds.front());
        KTlog(m_hLog, 1, "%s: UnMounting snapshot for archive file Id [%lu] cliendId [%lu].",
              "DataReaderVSBase::UnMountPath", afileId, static_cast<unsigned long>(ctx.nClientId));
        if (m_pVMInfo && m_pVMInfo->UnMountSnap(ctx) == 0) KTlog(m_hLog, 1, "UnMount Snap Failed");
    }
    // The contexts stay: a later call tries the same unmounts again.
    return 0;
}

// What the job writes after the mount (collect files, mount points) needs the results
// folder. Levels made here that the destructor's removal of the last recorded results
// folder would not reach (an earlier one, or a parent left by a repeated attempt) go
// with the temporary folders.
void DataReaderVSBase::MakeJobResultsFolder(const std::string& folder) {
    if (!m_sJobResultsFolder.empty() && m_sJobResultsFolder != folder) m_tempFolders.push_back(m_sJobResultsFolder);
    std::string trimmed = folder;
    FXPath::RemoveTrailingDelimiter(trimmed);
    std::string top;
    for (std::filesystem::path p = trimmed; !p.empty() && p != p.root_path() && !CQiPath::Exists(p.string());
         p = p.parent_path())
        top = p.string();
    if (top.empty()) return;
    const CQiError made = FXFolder::Create(trimmed, 0700);
    if (made.IsError()) {
        KTlog(m_hLog, 1, "%s: Failed to create job results folder [%s]: %s", "DataReaderVSBase::MountSnap",
              folder.c_str(), made.AsString().c_str());
        return;
    }
    if (top != trimmed) m_tempFolders.push_back(top);
}
