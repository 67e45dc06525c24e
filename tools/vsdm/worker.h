// `vsdm worker`: takes items of queued jobs (queue.h) one at a time under a lease in the
// catalog, runs each as a one-item job through the reader into a stream of its own,
// records the outcome and takes the next, until no item is left. Any number of workers
// may run, on any hosts whose homes share the catalog.
#pragma once

#include <cstdint>
#include <ostream>

namespace vsdm {

struct WorkerOptions {
    int64_t jobId = 0;  // 0: items of any job
    bool once = false;  // stop after one item
};

// Runs until no item is left (or after one with `once`, or on SIGINT or SIGTERM, which
// stop the item in hand and give it back). Exit status: 0 when every item it ran is done,
// 1 when some failed or their lease was lost, 4 when stopped.
int RunWorker(const WorkerOptions& options, std::ostream& report);

}  // namespace vsdm
