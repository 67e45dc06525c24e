// A mounted datastore snapshot: the volumes of its archive files and the VMs on them.
#pragma once

#include "Vmx.h"

#include "hostapi/VMInfoStructs.h"
#include "hostapi/records.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vminfo {

// Error codes that the readers turn into operator messages.
enum ErrorCode : int {
    kNoError = 0,
    kErrVMNotFound = 1,
    kErrConfigFilePath = 16,
    kErrConnect = 19,
    kErrDiskOpen = 23,
    kErrSnapMetadata = 28,
    kErrVolSnapInfo = 29,
    kErrMountSnapVolumes = 30,
    kErrVMList = 31,
    kErrDatastoreList = 32,
};

// Disk types the library reports.
constexpr int32_t kDiskTypeFlatVmdk = 1;
constexpr int32_t kDiskTypeRawImage = 2;
constexpr int32_t kDiskTypeFolder = 3;
constexpr int32_t kDiskTypeQemuVmdk = 4;  // a sparse VMDK or a chain of VMDK deltas, read through qemu
constexpr int32_t kDiskTypeQcow2 = 5;     // a qcow2 image or chain, read through qemu

struct Failure {
    int code = kNoError;
    std::string reason;
};

struct Volume {
    uint64_t afileId = 0;
    std::string afileName;
    std::string datastore;
    std::string path;  // absolute folder of the volume
};

struct VMRecord {
    VmxConfig cfg;
    std::string folder;  // absolute VM folder
    std::string vmxPath;
    size_t volume = 0;    // index into Snapshot::volumes
    std::string problem;  // set when the .vmx cannot be read
};

struct Snapshot {
    int64_t jobId = 0;
    std::vector<Volume> volumes;
    std::vector<VMRecord> vms;

    // Mounts the volumes that archive files `afileIds` hold, as the catalog of the open
    // host home describes them, and lists their VMs.
    static bool Mount(const std::vector<uint64_t>& afileIds, unsigned snapEngineId, Snapshot& out, Failure& failure);

    // A VM by display name, or by BIOS or vCenter UUID in any spelling and case.
    const VMRecord* Find(const std::string& key) const;
    const Volume* VolumeOfDatastore(const std::string& datastore) const;
    const Volume* VolumeOfAfile(uint64_t afileId) const;
};

// A VM mounted out of a snapshot: its configuration files and disks, and its guest volumes.
struct MountedVM {
    std::string displayName;
    std::string guid;
    std::string folder;
    std::vector<VMInfoStructs::SDisk> items;  // configuration files first, then disks
    std::vector<GuestVolume> guestVolumes;
};

// Resolves the VM named `key`, limited to the disks that `filters` name (all when none).
bool MountVMFrom(const Snapshot& snap, const std::string& key, const std::vector<SDiskFilter>& filters, MountedVM& out,
                 Failure& failure);

// Bytes of the regular files below `folder`; links are not followed.
uint64_t FolderBytes(const std::string& folder);

}  // namespace vminfo
