// Snapshot backup XML of indexing V2: its download from the index's remote cache, the
// VM's client information in it, and the folder for a VM's metadata files.
#include "DataReaderVSBase.h"

#include "hostapi/appclient.h"
#include "hostapi/fileutil.h"
#include "hostapi/indexclient.h"
#include "hostapi/xmlfile.h"

#include <strings.h>
#include <list>

namespace {

// Message type and version under which the host describes a snapshot backup.
constexpr int kBackupMessageType = 26;
constexpr int kBackupMessageVersion = 13;

// VVOL and VM-centric engines keep one backup XML per VM, named after the VM's GUID;
// the others one per backup job.
std::string BackupXmlName(int64_t backupJobId, unsigned snapEngineId, const std::string& vmGuid) {
    std::string name = "backup_" + std::to_string(backupJobId);
    if (DataReaderVSBase::IsVVOLEngine(snapEngineId) || DataReaderVSBase::IsVMCentricSnapEngine(snapEngineId))
        name += "_" + vmGuid;
    return name + ".xml";
}

}  // namespace

bool DataReaderVSBase::DownloadSnapXMLFromIndex(const MountCtx& ctx) {
    static const char* const kFn = "DataReaderVSBase::getSnapBackupXmlFromIndex";
    const std::string jobId = FXString::Format("%llu", static_cast<unsigned long long>(m_jobId));
    m_jobMgr.setJobId(jobId.c_str());
    m_appMgr.setHubcellId(static_cast<unsigned long>(m_openArchiveParams.hubcellId));
    vsIndexClient indexClient(&m_jobMgr, &m_appMgr, m_sShortClientName);

    std::string vmGuid;
    if (IsVVOLEngine(m_snapEngineId) || IsVMCentricSnapEngine(m_snapEngineId)) {
        const unsigned long subclientId = m_appMgr.getSubclientId();
        ApplicationId appId(m_appMgr.getHubCellId(), subclientId);
        VMClient* client = appId.getClient(nullptr);
        if (!client) {
            KTlog(m_hLog, -1, "%s: Failed to fetch client for vm [subclient id]: %d ", kFn,
                  static_cast<int>(subclientId));
            return false;
        }
        ClientProperties* properties = client->getClientProperties(0);
        if (!properties) {
            KTlog(m_hLog, -1, "%s: Failed to fetch client properties for vm client [subclient id]: %d ", kFn,
                  static_cast<int>(subclientId));
            return false;
        }
        if (properties->getVMInstanceUUID(vmGuid, nullptr) != 0) {
            KTlog(m_hLog, -1, "%s: Failed to get Virtual Machine GUID for vm [subclient id]: %d ", kFn,
                  static_cast<int>(subclientId));
            return false;
        }
    }
    const std::string fileName = BackupXmlName(m_afileBackupJobId, m_snapEngineId, vmGuid);
    const std::list<std::string> files{fileName};

    // Recorded before the download, so that a partial result is cleaned up too.
    std::string path;
    FXPath::Append(path, ctx.sJobResultsDir, fileName, 0);
    m_tempFolders.push_back(path);

    const std::string subclientGuid = m_appMgr.getSubclientGUID();
    return indexClient.DownloadMetadataFilesFromRemoteCache(files, ctx.sJobResultsDir, m_afileBackupJobId,
                                                            subclientGuid, std::string()) == 1;
}

std::string DataReaderVSBase::CreateTempMountPointDirectoryForRemoteCache(const std::string& name) {
    // m_sJobResultsDir ends in a delimiter after Initialize; nothing is inserted here.
    std::string folder = m_sJobResultsDir + name + "_SnapCache";
    if (!InsideJobResults(folder)) {
        KTlog(m_hLog, 1, "Refusing remote cache folder [%s]: the VM name leads out of the job results folder",
              folder.c_str());
        return std::string();
    }
    if (CQiDirectory::Create(folder.c_str(), true).IsError()) return std::string();
    m_tempFolders.push_back(folder);
    return folder;
}

bool DataReaderVSBase::GetVMClientInfo(MountCtx& ctx) {
    static const char* const kFn = "DataReaderVSBase::GetVMClientInfo";
    // For these mounts the context's VM name carries the VM's GUID.
    std::string path;
    FXPath::Append(path, ctx.sJobResultsDir, BackupXmlName(m_afileBackupJobId, m_snapEngineId, ctx.sVMName), 0);
    if (!CQiPath::Exists(path.c_str())) {
        KTlog(m_hLog, 1, "%s:File[%s] does not exist.", kFn, path.c_str());
        return false;
    }

    vsXMLFile file(path);
    CNMessageBase message(kBackupMessageType, kBackupMessageVersion);
    if (!file.Load(&message)) {
        KTlog(m_hLog, 1, "%s:Failed to load file [%s]", kFn, path.c_str());
        return false;
    }

    // No early exit: when several entries match, the last one in the file wins.
    for (const VirtualServer::Backup& backup : message.backupList) {
        for (const VirtualServer::VMDatastoreInfo& datastore : backup.datastoreList) {
            for (const VirtualServer::VMInfo& vm : datastore.vmInfoList) {
                if (!m_bMatchAnyVM && strcasecmp(vm.sGuid.c_str(), ctx.sVMName.c_str()) != 0) continue;
                ctx.nXmlVMValue = vm.nClientId;
                ctx.nXmlVMValue64 = vm.llJobId;
                ctx.sXmlVMText = vm.sClientName;
            }
        }
    }
    return true;
}
