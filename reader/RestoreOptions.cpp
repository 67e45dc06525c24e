// Settling the server, ESX host, user and password of the snapshot mount from the task
// options, the application's settings and the job options.
#include "DataReaderVSBase.h"

#include "hostapi/fileutil.h"
#include "hostapi/job.h"

#include <strings.h>

namespace {

constexpr const char* kFn = "DataReaderVSBase::getInPlaceRestoreOptions";
constexpr int kSnapFailoverFailed = 6;
constexpr unsigned long kTaskOptionSize = 1024;

bool SameServer(const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// Reads a task option into `value`; false when the job does not carry it.
bool TaskOption(KTJobID jobId, ktTaskOptions option, std::string& value) {
    char buffer[kTaskOptionSize] = {};
    if (!SchedularInterfaceNet::GetTaskOptionString(jobId, option, buffer, sizeof buffer)) return false;
    value = buffer;
    return true;
}

}  // namespace

// The instance's settings; when they fail, the indexing version, and under indexing v2
// the parent instance's settings into `parentMgr`. False when none can be had.
bool DataReaderVSBase::QuerySettingsOrParent(unsigned long appId1, unsigned long appId2, vsAppMgr& parentMgr) {
    int settingsCode = m_appMgr.querySettings();
    if (m_appMgr.isRetCodeError(settingsCode)) {
        const unsigned long afileId = m_afileIds.empty() ? 0UL : static_cast<unsigned long>(m_afileIds.front().afileId);
        if (!m_appMgr.QueryUseIndexingVersion(0, appId2, afileId, 0, 0)) {
            KTlog(m_hLog, -1, "%s Failed to query indexing version.", kFn);
            return false;
        }
        if (m_appMgr.isUseIndexingV2Enabled()) {
            KTlog(m_hLog, -1, "%s IndexingV2 enabled. Using parent instance.", kFn);
            settingsCode = m_appMgr.querySettingsForBackupSet(m_appMgr.getClientId(), m_appMgr.getBackupSetId(), false);
            int vmAppId = static_cast<int>(m_appMgr.getAppId());
            int parentAppId = 0;
            if (!m_appMgr.GetParentAppIdForVM(parentAppId, vmAppId))
                KTlog(m_hLog, -1, "%s: Failed to fetch parentAppId for vmAppId:[%d]", kFn, vmAppId);
            KTlog(m_hLog, 1, "%s: Fetched parentAppId [%d] for vmAppId:[%d]", kFn, parentAppId, vmAppId);
            parentMgr.setAppId(appId1, static_cast<unsigned long>(parentAppId));
            parentMgr.querySettings();
        }
        if (m_appMgr.isRetCodeError(settingsCode)) {
            KTlog(m_hLog, -1, "%s App Mgr initialization phase failed", kFn);
            return false;
        }
    }
    return true;
}

// 8. User and password of the task; the instance's password when the task has none.
int DataReaderVSBase::CredentialsFromTask() {
    if (!TaskOption(m_jobId, KT_TASKOPT_RST_USER_NAME, m_sUserName)) {
        KTlog(m_hLog, -1, "%sFailed to check the user id for this type of restore. Failing the restore", kFn);
        return 0;
    }
    KTlog(m_hLog, 1, "%s:user name:[%s]", kFn, m_sUserName.c_str());
    std::string taskPassword;
    if (!TaskOption(m_jobId, KT_TASKOPT_RST_USER_PASSWORD, taskPassword)) {
        KTlog(m_hLog, -1, "%sFailed to check the user password for this type of restore. Failing the restore", kFn);
        return 0;
    }
    KTlog(m_hLog, 1, "%s:Pwd len:[%d]", kFn, static_cast<int>(taskPassword.size()));
    if (!taskPassword.empty()) {
        m_sPassword = taskPassword;
        KTlog(m_hLog, 1, "%s:Encrypted Password:[%s]", kFn, m_sPassword.c_str());
        if (m_appMgr.decryptPassword(m_sPassword, &m_ProxyDecryptedPassword) != 0) {
            KTlog(m_hLog, -1, "%sFailed to get the decrypted password", kFn);
            return 0;
        }
        return 1;
    }
    return PasswordFromInstance();
}

int DataReaderVSBase::getInPlaceRestoreOptions(unsigned long appId1, unsigned long appId2) {
    vsAppMgr parentMgr;  // the parent instance stands in for a VM under indexing V2

    // 1. Indexing version and parent instance, only when the instance settings fail.
    if (!QuerySettingsOrParent(appId1, appId2, parentMgr)) return 0;
    const bool indexingV2 = m_appMgr.isUseIndexingV2Enabled();

    // 2. Destination server of the task (an unread option leaves it empty); 3. failback.
    {
        char buffer[kTaskOptionSize] = {};
        SchedularInterfaceNet::GetTaskOptionString(m_jobId, KT_TASKOPT_RST_SERVER_NAME, buffer, sizeof buffer);
        m_sVCName = buffer;
    }
    bool failback = false;
    EvTask task(static_cast<unsigned long long>(m_jobId), 0, nullptr, false);
    if (task.getOptionBool(EV_OPTION_FAILBACK_REPLICATION, failback, nullptr) != 0) {
        KTlog(m_hLog, -1, "%s Failed to check if this is a failback replication job", kFn);
        failback = false;
    }

    // A restore to another server mounts through the source server (unless failing
    // back), with the credentials the reader's own manager stores for it.
    auto crossServer = [&](const char* version, const std::string& source) {
        KTlog(m_hLog, 1, "%s This is a cross-vc %s snap restore - Source [%s] Dest [%s]", kFn, version, source.c_str(),
              m_sVCName.c_str());
        if (!failback) m_sVCName = source;
        m_appMgr.getCredentialsForServer(m_sVCName, m_sUserName, m_ProxyDecryptedPassword, m_sPassword);
        KTlog(m_hLog, 1, "%s:user name:[%s]", kFn, m_sUserName.c_str());
        return 1;
    };

    bool userFromTask = true;
    if (m_sVCName.empty()) {
        userFromTask = false;  // 11. default settings
    } else if (!SameServer(m_sVCName, m_appMgr.getHostName()) && isVMImageSnap(static_cast<int>(m_snapEngineId)) &&
               !failback) {
        // 5. A VM image snapshot of another server is mounted through its own server.
        vsAppMgr& mgr = indexingV2 ? parentMgr : m_appMgr;
        m_sVCName = mgr.getHostName();
        m_sESXServerName.clear();
        KTlog(m_hLog, 1, "%s: ESX server for mounting snap:[%s]", kFn, m_sESXServerName.c_str());
        mgr.getCredentialsForServer(m_sVCName, m_sUserName, m_ProxyDecryptedPassword, m_sPassword);
        KTlog(m_hLog, 1, "%s:User Login :[%s]", kFn, m_sUserName.c_str());
        return 1;
    } else {
        // 6. Server and 7. ESX host of the task.
        if (!TaskOption(m_jobId, KT_TASKOPT_RST_SERVER_NAME, m_sVCName)) {
            KTlog(m_hLog, -1, "%sFailed to check the server name for this type of restore. Failing the restore", kFn);
            return 0;
        }
        KTlog(m_hLog, 1, "%s:vc name:[%s]", kFn, m_sVCName.c_str());
        if (!TaskOption(m_jobId, KT_TASKOPT_RST_HOST_OR_CLUSTER, m_sESXServerName)) {
            KTlog(m_hLog, -1,
                  "%sFailed to check the optRstHostHostOrCluster name for this type of restore. Failing the restore",
                  kFn);
            return 0;
        }
        if (!m_sESXServerName.empty()) {
            KTlog(m_hLog, 1, "%s:esx name:[%s]", kFn, m_sESXServerName.c_str());
        } else {
            m_sESXServerName = m_appMgr.getSnapMountESXServer();
            KTlog(m_hLog, 1, "%s Snap mount proxy ESX server from Subclient [%s]", kFn, m_sESXServerName.c_str());
            if (!m_sESXServerName.empty()) {
                const std::string source = m_appMgr.getHostName();
                if (!indexingV2 && !SameServer(m_sVCName, source)) return crossServer("V1", source);
            } else if (indexingV2) {
                m_sESXServerName = parentMgr.getSnapMountESXServer();
                KTlog(m_hLog, 1, "%s: ESX name for mounting snap :[%s]", kFn, m_sESXServerName.c_str());
                const std::string source = parentMgr.getHostName();
                if (!SameServer(m_sVCName, source)) return crossServer("V2", source);
            }
        }
    }

    if (userFromTask) return CredentialsFromTask();
    return DefaultRestoreSettings();
}

int DataReaderVSBase::PasswordFromInstance() {
    // 9. The instance whose credentials hold the password.
    vsJobMgr jobMgr;
    jobMgr.setJobId(FXString::Format("%llu", static_cast<unsigned long long>(m_jobId)).c_str());
    KTlog(m_hLog, -1, "%s: Receiving Job Options", kFn);
    if (!jobMgr.LoadJobOptions()) {
        KTlog(m_hLog, -1, "%s: Failed to recieve the Job Options", kFn);
        return 0;
    }
    const int instanceType = m_appMgr.getInstanceType();
    if (instanceType == 301 || instanceType == 601 ||
        (instanceType == 101 && jobMgr.GetRestoreOptions().nLookupInstanceFromTask == 1)) {
        const unsigned long instanceId = jobMgr.GetVirtualServerRestoreOptions().ulInstanceId;
        if (instanceId == 0) {
            KTlog(m_hLog, -1, "%s: Failed to get Instance Id from the task xml", kFn);
            return 0;
        }
        KTlog(m_hLog, -1, "%s: Instance Id got from the task xml : %d ", kFn, static_cast<int>(instanceId));
        if (m_appMgr.querySettingsForInstance(instanceId) != 0) {
            KTlog(m_hLog, -1, "%s: Failed to credentials for Instance Id - %d.", kFn, static_cast<int>(instanceId));
            return 0;
        }
    }

    // 10. The record of the task's server.
    KTlog(m_hLog, -1, "%s: Getting the pwd from instance level", kFn);
    vsAppMgrServerCredentials record;
    for (m_appMgr.getCredentials(&record); !record.sServer.empty(); m_appMgr.getCredentials(&record)) {
        if (!SameServer(record.sServer, m_sVCName)) continue;
        m_ProxyDecryptedPassword = record.sPassword;
        m_sPassword = record.sEncryptedPassword;
        if (m_sUserName.empty()) m_sUserName = record.sUser;
        return 1;
    }
    return 1;
}

int DataReaderVSBase::DefaultRestoreSettings() {
    // 11. No server in the task: the application's own server records.
    if (m_bSnapRestore && m_appMgr.IsProxyServerDetailsSet() &&
        m_appMgr.querySnapFailoverESXHostsProperties(false) == kSnapFailoverFailed) {
        KTlog(m_hLog, -1, "%s Failed to get Snap Info Details", kFn);
        return 0;
    }
    KTlog(m_hLog, -1, "%s Default settings taken", kFn);
    const int instanceType = m_appMgr.getInstanceType();
    vsAppMgrServerCredentials record;
    for (m_appMgr.getCredentials(&record); !record.sServer.empty(); m_appMgr.getCredentials(&record)) {
        if (!TaskOption(m_jobId, KT_TASKOPT_RST_HOST_OR_CLUSTER, m_sESXServerName)) {
            KTlog(m_hLog, -1,
                  "%sFailed to check the optRstHostHostOrCluster name for this type of restore. Failing the restore",
                  kFn);
            return 0;
        }
        if (m_sESXServerName.empty()) {
            m_sESXServerName = m_appMgr.getSnapMountESXServer();
            KTlog(m_hLog, 1, "%s Snap mount proxy ESX server from Subclient [%s]", kFn, m_sESXServerName.c_str());
        } else {
            KTlog(m_hLog, 1, "%s:esx name:[%s]", kFn, m_sESXServerName.c_str());
        }
        const bool virtualCenter = DataReaderVSBase::IsVirtualCenterInstance(instanceType);
        if (virtualCenter || (instanceType == 100 && SameServer(m_sESXServerName, record.sServer))) {
            m_sVCName = record.sServer;
            m_sUserName = record.sUser;
            m_ProxyDecryptedPassword = record.sPassword;
            m_sPassword = record.sEncryptedPassword;
            if (virtualCenter) {
                KTlog(m_hLog, -1, "%sVirtual Center Instance", kFn);
                KTlog(m_hLog, -1, "%s server:[%s]Username:[%s]", kFn, m_sVCName.c_str(), m_sUserName.c_str());
            }
            return 1;
        }
    }
    return 1;
}
