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
        if (!g.hasEntry) continue;
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
    for (JobItem& item : job.items) {
        const std::string vm = item.path.substr(0, item.path.find('\\'));
        const auto disks = points.find(vm);
        if (disks == points.end()) continue;
        VirtualServer::SnapSrcPathOptions options;
        std::string why;
        if (!item.optionsXml.empty() && !options.Unserialize(item.optionsXml, why))
            throw std::runtime_error("item " + item.path + ": its options cannot be read: " + why);
        unsigned done = 0, partly = 0;
        for (const auto& [name, point] : disks->second) {
            VirtualServer::SnapSrcPathDiskInfo* entry = nullptr;
            for (auto& info : options.diskInfo)
                if (info.diskName == name) entry = &info;
            if (!entry) entry = &options.diskInfo.emplace_back(VirtualServer::SnapSrcPathDiskInfo{name, "", "", 0, 0});
            entry->processed = point.done ? 1 : 0;
            entry->startExtent = static_cast<int64_t>(point.nextExtent);
            if (point.done) {
                ++done;
                vshost::changetrack::RecordJobDisk(job.host.jobId, {vm, name, point.changeId});
            }
            else if (point.nextExtent > 0) ++partly;
        }
        report << "item " << item.path << ": " << done << " disk(s) already read, " << partly
               << " going on from where the stopped attempt left them\n";
        item.optionsXml = options.Serialize();
    }
}

}  // namespace vsdm
