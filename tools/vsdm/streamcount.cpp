#include "streamcount.h"
#include "objecttarget.h"

#include "hostapi/fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <optional>

namespace vsdm {

using vsstream::EntryKind;

void StreamCounter::Apply(const vshost::StreamRecord& record) {
    std::string why;  // what verify would say of a malformed entry; the summary only counts
    m_model.Apply(record, why);
    const vsstream::Entry& e = m_model.entry();
    switch (record.kind) {
        case vshost::stream::Kind::FileHeader:
        case vshost::stream::Kind::CollectionHeader:
            if (e.kind == EntryKind::VM) m_vms.insert(e.path);
            if (e.kind == EntryKind::ConfigFile && !e.container) ++m_configFiles;
            if (e.kind == EntryKind::CollectionNode && !e.container) {
                ++m_nodes;
                if (vsstream::IsFolderNode(e)) ++m_nodeFolders;
            }
            break;
        case vshost::stream::Kind::EndOfFile:
            if (e.kind == EntryKind::FileLevel) ++(e.complete ? m_files : m_filesFailed);
            break;
        case vshost::stream::Kind::DirectoryEntry:
            ++m_folders;
            break;
        default:
            break;
    }
}

void StreamCounter::CountInto(RunSummary& s) const {
    s.vms = m_vms.size();
    s.vmPaths.assign(m_vms.begin(), m_vms.end());
    s.configFiles = m_configFiles;
    s.nodes = m_nodes;
    s.nodeFolders = m_nodeFolders;
    s.files = m_files;
    s.filesFailed = m_filesFailed;
    s.folders = m_folders;
    s.disks = s.extentsSent = s.holeExtents = s.extentsUnchanged = s.extentsNotRead = 0;
    for (const auto& [key, g] : m_model.disks()) {
        if (g.readCompleted) ++s.disks;
        s.extentsSent += g.extents;
        s.holeExtents += g.holeExtents;
        // Of a disk read to its end, the extents with data not sent are those its reader
        // found unchanged; of any other disk they were never read.
        const uint64_t rest = g.described > g.extents ? g.described - g.extents : 0;
        (g.readCompleted ? s.extentsUnchanged : s.extentsNotRead) += rest;
    }
    s.incompleteDisks.clear();
    for (const std::string& disk : m_model.IncompleteDisks())
        s.incompleteDisks.push_back(disk + ": " + vsstream::EntryModel::IncompleteWhy(*m_model.Disk(disk)));
}

// What the stream holds, read back from its file or object.
void CountStream(const std::string& path, RunSummary& s) {
    std::optional<StreamSource> object;
    vshost::Fd file;
    if (IsObject(path)) {
        try {
            object.emplace(path);
        } catch (const std::exception&) {
            return;  // no such object: a stream never stored
        }
    } else {
        // Only a regular file can be read back; a pipe or FIFO has handed its bytes on.
        struct stat sb {};
        if (::stat(path.c_str(), &sb) != 0 || !S_ISREG(sb.st_mode)) return;
        file = vshost::Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.valid()) return;
    }
    vshost::StreamReader reader(object ? object->fd() : file.get());
    vshost::StreamRecord rec;
    StreamCounter counter;
    while (reader.Next(rec)) counter.Apply(rec);
    counter.CountInto(s);
    s.streamComplete = reader.state() == vshost::StreamReader::State::Complete;
    s.dataBytes = reader.counted().dataBytes;
    s.holeBytes = reader.counted().holeBytes;
    s.streamBytes = reader.offset();
}

}  // namespace vsdm
