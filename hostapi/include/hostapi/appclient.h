// The VM client behind a subclient and its properties, from the host catalog
// (table vm_clients). Lookups that fail report through their results and never throw.
#pragma once

#include "hostapi/types.h"

#include <memory>
#include <string>

class VS_HOST_API ClientProperties {
public:
    explicit ClientProperties(std::string instanceUuid);

    // The VM's instance UUID: 0 and `uuid` filled on success; non-zero (ENOENT) when
    // none is recorded, `uuid` then unchanged.
    int getVMInstanceUUID(std::string& uuid, void* reserved = nullptr) const;

private:
    std::string m_instanceUuid;
};

class VS_HOST_API VMClient {
public:
    VMClient(std::string clientName, bool hasProperties, std::string instanceUuid);
    virtual ~VMClient();
    VMClient(const VMClient&) = delete;
    VMClient& operator=(const VMClient&) = delete;

    const std::string& getClientName() const { return m_clientName; }
    // The client's properties, owned by the client; null when it has none. `flags` is
    // reserved; pass 0.
    virtual ClientProperties* getClientProperties(int flags);

private:
    std::string m_clientName;
    std::unique_ptr<ClientProperties> m_properties;
};

// Identifies a subclient by hubcell and subclient id.
class VS_HOST_API ApplicationId {
public:
    ApplicationId(unsigned long hubcellId, unsigned long subclientId);
    ~ApplicationId();
    ApplicationId(const ApplicationId&) = delete;
    ApplicationId& operator=(const ApplicationId&) = delete;

    unsigned long getHubcellId() const { return m_hubcellId; }
    unsigned long getSubclientId() const { return m_subclientId; }

    // The subclient's VM client, or null when the catalog has none or cannot be read.
    // The client is owned by this object and lives until the next call or until this
    // object is destroyed; each call reads the catalog again.
    VMClient* getClient(void* reserved = nullptr);

private:
    unsigned long m_hubcellId;
    unsigned long m_subclientId;
    std::unique_ptr<VMClient> m_client;
};
