// Records that the VM-info library fills: mount information of VMs, disks and volumes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VMInfoStructs {

// One mounted guest volume of a VM.
struct SMountInfoFile {
    std::string sDevicePath;
    std::string sVolumeGuid;
    std::string sLocalMountPath;
    std::string sVolumeName;
    bool operator==(const SMountInfoFile&) const = default;
};

// One virtual disk of a mounted VM.
struct SDisk {
    std::string sDiskName;     // name as the VM's configuration names it
    std::string sDiskPath;     // local path of the disk's descriptor or image
    std::string sDatastore;
    std::string sChangeId;
    int32_t nBackupType = 0;
    int32_t nDiskType = 0;
    uint64_t ullSize = 0;
    bool operator==(const SDisk&) const = default;
};

// Full mount information of a VM: its disks.
struct SMountInfoFull {
    std::string sVMName;
    std::string sVMGuid;
    std::vector<SDisk> disks;
    bool operator==(const SMountInfoFull&) const = default;
};

// Description of a VM as the snapshot backup records it.
struct SVMInfo {
    std::string sVMName;
    std::string sVMGuid;
    std::string sClientName;
    int64_t llBackupJobId = 0;
    bool operator==(const SVMInfo&) const = default;
};

}  // namespace VMInfoStructs
