// What the data mover needs from a job file besides what the host services read: the
// reader to use, its settings, the archive files, the items and the stream target.
#pragma once

#include "hostapi/snapsrc.h"
#include "vshost/job.h"

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vsdm {

// A fault of the command line or of the job's inputs (job file, resumed stream, output
// target): the run ends with exit status 64 and has changed nothing.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class ReaderKind { Extent, FileCollection, FileLevel };

struct JobItem {
    std::string path;        // snap source path: "VM[\disk[\extent]]"
    std::string optionsXml;  // may be empty
    // File-level items: the client path to list (default: `path`) and whether names
    // are filtered by the path's last component.
    std::string clientPath;
    int32_t fileFilterCount = 0;
    // What the scheduler expects the item to read, in bytes; 0 when not known. Only
    // used to balance the items of a parallel run over its streams.
    uint64_t expectedBytes = 0;
};

struct DataMoverJob {
    vshost::JobDescription host;  // task, event and job options
    ReaderKind reader = ReaderKind::Extent;
    int instanceType = 102;
    int mountType = 0;
    bool blockLevel = false;
    unsigned snapEngineId = 0;
    std::string mediaAgent;
    std::string jobToken;
    std::vector<uint64_t> archiveFiles;
    unsigned long archGroupId = 0;
    unsigned long copyId = 0;
    int64_t hubcellId = 0;
    std::vector<JobItem> items;
    std::string out;   // stream file; "-" is standard output; empty: not given
    std::string home;  // host home; relative to the job file's folder
};

// Reads a job file; throws std::runtime_error naming the file and the field at fault.
DataMoverJob LoadJob(const std::string& path);
DataMoverJob ParseJob(const std::string& text, const std::string& origin, const std::string& baseDir);

const char* ReaderName(ReaderKind kind);

// The VM part of an item's snap source path.
std::string ItemVM(const JobItem& item);
// Decodes the item's options, lets `edit` change them and writes them back; throws
// naming the item when its options cannot be read.
void EditItemOptions(JobItem& item, const std::function<void(VirtualServer::SnapSrcPathOptions&)>& edit);
// The options' entry for disk `name`, added when there is none.
VirtualServer::SnapSrcPathDiskInfo& DiskEntry(VirtualServer::SnapSrcPathOptions& options, const std::string& name);

}  // namespace vsdm
