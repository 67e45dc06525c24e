// Application and job managers over the host catalog.
#pragma once

#include "hostapi/records.h"
#include "hostapi/types.h"

#include <string>
#include <vector>

// The application's own server record.
struct VS_HOST_API vsAppMgrServerCredentials {
    std::string sServer;
    std::string sUser;
    std::string sPassword;   // decrypted
};

class VS_HOST_API vsAppMgr {
public:
    vsAppMgr() = default;

    // Selects the application for all later queries.
    void setAppId(unsigned long appId1, unsigned long appId2);
    unsigned long getAppId() const { return m_appId2; }

    // True when the selected application is indexed with indexing V2.
    bool isUseIndexingV2Enabled();

    // Server credentials of the selected application: the first record into `server`
    // (when non-null) and every record, passwords decrypted, into `hosts` (cleared
    // first). Returns 0 on success, non-zero when the catalog cannot be read.
    int getCredentials(vsAppMgrServerCredentials* server, std::vector<SHostCredentials>& hosts);

    // Turns a stored password into clear text; 0 on success.
    int decryptPassword(const std::string& encrypted, std::string* plain);
    // Turns a clear password into its stored form.
    static std::string encryptPassword(const std::string& plain);

private:
    unsigned long m_appId1 = 0;
    unsigned long m_appId2 = 0;
};

class VS_HOST_API vsJobMgr {
public:
    vsJobMgr() = default;
    void setJobId(const char* jobId);
    const std::string& jobId() const { return m_jobId; }

private:
    std::string m_jobId;
};
