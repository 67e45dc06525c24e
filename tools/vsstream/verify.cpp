// vsstream verify: every check value, the entry structure, extent names and the
// trailer's totals.
#include "commands.h"
#include "entrymodel.h"

namespace vsstream {

int RunVerify(int fd, std::ostream& out, std::ostream& err) {
    vshost::StreamReader reader(fd);
    EntryModel model;
    const bool problems = !ApplyAll(reader, model, err, [](const vshost::StreamRecord&) {});
    int code = Conclude(reader, problems, err);
    // A stream that ended cleanly but holds a disk its reader did not finish is not a
    // whole backup of that disk: it verifies as incomplete, never as complete.
    const auto incompleteDisks = model.IncompleteDisks();
    if (code == kExitOk && !incompleteDisks.empty()) code = kExitIncomplete;
    const vsStreamTotals& t = reader.counted();
    const char* verdict = code == kExitOk ? "complete"
                          : code == kExitIncomplete && reader.state() == vshost::StreamReader::State::Complete
                              ? "incomplete disks"
                          : problems && code == kExitCorrupt && reader.state() != vshost::StreamReader::State::Corrupt
                              ? "invalid"
                              : vshost::StateName(reader.state());
    out << verdict << ": " << t.records << " records, " << t.entries << " entries (" << t.badEntries
        << " closed as incomplete), " << t.directories << " folders, " << t.dataBytes << " data bytes, " << t.holeBytes
        << " hole bytes, " << reader.offset() << " bytes read\n";
    for (const std::string& disk : incompleteDisks)
        out << "disk " << disk << ": incomplete, " << EntryModel::IncompleteWhy(*model.Disk(disk)) << "\n";
    return code;
}

}  // namespace vsstream
