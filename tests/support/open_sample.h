// Opening an archive file of a generated sample snapshot the way the data mover does.
#pragma once

#include "DataReaderVSBase.h"
#include "vssample/sample.h"

#include <cstdint>

namespace vstest {

// OpenArchiveFile for archive file `afileId` (0: the snapshot's first) of job `jobId`.
inline int OpenSampleArchiveFile(DataReaderVSBase& r, const vssample::SampleSnapshot& s, long long jobId,
                                 uint64_t afileId = 0) {
    DMInitParams init;
    init.appId1 = s.appId1;
    init.appId2 = s.appId2;
    init.jobId = jobId;
    init.mediaAgentName = s.mediaAgentName;
    DMOpenArchiveParams open;
    open.archiveFileId = static_cast<uint32_t>(afileId != 0 ? afileId : s.afileIds[0]);
    open.archGroupId = static_cast<uint32_t>(s.archGroupId);
    open.copyId = static_cast<uint32_t>(s.copyId);
    return r.OpenArchiveFile(init, open);
}

}  // namespace vstest
