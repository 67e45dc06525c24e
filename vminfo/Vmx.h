// What a VM folder of a datastore snapshot says about its VM: the .vmx configuration and
// the optional guest sidecar.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vminfo {

struct VmxDisk {
    std::string device;    // "scsi0:1", "sata0:0", "nvme0:0", "ide0:0"
    std::string fileName;  // as written: relative, "[datastore] path" or "/vmfs/volumes/..."
};

struct VmxConfig {
    std::string displayName;
    std::string biosUuid;  // canonical 8-4-4-4-12 form, lower case; empty when absent
    std::string vcUuid;
    std::vector<VmxDisk> disks;  // hard disks that are present, in file order
};

// Parses .vmx text (`key = "value"` lines, keys case-insensitive, |XX escapes decoded).
VmxConfig ParseVmx(const std::string& text);

// One VM snapshot of a .vmsd: the disk file each device had when the snapshot was taken
// (the file that became read-only then; the VM writes to a delta of it since).
struct VmsdSnapshot {
    std::string uid;
    std::string displayName;
    std::map<std::string, std::string> diskFiles;  // device ("scsi0:0", lower case) to file name as written
};

// A VM's snapshot list (.vmsd, `key = "value"` lines as in a .vmx).
struct VmsdConfig {
    std::string currentUid;  // snapshot.current: the snapshot the VM runs on top of
    std::vector<VmsdSnapshot> snapshots;

    // The snapshot named current; without that key, the newest (highest uid). Null when
    // there is none, or when current names a snapshot that is not listed.
    const VmsdSnapshot* Current() const;
};

VmsdConfig ParseVmsd(const std::string& text);

// 32 hex digits in any of the usual spellings ("56 4d ... -..", braces, dashes) to the
// canonical form; empty when `text` is not a GUID.
std::string CanonicalGuid(const std::string& text);

// Guest sidecar of a VM folder ("vmguest.json"): what a datastore does not hold.
struct GuestVolume {
    std::string guid;
    std::string name;
    std::string devicePath;
    std::string folder;  // absolute path of the folder holding the volume's files
};
struct FileCollectionDisk {
    std::string name;    // disk name; replaces the .vmx disk of the same name
    std::string folder;  // absolute path of the disk's guest file system
};
struct GuestSidecar {
    std::vector<GuestVolume> volumes;
    std::vector<FileCollectionDisk> fileCollectionDisks;
};

constexpr const char* kSidecarName = "vmguest.json";

// Reads the sidecar of `vmFolder` if there is one, opened below the volume folder `root`.
// False with the reason when it exists but cannot be read, is larger than a snapshot's
// text files may be, is malformed, or names a folder outside the VM folder.
bool LoadSidecar(const std::string& vmFolder, const std::string& root, GuestSidecar& out, std::string& why);

}  // namespace vminfo
