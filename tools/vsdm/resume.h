// Going on with a job after an attempt of it stopped or was killed: what the stopped
// attempt's stream holds decides what the next attempt skips.
#pragma once

#include "jobspec.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

namespace vsdm {

struct DiskResumePoint {
    bool done = false;         // the stream holds the whole disk and its read-completed marker
    uint64_t nextExtent = 0;   // otherwise: one past the last extent that arrived whole
    std::string changeId;      // of a done disk, as its marker states it
};

// By VM guid, then disk name. Throws when the stream cannot be opened or holds
// nothing a later attempt could build on.
std::map<std::string, std::map<std::string, DiskResumePoint>> ReadResumePoints(const std::string& stream);

// Marks in the items' options the disks the stopped attempt completed as processed, and
// the extent a disk it was inside goes on from. The completed disks are recorded for the
// job in the catalog: a killed attempt may not have got that far.
void ApplyResume(DataMoverJob& job, const std::string& stream, std::ostream& report);

}  // namespace vsdm
