// The VM clients of subclients in the host catalog (table vm_clients), as
// ApplicationId::getClient reads them. For tests and tools that prepare a home.
#pragma once

#include "hostapi/types.h"

#include <optional>
#include <string>

namespace vshost {

struct VMClientRecord {
    unsigned long hubcellId = 0;
    unsigned long subclientId = 0;
    std::string clientName;
    bool hasProperties = true;
    std::string instanceUuid;  // empty: the client's properties record no UUID
};

// Records (or replaces) the VM client of subclient `subclientId` of hubcell
// `hubcellId`. Throws std::runtime_error when no home is open or the catalog fails.
VS_HOST_API void AddVMClient(unsigned long hubcellId, unsigned long subclientId, const std::string& clientName,
                             bool hasProperties, const std::string& instanceUuid);
// The VM client of the subclient, if one is recorded. Throws as AddVMClient.
VS_HOST_API std::optional<VMClientRecord> FindVMClient(unsigned long hubcellId, unsigned long subclientId);

}  // namespace vshost
