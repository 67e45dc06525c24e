// A stream set: the small manifest a parallel run of the data mover leaves at the
// job's "out", naming the streams its processes wrote (docs/parallel-streams.md).
// The data mover writes it (vshost/streamset.h); vsstream reads it to take the whole set.
#pragma once

#include "vscodec/api.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vshost {

// The manifest's "format" and "version" fields.
inline constexpr const char* kStreamSetFormat = "vsdm-stream-set";
inline constexpr int kStreamSetVersion = 1;

struct StreamSet {
    int64_t jobId = 0;
    std::vector<std::string> members;  // file names, relative to the manifest's folder
};

// The name of member `k` (1-based) of the set whose manifest is `out`: "<out>.<k>".
VS_CODEC_API std::string StreamSetMemberPath(const std::string& out, unsigned k);

// True when the file open at `fd` starts like a manifest rather than a stream; reads
// with pread, so the file offset is left alone.
VS_CODEC_API bool LooksLikeStreamSet(int fd);

// Reads a manifest from `fd`. False with `why` when it is not a well-formed one (a
// member name holding a folder, an empty list, a wrong field).
VS_CODEC_API bool ReadStreamSet(int fd, StreamSet& set, std::string& why);

}  // namespace vshost
