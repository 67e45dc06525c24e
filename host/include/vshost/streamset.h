// A stream set: the small manifest a parallel run of the data mover leaves at the
// job's "out", naming the streams its processes wrote (docs/parallel-streams.md).
// The data mover writes it; vsstream reads it to take the whole set.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vshost {

struct StreamSet {
    int64_t jobId = 0;
    std::vector<std::string> members;  // file names, relative to the manifest's folder
};

// The name of member `k` (1-based) of the set whose manifest is `out`: "<out>.<k>".
VS_HOST_API std::string StreamSetMemberPath(const std::string& out, unsigned k);

// Writes the manifest under a temporary name and renames it into place. False with
// `why` on failure.
VS_HOST_API bool WriteStreamSet(const std::string& path, const StreamSet& set, std::string& why);

// True when the file open at `fd` starts like a manifest rather than a stream; reads
// with pread, so the file offset is left alone.
VS_HOST_API bool LooksLikeStreamSet(int fd);

// Reads a manifest from `fd`. False with `why` when it is not a well-formed one (a
// member name holding a folder, an empty list, a wrong field).
VS_HOST_API bool ReadStreamSet(int fd, StreamSet& set, std::string& why);

}  // namespace vshost
