// Application manager: application settings and credentials from the catalog.
#include "hostapi/appmgr.h"
#include "hostapi/log.h"
#include "vshost/catalog.h"

#include <strings.h>
#include <cerrno>
#include <optional>

namespace {

// The selected application's record; nullopt when it is unknown or the catalog cannot
// be read (then logged, since queries must not throw into the readers).
std::optional<vshost::AppRecord> Lookup(unsigned long appId1, unsigned long appId2, const char* query) {
    try {
        return vshost::Catalog().Application(appId1, appId2);
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::%s: %s", query, e.what());
        return std::nullopt;
    }
}

}  // namespace

void vsAppMgr::setAppId(unsigned long appId1, unsigned long appId2) {
    m_appId1 = appId1;
    m_appId2 = appId2;
    m_credentialCursor = 0;
}

int vsAppMgr::querySettings() {
    auto app = Lookup(m_appId1, m_appId2, "querySettings");
    return app && app->hasSettings ? 0 : ENOENT;
}

int vsAppMgr::querySettingsForBackupSet(unsigned long clientId, unsigned long backupSetId, bool) {
    auto app = Lookup(m_appId1, m_appId2, "querySettingsForBackupSet");
    if (!app || !app->backupSetSettings) return ENOENT;
    return app->clientId == clientId && app->backupSetId == backupSetId ? 0 : ENOENT;
}

int vsAppMgr::querySettingsForInstance(unsigned long instanceId) {
    setAppId(m_appId1, instanceId);
    return querySettings();
}

bool vsAppMgr::QueryUseIndexingVersion(unsigned long, unsigned long appId, unsigned long, long long, int) {
    auto app = Lookup(m_appId1, appId, "QueryUseIndexingVersion");
    if (!app) return false;
    m_indexingV2 = app->indexingV2;
    return true;
}

bool vsAppMgr::isUseIndexingV2Enabled() {
    if (m_indexingV2) return *m_indexingV2;
    auto app = Lookup(m_appId1, m_appId2, "isUseIndexingV2Enabled");
    return app && app->indexingV2;
}

unsigned long vsAppMgr::getBackupSetId() {
    auto app = Lookup(m_appId1, m_appId2, "getBackupSetId");
    return app ? app->backupSetId : 0;
}

unsigned long vsAppMgr::getClientId() {
    auto app = Lookup(m_appId1, m_appId2, "getClientId");
    return app ? app->clientId : 0;
}

bool vsAppMgr::GetParentAppIdForVM(int& parentAppId, int& vmAppId) {
    auto app = Lookup(m_appId1, static_cast<unsigned long>(vmAppId), "GetParentAppIdForVM");
    if (!app || app->parentAppId == 0) return false;
    parentAppId = static_cast<int>(app->parentAppId);
    return true;
}

std::string vsAppMgr::getHostName() {
    auto app = Lookup(m_appId1, m_appId2, "getHostName");
    return app ? app->serverHostName : std::string();
}

std::string vsAppMgr::getSnapMountESXServer() {
    auto app = Lookup(m_appId1, m_appId2, "getSnapMountESXServer");
    return app ? app->snapMountEsxServer : std::string();
}

int vsAppMgr::getInstanceType() {
    auto app = Lookup(m_appId1, m_appId2, "getInstanceType");
    return app ? app->instanceType : 0;
}

bool vsAppMgr::IsProxyServerDetailsSet() {
    auto app = Lookup(m_appId1, m_appId2, "IsProxyServerDetailsSet");
    return app && app->proxyDetailsSet;
}

int vsAppMgr::querySnapFailoverESXHostsProperties(bool) {
    constexpr int kFailure = 6;
    auto app = Lookup(m_appId1, m_appId2, "querySnapFailoverESXHostsProperties");
    return app ? app->snapFailoverResult : kFailure;
}

unsigned long vsAppMgr::getHubCellId() {
    if (m_hubcellSet) return m_hubcellId;
    auto app = Lookup(m_appId1, m_appId2, "getHubCellId");
    return app ? app->hubcellId : 0;
}

void vsAppMgr::setHubcellId(unsigned long hubcellId) {
    m_hubcellId = hubcellId;
    m_hubcellSet = true;
}

unsigned long vsAppMgr::getSubclientId() {
    auto app = Lookup(m_appId1, m_appId2, "getSubclientId");
    return app ? app->subclientId : 0;
}

std::string vsAppMgr::getSubclientGUID() {
    auto app = Lookup(m_appId1, m_appId2, "getSubclientGUID");
    return app ? app->subclientGuid : std::string();
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
            server->sEncryptedPassword.clear();
        }
        hosts = std::move(records);
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::getCredentials: %s", e.what());
        hosts.clear();
        return EIO;
    }
}

int vsAppMgr::getCredentials(vsAppMgrServerCredentials* server) {
    if (!server) return EINVAL;
    *server = vsAppMgrServerCredentials{};
    try {
        const std::vector<SHostCredentials> records = vshost::Catalog().Credentials(m_appId1, m_appId2);
        if (m_credentialCursor >= records.size()) return 0;  // empty server name: no more records
        const SHostCredentials& rec = records[m_credentialCursor++];
        server->sServer = rec.sServer;
        server->sUser = rec.sUser;
        server->sEncryptedPassword = rec.sPassword;
        if (!vshost::DecryptSecret(rec.sPassword, server->sPassword))
            KTlog(nullptr, 1, "vsAppMgr::getCredentials: stored password of server [%s] does not decrypt",
                  rec.sServer.c_str());
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::getCredentials: %s", e.what());
        return EIO;
    }
}

int vsAppMgr::getCredentialsForServer(const std::string& server, std::string& user, std::string& decryptedPassword,
                                      std::string& password) {
    try {
        const std::vector<SHostCredentials> records = vshost::Catalog().CredentialsForServer(server);
        if (records.empty()) {
            KTlog(nullptr, 1, "vsAppMgr::getCredentialsForServer: no credentials stored for server [%s]",
                  server.c_str());
            return ENOENT;
        }
        std::string clear;
        if (!vshost::DecryptSecret(records.front().sPassword, clear)) {
            KTlog(nullptr, 1, "vsAppMgr::getCredentialsForServer: stored password of server [%s] does not decrypt",
                  server.c_str());
            return EBADMSG;
        }
        user = records.front().sUser;
        decryptedPassword = std::move(clear);
        password = records.front().sPassword;
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "vsAppMgr::getCredentialsForServer: %s", e.what());
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
