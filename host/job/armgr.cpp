// Archive-manager client and client lookup. Nothing here may throw into the plug-in:
// failures become error numbers.
#include "hostapi/armgr.h"
#include "hostapi/log.h"
#include "vshost/catalog.h"

#include <cerrno>

int ArMgrClientAPI::getAfileInfo(const GetAfileInfoReq& request, GetAfileInfoRetCC_t& answer, void*) {
    try {
        auto rec = vshost::Catalog().ArchiveFile(request.afileId);
        if (!rec) return ENOENT;
        answer.sName = rec->name;
        answer.sVolume = rec->volume;
        answer.backupJobId = rec->backupJobId;
        answer.snapEngineId = rec->snapEngineId;
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "ArMgrClientAPI::getAfileInfo: %s", e.what());
        return EIO;
    } catch (...) {
        return EIO;
    }
}

int ArMgrClientAPI::convertCopyIdToCopyPrecedence(const CopyPrecedenceReq& request, unsigned long& precedence, void*) {
    try {
        auto p = vshost::Catalog().CopyPrecedence(request.archGroupId, request.copyId);
        if (!p) return ENOENT;
        precedence = *p;
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "ArMgrClientAPI::convertCopyIdToCopyPrecedence: %s", e.what());
        return EIO;
    } catch (...) {
        return EIO;
    }
}

KTClient::KTClient(unsigned long, const std::string& clientName, bool, unsigned long) : m_name(clientName) {}

int KTClient::getClientId(unsigned long& id, void*) {
    try {
        auto found = vshost::Catalog().ClientId(m_name);
        if (!found) return ENOENT;
        id = *found;
        return 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "KTClient::getClientId: %s", e.what());
        return EIO;
    } catch (...) {
        return EIO;
    }
}
