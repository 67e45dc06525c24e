// Records handed to a reader by the data mover.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <string>

struct VS_HOST_API DMInitParams {
    unsigned long appId1 = 0;  // first application id field
    unsigned long appId2 = 0;  // second application id field
    int32_t streamNumber = 0;
    KTJobID jobId = 0;
    char jobToken[64] = {};
    std::string mediaAgentName;
};

struct VS_HOST_API DMOpenArchiveParams {
    uint32_t archiveFileId = 0;
    uint32_t archGroupId = 0;
    uint32_t copyId = 0;
    int64_t hubcellId = 0;
};

// One item to read.
struct VS_HOST_API FSRSnapSrcPath {
    int32_t fileFilterCount = 0;  // > 0: filter by file-name pattern
    int64_t walkFlag = 0;         // must be 0 for a directory walk
    std::string sClientPath;
    std::string sSnapSrcPath;
    std::string sOptionsXml;
};
