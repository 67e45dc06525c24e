// VMDK descriptors: which files (and zero ranges) make up a disk, in disk order, and the
// parent a delta disk names. Flat kinds are read by the host itself; sparse kinds
// (hosted sparse, VMFS sparse, SESPARSE) and deltas are read through qemu.
#pragma once

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
    Sparse,      // a sparse VMDK or a delta, read through qemu (see vshost/diskchain.h)
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
