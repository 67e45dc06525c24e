// Going on with a job after an attempt of it stopped or was killed: what the stopped
// attempt's stream holds decides what the next attempt skips.
#pragma once

#include "jobspec.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>

namespace vsdm {

struct DiskResumePoint {
    bool done = false;        // the stream holds the whole disk and its read-completed marker
    uint64_t nextExtent = 0;  // otherwise: one past the last extent that arrived whole
    std::string changeId;     // of a done disk, as its marker states it
    uint64_t size = 0;        // the disk's size as the stopped attempt read it
};

using ResumePoints = std::map<std::string, std::map<std::string, DiskResumePoint>>;

// Who wrote a stream, as its header and identity records state it.
struct StreamIdentity {
    int64_t jobId = 0;
    std::set<uint32_t> archiveFiles;  // every archive file id the stream names
};

// Whether what a stopped attempt left of its stream `stream` can be read: a file as it is;
// an object once its upload completed, or, when the attempt was cut off before (killed, or
// its store gone), made of the parts it stored. `said` tells what was kept of a cut upload
// or why nothing was; empty when the object was whole.
bool StreamLeft(const std::string& stream, std::string& said);

// What the stream `stream` holds (an object as StreamLeft left it), by VM guid, then
// disk name. Throws UsageError when the stream cannot be opened or holds nothing a later
// attempt could build on.
ResumePoints ReadResumePoints(const std::string& stream, StreamIdentity* identity = nullptr);

// Throws UsageError naming what differs when the stream is not of this job: another
// job id, other archive files, or archive files of another snapshot job.
void CheckSameJob(const DataMoverJob& job, const StreamIdentity& stream, const std::string& path);

// Checks that the stream is of this job, then marks in the items' options the disks the stopped attempt completed as
// processed, and the extent a disk it was inside goes on from. The completed disks are recorded for the job in the
// catalog: a killed attempt may not have got that far.
void ApplyResume(DataMoverJob& job, const std::string& stream, std::ostream& report);

// What several attempts' streams hold together, the later given after the earlier: a disk
// any of them holds whole is done, else it goes on after the furthest extent any holds.
void MergeResumePoints(ResumePoints& into, const ResumePoints& later);
// ApplyResume's second half, for points read (and checked) already.
void ApplyResumePoints(DataMoverJob& job, ResumePoints points, std::ostream& report);

}  // namespace vsdm
