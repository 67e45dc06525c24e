// Reader lifecycle: construction, initialisation, archive-file list, open and close.
#include "DataReaderVSBase.h"

#include "hostapi/archive.h"
#include "hostapi/counter.h"

#include "hostapi/armgr.h"
#include "hostapi/fileutil.h"
#include "hostapi/platform.h"

#include <strings.h>
#include <unistd.h>
#include <cstdlib>
#include <new>

std::string m_ProxyDecryptedPassword;

namespace {

constexpr int kInstanceTypeJobResultsFolder = 102;

// Archive-file id of one list token: its leading decimal digits, 0 when it does not
// start with one (a token like "x" still counts as an entry).
uint64_t LeadingId(const std::string& token) {
    uint64_t id = 0;
    for (char c : token) {
        if (c < '0' || c > '9') break;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (id > (UINT64_MAX - digit) / 10) return UINT64_MAX;
        id = id * 10 + digit;
    }
    return id;
}

}  // namespace

DataReaderVSBase::DataReaderVSBase(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : m_pPipelayer(pipelayer), m_pEvent(event), m_jobId(jobId) {}

DataReaderVSBase::~DataReaderVSBase() {
    Close(1);
    // A reader deleted with archive files of its list still open would otherwise leave
    // the snapshot and its VMs mounted and the VM-info object alive.
    if (m_pVMInfo) {
        KTlog(m_hLog, 1, "Deleted with [%d] archive file(s) still open: unmounting", static_cast<int>(m_afileRefCount));
        UnMountAllMountedVMs();
        UnMountSnap();
        CleanupVMInfoObject();
    }
    KTlog(m_hLog, 1, "DataReaderVSBase deleted successfully.");

    // Only this job's own results folder is ever removed: its last component must read
    // as the job id.
    if (static_cast<int>(m_vsInstanceType) == kInstanceTypeJobResultsFolder && !m_sJobResultsFolder.empty() &&
        m_initParams.jobId != 0) {
        std::string folder = m_sJobResultsFolder;
        FXPath::RemoveTrailingDelimiter(folder);
        const std::string base = CQiPath::GetBaseName(folder);
        const long long folderJobId = base.empty() ? 0 : std::atoll(base.c_str());
        if (folderJobId == m_initParams.jobId && CQiPath::Exists(folder)) {
            KTlog(m_hLog, 1, "Cleaning up job results folder [%s]", folder.c_str());
            CQiDirectory::Remove(folder, true, true);
        }
    }

    CleanupTempFilesAndFolders();

    delete m_hLog;
    m_hLog = nullptr;
}

int DataReaderVSBase::CreateArchiveWriter(CPipelayer* pipe, vsSim* sim, const std::string& clientName,
                                          vsArchive*& out) {
    out = new (std::nothrow) vsArchive(nullptr, nullptr, sim, m_sHubServerHostName);
    if (!out) {
        KTlog(m_hLog, 1, "Failed to allocate KTArchive object.");
        return ~0;
    }
    if (out->init(pipe, m_hLog, clientName) != 0) {
        KTlog(m_hLog, 1, "Failed to attach to KTArchive to pipeline.");
        // A writer that is not attached cannot carry a record: without one the open
        // fails instead of mounting a snapshot nothing could be sent from.
        delete out;
        out = nullptr;
        return ~0;
    }
    return 0;
}

void DataReaderVSBase::StartSpeedCounter(CMediaSpeedCounter& counter, const char* name) {
    counter.Init(name, 0);
    counter.Reset();
    counter.EnableLogging();
}

int DataReaderVSBase::InitializeWithWriter(vsSim* sim, CMediaSpeedCounter& readSpeed, CMediaSpeedCounter& writeSpeed,
                                           vsArchive*& archive) {
    const int rc = DataReaderVSBase::Initialize();
    if (rc != 0) return rc;
    StartSpeedCounter(readSpeed, "Virtual Disk Read Speed");
    StartSpeedCounter(writeSpeed, "Pipeline Write Speed");
    return CreateArchiveWriter(m_pPipelayer, sim, m_sShortClientName, archive);
}

int DataReaderVSBase::OpenArchiveFileWithWriter(vsArchive* archive, const DMInitParams& initParams,
                                                const DMOpenArchiveParams& openParams) {
    if (!archive) return ~0;
    archive->SetArchiveFileId(static_cast<unsigned>(openParams.hubcellId),
                              static_cast<unsigned>(openParams.archGroupId),
                              static_cast<unsigned>(openParams.archiveFileId));
    archive->SetJobId(initParams.jobId);
    archive->SetJobToken(initParams.jobToken);
    return DataReaderVSBase::OpenArchiveFile(initParams, openParams);
}

void DataReaderVSBase::ReleaseWriter(vsArchive*& archive) {
    if (!archive) return;
    archive->close(true);
    delete archive;
    archive = nullptr;
}

std::vector<VirtualServer::SnapSrcPathDiskInfo>::iterator DataReaderVSBase::FindDiskOptions(
    const std::string& diskName, VirtualServer::SnapSrcPathOptions& options, bool byAlternateName) {
    for (auto it = options.diskInfo.begin(); it != options.diskInfo.end(); ++it) {
        const std::string& key = byAlternateName ? it->alternateDiskName : it->diskName;
        if (strcasecmp(key.c_str(), diskName.c_str()) == 0) return it;
    }
    return options.diskInfo.end();
}

void DataReaderVSBase::InitKTLog(const char* tag, const char* debugKey, KTJobID jobId) {
    m_hLog = new (std::nothrow) KTLogObject;
    if (!m_hLog) return;
    InitKTlog(m_hLog, tag, debugKey, static_cast<unsigned long>(gettid()));
    KTlogSetJobID(m_hLog, jobId);
}

int DataReaderVSBase::Initialize() {
    if (!m_pEvent) {
        KTlog(m_hLog, 1, "Invalid KtEvent pointer passed in.");
        return -1;
    }

    KTPlatformInfo platform;
    KTPI_HubClient hubClient;
    m_sJobResultsDir = hubClient.getJobResultsDirectory(platform.getPhysicalMachine());
    if (m_sJobResultsDir.empty() || !FXFolder::DoesFolderExist(m_sJobResultsDir)) {
        KTlog(m_hLog, 1, "Job Results directory path is empty, or it does not exist. Path: [%s]",
              m_sJobResultsDir.c_str());
        return -1;
    }
    FXPath::AppendTrailingDelimiter(m_sJobResultsDir);

    KTPI_Base base;
    if (!base.getTesselDirectory()) {
        KTlog(m_hLog, 1, "Failed to Lookup Tessel Base Directory Error using KTPI_Base.");
        return -1;
    }

    KTPI_MediaAgent mediaAgent;
    const char* hubServer = mediaAgent.getHubServerHostName();
    m_sHubServerHostName = hubServer ? hubServer : "";

    // A missing library is not fatal here: it surfaces when the VM-info object is made.
    if (!LoadVMInfoDLL()) KTlog(m_hLog, -1, "Failed to dynamically load VMInfo library.");
    return 0;
}

void DataReaderVSBase::setShortClientName(const char* name) {
    if (name && *name) m_sShortClientName = name;
}

int DataReaderVSBase::PreOpenArchiveFile(char* list) {
    static const char* const kFn = "DataReaderVSBase::PreOpenArchiveFile";
    m_afileRefCount = 0;
    if (!list) return 0;

    m_sAFileList = list;
    KTlog(m_hLog, 1, "%s AFileList:[%s]", kFn, m_sAFileList.c_str());

    std::vector<CQiString> tokens;
    CQiString(m_sAFileList).Tokenize(tokens, '|');
    if (tokens.empty()) return -1;

    // Appended, not replaced: ids of a list that was not closed stay.
    for (const CQiString& token : tokens) {
        AFileID afile;
        afile.afileId = LeadingId(token);
        m_afileIds.push_back(afile);
        ++m_afileRefCount;
    }
    KTlog(m_hLog, 1, "%s AFileList Ref Count:[%d]", kFn, static_cast<int>(m_afileRefCount));
    return 0;
}

int DataReaderVSBase::OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) {
    static const char* const kFn = "DataReaderVSBase::OpenArchiveFile";
    m_initParams = initParams;
    m_openArchiveParams = openParams;

    const std::string appId = FXString::Format("%lu:%lu", initParams.appId1, initParams.appId2);
    KTlog(m_hLog, 1, "App ID String : [%s].", appId.c_str());

    if (m_afileIds.empty()) {
        KTlog(m_hLog, 1, "%s: ArchiveFileIDList found empty. Adding archFileId: [%d]", kFn,
              static_cast<int>(openParams.archiveFileId));
        AFileID afile;
        afile.afileId = openParams.archiveFileId;
        m_afileIds.push_back(afile);
        ++m_afileRefCount;
    }

    m_appMgr.setAppId(initParams.appId1, initParams.appId2);

    if (!getInPlaceRestoreOptions(initParams.appId1, initParams.appId2)) {
        KTlog(m_hLog, 1, "%s: Failed to in place restore options", kFn);
        return -1;
    }

    if (!PrepareVMInfoObject()) return -1;

    if (m_appMgr.isUseIndexingV2Enabled()) {
        GetAfileInfoReq request;
        request.afileId = openParams.archiveFileId;
        request.appId = initParams.appId1;
        GetAfileInfoRetCC_t answer;
        if (ArMgrClientAPI::getAfileInfo(request, answer) != 0) {
            KTlog(m_hLog, 1, "%s: Failed to get archive file info for Archive file: [%d]", kFn,
                  static_cast<int>(openParams.archiveFileId));
            return -1;
        }
        m_afileBackupJobId = answer.backupJobId;
    }

    if (m_bSnapRestore) {
        if (MountSnap() != 0) {
            KTlog(m_hLog, 1, "%s: Failed to mount path to read data.", kFn);
            CleanupVMInfoObject();
            return -1;
        }
    } else {
        KTlog(m_hLog, 2, "Non-snap restore");
    }
    return 0;
}

