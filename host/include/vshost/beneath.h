// Opening files below a folder without ever leaving it: the one way the host and the
// VM-info library reach files that come from a snapshot or a guest volume.
#pragma once

#include "hostapi/fd.h"
#include "hostapi/types.h"

#include <cstdint>
#include <string>

namespace vshost {

// Opens `relative` below the folder `root` refers to. Links in the middle of the path
// are followed only while they stay below the root (an absolute link target never
// does); the last component is followed unless `flags` has O_NOFOLLOW. EXDEV means the
// path leads out of the root. Without openat2 (old kernels) no link is followed at all
// and ".." is refused, which is stricter.
VS_HOST_API int OpenBeneath(int root, const std::string& relative, int flags);

namespace snapfile {

// Text files of a snapshot (configurations, descriptors, sidecars) are
// small; anything larger is damage and is refused rather than read into memory.
constexpr uint64_t kMaxTextBytes = 4u << 20;

// Opens the file at `path` for reading. `path` must lie below the folder `root` and be
// reached from it without leaving it; it must be a regular file. The open never blocks
// (a FIFO in place of a file is refused, not waited on). An invalid Fd, `why` and errno
// set on refusal.
VS_HOST_API Fd Open(const std::string& root, const std::string& path, std::string& why);

// The whole of the text file at `path`, opened as Open does, when it holds at most
// `cap` bytes; false with the reason otherwise (errno ENOENT only when there is no such
// file, EFBIG when it is too large).
VS_HOST_API bool ReadText(const std::string& root, const std::string& path, std::string& text, std::string& why,
                          uint64_t cap = kMaxTextBytes);

}  // namespace snapfile
}  // namespace vshost
