// vsstream restore: decode, classify and apply, record by record.
#include "commands.h"
#include "lineprefix.h"
#include "restore.h"

#include <unistd.h>
#include <filesystem>

#include <map>
#include <set>

namespace vsstream {

bool CheckRestoreFolder(const std::string& dir, bool fresh, std::string& why) {
    namespace fs = std::filesystem;
    std::error_code ec;
    const bool exists = fs::exists(dir, ec);
    if (fresh && exists && !(fs::is_directory(dir, ec) && fs::is_empty(dir, ec))) {
        why = "restore --to " + dir + ": the folder is not empty; use --onto to update an earlier restore";
        return false;
    }
    if (!fresh && !fs::is_directory(dir, ec)) {
        why = "restore --onto " + dir + ": no earlier restore there";
        return false;
    }
    return true;
}

// The change id of each disk the stream completed, beside its image as
// "<disk>.changeid": what a later incremental reads against.
void RecordChangeId(SafeRoot& root, const EntryModel& model, const vshost::DiskReadCompletedRecord& done,
                    std::ostream& out, std::ostream& err) {
    if (done.changeId.empty()) return;
    std::string why;
    PathParts parts;
    const std::string key = "\\" + done.vmGuid + "\\" + done.diskName;
    const DiskGeometry* g = model.Disk(key);
    if (!SplitEntryPath((g && !g->target.empty() ? g->target : key) + ".changeid", parts, why)) {
        err << "change id of " << done.diskName << " not recorded: " << why << "\n";
        return;
    }
    if (!root.Publish(parts, done.changeId + "\n", why)) {
        err << "change id of " << done.diskName << " not recorded: " << why << "\n";
        return;
    }
    out << "disk \\" << done.vmGuid << "\\" << done.diskName << " complete, change id [" << done.changeId << "]\n";
}

int RunRestore(int fd, const std::string& dir, std::ostream& out, std::ostream& err, bool force, ImageFormat format) {
    return RunRestoreAll({StreamInput{"", fd}}, dir, out, err, force, format);
}

int RunRestoreAll(const std::vector<StreamInput>& inputs, const std::string& dir, std::ostream& out, std::ostream& err,
                  bool force, ImageFormat format) {
    SafeRoot root;
    std::string why;
    if (!root.Open(dir, why)) {
        err << why << "\n";
        return kExitUnreadable;
    }
    LinePrefix prefixed(err);
    std::ostream perr(&prefixed);
    // One restorer for all: a disk that two streams touch is one image of this run.
    Restorer restorer(root, perr, force, format);
    int code = kExitOk;
    // Disks a stream began but never marked read, unless another stream of the set did.
    std::map<std::string, std::string> incomplete;  // disk, why
    std::set<std::string> completed;
    for (const StreamInput& input : inputs) {
        prefixed.SetPrefix(inputs.size() > 1 ? input.name + ": " : "");
        vshost::StreamReader reader(input.fd);
        EntryModel model;
        vshost::StreamRecord record;
        const uint64_t problemsBefore = restorer.counts().problems;
        while (!restorer.stopped() && reader.Next(record)) {
            why.clear();
            const bool usable = model.Apply(record, why);
            if (!usable) perr << "offset " << record.offset << ": " << why << "; not restored\n";
            restorer.Apply(record, model, usable);
            if (auto* done = std::get_if<vshost::DiskReadCompletedRecord>(&record.body);
                done && !restorer.stopped() && !restorer.Refused("\\" + done->vmGuid + "\\" + done->diskName))
                RecordChangeId(root, model, *done, out, perr);
        }
        if (restorer.stopped()) {
            // Its one line is out; the stream's own verdict is beside the point.
            code = WorseCode(code, kExitCorrupt);
            break;
        }
        code = WorseCode(code, Conclude(reader, restorer.counts().problems > problemsBefore, perr));
        for (const std::string& disk : model.IncompleteDisks())
            incomplete[disk] = EntryModel::IncompleteWhy(*model.Disk(disk));
        for (const auto& [key, g] : model.disks())
            if (g.readCompleted && !g.shortRead) completed.insert(key);
    }
    restorer.Finish();
    perr.flush();
    const RestoreCounts& c = restorer.counts();
    out << "restored " << c.files << " files, " << c.images << " disk images (" << c.extents << " extents), "
        << c.folders << " folders into " << dir;
    if (inputs.size() > 1) out << " from " << inputs.size() << " streams";
    if (c.skipped) out << "; " << c.skipped << " entries skipped";
    if (c.abandoned) out << "; " << c.abandoned << " entries were incomplete in the stream";
    if (c.problems) out << "; " << c.problems << " problems";
    out << "\n";
    for (const auto& [disk, reason] : incomplete)
        if (!completed.count(disk))
            out << "disk " << disk << ": incomplete in the stream, " << reason << "; only what was read is restored\n";
    return code;
}

}  // namespace vsstream
