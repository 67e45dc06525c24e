// A job run as several streams: the items are shared out among child processes of
// this same program, each running the reader over its share into a stream of its own
// (the plug-in keeps process-wide state, so one process per reader). The parent
// leaves a stream-set manifest at the job's "out", forwards SIGINT and SIGTERM, waits
// for every child and merges what they report.
#pragma once

#include "runner.h"

#include <ostream>
#include <string>

namespace vsdm {

struct StreamsOptions {
    std::string jobFile;  // handed to the children as given
    std::string home;     // the host home the parent opened
    unsigned streams = 2;
    int64_t incrementalFrom = 0;
    std::string compress;  // --compress as given, for every stream
};

RunSummary RunStreams(const DataMoverJob& job, const StreamsOptions& options, std::ostream& report);

// The descriptor on which a child finds its parent's report pipe.
inline constexpr int kChildReportFd = 3;
// A child's summary, as it hands it to its parent, and back.
std::string EncodeSummary(const RunSummary& s);
bool DecodeSummary(const std::string& text, RunSummary& s);

// The worse of two exit statuses, in the order of their meaning: a stream not written,
// then a stop, then a job that could not start, then failed items.
int WorseStatus(int a, int b);

}  // namespace vsdm
