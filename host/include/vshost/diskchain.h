// A disk as the chain of images it is read from: the disk file and the parents it names
// (a VMDK delta's parentFileNameHint, a qcow2 backing file), each opened beneath its
// volume and checked before qemu is let near it.
#pragma once

#include "hostapi/fd.h"
#include "hostapi/types.h"
#include "vshost/vmdk.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vshost::diskchain {

enum class Format {
    Raw,         // every byte of the file is a byte of the disk
    FlatVmdk,    // a descriptor of flat (and zero) extents
    SparseVmdk,  // hosted sparse (KDMV), VMFS sparse (COWD), or a descriptor with sparse extents
    Qcow2,
};

// The qemu driver that reads `format`: "raw", "vmdk" or "qcow2".
VS_HOST_API const char* DriverOf(Format format);

struct Image {
    std::string path;  // lexically normal, beneath the volume
    Format format = Format::Raw;
    uint64_t size = 0;       // virtual size in bytes
    uint64_t fileSize = 0;   // of the image file when it was inspected
    std::string parentName;  // the parent as the image names it; empty for a base
    bool hasCid = false;     // VMDK content ids: a delta records its parent's CID
    uint32_t cid = 0;
    uint32_t parentCid = vmdk::Descriptor::kNoParentCid;
    Fd fd;                        // the image file
    vmdk::Descriptor descriptor;  // a text descriptor's extents
    std::string descriptorText;   // exactly the text that was checked; empty for binary images
    std::vector<Fd> extentFds;    // parallel to descriptor.extents (invalid for zero extents)

    bool TextDescriptor() const { return !descriptorText.empty(); }
};

struct VS_HOST_API Chain {
    std::vector<Image> images;  // the disk first, then its parent, and so on to the base

    // A single raw image or flat VMDK: the host reads it with pread and SEEK_DATA.
    bool Native() const;
    uint64_t Size() const { return images.empty() ? 0 : images.front().size; }
};

struct Where {
    std::string root;       // the volume folder every file must lie beneath (the disk's own folder when empty)
    std::string datastore;  // its datastore, for parents named /vmfs/volumes/<datastore>/...
};

// Deeper chains are refused: VMware allows 32 snapshots, and each image holds descriptors.
constexpr size_t kMaxChainLength = 64;

// Inspects the disk at `path` and every parent it names, each a regular file opened
// beneath the volume (vshost/beneath.h). The format of the disk comes from its name and
// content: a .qcow2 name is qcow2; a text descriptor is VMDK; a hosted- or VMFS-sparse
// header is VMDK only in a .vmdk file; anything else is raw and never probed further.
// A parent's format is the one its child records (VMDK parents of VMDK deltas; qcow2's
// backing format, or a .qcow2, .vmdk or .raw name). Binary images are described by
// `qemu-img info` run on the opened file, never by a name. False with `why` naming the
// file: a missing or unreadable parent, a parent outside the volume, a broken chain
// (a VMDK delta made from another state of its parent), a loop, an image that names a
// file qemu would open on its own (a qcow2 external data file, a hosted-sparse header
// that holds a descriptor), an extent line qemu would read differently.
VS_HOST_API bool Inspect(const Where& where, const std::string& path, Chain& out, std::string& why);

}  // namespace vshost::diskchain
