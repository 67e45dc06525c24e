// The run summary's counts of what a stream holds, taken record by record through the
// entry model vsstream uses: while the stream is written (vshost::TapRecords), or from
// a stream another process left (a parallel child that could not report).
#pragma once

#include "runner.h"

#include "entrymodel.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <set>
#include <string>

namespace vsdm {

class StreamCounter {
public:
    void Apply(const vshost::StreamRecord& record);
    // Sets the counts of `s` that come from the stream: VMs, configuration files, disks,
    // extents, nodes, file-level files and folders, and the disks it holds incomplete.
    void CountInto(RunSummary& s) const;

private:
    vsstream::EntryModel m_model;
    std::set<std::string> m_vms;
    uint64_t m_configFiles = 0, m_nodes = 0, m_nodeFolders = 0;
    uint64_t m_files = 0, m_filesFailed = 0, m_folders = 0;
};

// What the stream at `path` holds, read back (a regular file only; else nothing is set),
// with the decoder's totals and whether it is complete.
void CountStream(const std::string& path, RunSummary& s);

}  // namespace vsdm
