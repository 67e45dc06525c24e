// Records that the VM-info library fills: mount information of VMs, disks and volumes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VMInfoStructs {

// One mounted guest volume of a VM.
struct SMountInfoFile {
    std::string sDevicePath;  // device path of the volume
    std::string sVolumeGuid;
    std::string sLocalMountPath;  // where the volume's files are reached
    std::string sVolumeName;      // may be empty
    bool bFlag = false;           // the volume is read through its device
    uint64_t ullSize = 0;         // volume size in bytes
    bool operator==(const SMountInfoFile&) const = default;
};

// Backup types of a mount-info item.
constexpr int32_t kBackupTypeConfigFile = 0;
constexpr int32_t kBackupTypeDisk = 1;
constexpr int32_t kBackupTypeFileCollection = 2;

// One item of a mounted VM: a configuration file or a virtual disk.
struct SDisk {
    std::string sDiskName;    // name as the VM's configuration names it (file name for a configuration file)
    std::string sSecondName;  // the other name: datastore path "[datastore] folder/file.vmdk"
    std::string sDiskPath;    // local path of the disk's descriptor or image, or of the file
    std::string sDatastore;
    std::string sChangeId;  // identifies this snapshot's state of the disk; empty for files
    int32_t nBackupType = 0;
    int32_t nDiskType = 0;
    uint64_t ullSize = 0;  // virtual size of a disk, size of a file
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
