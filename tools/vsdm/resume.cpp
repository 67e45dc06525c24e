#include "resume.h"

#include "entrymodel.h"
#include "objecttarget.h"
#include "snapshots.h"

#include "hostapi/fd.h"
#include "hostapi/snapsrc.h"
#include "vscodec/streamreader.h"
#include "vshost/catalog.h"
#include "vshost/changetrack.h"

#include <fcntl.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vsdm {

namespace {

StreamSource OpenSource(const std::string& stream) {
    try {
        return StreamSource(stream);
    } catch (const UsageError& e) {
        throw UsageError(std::string("the stream to resume from: ") + e.what());
    }
}

std::string IdList(const std::set<uint32_t>& ids) {
    std::string out;
    for (uint32_t id : ids) out += (out.empty() ? "" : ", ") + std::to_string(id);
    return out.empty() ? "none" : out;
}

// The snapshot jobs that made these archive files, as the catalog knows them.
std::set<int64_t> SnapJobs(const std::set<uint32_t>& ids) {
    std::set<int64_t> out;
    const vshost::Catalog catalog;
    for (uint32_t id : ids)
        if (const auto afile = catalog.ArchiveFile(id)) out.insert(afile->snapJobId);
    return out;
}

std::string JobList(const std::set<int64_t>& ids) {
    std::string out;
    for (int64_t id : ids) out += (out.empty() ? "" : ", ") + std::to_string(id);
    return out.empty() ? "unknown" : out;
}

}  // namespace

void CheckSameJob(const DataMoverJob& job, const StreamIdentity& stream, const std::string& path) {
    const std::string what = "the stream to resume from, " + path + ", is not of this job: ";
    if (stream.jobId != job.host.jobId)
        throw UsageError(what + "it was written by job " + std::to_string(stream.jobId) + ", this is job " +
                         std::to_string(job.host.jobId));
    const std::set<uint32_t> mine(job.archiveFiles.begin(), job.archiveFiles.end());
    const std::set<int64_t> ours = SnapJobs(mine), theirs = SnapJobs(stream.archiveFiles);
    if (ours != theirs)
        throw UsageError(what + "its archive files are of snapshot job " + JobList(theirs) + ", this job's of " +
                         JobList(ours));
    bool named = !stream.archiveFiles.empty();
    for (uint32_t id : stream.archiveFiles) named = named && mine.count(id) != 0;
    if (!named)
        throw UsageError(what + "it read archive files " + IdList(stream.archiveFiles) + ", this job reads " +
                         IdList(mine));
}

bool StreamLeft(const std::string& stream, std::string& said) {
    // An object exists once its upload completed; an attempt killed before that (or whose
    // store went away) left the parts it stored, which become the stream to go on from.
    return !IsObject(stream) || StreamExists(stream) || KeepCutObject(stream, said);
}

ResumePoints ReadResumePoints(const std::string& stream, StreamIdentity* identity) {
    StreamSource source = OpenSource(stream);
    vshost::StreamReader reader(source.fd());
    vsstream::EntryModel model;
    vshost::StreamRecord record;
    std::string why;
    std::map<std::string, std::string> changeIds;  // by disk key
    // Whatever came whole before a cut or a damaged record is sound; nothing after it is read.
    while (reader.Next(record)) {
        model.Apply(record, why);
        if (identity) {
            const uint32_t* ids = nullptr;
            if (auto* h = std::get_if<vshost::StreamHeaderRecord>(&record.body)) {
                identity->jobId = h->jobId;
                ids = h->archiveFileIds;
            } else if (auto* i = std::get_if<vshost::IdentityRecord>(&record.body)) {
                identity->jobId = i->jobId;
                ids = i->archiveFileIds;
            }
            if (ids && ids[2] != 0) identity->archiveFiles.insert(ids[2]);
        }
        if (auto* done = std::get_if<vshost::DiskReadCompletedRecord>(&record.body))
            changeIds["\\" + done->vmGuid + "\\" + done->diskName] = done->changeId;
    }
    if (reader.state() == vshost::StreamReader::State::ReadError)
        throw UsageError("cannot read the stream to resume from, " + stream + ": " + reader.error());
    if (const std::string lost = source.Error(); !lost.empty())
        throw UsageError("cannot read the stream to resume from: " + lost);

    ResumePoints points;
    for (const auto& [key, g] : model.disks()) {
        if (!g.hasEntry || g.collection) continue;
        // Disk keys are "\<vm guid>\<disk name>"; disk names may hold backslashes.
        const size_t split = key.find('\\', 1);
        if (key.empty() || key[0] != '\\' || split == std::string::npos) continue;
        DiskResumePoint& p = points[key.substr(1, split - 1)][key.substr(split + 1)];
        p.done = g.readCompleted;
        p.nextExtent = g.readCompleted ? 0 : g.nextExtent;
        p.size = g.size;
        if (g.readCompleted) p.changeId = changeIds[key];
    }
    if (points.empty())
        throw UsageError("the stream " + stream + " holds no disk a later attempt could build on (" +
                         vshost::StateName(reader.state()) + ")");
    return points;
}

namespace {

// A disk that changed size since the stopped attempt read it is read again from its
// start: going on inside it, or keeping what the attempt completed, would restore to a
// mix of two different disks.
void ForgetResizedDisks(const DataMoverJob& job, ResumePoints& points, std::ostream& report) {
    std::set<std::string> vms;
    for (const auto& [vm, disks] : points) vms.insert(vm);
    const auto sizes = CurrentDiskSizes(job, vms);
    for (auto& [vm, disks] : points) {
        const auto now = sizes.find(vm);
        if (now == sizes.end()) continue;
        for (auto& [name, point] : disks) {
            const auto size = now->second.find(name);
            if (size == now->second.end() || size->second == point.size || (!point.done && point.nextExtent == 0))
                continue;
            report << "disk " << name << " of VM " << vm << " changed size since the stopped attempt (" << point.size
                   << " bytes, now " << size->second << "): it is read again from its start\n";
            point = DiskResumePoint{};
        }
    }
}

}  // namespace

void MergeResumePoints(ResumePoints& into, const ResumePoints& later) {
    for (const auto& [vm, disks] : later)
        for (const auto& [name, point] : disks) {
            DiskResumePoint& p = into[vm][name];
            if (p.done) continue;
            if (point.done || point.nextExtent > p.nextExtent) p = point;
        }
}

void ApplyResume(DataMoverJob& job, const std::string& stream, std::ostream& report) {
    if (std::string said; !StreamLeft(stream, said))
        throw UsageError("the stream to resume from, " + stream + ", is not on the object store (" + said +
                         "): run the job again without --resume");
    StreamIdentity identity;
    ResumePoints points = ReadResumePoints(stream, &identity);
    CheckSameJob(job, identity, stream);
    ApplyResumePoints(job, std::move(points), report);
}

void ApplyResumePoints(DataMoverJob& job, ResumePoints points, std::ostream& report) {
    ForgetResizedDisks(job, points, report);
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
                if (point.done)
                    ++done;
                else if (point.nextExtent > 0)
                    ++partly;
            }
        });
        report << "item " << item.path << ": " << done << " disk(s) already read, " << partly
               << " going on from where the stopped attempt left them\n";
    }
}

}  // namespace vsdm
