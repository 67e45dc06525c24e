// Work shared through the catalog: jobs whose items any number of workers, on any hosts
// whose homes share the catalog, lease one at a time (vsdm job create, vsdm worker,
// vsdm job status).
//
// A lease lasts [Catalog] nLeaseSeconds and is renewed while its item runs. Every lease
// of an item raises its generation; the item's outcome, its streams and the disks it
// completes are recorded only under the generation the worker holds, checked in the
// transaction that records them, so a worker whose lease expired and went to another
// records nothing. Lease times are the hosts' clocks: keep them in step (NTP) well within
// a lease's length.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vshost::queue {

inline constexpr int kDefaultLeaseSeconds = 60;

// [Catalog] nLeaseSeconds of the open home: 1 to 86400, else the default.
VS_HOST_API int LeaseSeconds();

struct NewItem {
    std::string path;  // the item's snap source path (its VM)
    std::string spec;  // the item as a job file's item (JSON)
};

struct WorkJob {
    int64_t jobId = 0;
    int64_t snapJobId = 0;
    std::string spec;       // the job as a job file (JSON), without items and out
    std::string outPrefix;  // each item's stream name starts with it
    int compress = 0;       // zstd level; 0: not compressed
    int64_t created = 0;    // seconds since 1970-01-01 UTC
};

// Registers the job and its items, all queued, in one transaction; throws when the job id
// has items already.
VS_HOST_API void CreateJob(const WorkJob& job, const std::vector<NewItem>& items);
VS_HOST_API std::optional<WorkJob> FindJob(int64_t jobId);

struct Item {
    int64_t jobId = 0;
    int64_t itemNo = 0;  // 1, 2, ... in the job's order
    std::string path, spec;
    std::string state;  // queued, running, done, failed
    std::string owner;  // the worker that holds (or last held) the lease
    int64_t leaseExpires = 0;
    int64_t generation = 0;  // how many leases the item has had
    int64_t progress = 0;    // bytes read by the latest attempt
    std::string failure;
    std::string streamKey;             // the stream the latest attempt writes
    std::vector<std::string> streams;  // every attempt's stream, in order: the order to restore them in
};

VS_HOST_API std::vector<Item> Items(int64_t jobId);

// What a worker holds: an item under one generation.
struct Lease {
    int64_t jobId = 0;
    int64_t itemNo = 0;
    int64_t generation = 0;
    std::string owner;
};

// Leases the next item (of job `jobId`, or of any job when 0) for `owner` until
// now + `seconds`: a queued item, or a running one whose lease expired before `now`.
// The item comes back with its new generation. None when no item is to be had.
VS_HOST_API std::optional<Item> LeaseNext(int64_t jobId, const std::string& owner, int64_t now, int seconds);
// The earliest expiry among running items (of job `jobId`, or of any job when 0): when a
// worker that found nothing to lease may find an item again. None when nothing runs.
VS_HOST_API std::optional<int64_t> NextExpiry(int64_t jobId);
// Extends the lease to now + `seconds` and records the progress; false when the lease
// is no longer held (another generation, or the item no longer running).
VS_HOST_API bool Renew(const Lease& lease, int64_t now, int seconds, int64_t progress);
// Records the stream the attempt writes (appended to the item's streams); false, and
// nothing recorded, when the lease is no longer held.
VS_HOST_API bool RecordStream(const Lease& lease, const std::string& key);

enum class Outcome { Done, Failed, GivenBack };
// Records the attempt's outcome: done, failed (with `failure`), or given back (queued again,
// as a worker that was stopped leaves it). `stream`, when not empty, replaces the attempt's
// stream under its final name. False, and nothing recorded, when the lease is no longer held.
VS_HOST_API bool Finish(const Lease& lease, Outcome outcome, const std::string& failure, const std::string& stream,
                        int64_t progress);

// While a lease is held by this process, every completed disk recorded for its job
// (vshost/changetrack.h) is recorded only under it: the transaction that writes the
// disks checks the lease, and writes nothing (throws LeaseLost) when it is no longer held.
struct VS_HOST_API LeaseLost : std::runtime_error {
    using std::runtime_error::runtime_error;
};
VS_HOST_API void HoldLease(const Lease& lease);
VS_HOST_API void ReleaseLease();

}  // namespace vshost::queue
