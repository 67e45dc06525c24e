// vsstream verify: every check value, the entry structure, extent names and the
// trailer's totals.
#include "commands.h"
#include "entrymodel.h"

namespace vsstream {

int RunVerify(int fd, std::ostream& out, std::ostream& err) {
    vshost::StreamReader reader(fd);
    EntryModel model;
    vshost::StreamRecord record;
    bool problems = false;
    while (reader.Next(record)) {
        std::string why;
        if (!model.Apply(record, why)) {
            err << "offset " << record.offset << ": " << why << "\n";
            problems = true;
        }
    }
    const int code = Conclude(reader, problems, err);
    const vsStreamTotals& t = reader.counted();
    const char* verdict = code == kExitOk                                         ? "complete"
                          : problems && code == kExitCorrupt && reader.state() != vshost::StreamReader::State::Corrupt
                              ? "invalid"
                              : vshost::StateName(reader.state());
    out << verdict << ": " << t.records << " records, " << t.entries
        << " entries (" << t.badEntries << " closed as incomplete), " << t.directories << " folders, " << t.dataBytes
        << " data bytes, " << t.holeBytes << " hole bytes, " << reader.offset() << " bytes read\n";
    // A sound stream may still hold disks the reader gave up on: say which.
    for (const std::string& disk : model.IncompleteDisks())
        out << "disk " << disk << ": incomplete, " << EntryModel::IncompleteWhy(*model.Disk(disk)) << "\n";
    return code;
}

}  // namespace vsstream
