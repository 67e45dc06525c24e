// Job descriptions: what one run of a reader is told by the scheduler (task options),
// the event manager (event options) and the job manager (job options). The data mover
// loads them from a job file; tests register them in-process.
#pragma once

#include "hostapi/types.h"

#include <map>
#include <string>
#include <vector>

namespace vshost {

struct JobDescription {
    KTJobID jobId = 0;
    unsigned long appId1 = 0;
    unsigned long appId2 = 0;
    std::map<int, std::string> taskOptions;           // by option number
    std::map<unsigned long long, bool> eventOptions;  // by option number
    bool hasJobOptions = true;                        // false: the job options cannot be loaded
    int lookupInstanceFromTask = 0;                   // restore options
    unsigned long instanceId = 0;                     // virtual-server restore options
};

// Parses a job file (JSON, see docs/job-file.md). Throws std::runtime_error naming the
// file and the offending field.
VS_HOST_API JobDescription ParseJobFile(const std::string& path);
VS_HOST_API JobDescription ParseJobText(const std::string& text, const std::string& origin = "job");

// Makes a job known to the host services of this process (replacing one with the same id).
VS_HOST_API void RegisterJob(const JobDescription& job);
VS_HOST_API void UnregisterJob(KTJobID jobId);
VS_HOST_API bool FindJob(KTJobID jobId, JobDescription& out);

}  // namespace vshost
