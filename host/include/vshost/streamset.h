// Writing a stream set, the manifest a parallel run of the data mover leaves at the
// job's "out" (docs/parallel-streams.md). Reading it is the codec's (vscodec/streamset.h).
#pragma once

#include "hostapi/types.h"
#include "vscodec/streamset.h"

#include <string>

namespace vshost {

// The manifest's text (JSON), as WriteStreamSet writes it and an object store keeps it.
VS_HOST_API std::string StreamSetText(const StreamSet& set);

// Writes the manifest under a temporary name and renames it into place. False with
// `why` on failure.
VS_HOST_API bool WriteStreamSet(const std::string& path, const StreamSet& set, std::string& why);

}  // namespace vshost
