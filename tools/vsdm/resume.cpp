#include "resume.h"

#include "entrymodel.h"

#include "hostapi/snapsrc.h"
#include "vshost/changetrack.h"
#include "vshost/fd.h"
#include "vshost/streamreader.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>

namespace vsdm {

std::map<std::string, std::map<std::string, DiskResumePoint>> ReadResumePoints(const std::string& stream) {
    vshost::Fd fd(::open(stream.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) throw std::runtime_error("cannot open the stream to resume from, " + stream + ": " + std::strerror(errno));
    vshost::StreamReader reader(fd.get());
    vsstream::EntryModel model;
    vshost::StreamRecord record;
    std::string why;
    std::map<std::string, std::string> changeIds;   // by disk key
    // Whatever came whole before a cut or a damaged record is sound; nothing after it is read.
    while (reader.Next(record)) {
        model.Apply(record, why);
        if (auto* done = std::get_if<vshost::DiskReadCompletedRecord>(&record.body))
            changeIds["\\" + done->vmGuid + "\\" + done->diskName] = done->changeId;
    }
    if (reader.state() == vshost::StreamReader::State::ReadError)
        throw std::runtime_error("cannot read the stream to resume from, " + stream + ": " + reader.error());

    std::map<std::string, std::map<std::string, DiskResumePoint>> points;
    for (const auto& [key, g] : model.disks()) {
        if (!g.hasEntry || g.collection) continue;
        // Disk keys are "\<vm guid>\<disk name>"; disk names may hold backslashes.
        const size_t split = key.find('\\', 1);
        if (key.empty() || key[0] != '\\' || split == std::string::npos) continue;
        DiskResumePoint& p = points[key.substr(1, split - 1)][key.substr(split + 1)];
        p.done = g.readCompleted;
        p.nextExtent = g.readCompleted ? 0 : g.nextExtent;
        if (g.readCompleted) p.changeId = changeIds[key];
    }
    if (points.empty())
        throw std::runtime_error("the stream " + stream + " holds no disk a later attempt could build on (" +
                                 vshost::StateName(reader.state()) + ")");
    return points;
}

void ApplyResume(DataMoverJob& job, const std::string& stream, std::ostream& report) {
    const auto points = ReadResumePoints(stream);
    // A killed attempt may not have recorded the disks it completed; its stream says which.
    for (const auto& [vm, disks] : points)
        for (const auto& [name, point] : disks)
            if (point.done) vshost::changetrack::RecordJobDisk(job.host.jobId, {vm, name, point.changeId});

    for (JobItem& item : job.items) {
        const auto disks = points.find(ItemVM(item));
        if (disks == points.end()) continue;
        unsigned done = 0, partly = 0;
        EditItemOptions(item, [&](VirtualServer::SnapSrcPathOptions& options) {
            for (const auto& [name, point] : disks->second) {
                VirtualServer::SnapSrcPathDiskInfo& entry = DiskEntry(options, name);
                entry.processed = point.done ? 1 : 0;
                entry.startExtent = static_cast<int64_t>(point.nextExtent);
                if (point.done) ++done;
                else if (point.nextExtent > 0) ++partly;
            }
        });
        report << "item " << item.path << ": " << done << " disk(s) already read, " << partly
               << " going on from where the stopped attempt left them\n";
    }
}

}  // namespace vsdm
