// Runs one job: loads the plug-in, drives a reader through its lifecycle over the job's
// archive files and items, and writes the backup stream.
#pragma once

#include "jobspec.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace vsdm {

// Exit statuses of `vsdm run` (also in the README).
enum ExitStatus : int {
    kExitOk = 0,            // every item succeeded and the stream is complete
    kExitItemsFailed = 1,   // the job ran, some items failed; the stream is complete
    kExitJobFailed = 2,     // the job could not start or its archive files could not be opened
    kExitStreamFailed = 3,  // the stream could not be written; it is not complete
    kExitStopped = 4,       // stopped by SIGINT or SIGTERM; the stream is marked incomplete
    kExitUsage = 64,        // bad command line or job file
};

// Levels of --compress zstd:LEVEL.
inline constexpr int kMinCompressLevel = 1;
inline constexpr int kMaxCompressLevel = 19;

struct RunOptions {
    std::string out;              // overrides the job's "out"
    std::string jobFile;          // the job's file, which the stream must not replace
    int64_t incrementalFrom = 0;  // fill change ids from what this job recorded
    std::string resumeFrom;       // stream of a stopped attempt of this job to go on from
    bool progress = false;        // progress line on stderr
    int compressLevel = 0;        // zstd level of the data records; 0: not compressed
    // Indices of the items to run, in this order; all of them when not set (one
    // process of a parallel run takes its share this way).
    std::optional<std::vector<size_t>> share;
};

struct RunSummary {
    uint64_t items = 0, itemsFailed = 0;
    uint64_t vms = 0, disks = 0, configFiles = 0;
    uint64_t extentsSent = 0, holeExtents = 0;
    uint64_t extentsUnchanged = 0;                     // of disks read to their end: found unchanged, so not sent
    uint64_t extentsNotRead = 0;                       // of disks not read to their end (failed, stopped, one extent)
    uint64_t files = 0, folders = 0, filesFailed = 0;  // file-level entries
    uint64_t nodes = 0, nodeFolders = 0;               // file-collection nodes, and of them folders
    uint64_t dataBytes = 0, holeBytes = 0, streamBytes = 0;
    double seconds = 0;
    bool streamComplete = false;
    bool streamLeft = true;  // false: the job could not start and left no stream of its own
    int status = kExitOk;
    std::vector<std::string> vmPaths;  // VM entries in the stream, so that a merge counts each VM once
    // A parallel run: how many streams, and those that are not complete (path and why).
    unsigned streams = 1;
    std::vector<std::string> incompleteStreams;
    // Disks a sound stream holds but not whole (a failed or stopped read, a whole-disk
    // read that left extents out), each with why.
    std::vector<std::string> incompleteDisks;
};

// The counts a parallel run adds up over its streams and a child hands its parent, by
// name: merging, encoding and decoding a summary all go by this one list. (`vms` is not
// among them: a merge counts the distinct VM paths.)
struct SummaryCount {
    const char* name;
    uint64_t RunSummary::*field;
};
inline constexpr SummaryCount kSummaryCounts[] = {
    {"items", &RunSummary::items},
    {"itemsFailed", &RunSummary::itemsFailed},
    {"disks", &RunSummary::disks},
    {"configFiles", &RunSummary::configFiles},
    {"extentsSent", &RunSummary::extentsSent},
    {"extentsUnchanged", &RunSummary::extentsUnchanged},
    {"extentsNotRead", &RunSummary::extentsNotRead},
    {"holeExtents", &RunSummary::holeExtents},
    {"files", &RunSummary::files},
    {"folders", &RunSummary::folders},
    {"filesFailed", &RunSummary::filesFailed},
    {"nodes", &RunSummary::nodes},
    {"nodeFolders", &RunSummary::nodeFolders},
    {"dataBytes", &RunSummary::dataBytes},
    {"holeBytes", &RunSummary::holeBytes},
    {"streamBytes", &RunSummary::streamBytes},
};

// This program's own file; empty when it cannot be found.
std::string SelfPath();

// The plug-in file next to this program ("../lib/libvsdatareader.so").
std::string PluginPath();

RunSummary RunJob(DataMoverJob job, const RunOptions& options, std::ostream& report);

// Writes the summary and the job's pending causes.
void PrintSummary(const DataMoverJob& job, const RunSummary& s, std::ostream& out);

}  // namespace vsdm
