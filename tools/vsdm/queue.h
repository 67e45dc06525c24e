// Jobs whose items workers on many hosts share through the catalog: `vsdm job create`
// registers one, `vsdm job status` shows how its items stand (the workers: worker.h).
#pragma once

#include "jobspec.h"
#include "snapshots.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace vsdm {

struct QueuedJobRequest {
    BackupRequest backup;   // backup.out is the prefix of every item's stream name
    int compressLevel = 0;  // zstd level; 0: not compressed
};

// The job `vsdm backup` would make from the request, registered with one item per job
// item (one per VM; one per guest volume for the file-level reader), all queued; returns
// its id. Throws UsageError for a bad prefix, an unknown snapshot or VM.
int64_t CreateQueuedJob(const QueuedJobRequest& request, std::ostream& report);

// The stream that attempt `generation` of item `itemNo` writes: PREFIX + "job<J>.item<K>.<G>".
std::string ItemStreamName(const std::string& prefix, int64_t jobId, int64_t itemNo, int64_t generation);

// The job an item is run as: the queued job's fields with that one item.
DataMoverJob ItemJob(const std::string& jobSpec, const std::string& itemSpec, int64_t jobId, int64_t itemNo);

// Each item's state, host, attempts, progress, failure and streams. Throws UsageError
// for a job that was never queued.
void PrintJobStatus(int64_t jobId, std::ostream& out);

}  // namespace vsdm
