// Restore options of one item, as the job's options XML carries them, and the host's
// decoder for them.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VirtualServer {

// What an earlier attempt or an earlier job knew about one disk.
struct SnapSrcPathDiskInfo {
    std::string diskName;
    std::string alternateDiskName;
    std::string changeId;     // change id to read against (unchanged extents skipped)
    int64_t processed = 0;    // non-zero: completed in an earlier attempt of the job
    int64_t startExtent = 0;  // extent to resume from
};

struct SnapSrcPathOptions {
    int64_t useCBT = 0;  // non-zero: report and use change ids
    std::vector<SnapSrcPathDiskInfo> diskInfo;
    std::vector<std::string> mountDiskNames;  // disks a VM mount is limited to

    // Decodes the XML into this record; false with the reason when the text is not a
    // well-formed options document, and the record is then left empty.
    VS_HOST_API bool Unserialize(const std::string& xml, std::string& why);
    VS_HOST_API std::string Serialize() const;

private:
    bool Decode(const std::string& xml, std::string& why);
};

}  // namespace VirtualServer
