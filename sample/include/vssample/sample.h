// A small datastore snapshot with the host home rows that describe it: what the demo
// runs on and what the integration tests mount.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vssample {

struct SampleDisk {
    std::string name;        // descriptor or image file name, as the VM-info library names the disk
    std::string secondName;  // "[datastore] folder/file"
    std::string path;        // local path of the descriptor or image
    std::string datastore;
    uint64_t size = 0;   // virtual size in bytes
    int backupType = 1;  // 1 = disk read by extents, 2 = read as a file collection
};

struct SampleVM {
    std::string name;                      // display name
    std::string biosUuid;                  // uuid.bios
    std::string vcUuid;                    // vc.uuid
    std::string folder;                    // VM folder (holds the .vmx)
    std::vector<std::string> configFiles;  // file names present in the folder (.vmx, .vmxf, .vmsd, .nvram)
    std::vector<SampleDisk> disks;
    std::vector<std::string> guestVolumeGuids;  // declared guest volumes, if any
};

struct SampleSnapshot {
    int64_t snapJobId = 0;
    unsigned snapEngineId = 0;
    std::vector<std::string> datastores;  // datastore names, one archive file each
    std::vector<uint64_t> afileIds;       // in datastore order
    std::string afileList;                // the ids joined with "|"
    std::vector<SampleVM> vms;
    unsigned long appId1 = 0;
    unsigned long appId2 = 0;
    int instanceType = 0;
    std::string mediaAgentName;
    unsigned long mediaAgentClientId = 0;
    unsigned long archGroupId = 0;
    unsigned long copyId = 0;
    unsigned long copyPrecedence = 0;

    const SampleVM& vm(const std::string& name) const;
};

struct SampleOptions {
    int64_t snapJobId = 5001;
    uint64_t firstAfileId = 1207;
    unsigned snapEngineId = 0;
    int instanceType = 102;
    uint64_t diskSize = 16ull << 20;  // virtual size of each disk
};

// Writes the snapshot under "<home>/Snapshots/<snapJobId>/" and its rows into the
// catalog of the host home that is open (vshost::OpenHome). Throws std::runtime_error
// with the reason when a file or row cannot be written.
SampleSnapshot GenerateSample(const SampleOptions& options = {});

// A snapshot of one VM, img01 on datastore ds1, whose only disk is the raw image
// `image` (hard-linked into the VM folder as img01.img, so the image must be on the
// home's file system), with its catalog rows. For benchmarks and tests over images of
// any size and layout; options.diskSize is not used.
SampleSnapshot GenerateImageSnapshot(const std::string& image, const SampleOptions& options = {});
// The same with one VM per image: img01, img02, ... in the order given.
SampleSnapshot GenerateImagesSnapshot(const std::vector<std::string>& images, const SampleOptions& options = {});

// A snapshot of one VM, files01 on datastore ds1, whose guest volume C: and whose one
// disk, read as a file collection (files01.vmdk), both hold the tree under `folder`
// (hard-linked into the VM folder, so `folder` must be on the home's file system), with
// its catalog rows. For the file-level and file-collection readers over real trees.
SampleSnapshot GenerateFilesSnapshot(const std::string& folder, const SampleOptions& options = {});

// A snapshot of `count` VMs (vm0001, vm0002, ...) spread over datastores ds1 and ds2,
// each with a flat VMDK on its own datastore and a raw image on the other, both of
// options.diskSize (1 MiB or more) with a little data at the start, the middle and the end. For
// exercising jobs of many VMs; the data is kept small so that making hundreds is quick.
SampleSnapshot GenerateFleet(unsigned count, const SampleOptions& options = {});

// The fields of a job file for an extent job of `jobId` over every archive file of `s`,
// without items: what the demo, the benchmarks and the tests start their jobs from.
nlohmann::json JobFor(const SampleSnapshot& s, int64_t jobId);

}  // namespace vssample