int DataReaderVSBase::OnSnapSrcPath(FSRSnapSrcPath*) {
    KTlog(m_hLog, 1, "%s: Base class handling SnapSrcPath", "DataReaderVSBase::OnSnapSrcPath");
    return -1;
}

int DataReaderVSBase::Close(int releaseVMInfo) {
    static const char* const kFn = "DataReaderVSBase::Close";
    if (m_afileRefCount > 0) {
        --m_afileRefCount;
        KTlog(m_hLog, 1, "%s AFileList Ref Count:[%d]", kFn, static_cast<int>(m_afileRefCount));
    }
    // Other archive files of the list are still open: keep everything mounted.
    if (m_afileRefCount != 0) return 0;

    if (UnMountAllMountedVMs() != 0) {
        KTlog(m_hLog, 1, "%s: Failed to Unmount VMs from MA (vcbMounter failure?).", kFn);
        return -1;
    }
    if (UnRegisterAllRegisteredVMs() != 0) {
        KTlog(m_hLog, 1, "%s: Failed to Unregister VMs on mounted snap volume from ESX inventory.", kFn);
        return -1;
    }
    if (UnMountSnap() != 0) {
        KTlog(m_hLog, 1, "%s: Failed to Unmount path that was mounted for reading.", kFn);
        return -1;
    }
    m_processedSnapPaths.clear();
    if (releaseVMInfo) CleanupVMInfoObject();
    m_afileIds.clear();
    return 0;
}

