// What each entry of a backup stream is (a VM, a configuration file, a disk, an
// extent, a file-collection node, a file-level file), worked out from the records as
// they go by. Shared by list, verify and restore.
#pragma once

#include "hostapi/filecollection.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace vsstream {

enum class EntryKind { VM, ConfigFile, Disk, Extent, CollectionNode, FileLevel, Other };
const char* EntryKindName(EntryKind kind);

struct DiskGeometry {
    // Where the disk is restored, in the stream's form: its own path, unless a
    // configuration file of the same name came first (then "<path>.disk").
    std::string target;
    uint64_t size = 0;
    uint64_t extentSize = 0;
    bool hasEntry = false;       // from a disk entry; otherwise from a disk-info record only
    uint64_t extents = 0;        // extent entries seen
    uint64_t holeExtents = 0;    // of which held no data, only holes
    bool readCompleted = false;  // the reader marked the disk done; else it failed or was stopped
    uint64_t nextExtent = 0;     // one past the highest extent that arrived whole
    bool collection = false;     // a file-collection disk: its nodes, not extents
    // From the disk info (version 1.1 on, hasBase): the change id the disk is read
    // against, empty for a read of the whole disk, and the extents that hold data.
    bool hasBase = false;
    std::string base;
    uint64_t described = 0;
    // The extents that arrived whole, in ascending order, since the disk's entry: the
    // read its read-completed record vouches for.
    uint64_t passExtents = 0;
    uint64_t passLast = 0;
    bool inPass = false;
    // Marked done, but a read of the whole disk that sent fewer extents than the disk
    // holds: some of it was never sent.
    bool shortRead = false;
};

struct Entry {
    EntryKind kind = EntryKind::Other;
    std::string path;
    // Where the entry is restored, in the stream's form: its path, unless a disk and a
    // configuration file of a VM share a name. The one that comes second is renamed:
    // a configuration file to "<path>.config", a disk to "<path>.disk" (the entries
    // below a file-collection disk follow their disk).
    std::string target;
    uint64_t offset = 0;  // of the header record
    uint64_t size = 0;    // as the header states
    bool container = false;
    std::string diskKey;  // extents: the disk entry's path
    uint64_t extentNumber = 0;
    vsFileLevelInfo file;                 // file-level entries
    vshost::CollectionHeaderRecord node;  // file-collection entries: the header as written
    uint64_t dataBytes = 0;
    uint64_t holeBytes = 0;
    bool closed = false;
    bool complete = false;  // as its end-of-file record says
    bool pastEnd = false;   // extents: its data or holes reach past the disk's size
};

// A file-collection node that is a folder (by its attributes, the 15th header field).
inline bool IsFolderNode(const Entry& e) {
    return e.kind == EntryKind::CollectionNode && !e.container && (e.node.attributes & FC_ATTRIBUTE_DIRECTORY) != 0;
}

// Number of an extent name: a converter name, or a name holding "Extent" followed by
// the decimal number.
bool DecodeExtentName(const std::string& name, uint64_t& number);

class EntryModel {
public:
    // Takes one record in stream order. False with `why` when an entry header cannot
    // be what its place says (a name under a disk that is no extent name, an extent of
    // a disk with no size, an extent that starts past the disk's end), or when an
    // extent's data or hole first reaches past its disk's end; the entry is still tracked.
    bool Apply(const vshost::StreamRecord& record, std::string& why);

    bool entryOpen() const { return m_open; }
    // The open entry, or the one that was just closed.
    const Entry& entry() const { return m_entry; }
    const DiskGeometry* Disk(const std::string& key) const;
    const std::map<std::string, DiskGeometry>& disks() const { return m_disks; }
    // Disks whose entry began but that the reader never marked done, or that it marked
    // done after a read of the whole disk that left extents out.
    std::vector<std::string> IncompleteDisks() const;
    // Why a disk of IncompleteDisks is incomplete, as a phrase.
    static std::string IncompleteWhy(const DiskGeometry& g);

private:
    // The records that open, close and describe entries.
    bool OpenFileEntry(const vshost::StreamRecord& record, std::string& why);
    bool OpenCollectionEntry(const vshost::StreamRecord& record);
    bool CloseEntry(const vshost::StreamRecord& record);
    bool Describe(const vshost::StreamRecord& record);
    bool Classify(std::string& why);
    // The geometry of the disk at `key`, made (and its restore name chosen) on first use.
    DiskGeometry& DiskAt(const std::string& key);
    std::string Unclaimed(const std::string& path, const char* suffix) const;
    bool CheckExtentEnd(std::string& why);

    Entry m_entry;
    bool m_open = false;
    std::map<std::string, DiskGeometry> m_disks;  // by the disk entry's path
    std::map<std::string, EntryKind> m_claimed;   // restore names of disks and configuration files
};

// Reads the stream to its end or its first fault, each record into `model`; a record the
// model refuses is reported on `err` with its offset. `each` sees every record once the
// model has taken it, and whether the model could use it. True when the model refused none.
template <class Each>
bool ApplyAll(vshost::StreamReader& reader, EntryModel& model, std::ostream& err, Each&& each) {
    vshost::StreamRecord record;
    bool sound = true;
    while (reader.Next(record)) {
        std::string why;
        const bool usable = model.Apply(record, why);
        if (!usable) {
            err << "offset " << record.offset << ": " << why << "\n";
            sound = false;
        }
        each(record, usable);
    }
    return sound;
}

}  // namespace vsstream
