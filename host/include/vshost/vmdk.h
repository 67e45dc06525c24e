// VMDK descriptors: which files (and zero ranges) make up a disk, in disk order, and the
// parent a delta disk names. Flat kinds are read by the host itself; sparse kinds
// (hosted sparse, VMFS sparse, SESPARSE) and deltas are read through qemu.
//
// Disk chains (vshost::diskchain): a disk as the chain of images it is read from, the
// disk file and the parents it names (a VMDK delta's parentFileNameHint, a qcow2 backing
// file), each opened beneath its volume and checked before qemu is let near it.
#pragma once

#include "hostapi/fd.h"
#include "hostapi/types.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vshost::vmdk {

struct Extent {
    std::string access;          // RW, RDONLY, NOACCESS
    uint64_t sectors = 0;        // length in 512-byte sectors
    std::string type;            // FLAT, VMFS, ZERO, VMFSRAW, VMFSRDM, SPARSE, VMFSSPARSE, SESPARSE (upper case)
    std::string name;            // the extent file's name as written; empty for ZERO
    std::string file;            // resolved path of the extent file; empty for ZERO
    uint64_t offsetSectors = 0;  // where the extent starts inside its file
    // Written exactly as qemu's VMDK driver reads extent lines ("RW", the kind in upper
    // case, a quoted name, an offset for FLAT). qemu passes over other lines, so a disk
    // read through it must have no other kind, or its layout would differ from ours.
    bool strict = false;

    bool IsZero() const { return type == "ZERO"; }
    bool IsSparse() const { return type == "SPARSE" || type == "VMFSSPARSE" || type == "SESPARSE"; }
};

struct VS_HOST_API Descriptor {
    std::string createType;
    std::vector<Extent> extents;
    std::string parentHint;  // parentFileNameHint as written; empty for a disk without a parent
    uint32_t cid = 0;
    uint32_t parentCid = kNoParentCid;
    bool hasCid = false;

    static constexpr uint32_t kNoParentCid = 0xffffffffu;

    uint64_t SizeBytes() const;
    // Every extent flat or zero and no parent: the host reads it itself.
    bool Flat() const;
};

enum class Kind {
    RawImage,    // a plain image: every byte of the file is a byte of the disk
    Descriptor,  // a text descriptor of flat extents without a parent
    Unreadable,  // missing, unreadable, or of a kind we do not read (`why` says which)
    Sparse,      // a sparse VMDK or a delta, read through qemu (see diskchain below)
};

// Descriptors are small text files; anything larger is an image.
constexpr size_t kMaxDescriptorBytes = size_t{64} * 1024;

// Whether `head`, the first bytes of a file of `fileSize` bytes, is a text descriptor.
VS_HOST_API bool LooksLikeDescriptor(const std::string& head, uint64_t fileSize);

// Whether `path` is named as a VMDK file (.vmdk, any case).
VS_HOST_API bool IsVmdkName(const std::string& path);

// Parses descriptor text. Extent file names are resolved against `dir`. False, with the
// reason, for text that is not a descriptor, names extents of an unsupported kind, or
// names an extent file by an absolute name or through "..".
VS_HOST_API bool Parse(const std::string& text, const std::string& dir, Descriptor& out, std::string& why);

// Classifies the file at `path`; for a descriptor also checks that every extent file
// exists. Hosted-sparse (KDMV) and VMFS-sparse (COWD) files are recognised only in a
// file named .vmdk: the content of a raw image is never probed for a format. The file and its extent files are opened
// below the folder `root` only (the file's own folder when empty), never through a link that leads out of it, and must
// be regular files. Never throws.
VS_HOST_API Kind Inspect(const std::string& path, Descriptor& out, std::string& why, const std::string& root = {});

// Virtual size of the disk at `path` (descriptor or raw image); false with the reason
// when it cannot be read.
VS_HOST_API bool DiskSize(const std::string& path, uint64_t& size, std::string& why);

}  // namespace vshost::vmdk

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
