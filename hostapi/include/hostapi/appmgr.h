// Application and job managers over the host catalog.
#pragma once

#include "hostapi/records.h"
#include "hostapi/types.h"

#include <optional>
#include <string>
#include <vector>

// One server record of the selected application, as getCredentials walks them. An empty
// server name means that no further record exists.
struct VS_HOST_API vsAppMgrServerCredentials {
    std::string sServer;
    std::string sUser;
    std::string sPassword;           // decrypted
    std::string sEncryptedPassword;  // the stored form
};

// The application manager: settings of the selected application (instance, subclient,
// VM) from the host catalog. Queries that fail report through their results and never
// throw.
class VS_HOST_API vsAppMgr {
public:
    vsAppMgr() = default;

    // Selects the application for all later queries and restarts the credential walk.
    void setAppId(unsigned long appId1, unsigned long appId2);
    unsigned long getAppId() const { return m_appId2; }

    // Loads the selected application's instance settings: 0 on success, an error code
    // otherwise (see isRetCodeError).
    int querySettings();
    bool isRetCodeError(int code) const { return code != 0; }
    // Loads the settings of backup set `backupSetId` of client `clientId` for the
    // selected application; 0 on success.
    int querySettingsForBackupSet(unsigned long clientId, unsigned long backupSetId, bool);
    // Selects instance `instanceId` (same first application id) and loads its settings;
    // 0 on success.
    int querySettingsForInstance(unsigned long instanceId);
    // Looks up whether archive file `afileId` of application `appId` is indexed with
    // indexing V2; true when the query worked.
    bool QueryUseIndexingVersion(unsigned long, unsigned long appId, unsigned long afileId, long long, int);
    // True when the selected application is indexed with indexing V2.
    bool isUseIndexingV2Enabled();

    unsigned long getBackupSetId();
    unsigned long getClientId();
    // Parent instance of the VM application `vmAppId`; true on success.
    bool GetParentAppIdForVM(int& parentAppId, int& vmAppId);
    // Server of the application's instance.
    std::string getHostName();
    // The subclient's snap-mount proxy ESX host; may be empty.
    std::string getSnapMountESXServer();
    int getInstanceType();
    bool IsProxyServerDetailsSet();
    // 6 means failure.
    int querySnapFailoverESXHostsProperties(bool);

    void setHubcellId(unsigned long hubcellId);
    unsigned long getHubCellId();
    unsigned long getSubclientId();
    std::string getSubclientGUID();

    // Server credentials of the selected application: the first record into `server`
    // (when non-null) and every record, passwords decrypted, into `hosts` (cleared
    // first). Returns 0 on success, non-zero when the catalog cannot be read or a stored
    // password does not decrypt.
    int getCredentials(vsAppMgrServerCredentials* server, std::vector<SHostCredentials>& hosts);
    // Each call yields the next server record of the selected application; after the
    // last one a record with an empty server name. Returns 0, or non-zero when the
    // catalog cannot be read (the record then has an empty server name).
    int getCredentials(vsAppMgrServerCredentials* server);
    // Credentials stored for `server` (any application, first match, server name
    // compared case-insensitively): user, decrypted password and stored password.
    // 0 on success; non-zero when none is stored or it does not decrypt (outputs kept).
    int getCredentialsForServer(const std::string& server, std::string& user, std::string& decryptedPassword,
                                std::string& password);

    // Turns a stored password into clear text; 0 on success.
    int decryptPassword(const std::string& encrypted, std::string* plain);
    // Turns a clear password into its stored form.
    static std::string encryptPassword(const std::string& plain);

private:
    unsigned long m_appId1 = 0;
    unsigned long m_appId2 = 0;
    unsigned long m_hubcellId = 0;
    bool m_hubcellSet = false;
    std::optional<bool> m_indexingV2;  // answer of QueryUseIndexingVersion
    size_t m_credentialCursor = 0;
};

// Restore options of a job, as its job options carry them.
struct VS_HOST_API vsRestoreOptions {
    int nLookupInstanceFromTask = 0;  // 1: take the instance from the virtual-server options
};

struct VS_HOST_API vsVirtualServerRestoreOptions {
    unsigned long ulInstanceId = 0;
};

// The job manager: the job's options, from the job's description.
class VS_HOST_API vsJobMgr {
public:
    vsJobMgr() = default;
    void setJobId(const char* jobId);
    const std::string& jobId() const { return m_jobId; }

    // Loads the job's options; true on success.
    bool LoadJobOptions();
    const vsRestoreOptions& GetRestoreOptions() const { return m_restoreOptions; }
    const vsVirtualServerRestoreOptions& GetVirtualServerRestoreOptions() const { return m_vsRestoreOptions; }

private:
    std::string m_jobId;
    vsRestoreOptions m_restoreOptions;
    vsVirtualServerRestoreOptions m_vsRestoreOptions;
};
