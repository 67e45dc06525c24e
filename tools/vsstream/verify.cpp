// vsstream verify: every check value, the entry structure, extent names and the
// trailer's totals; the stream's index when it has one; and with --deep, every disk read
// through the index as vsstream serve reads it.
#include "commands.h"
#include "entrymodel.h"
#include "streamindex.h"

namespace vsstream {

namespace {

// A stream's index beside it against the one its records give.
int CheckIndex(StreamBytes& stream, const StreamIndex& built, std::ostream& out, std::ostream& err) {
    if (!stream.IndexExists()) return kExitOk;  // none: the stream is read in order
    StreamIndex kept;
    std::string text, why;
    if (!stream.ReadIndex(text, why) || !ParseIndex(text, stream.IndexName(), kept, why)) {
        err << why << " (vsstream index makes it anew)\n";
        return kExitCorrupt;
    }
    if (!(kept == built)) {
        err << stream.IndexName() << " does not match the stream (vsstream index makes it anew)\n";
        return kExitCorrupt;
    }
    out << "index " << stream.IndexName() << ": matches the stream\n";
    return kExitOk;
}

}  // namespace

int RunVerify(int fd, std::ostream& out, std::ostream& err, StreamBytes* indexed, StreamIndex* built) {
    vshost::StreamReader reader(fd);
    EntryModel model;
    IndexBuilder builder;
    const bool problems = !ApplyAll(reader, model, err, [&](const vshost::StreamRecord& record, bool usable) {
        builder.Take(record, model, usable);
    });
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
    if (indexed && reader.state() != vshost::StreamReader::State::ReadError) {
        StreamIndex index = builder.Finish(reader, *indexed);
        if (code != kExitCorrupt) code = WorseCode(code, CheckIndex(*indexed, index, out, err));
        if (built) *built = std::move(index);
    }
    return code;
}

int RunDeepVerify(const std::vector<std::string>& chain, const std::vector<const StreamIndex*>& built,
                  std::ostream& out, std::ostream& err) {
    int code = kExitOk;
    for (const std::string& key : DisksOf(built)) {
        ChainDisk disk;
        std::string why;
        if (!disk.Open(chain, key, why, built)) {
            err << "disk " << key << ": " << why << "\n";
            code = WorseCode(code, kExitCorrupt);
            continue;
        }
        uint64_t read = 0, bad = 0;
        for (const auto& [number, source] : disk.extents()) {
            const char* bytes = nullptr;
            uint64_t length = 0;
            uint64_t low = 0, high = 0;
            if (disk.LoadExtent(number, bytes, length, why)) {
                ExtentDigest(bytes, std::min(length, source.extent->length), low, high);
                if (low == source.extent->digestLow && high == source.extent->digestHigh) {
                    ++read;
                    continue;
                }
                why = "its bytes do not match the digest recorded for it";
            }
            err << "disk " << key << ": extent " << number << " (" << chain[source.stream] << "): " << why << "\n";
            ++bad;
        }
        out << "disk " << key << ": " << read << " extents read through the index and matched" << (bad ? ", " : "")
            << (bad ? std::to_string(bad) + " FAILED" : "") << "\n";
        if (bad) code = WorseCode(code, kExitCorrupt);
    }
    return code;
}

}  // namespace vsstream
