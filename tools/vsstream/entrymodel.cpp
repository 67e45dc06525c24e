// Entry classification by header kind, container flag, path depth and the disks known
// so far.
#include "entrymodel.h"

#include <algorithm>

namespace vsstream {

using vshost::stream::Kind;

const char* EntryKindName(EntryKind kind) {
    switch (kind) {
        case EntryKind::VM:
            return "vm";
        case EntryKind::ConfigFile:
            return "config";
        case EntryKind::Disk:
            return "disk";
        case EntryKind::Extent:
            return "extent";
        case EntryKind::CollectionNode:
            return "node";
        case EntryKind::FileLevel:
            return "file";
        case EntryKind::Other:
            return "other";
    }
    return "?";
}

bool DecodeExtentName(const std::string& name, uint64_t& number) {
    unsigned long long n = 0;
    if (ExtentNameConverter::GetExtentNumberFromFileName(name, n)) {
        number = n;
        return true;
    }
    // A host may name one extent by hand, e.g. "Extent12" or "disk0_Extent7".
    const size_t at = name.find("Extent");
    if (at == std::string::npos) return false;
    size_t i = at + 6;
    if (i >= name.size() || name[i] < '0' || name[i] > '9') return false;
    uint64_t v = 0;
    for (; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i) {
        const unsigned d = static_cast<unsigned>(name[i] - '0');
        if (v > (UINT64_MAX - d) / 10) return false;
        v = v * 10 + d;
    }
    number = v;
    return true;
}

const DiskGeometry* EntryModel::Disk(const std::string& key) const {
    auto it = m_disks.find(key);
    return it == m_disks.end() ? nullptr : &it->second;
}

std::string EntryModel::Unclaimed(const std::string& path, const char* suffix) const {
    std::string name = path + suffix;
    while (m_claimed.count(name)) name += suffix;
    return name;
}

DiskGeometry& EntryModel::DiskAt(const std::string& key) {
    auto [it, made] = m_disks.try_emplace(key);
    if (made) {
        auto claim = m_claimed.find(key);
        it->second.target =
            claim != m_claimed.end() && claim->second != EntryKind::Disk ? Unclaimed(key, ".disk") : key;
        m_claimed[it->second.target] = EntryKind::Disk;
    }
    return it->second;
}

bool EntryModel::Classify(std::string& why) {
    Entry& e = m_entry;
    const size_t depth = static_cast<size_t>(std::count(e.path.begin(), e.path.end(), '\\'));
    const size_t cut = e.path.rfind('\\');
    const std::string parent = cut == std::string::npos ? std::string() : e.path.substr(0, cut);
    if (e.container) {
        if (depth == 1)
            e.kind = EntryKind::VM;
        else if (depth == 2 || m_disks.count(e.path))
            e.kind = EntryKind::Disk;  // disk names may hold a backslash
        else
            e.kind = EntryKind::Other;
        return true;
    }
    auto disk = m_disks.find(parent);
    if (disk == m_disks.end()) {
        e.kind = depth == 2 ? EntryKind::ConfigFile : EntryKind::Other;
        if (e.kind == EntryKind::ConfigFile) {
            // A disk of the same name keeps it; the file steps aside.
            auto claim = m_claimed.find(e.path);
            if (claim != m_claimed.end() && claim->second != EntryKind::ConfigFile)
                e.target = Unclaimed(e.path, ".config");
            m_claimed[e.target] = EntryKind::ConfigFile;
        }
        unsigned long long n = 0;
        if (depth == 3 && ExtentNameConverter::GetExtentNumberFromFileName(e.path.substr(cut + 1), n)) {
            why = "extent [" + e.path + "] of a disk the stream never described";
            return false;
        }
        return true;
    }
    e.kind = EntryKind::Extent;
    e.diskKey = parent;
    if (!DecodeExtentName(e.path.substr(cut + 1), e.extentNumber)) {
        why = "entry [" + e.path + "] under disk [" + parent + "] has no extent name";
        return false;
    }
    if (disk->second.extentSize == 0) {
        why = "extent [" + e.path + "] of a disk whose extent size is 0";
        return false;
    }
    const DiskGeometry& g = disk->second;
    if (e.extentNumber >= g.size / g.extentSize + (g.size % g.extentSize != 0 ? 1 : 0)) {
        e.pastEnd = true;
        why = "extent [" + e.path + "] lies past the end of disk [" + parent + "] of " + std::to_string(g.size) +
              " bytes";
        return false;
    }
    return true;
}

// An extent may hold no more than the disk has room for from its start: a crafted one
// would otherwise grow the restored image.
bool EntryModel::CheckExtentEnd(std::string& why) {
    Entry& e = m_entry;
    if (e.kind != EntryKind::Extent || e.pastEnd) return true;
    const DiskGeometry* g = Disk(e.diskKey);
    if (!g || g->extentSize == 0) return true;
    const uint64_t start = e.extentNumber * g->extentSize;  // below the size: Classify checked
    const uint64_t room = g->size - start;
    if (e.holeBytes <= room && e.dataBytes <= room - e.holeBytes) return true;
    e.pastEnd = true;
    why = "extent [" + e.path + "] reaches past the end of disk [" + e.diskKey + "] of " + std::to_string(g->size) +
          " bytes";
    return false;
}

bool EntryModel::OpenFileEntry(const vshost::StreamRecord& record, std::string& why) {
    const auto& h = std::get<vshost::FileHeaderRecord>(record.body);
    m_entry = Entry{};
    m_entry.path = h.path;
    m_entry.target = h.path;
    m_entry.offset = record.offset;
    m_entry.size = h.size;
    m_entry.container = h.container;
    m_open = true;
    const bool ok = Classify(why);
    if (m_entry.kind == EntryKind::Disk) {
        DiskGeometry& g = DiskAt(h.path);
        m_entry.target = g.target;
        g.size = h.size;
        g.extentSize = h.extentSize;
        g.hasEntry = true;
        g.inPass = true;
        g.passExtents = 0;
        g.shortRead = false;
    }
    return ok;
}

bool EntryModel::OpenCollectionEntry(const vshost::StreamRecord& record) {
    const auto& h = std::get<vshost::CollectionHeaderRecord>(record.body);
    m_entry = Entry{};
    m_entry.kind = EntryKind::CollectionNode;
    m_entry.path = h.path;
    m_entry.target = h.path;
    m_entry.offset = record.offset;
    m_entry.size = h.size;
    m_entry.container = h.container;
    m_entry.node = h;
    m_open = true;
    // A node lies where its disk is restored.
    const size_t second = h.path.find('\\', 1);
    const size_t third = second == std::string::npos ? second : h.path.find('\\', second + 1);
    if (third != std::string::npos)
        if (auto d = m_disks.find(h.path.substr(0, third)); d != m_disks.end())
            m_entry.target = d->second.target + h.path.substr(third);
    if (h.container && std::count(h.path.begin(), h.path.end(), '\\') == 2) {
        // A file-collection disk: done only when its reader marks it so.
        DiskGeometry& g = DiskAt(h.path);
        m_entry.target = g.target;
        g.size = h.size;
        g.hasEntry = true;
        g.collection = true;
    }
    return true;
}

bool EntryModel::CloseEntry(const vshost::StreamRecord& record) {
    m_open = false;
    m_entry.closed = true;
    m_entry.complete = std::get<vshost::EndOfFileRecord>(record.body).complete;
    if (m_entry.kind == EntryKind::Extent) {
        DiskGeometry& g = m_disks[m_entry.diskKey];
        ++g.extents;
        if (m_entry.dataBytes == 0) ++g.holeExtents;
        if (m_entry.complete) g.nextExtent = std::max(g.nextExtent, m_entry.extentNumber + 1);
        if (m_entry.complete && g.inPass && (g.passExtents == 0 || m_entry.extentNumber > g.passLast)) {
            ++g.passExtents;
            g.passLast = m_entry.extentNumber;
        }
    }
    return true;
}

bool EntryModel::Describe(const vshost::StreamRecord& record) {
    // Geometry for disks whose entry may never come (a stream of single extents).
    const auto& d = std::get<vshost::DiskInfoRecord>(record.body);
    if (d.itemType != vshost::stream::kItemDiskExtents) return true;
    DiskGeometry& g = DiskAt("\\" + d.vmGuid + "\\" + d.name);
    if (!g.hasEntry) {
        g.size = d.size;
        g.extentSize = d.extentSize;
    }
    g.hasBase = d.hasBase;
    g.base = d.baseChangeId;
    g.described = d.extentCount;
    return true;
}

bool EntryModel::Apply(const vshost::StreamRecord& record, std::string& why) {
    switch (record.kind) {
        case Kind::FileHeader:
            return OpenFileEntry(record, why);
        case Kind::CollectionHeader:
            return OpenCollectionEntry(record);
        case Kind::FileLevelHeader: {
            const auto& h = std::get<vshost::FileLevelRecord>(record.body);
            m_entry = Entry{};
            m_entry.kind = EntryKind::FileLevel;
            m_entry.path = h.info.clientPath;
            m_entry.target = h.info.clientPath;
            m_entry.offset = record.offset;
            m_entry.size = h.info.size;
            m_entry.file = h.info;
            m_open = true;
            return true;
        }
        case Kind::Data:
        case Kind::PackedData: {
            // A packed record's zero runs are shown as holes: the stream left them out.
            const auto& d = std::get<vshost::DataRecord>(record.body);
            uint64_t zeros = 0;
            for (const vshost::ZeroRun& run : d.zeroRuns) zeros += run.length;
            m_entry.dataBytes += d.bytes.size() - zeros;
            m_entry.holeBytes += zeros;
            return CheckExtentEnd(why);
        }
        case Kind::Hole: {
            const uint64_t length = std::get<vshost::HoleRecord>(record.body).length;
            m_entry.holeBytes = length > UINT64_MAX - m_entry.holeBytes ? UINT64_MAX : m_entry.holeBytes + length;
            return CheckExtentEnd(why);
        }
        case Kind::EndOfFile:
            return CloseEntry(record);
        case Kind::DiskInfo:
            return Describe(record);
        case Kind::DiskReadCompleted: {
            const auto& d = std::get<vshost::DiskReadCompletedRecord>(record.body);
            DiskGeometry& g = m_disks["\\" + d.vmGuid + "\\" + d.diskName];
            g.readCompleted = true;
            // A read against a change id leaves out what did not change; a read of the
            // whole disk must have sent every extent that holds data (holes included).
            g.shortRead = g.hasEntry && g.inPass && g.hasBase && g.base.empty() && g.passExtents < g.described;
            g.inPass = false;
            return true;
        }
        default:
            return true;
    }
}

std::vector<std::string> EntryModel::IncompleteDisks() const {
    std::vector<std::string> out;
    for (const auto& [key, g] : m_disks)
        if (g.hasEntry && (!g.readCompleted || g.shortRead)) out.push_back(key);
    return out;
}

std::string EntryModel::IncompleteWhy(const DiskGeometry& g) {
    if (!g.readCompleted) return "the reader did not finish it (the disk failed or the job stopped)";
    return "marked read, but its read of the whole disk sent " + std::to_string(g.passExtents) + " of its " +
           std::to_string(g.described) + " extents (the rest is not in this stream)";
}

}  // namespace vsstream
