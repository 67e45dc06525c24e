// Application manager: application settings and credentials from the catalog.
#include "hostapi/appmgr.h"
#include "hostapi/log.h"
#include "vshost/catalog.h"

#include <cerrno>

void vsAppMgr::setAppId(unsigned long appId1, unsigned long appId2) {
    m_appId1 = appId1;
    m_appId2 = appId2;
}

bool vsAppMgr::isUseIndexingV2Enabled() {
    try {
        auto app = vshost::Catalog().Application(m_appId1, m_appId2);
        return app && app->indexingV2;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::isUseIndexingV2Enabled: %s", e.what());
        return false;
    }
}

int vsAppMgr::getCredentials(vsAppMgrServerCredentials* server, std::vector<SHostCredentials>& hosts) {
    hosts.clear();
    try {
        std::vector<SHostCredentials> records = vshost::Catalog().Credentials(m_appId1, m_appId2);
        for (SHostCredentials& rec : records) {
            std::string clear;
            if (!vshost::DecryptSecret(rec.sPassword, clear)) {
                // A half-usable list would fail later and far from the cause.
                KTlog(nullptr, 1, "vsAppMgr::getCredentials: stored password of server [%s] does not decrypt",
                      rec.sServer.c_str());
                return EBADMSG;
            }
            rec.sPassword = std::move(clear);
        }
        if (server && !records.empty()) {
            server->sServer = records.front().sServer;
            server->sUser = records.front().sUser;
            server->sPassword = records.front().sPassword;
        }
        hosts = std::move(records);
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::getCredentials: %s", e.what());
        hosts.clear();
        return EIO;
    }
}

int vsAppMgr::decryptPassword(const std::string& encrypted, std::string* plain) {
    std::string clear;
    if (!vshost::DecryptSecret(encrypted, clear)) return 1;
    if (plain) *plain = std::move(clear);
    return 0;
}

std::string vsAppMgr::encryptPassword(const std::string& plain) {
    try {
        return vshost::EncryptSecret(plain);
    } catch (const std::exception& e) {
        // Must not throw into the plug-in; an empty stored form never decrypts, so the
        // failure still surfaces where the password is used.
        KTlog(nullptr, KTLOG_ALWAYS, "vsAppMgr::encryptPassword: %s", e.what());
        return {};
    }
}

void vsJobMgr::setJobId(const char* jobId) { m_jobId = jobId ? jobId : ""; }
