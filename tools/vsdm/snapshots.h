// Snapshots registered in the host home, and the backup job made from one: what
// `vsdm snapshot add|list|remove` and `vsdm backup` do. A snapshot's volumes are folders
// wherever the operator mounted them; nothing is ever written into one.
#pragma once

#include "jobspec.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace vsdm {

// One volume of `vsdm snapshot add`: "DATASTORE=FOLDER".
struct VolumeArg {
    std::string datastore;
    std::string folder;
};
// Throws UsageError naming the argument when it is not of that form.
VolumeArg ParseVolumeArg(const std::string& text);

struct SnapshotAdd {
    int64_t snapJobId = 0;
    unsigned snapEngineId = 0;
    std::string mediaAgent;  // empty: this machine's host name
    std::vector<VolumeArg> volumes;
};
// Registers the snapshot in the open home: its volumes as archive files, and the media
// agent, application and copy a backup job needs when the home has none yet. Writes one
// line per volume. Throws UsageError for a volume folder that is missing, unreadable or
// given twice, a datastore named twice, or a snapshot job registered already.
void AddSnapshot(const SnapshotAdd& add, std::ostream& out);

// The snapshots of the open home, their volumes and their VMs: name, UUID, each disk's
// format and size, and what a backup would refuse, and why.
void ListSnapshots(std::ostream& out);

// Forgets snapshot `snapJobId` (nothing on its volumes is touched); throws UsageError when
// the home does not have it.
void RemoveSnapshot(int64_t snapJobId, std::ostream& out);

// The size of every disk of VMs `vms` (by guid) in the snapshot of the job's archive
// files, as the VM-info library reports it now: by VM guid, then disk name. Empty for a
// VM or snapshot that cannot be mounted (the run itself then says why).
std::map<std::string, std::map<std::string, uint64_t>> CurrentDiskSizes(const DataMoverJob& job,
                                                                        const std::set<std::string>& vms);

struct BackupRequest {
    int64_t snapJobId = 0;
    std::vector<std::string> vms;  // names or UUIDs; empty: every VM of the snapshot
    bool incremental = false;      // read each disk against its latest completed backup
    ReaderKind reader = ReaderKind::Extent;
    std::string out;
};
// The job that backs up the request's VMs out of the snapshot: a new job id from the
// catalog, the snapshot's archive files, one item per VM with change tracking asked for.
// Throws UsageError for an unknown snapshot or VM.
DataMoverJob MakeBackupJob(const BackupRequest& request, std::ostream& report);
// The same job as a job file's text (its id taken from the catalog already).
std::string BackupJobText(const BackupRequest& request, std::ostream& report);

}  // namespace vsdm
