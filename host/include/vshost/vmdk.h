// VMDK descriptors: which files (and zero ranges) make up a disk, in disk order. Flat
// kinds are read; sparse kinds are recognised and refused with their name.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vshost::vmdk {

struct Extent {
    std::string access;          // RW, RDONLY, NOACCESS
    uint64_t sectors = 0;        // length in 512-byte sectors
    std::string type;            // FLAT, VMFS, ZERO, VMFSRAW, VMFSRDM (upper case)
    std::string file;            // resolved path of the extent file; empty for ZERO
    uint64_t offsetSectors = 0;  // where the extent starts inside its file

    bool IsZero() const { return type == "ZERO"; }
};

struct VS_HOST_API Descriptor {
    std::string createType;
    std::vector<Extent> extents;

    uint64_t SizeBytes() const;
};

enum class Kind {
    RawImage,    // a plain image: every byte of the file is a byte of the disk
    Descriptor,  // a text descriptor with readable extents
    Unreadable,  // missing, unreadable, or of a kind we do not read (`why` says which)
};

// Parses descriptor text. Extent file names are resolved against `dir`. False, with the
// reason, for text that is not a descriptor, names extents of an unsupported kind, or
// names an extent file by an absolute name or through "..".
VS_HOST_API bool Parse(const std::string& text, const std::string& dir, Descriptor& out, std::string& why);

// Classifies the file at `path`; for a descriptor also checks that every extent file
// exists. The file and its extent files are opened below the folder `root` only (the
// file's own folder when empty), never through a link that leads out of it, and must be
// regular files. Never throws.
VS_HOST_API Kind Inspect(const std::string& path, Descriptor& out, std::string& why, const std::string& root = {});

// Virtual size of the disk at `path` (descriptor or raw image); false with the reason
// when it cannot be read.
VS_HOST_API bool DiskSize(const std::string& path, uint64_t& size, std::string& why);

}  // namespace vshost::vmdk
