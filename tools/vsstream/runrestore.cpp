// vsstream restore: decode, classify and apply, record by record.
#include "commands.h"
#include "restore.h"

namespace vsstream {

int RunRestore(int fd, const std::string& dir, std::ostream& out, std::ostream& err) {
    SafeRoot root;
    std::string why;
    if (!root.Open(dir, why)) {
        err << why << "\n";
        return kExitUnreadable;
    }
    vshost::StreamReader reader(fd);
    EntryModel model;
    Restorer restorer(root, err);
    vshost::StreamRecord record;
    while (reader.Next(record)) {
        why.clear();
        const bool usable = model.Apply(record, why);
        if (!usable) err << "offset " << record.offset << ": " << why << "; not restored\n";
        restorer.Apply(record, model, usable);
    }
    restorer.Finish();
    const RestoreCounts& c = restorer.counts();
    out << "restored " << c.files << " files, " << c.images << " disk images (" << c.extents << " extents), "
        << c.folders << " folders into " << dir;
    if (c.skipped) out << "; " << c.skipped << " entries skipped";
    if (c.abandoned) out << "; " << c.abandoned << " entries were incomplete in the stream";
    if (c.problems) out << "; " << c.problems << " problems";
    out << "\n";
    return Conclude(reader, c.problems > 0, err);
}

}  // namespace vsstream
