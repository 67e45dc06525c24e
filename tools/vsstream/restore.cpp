// Applying records to files below the restore folder.
#include "restore.h"

#include "hostapi/fd.h"
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

bool IsVmx(const std::string& name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".vmx") == 0;
}

// The file a .vmx line `<device>.fileName = "..."` names, without its datastore and
// folder ("[ds2] web01/web01_1.vmdk" names web01_1.vmdk); false for other lines.
bool VmxDiskName(const std::string& line, size_t& open, size_t& close, std::string& base) {
    const size_t key = line.find(".fileName");
    const size_t eq = line.find('=');
    if (key == std::string::npos || eq == std::string::npos || key > eq) return false;
    open = line.find('"', eq);
    close = line.rfind('"');
    if (open == std::string::npos || close <= open) return false;
    const std::string value = line.substr(open + 1, close - open - 1);
    const size_t cut = value.find_last_of("/\\]");
    base = cut == std::string::npos ? value : value.substr(cut + 1);
    while (!base.empty() && base.front() == ' ') base.erase(0, 1);
    return NativeFormat(base) != ImageFormat::Raw || base.ends_with(".img") || base.ends_with(".raw");
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
                if (it->second.sink && !it->second.sink->Sync())
                    return Stop(record.offset, "cannot sync disk image " + it->first + ": " + it->second.sink->error());
                it->second.sink.reset();
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

// The format of a disk's image: the one asked for; else, when an earlier restore holds
// the disk in some format, that one (an incremental updates it in place); else the
// disk's own.
ImageFormat Restorer::FormatOf(const PathParts& parts) {
    if (m_format != ImageFormat::Native) return m_format;
    const ImageFormat native = NativeFormat(parts.back());
    for (ImageFormat f : {native, ImageFormat::Qcow2, ImageFormat::Vmdk, ImageFormat::Raw}) {
        PathParts data = parts;
        data.back() = NamesFor(parts.back(), f).data;
        if (m_root.IsFile(data)) return f;
    }
    return native;
}

bool Restorer::OpenSink(Image& image, uint64_t size, bool first, std::string& why) {
    bool fresh = false;
    Fd fd = m_root.OpenImage(image.data, fresh, why);
    if (!fd.valid()) return false;
    if (first) image.fresh = fresh;
    if (image.format == ImageFormat::Qcow2) {
        image.sink = Qcow2Sink(std::move(fd), fresh, size, why);
        if (!image.sink) why = "cannot restore " + JoinParts(image.data, image.data.size()) + " as qcow2: " + why;
    } else {
        image.sink = RawSink(std::move(fd));
    }
    return image.sink != nullptr;
}

// Sets the image's size, and a VMDK's descriptor to match.
bool Restorer::Resize(Image& image, uint64_t size, uint64_t offset) {
    const std::string shown = JoinParts(image.data, image.data.size());
    if (!image.sink->Resize(size)) {
        Stop(offset, "cannot size " + shown + ": " + image.sink->error());
        return false;
    }
    std::string why;
    if (image.format == ImageFormat::Vmdk && (size != image.size || !m_root.IsFile(image.descriptor)) &&
        !m_root.Publish(image.descriptor, FlatDescriptor(size, image.data.back()), why)) {
        Stop(offset, why);
        return false;
    }
    image.size = size;
    return true;
}

Restorer::Image* Restorer::GetImage(const std::string& key, const EntryModel& model, uint64_t offset) {
    if (m_refused.count(key)) return nullptr;
    auto it = m_images.find(key);
    if (it != m_images.end() && it->second.sink) return &it->second;
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
    if (it != m_images.end()) {
        // Closed when its disk completed, and written again: what this run wrote so far
        // is still in it, so it keeps what it knew (fresh, high water) and its size.
        if (!OpenSink(it->second, it->second.size, false, why)) {
            Problem(offset, why);
            return nullptr;
        }
        return &it->second;
    }
    Image image;
    image.format = FormatOf(parts);
    const ImageNames names = NamesFor(parts.back(), image.format);
    image.data = image.descriptor = parts;
    image.data.back() = names.data;
    image.descriptor.back() = names.descriptor;
    const uint64_t size = g ? g->size : 0;
    if (!OpenSink(image, size, true, why)) {
        Problem(offset, why);
        return nullptr;
    }
    ++m_counts.images;
    Image& kept = m_images[key] = std::move(image);
    // The disk's size now: an incremental may grow or shrink it.
    if (!Resize(kept, size, offset)) return nullptr;
    m_restoredDisks[JoinParts(parts, parts.size() - 1)].emplace_back(
        parts.back(), names.descriptor.empty() ? names.data : names.descriptor);
    return &kept;
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
        if (image) Resize(*image, e.size, offset);
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
        if (e.kind == EntryKind::ConfigFile && IsVmx(m_parts.back())) m_vmx.push_back(m_parts);
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
    if (m_target == Target::File) {
        if (!vshost::PwriteAll(m_file.get(), data, length, m_pos))
            return Stop(offset, Why(("cannot write " + m_shown).c_str()));
        m_pos += length;
        return;
    }
    if (m_target != Target::Extent) return;
    // Where this run has not written yet, a fresh image is already zero: an extent's
    // blocks of zeros are left unwritten, so the image stays as sparse as its disk was.
    const bool sparse = m_image->fresh && m_pos >= m_image->highWater;
    if (!m_image->sink->Write(data, length, m_pos, sparse))
        return Stop(offset, "cannot write " + m_shown + ": " + m_image->sink->error());
    m_pos += length;
    m_image->highWater = std::max(m_image->highWater, m_pos);
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
    if ((!m_image->fresh || m_pos < m_image->highWater) && !m_image->sink->Zero(m_pos, length))
        return Stop(offset, "cannot clear a hole in " + m_shown + ": " + m_image->sink->error());
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
    // An image whose disk did not complete in this run keeps what was written of it.
    for (auto& [key, image] : m_images)
        if (image.sink && !image.sink->Sync()) Problem(0, "cannot sync disk image " + key + ": " + image.sink->error());
    m_images.clear();
    for (const PathParts& vmx : m_vmx) PointVmxAtDisks(vmx);
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

// A restored VM folder is registered as it stands: its .vmx names each disk as it was
// restored here. A line naming a disk of the stream by its own name (or from another
// datastore) names its restored file; the lines left (a delta the VM ran on, restored
// under its base's name) name the disks left, in the VM's disk order.
void Restorer::PointVmxAtDisks(const PathParts& vmx) {
    auto it = m_restoredDisks.find(JoinParts(vmx, vmx.size() - 1));
    std::string text;
    constexpr size_t kMaxVmx = size_t{4} << 20;
    if (it == m_restoredDisks.end() || !m_root.ReadText(vmx, text, kMaxVmx)) return;
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t nl = text.find('\n', at);
        const size_t end = nl == std::string::npos ? text.size() : nl + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    std::vector<bool> used(it->second.size(), false);
    std::vector<size_t> unmatched;
    auto rename = [&](std::string& line, const std::string& to) {
        size_t open = 0, close = 0;
        std::string base;
        VmxDiskName(line, open, close, base);
        line.replace(open + 1, close - open - 1, to);
    };
    for (size_t i = 0; i < lines.size(); ++i) {
        size_t open = 0, close = 0;
        std::string base;
        if (!VmxDiskName(lines[i], open, close, base)) continue;
        size_t k = 0;
        while (k < it->second.size() && it->second[k].first != base) ++k;
        if (k == it->second.size()) {
            unmatched.push_back(i);
            continue;
        }
        used[k] = true;
        rename(lines[i], it->second[k].second);
    }
    size_t k = 0;
    for (size_t i : unmatched) {
        while (k < used.size() && used[k]) ++k;
        if (k == used.size()) break;
        used[k] = true;
        rename(lines[i], it->second[k].second);
    }
    std::string out, why;
    for (const std::string& line : lines) out += line;
    if (out != text && !m_root.Publish(vmx, out, why)) Problem(0, why);
}

}  // namespace vsstream
