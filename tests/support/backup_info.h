// Backup descriptions written by hand: a VM's entry and a datastore of them.
#pragma once

#include "hostapi/xmlfile.h"

#include <cstdint>
#include <list>
#include <string>
#include <utility>

namespace vstest {

inline VirtualServer::VMInfo VM(const std::string& guid, int32_t clientId, int64_t jobId, const std::string& name) {
    VirtualServer::VMInfo vm;
    vm.sGuid = guid;
    vm.nClientId = clientId;
    vm.llJobId = jobId;
    vm.sClientName = name;
    return vm;
}

inline VirtualServer::VMDatastoreInfo Datastore(const std::string& name, std::list<VirtualServer::VMInfo> vms) {
    VirtualServer::VMDatastoreInfo ds;
    ds.sName = name;
    ds.vmInfoList = std::move(vms);
    return ds;
}

}  // namespace vstest