bool DataReaderVSBase::IsStopSignaled() {
    if (!m_pEvent) return false;
    if (!m_pEvent->wait(0)) return false;
    KTlog(m_hLog, 1, "%s: Stop signaled by FsRestoreHead.", "DataReaderVSBase::IsStopSignaled");
    return true;
}

int DataReaderVSBase::SetSnapEngineID(unsigned int id) {
    if (m_snapEngineId == 0) {
        m_snapEngineId = id;
        return 0;
    }
    if (id != m_snapEngineId) {
        KTlog(m_hLog, 1, "%s:[ERROR] Reader doesn't support multiple snap-engines.[%u] [%u]",
              "DataReaderVSBase::SetSnapEngineID", m_snapEngineId, id);
        return -1;
    }
    return 0;
}

bool DataReaderVSBase::isVMImageSnap(int engineId) {
    return engineId == 58 || engineId == 59;
}

bool DataReaderVSBase::IsVVOLEngine(unsigned engineId) {
    return engineId == 58 || engineId == 59;
}

bool DataReaderVSBase::IsVMCentricSnapEngine(unsigned engineId) {
    return engineId == 66 || engineId == 77 || engineId == 82;
}

std::vector<std::string> DataReaderVSBase::SplitSnapSrcPath(const std::string& path) {
    std::vector<std::string> tokens;
    std::string token;
    for (char c : path) {
        if (c == '\\') {
            if (!token.empty()) tokens.push_back(token);
            token.clear();
        } else {
            token += c;
        }
    }
    if (!token.empty()) tokens.push_back(token);
    return tokens;
}

bool DataReaderVSBase::CheckForSnapPathProcessed(const char* path) {
    auto it = m_processedSnapPaths.find(path ? path : "");
    return it != m_processedSnapPaths.end() && it->second;
}
