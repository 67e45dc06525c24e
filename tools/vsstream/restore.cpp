// Applying records to files below the restore folder.
#include "restore.h"

#include "hostapi/zeroscan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vsstream {

using vshost::stream::Kind;

namespace {

bool WriteAt(int fd, const char* data, uint64_t length, uint64_t at) {
    while (length > 0) {
        const ssize_t n = ::pwrite(fd, data, length, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<uint64_t>(n);
        at += static_cast<uint64_t>(n);
    }
    return true;
}

// Writes the blocks of `data` that hold something other than zeros; file blocks of 4 KiB
// (the file system's unit of allocation) that would receive only zeros are skipped.
bool WriteSparse(int fd, const char* data, uint64_t length, uint64_t at) {
    constexpr uint64_t kBlock = 4096;
    uint64_t runStart = 0, done = 0;
    bool inRun = false;
    while (done < length) {
        const uint64_t n = std::min(length - done, kBlock - (at + done) % kBlock);
        const bool zero = IsZeroFilled(data + done, n);
        if (!zero && !inRun) {
            runStart = done;
            inRun = true;
        } else if (zero && inRun) {
            if (!WriteAt(fd, data + runStart, done - runStart, at + runStart)) return false;
            inRun = false;
        }
        done += n;
    }
    return !inRun || WriteAt(fd, data + runStart, length - runStart, at + runStart);
}

// Zeros the range of an existing image, keeping it sparse where the file system can.
bool ZeroRange(int fd, uint64_t at, uint64_t length) {
    if (length == 0) return true;
    if (::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                    static_cast<off_t>(length)) == 0)
        return true;
    if (errno != EOPNOTSUPP && errno != ENOSYS) return false;
    static const char zeros[64 * 1024] = {};
    while (length > 0) {
        const uint64_t n = std::min<uint64_t>(length, sizeof zeros);
        if (!WriteAt(fd, zeros, n, at)) return false;
        at += n;
        length -= n;
    }
    return true;
}

timespec FromNs(long long ns) {
    long long sec = ns / 1000000000;
    long long rest = ns % 1000000000;
    if (rest < 0) {
        rest += 1000000000;
        --sec;
    }
    return timespec{static_cast<time_t>(sec), static_cast<long>(rest)};
}

void SetModeAndTimes(int fd, const vsFileLevelInfo& info) {
    // Permission bits only: a stream never makes a set-user-id or set-group-id file,
    // whoever runs the restore.
    ::fchmod(fd, static_cast<mode_t>(info.mode & 0777));
    const timespec times[2] = {FromNs(info.atimeNs), FromNs(info.mtimeNs)};
    ::futimens(fd, times);
}

// What a file-collection node's header says of its file or folder, in the form the
// file-level entries use. A writer that leaves the mode out gets ordinary permissions.
vsFileLevelInfo NodeInfo(const Entry& e) {
    vsFileLevelInfo info;
    info.clientPath = e.path;
    info.size = e.size;
    info.mode = e.node.mode != 0 ? e.node.mode : (IsFolderNode(e) ? S_IFDIR | 0755 : S_IFREG | 0644);
    info.uid = e.node.uid;
    info.gid = e.node.gid;
    info.ctimeNs = static_cast<long long>(e.node.ctimeNs);
    info.atimeNs = static_cast<long long>(e.node.atimeNs);
    info.mtimeNs = static_cast<long long>(e.node.mtimeNs);
    return info;
}

std::string Why(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

void Restorer::Problem(uint64_t offset, const std::string& what) {
    m_err << "offset " << offset << ": " << what << "\n";
    ++m_counts.problems;
}

void Restorer::Stop(uint64_t offset, const std::string& what) {
    if (m_stopped) return;
    m_err << "offset " << offset << ": " << what << "; restore stopped, the rest of the stream is not applied\n";
    ++m_counts.problems;
    m_stopped = true;
    m_target = Target::Skip;
}

void Restorer::Apply(const vshost::StreamRecord& record, const EntryModel& model, bool usable) {
    switch (record.kind) {
        case Kind::FileHeader:
        case Kind::CollectionHeader:
        case Kind::FileLevelHeader:
            if (usable) {
                Begin(model.entry(), model, record.offset);
            } else {
                m_target = Target::Skip;
                ++m_counts.problems;
            }
            break;
        case Kind::Data:
        case Kind::PackedData:
        case Kind::Hole:
            if (!usable) {
                if (m_target != Target::Skip) ++m_counts.problems;
                m_target = Target::Skip;
                break;
            }
            if (record.kind == Kind::Hole)
                Hole(std::get<vshost::HoleRecord>(record.body).length, record.offset);
            else
                Data(std::get<vshost::DataRecord>(record.body), record.offset);
            break;
        case Kind::EndOfFile:
            End(model.entry(), record.offset);
            break;
        case Kind::DiskReadCompleted: {
            // A stream of many disks would otherwise hold one descriptor per disk to its end.
            const auto& done = std::get<vshost::DiskReadCompletedRecord>(record.body);
            if (auto it = m_images.find("\\" + done.vmGuid + "\\" + done.diskName); it != m_images.end()) {
                if (m_image == &it->second) {
                    // Only a damaged stream completes a disk inside one of its extents.
                    m_image = nullptr;
                    if (m_target == Target::Extent) m_target = Target::Skip;
                }
                // The image's data is durable before its change id is recorded beside it.
                if (it->second.fd.valid() && ::fdatasync(it->second.fd.get()) != 0)
                    return Stop(record.offset, Why(("cannot sync disk image " + it->first).c_str()));
                it->second.fd.Reset();
            }
            break;
        }
        case Kind::DiskInfo:
            CheckBase(std::get<vshost::DiskInfoRecord>(record.body), model, record.offset);
            break;
        case Kind::DirectoryEntry: {
            const auto& info = std::get<vshost::FileLevelRecord>(record.body).info;
            PathParts parts;
            std::string why;
            if (!SplitClientPath(info.clientPath, parts, why)) return Problem(record.offset, why + "; not restored");
            Folder(parts, record.offset);
            m_folderTimes.push_back({parts, info});
            break;
        }
        default:
            break;
    }
}

// An incremental holds only what changed since its base: on any other image it would
// leave a disk that never existed. The image's change id is read before any of its
// extents arrive.
void Restorer::CheckBase(const vshost::DiskInfoRecord& info, const EntryModel& model, uint64_t offset) {
    if (info.itemType != vshost::stream::kItemDiskExtents || info.baseChangeId.empty()) return;
    const std::string key = "\\" + info.vmGuid + "\\" + info.name;
    const DiskGeometry* g = model.Disk(key);
    PathParts parts;
    std::string why, at;
    if (!g || !SplitEntryPath(g->target + ".changeid", parts, why)) return;  // the disk's own entry is refused later
    const bool recorded = m_root.ReadText(parts, at);
    if (recorded && !at.empty() && at.back() == '\n') at.pop_back();
    if (recorded && at == info.baseChangeId) return;
    const std::string what = "disk " + key + " is an incremental from change id [" + info.baseChangeId +
                             "], but its image here " +
                             (recorded ? "is at change id [" + at + "]" : std::string("records no change id"));
    if (m_force) {
        m_err << "offset " << offset << ": " << what << "; applied anyway (--force)\n";
        return;
    }
    m_refused.insert(key);
    Problem(offset, what + "; not applied (--force applies it anyway)");
}

void Restorer::Folder(const PathParts& parts, uint64_t offset) {
    std::string why;
    if (m_root.Folder(parts, parts.size(), why).valid())
        ++m_counts.folders;
    else
        Problem(offset, why);
}

Restorer::Image* Restorer::GetImage(const std::string& key, const EntryModel& model, uint64_t offset) {
    if (m_refused.count(key)) return nullptr;
    auto it = m_images.find(key);
    if (it != m_images.end() && it->second.fd.valid()) return &it->second;
    PathParts parts;
    std::string why;
    const DiskGeometry* g = model.Disk(key);
    if (!SplitEntryPath(g ? g->target : key, parts, why)) {
        Problem(offset, why + "; disk not restored");
        return nullptr;
    }
    {
        // The image is about to change: until its disk completes here, it is at no
        // change id an incremental could build on.
        PathParts sidecar = parts;
        sidecar.back() += ".changeid";
        m_root.Remove(sidecar);
    }
    bool fresh = false;
    Fd fd = m_root.OpenImage(parts, fresh, why);
    if (!fd.valid()) {
        Problem(offset, why);
        return nullptr;
    }
    if (it != m_images.end()) {
        // Closed when its disk completed, and written again: what this run wrote so far
        // is still in it, so it keeps what it knew (fresh, high water) and its size.
        it->second.fd = Fd(fd.Release());
        return &it->second;
    }
    // The disk's size now: an incremental may grow or shrink it.
    if (g && ::ftruncate(fd.get(), static_cast<off_t>(g->size)) != 0) {
        Stop(offset, Why(("cannot size " + JoinParts(parts, parts.size())).c_str()));
        return nullptr;
    }
    ++m_counts.images;
    Image& image = m_images[key];
    image.fd = std::move(fd);
    image.fresh = fresh;
    return &image;
}

void Restorer::Begin(const Entry& e, const EntryModel& model, uint64_t offset) {
    m_target = Target::Skip;
    m_file.Reset();
    m_image = nullptr;
    m_pos = 0;
    m_fileLevel = e.kind == EntryKind::FileLevel;
    m_keepInfo = m_fileLevel || e.kind == EntryKind::CollectionNode;
    m_shown = e.path;
    std::string why;
    if (e.kind == EntryKind::Extent) {
        const DiskGeometry* g = model.Disk(e.diskKey);
        if (!(m_image = GetImage(e.diskKey, model, offset))) return;
        if (e.extentNumber > UINT64_MAX / g->extentSize) return Problem(offset, "extent number out of range");
        m_pos = e.extentNumber * g->extentSize;
        m_target = Target::Extent;
        return;
    }
    const bool ok = m_fileLevel ? SplitClientPath(e.path, m_parts, why) : SplitEntryPath(e.target, m_parts, why);
    if (!ok) return Problem(offset, why + "; not restored");
    if (e.kind == EntryKind::Disk) {
        Image* image = GetImage(e.path, model, offset);
        if (image && ::ftruncate(image->fd.get(), static_cast<off_t>(e.size)) != 0)
            Stop(offset, Why(("cannot size disk image " + e.path).c_str()));
        m_target = Target::None;
    } else if (e.container) {
        Folder(m_parts, offset);
        m_target = Target::None;
    } else if (IsFolderNode(e)) {
        // Made now, so that an empty folder is restored too; its times are set at the end.
        Folder(m_parts, offset);
        m_folderTimes.push_back({m_parts, NodeInfo(e)});
        m_target = Target::None;
    } else if (m_fileLevel && e.file.mode != 0 && !S_ISREG(e.file.mode)) {
        m_err << "offset " << offset << ": " << e.path << " is not a regular file; skipped\n";
        ++m_counts.skipped;
    } else {
        m_target = Target::File;
        m_info = e.kind == EntryKind::CollectionNode ? NodeInfo(e) : e.file;
    }
}

// Regular files are made on their first data, hole or end-of-file, so that an empty
// entry that names an existing folder can leave it alone.
bool Restorer::EnsureFile(uint64_t offset) {
    if (m_file.valid()) return true;
    std::string why;
    m_file = m_root.CreateFile(m_parts, m_keepInfo ? 0600 : 0644, why);
    if (m_file.valid()) return true;
    Problem(offset, why);
    m_target = Target::Skip;
    return false;
}

void Restorer::Write(const char* data, uint64_t length, uint64_t offset) {
    if (m_target == Target::File && !EnsureFile(offset)) return;
    if (m_target != Target::File && m_target != Target::Extent) return;
    const int fd = m_target == Target::File ? m_file.get() : m_image->fd.get();
    // Where this run has not written yet, a fresh image is already zero: an extent's
    // blocks of zeros are left unwritten, so the image stays as sparse as its disk was.
    const bool sparse = m_target == Target::Extent && m_image->fresh && m_pos >= m_image->highWater;
    if (sparse ? !WriteSparse(fd, data, length, m_pos) : !WriteAt(fd, data, length, m_pos)) {
        Stop(offset, Why(("cannot write " + m_shown).c_str()));
        return;
    }
    m_pos += length;
    if (m_target == Target::Extent) m_image->highWater = std::max(m_image->highWater, m_pos);
}

// The zero runs of a packed record are holes, never written as zeros.
void Restorer::Data(const vshost::DataRecord& data, uint64_t offset) {
    uint64_t from = 0;
    for (const vshost::ZeroRun& run : data.zeroRuns) {
        Write(data.bytes.data() + from, run.offset - from, offset);
        Hole(run.length, offset);
        from = uint64_t{run.offset} + run.length;
    }
    Write(data.bytes.data() + from, data.bytes.size() - from, offset);
}

void Restorer::Hole(uint64_t length, uint64_t offset) {
    if (m_target == Target::File) {
        // A new file is all zeros past what was written; its size is set at the end.
        if (EnsureFile(offset)) m_pos += length;
        return;
    }
    if (m_target != Target::Extent) return;
    // A fresh image is zero wherever this run wrote nothing; an earlier image (or an
    // extent this run already wrote) must lose its old bytes.
    if ((!m_image->fresh || m_pos < m_image->highWater) && !ZeroRange(m_image->fd.get(), m_pos, length)) {
        Stop(offset, Why("cannot clear a hole"));
        return;
    }
    m_pos += length;
}

void Restorer::End(const Entry& e, uint64_t offset) {
    if (!e.complete) {
        m_err << "offset " << offset << ": " << e.path << " was closed as incomplete by its writer\n";
        ++m_counts.abandoned;
    }
    if (m_target == Target::Extent) ++m_counts.extents;
    if (m_target == Target::File) {
        if (!m_file.valid() && e.dataBytes == 0 && m_root.IsFolder(m_parts)) {
            // An empty entry where a folder already is (a file-collection disk restored
            // before): keep the folder.
        } else if (EnsureFile(offset)) {
            if (!m_file.valid()) return;
            if (::ftruncate(m_file.get(), static_cast<off_t>(m_pos)) != 0)
                return Stop(offset, Why(("cannot size " + m_shown).c_str()));
            if (m_keepInfo) SetModeAndTimes(m_file.get(), m_info);
            if (m_pos == 0) m_root.MarkReplaceable(m_parts);
            ++m_counts.files;
        }
    }
    m_file.Reset();
    m_target = Target::None;
}

void Restorer::Finish() {
    m_counts.files -= std::min(m_counts.files, m_root.replaced());  // empty entries that became folders
    m_file.Reset();
    m_images.clear();
    // Deepest folders first: setting a child's times changes its parent's, and a
    // parent without write permission would refuse its children's changes.
    std::stable_sort(m_folderTimes.begin(), m_folderTimes.end(),
                     [](const FolderTimes& a, const FolderTimes& b) { return a.parts.size() > b.parts.size(); });
    for (const FolderTimes& f : m_folderTimes) {
        std::string why;
        Fd dir = m_root.Folder(f.parts, f.parts.size(), why);
        if (dir.valid()) SetModeAndTimes(dir.get(), f.info);
    }
    m_folderTimes.clear();
}

}  // namespace vsstream
