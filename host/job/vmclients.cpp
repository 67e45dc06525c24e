// VM clients of subclients: the catalog table vm_clients and the client objects that
// ApplicationId hands out.
#include "vshost/vmclients.h"
#include "catalog/db.h"
#include "hostapi/appclient.h"
#include "hostapi/log.h"
#include "vshost/catalog.h"

#include <cerrno>

namespace vshost {

void AddVMClient(unsigned long hubcellId, unsigned long subclientId, const std::string& clientName, bool hasProperties,
                 const std::string& instanceUuid) {
    // Catalog() opens the home's catalog and brings its schema up to date.
    db::Connection conn(Catalog().Path());
    db::Statement(conn,
                  "INSERT INTO vm_clients (hubcell_id, subclient_id, client_name, has_properties, instance_uuid) "
                  "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (hubcell_id, subclient_id) DO UPDATE SET "
                  "client_name = excluded.client_name, has_properties = excluded.has_properties, "
                  "instance_uuid = excluded.instance_uuid")
        .Bind(1, static_cast<int64_t>(hubcellId))
        .Bind(2, static_cast<int64_t>(subclientId))
        .Bind(3, clientName)
        .Bind(4, int64_t{hasProperties ? 1 : 0})
        .Bind(5, instanceUuid)
        .Run();
}

std::optional<VMClientRecord> FindVMClient(unsigned long hubcellId, unsigned long subclientId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn,
                    "SELECT client_name, has_properties, instance_uuid FROM vm_clients "
                    "WHERE hubcell_id = ?1 AND subclient_id = ?2");
    q.Bind(1, static_cast<int64_t>(hubcellId)).Bind(2, static_cast<int64_t>(subclientId));
    if (!q.Step()) return std::nullopt;
    VMClientRecord rec;
    rec.hubcellId = hubcellId;
    rec.subclientId = subclientId;
    rec.clientName = q.Text(0);
    rec.hasProperties = q.Int(1) != 0;
    rec.instanceUuid = q.Text(2);
    return rec;
}

}  // namespace vshost

ClientProperties::ClientProperties(std::string instanceUuid) : m_instanceUuid(std::move(instanceUuid)) {}

int ClientProperties::getVMInstanceUUID(std::string& uuid, void*) const {
    if (m_instanceUuid.empty()) return ENOENT;
    uuid = m_instanceUuid;
    return 0;
}

VMClient::VMClient(std::string clientName, bool hasProperties, std::string instanceUuid)
    : m_clientName(std::move(clientName)),
      m_properties(hasProperties ? std::make_unique<ClientProperties>(std::move(instanceUuid)) : nullptr) {}

VMClient::~VMClient() = default;

ClientProperties* VMClient::getClientProperties(int) {
    return m_properties.get();
}

ApplicationId::ApplicationId(unsigned long hubcellId, unsigned long subclientId)
    : m_hubcellId(hubcellId), m_subclientId(subclientId) {}

ApplicationId::~ApplicationId() = default;

VMClient* ApplicationId::getClient(void*) {
    m_client.reset();
    try {
        auto rec = vshost::FindVMClient(m_hubcellId, m_subclientId);
        if (!rec) return nullptr;
        m_client = std::make_unique<VMClient>(rec->clientName, rec->hasProperties, rec->instanceUuid);
        return m_client.get();
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "ApplicationId::getClient: hubcell [%lu] subclient [%lu]: %s", m_hubcellId, m_subclientId,
              e.what());
        return nullptr;
    }
}
