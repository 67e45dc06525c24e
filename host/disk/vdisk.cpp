// The virtual-disk reader: allocated extents of a disk (raw and flat VMDK images found
// with SEEK_DATA/SEEK_HOLE, every other format and chain through qemu-nbd's block
// status) so that holes are never read, with change tracking by digest.
#include "hostapi/vdisk.h"

#include "detail.h"
#include "disk/vdisk_layout.h"
#include "hostapi/log.h"
#include "hostapi/zeroscan.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace {

namespace ct = vshost::changetrack;

constexpr unsigned long long kNoExtentYet = ~0ull;  // position before extent 0
constexpr unsigned long long kDefaultExtentKB = 1024;

KTLOGHANDLE Log() {
    static KTLogObject* log = [] {
        auto* h = new KTLogObject;
        InitKTlog(h, "VDISK\t", "nVDISK", 0);
        return h;
    }();
    return log;
}

unsigned long long ConfiguredExtentSize() {
    std::string text;
    unsigned long long kb = kDefaultExtentKB;
    if (vshost::settings::Get("VirtualServer", "nVDiskExtentSizeKB", text)) {
        auto n = vshost::detail::ParseWholeNumber(text);
        // At least 4 KiB so that the extent count of a large disk stays sane.
        if (n && *n >= 4)
            kb = *n;
        else
            KTlog(Log(), 1, "Ignoring extent size setting [%s]: want a number of KiB of at least 4", text.c_str());
    }
    return kb * 1024;
}

// [VDiskFaults] <disk file name>=<n>: reading extent n of that disk fails with EIO, as
// a failing datastore would (tests).
std::optional<unsigned long long> FaultyExtent(const std::string& path) {
    std::string text;
    const std::string name = path.substr(path.find_last_of('/') + 1);
    if (!vshost::settings::Get("VDiskFaults", name, text)) return std::nullopt;
    return vshost::detail::ParseWholeNumber(text);
}

}  // namespace

struct CArchiveVirtualDiskFile::Impl {
    ProductType_t productType = 0;
    std::string path;
    std::string changeId;
    std::string vmName;
    vshost::vdisk::Layout layout;
    unsigned long long extentSize = 0;
    bool open = false;
    std::optional<ct::DiskDigests> base;  // digests of the change id read against
    bool inPass = false;
    unsigned long long lastReturned = kNoExtentYet;
    ct::DiskDigests pass;  // digests of the extents with data seen by the current pass
    bool passWhole = false;
    std::optional<unsigned long long> faultyExtent;
    struct Volume {
        std::string folder;
        std::string datastore;
    };
    std::vector<Volume> volumes;  // the datastore volumes the VM was mounted from
    std::string resultsDir;       // the job's results folder: where a qemu-nbd's socket goes
    IVMInfo* vmInfo = nullptr;
    MountCtx* mountCtx = nullptr;
    CQiError broken;  // once the image is found cut short, every read fails

    // Where the disk's files must lie: the mounted volume that holds `file`; without a
    // VM mount (a disk opened on its own), the file's own folder.
    bool SourceOf(const std::string& file, vshost::vdisk::Source& source) const {
        source = {};
        if (volumes.empty()) {
            const size_t slash = file.find_last_of('/');
            source.root = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
            return true;
        }
        for (const Volume& v : volumes)
            if (Beneath(file, v.folder) && v.folder.size() > source.root.size()) source = {v.folder, v.datastore, {}};
        // Nothing is ever made on a volume: a results folder there is not used.
        bool resultsOnVolume = false;
        for (const Volume& v : volumes) resultsOnVolume = resultsOnVolume || Beneath(resultsDir, v.folder);
        if (!resultsOnVolume) source.workDir = resultsDir;
        return !source.root.empty();
    }
    static bool Beneath(const std::string& file, const std::string& folder) {
        return file.size() > folder.size() + 1 && file.compare(0, folder.size(), folder) == 0 &&
               file[folder.size()] == '/';
    }

    unsigned long long ExtentCount() const { return (layout.size + extentSize - 1) / extentSize; }
    unsigned long long ExtentBytes(unsigned long long n) const {
        return std::min<unsigned long long>(extentSize, layout.size - n * extentSize);
    }
    // The first extent at or after `from` that holds data in the image.
    CQiError NextAllocated(unsigned long long from, std::optional<unsigned long long>& n) {
        n.reset();
        if (broken.IsError()) return broken;
        if (from >= ExtentCount()) return {};
        std::optional<uint64_t> offset;
        broken = layout.NextData(from * extentSize, offset);
        if (offset) n = *offset / extentSize;
        return broken;
    }
    std::optional<unsigned long long> NextInBase(unsigned long long from) const {
        if (!base) return std::nullopt;
        auto it = base->extents.lower_bound(from);
        if (it == base->extents.end()) return std::nullopt;
        return it->first;
    }
    CQiError Read(CAutoMemory<char>& buffer, unsigned long long n) {
        const unsigned long long bytes = ExtentBytes(n);
        buffer.Reserve(extentSize);
        CQiError err =
            broken.IsError() ? broken
            : faultyExtent == n
                ? CQiError(EIO, "read extent " + std::to_string(n) + " of " + path + ": input/output error (injected)")
                : layout.Read(buffer.Ptr(), n * extentSize, bytes);
        buffer.SetSize(err.IsError() ? 0 : bytes);
        return err;
    }
    void LoadBase() {
        base.reset();
        if (changeId.empty()) return;
        std::optional<ct::DiskDigests> digests;
        try {
            digests = ct::Load(changeId);
        } catch (const std::exception& e) {
            KTlog(Log(), 1, "Change id [%s] of [%s] cannot be read (%s): reading the whole disk", changeId.c_str(),
                  path.c_str(), e.what());
            return;
        }
        if (!digests) {
            KTlog(Log(), 1, "Change id [%s] of [%s] is unknown: reading the whole disk", changeId.c_str(),
                  path.c_str());
        } else if (digests->diskSize != layout.size || digests->extentSize != extentSize) {
            // An incremental chain is never built across a resize.
            KTlog(Log(), 1,
                  "Disk [%s] changed size or extent size since change id [%s] (%llu/%llu, now %llu/%llu): reading the "
                  "whole disk",
                  path.c_str(), changeId.c_str(), static_cast<unsigned long long>(digests->diskSize),
                  static_cast<unsigned long long>(digests->extentSize), static_cast<unsigned long long>(layout.size),
                  extentSize);
        } else {
            base = std::move(digests);
        }
    }
};

CArchiveVirtualDiskFile::CArchiveVirtualDiskFile(ProductType_t productType) : m_impl(std::make_unique<Impl>()) {
    m_impl->productType = productType;
}

CArchiveVirtualDiskFile::~CArchiveVirtualDiskFile() {
    Close();
}

void CArchiveVirtualDiskFile::SetVMInfo(IVMInfo* vmInfo, const std::string& vmName, const std::string&, MountCtx* ctx,
                                        void*) {
    m_impl->vmName = vmName;
    m_impl->vmInfo = vmInfo;
    m_impl->mountCtx = ctx;
    // The VM's mount names the volumes its disks lie on; no file of a disk is opened
    // outside them.
    m_impl->volumes.clear();
    m_impl->resultsDir = ctx ? ctx->sJobResultsDir : std::string();
    if (ctx)
        for (const SVolSnap& v : ctx->volSnaps)
            if (!v.sMountPath.empty()) {
                std::string folder = v.sMountPath;
                while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
                m_impl->volumes.push_back({folder, v.sVolume});
            }
}

void CArchiveVirtualDiskFile::SetChangeId(const std::string& changeId) {
    m_impl->changeId = changeId;
}

CQiError CArchiveVirtualDiskFile::Open(const std::string& path, DiskType_t diskType) {
    Close();
    m_impl->path = path;
    m_impl->broken = CQiError();
    vshost::vdisk::Source source;
    if (!m_impl->SourceOf(path, source)) {
        KTlog(Log(), 1, "Refusing disk [%s]: it lies on none of the volumes the VM was mounted from", path.c_str());
        return CQiError(EXDEV, path + ": lies on none of the volumes the VM was mounted from");
    }
    CQiError err = vshost::vdisk::Layout::Open(source, path, diskType, m_impl->layout);
    if (err.IsError()) {
        KTlog(Log(), 1, "Cannot open disk [%s] below [%s]: %s", path.c_str(), source.root.c_str(),
              err.AsString().c_str());
        return err;
    }
    // The stream states the size the VM mount reported: a disk that has another size now
    // (cut short or grown since) cannot be backed up as that disk.
    std::vector<VMInfoStructs::SMountInfoFull> infos;
    if (m_impl->vmInfo && m_impl->mountCtx && m_impl->vmInfo->GetFullMountInfo(*m_impl->mountCtx, infos) != 0)
        for (const auto& info : infos)
            for (const auto& disk : info.disks)
                if (disk.sDiskPath == path && disk.nBackupType == VMInfoStructs::kBackupTypeDisk &&
                    disk.ullSize != m_impl->layout.size) {
                    CQiError changed(EIO, path + " holds " + std::to_string(m_impl->layout.size) +
                                              " bytes of disk, the VM was mounted with " +
                                              std::to_string(disk.ullSize) + ": the image changed size since");
                    KTlog(Log(), 1, "%s", changed.AsString().c_str());
                    m_impl->layout.Close();
                    return changed;
                }
    m_impl->extentSize = ConfiguredExtentSize();
    m_impl->faultyExtent = FaultyExtent(path);
    m_impl->open = true;
    m_impl->inPass = false;
    m_impl->LoadBase();
    KTlog(Log(), 2, "Opened disk [%s] size [%llu] extent size [%llu] files [%zu]", path.c_str(),
          static_cast<unsigned long long>(m_impl->layout.size), m_impl->extentSize, m_impl->layout.FileCount());
    return {};
}

CQiError CArchiveVirtualDiskFile::GetFirstBlock(CAutoMemory<char>& buffer, unsigned long size, Context_t& ctx) {
    if (!m_impl->open) return CQiError::VS(EBADF, "disk not open");
    if (m_impl->broken.IsError()) return m_impl->broken;
    const unsigned long long bytes = std::min<unsigned long long>(size, m_impl->layout.size);
    buffer.Reserve(bytes);
    CQiError err = m_impl->layout.Read(buffer.Ptr(), 0, bytes);
    buffer.SetSize(err.IsError() ? 0 : bytes);
    if (err.IsError()) return err;
    ctx.position = kNoExtentYet;
    ctx.extentSize = m_impl->extentSize;
    m_impl->inPass = false;
    return {};
}

unsigned long long CArchiveVirtualDiskFile::GetAllocatedExtentCount() {
    if (!m_impl->open) return 0;
    // No error to return here: an image found cut short fails the next read instead.
    unsigned long long count = 0;
    std::optional<unsigned long long> n;
    for (m_impl->NextAllocated(0, n); n; m_impl->NextAllocated(*n + 1, n)) ++count;
    if (m_impl->broken.IsError())
        KTlog(Log(), 1, "Counting extents of [%s]: %s", m_impl->path.c_str(), m_impl->broken.AsString().c_str());
    return count;
}

CQiError CArchiveVirtualDiskFile::GetNextBlock(CAutoMemory<char>& buffer, unsigned long long& extentNumber,
                                               std::vector<bool>&, Context_t& ctx) {
    Impl& d = *m_impl;
    if (!d.open) return CQiError::VS(EBADF, "disk not open");
    const unsigned long long next = ctx.position + 1;  // wraps from "before extent 0" to 0
    // A pass starts after GetFirstBlock or where the caller moved the position (resume);
    // only a pass from extent 0 sees every extent and may leave its digests.
    if (!d.inPass || ctx.position != d.lastReturned) {
        d.inPass = true;
        d.pass = ct::DiskDigests{d.layout.size, d.extentSize, {}};
        d.passWhole = next == 0;
        ct::ClearCompletedPass();
    }
    std::optional<unsigned long long> allocated;
    if (CQiError err = d.NextAllocated(next, allocated); err.IsError()) {
        buffer.SetSize(0);
        d.passWhole = false;
        return err;
    }
    auto before = d.NextInBase(next);
    if (!allocated && !before) {
        buffer.SetSize(0);
        d.inPass = false;
        if (d.passWhole) ct::LeaveCompletedPass(std::move(d.pass));
        d.pass = ct::DiskDigests{};
        return CQiError::VS(VS_ERROR_END_OF_DISK, "end of disk " + d.path);
    }
    const unsigned long long n = allocated && before ? std::min(*allocated, *before) : allocated ? *allocated : *before;
    CQiError err = d.Read(buffer, n);
    if (err.IsError()) {
        d.passWhole = false;
        return err;
    }
    extentNumber = n;
    ctx.position = n;
    d.lastReturned = n;

    if (IsZeroFilled(buffer.Ptr(), buffer.Size())) {
        // No data now: unchanged when there was none before either, else it goes out as zeros.
        if (d.base && !d.base->extents.count(n)) buffer.SetSize(0);
        return {};
    }
    const ct::Digest digest = ct::DigestOf(buffer.Ptr(), buffer.Size());
    d.pass.extents[n] = digest;
    if (d.base) {
        auto old = d.base->extents.find(n);
        if (old != d.base->extents.end() && old->second == digest) buffer.SetSize(0);  // unchanged
    }
    return {};
}

CQiError CArchiveVirtualDiskFile::ReadBlock(CAutoMemory<char>& buffer, unsigned long long extentNumber,
                                            std::vector<bool>&, Context_t& ctx) {
    Impl& d = *m_impl;
    if (!d.open) return CQiError::VS(EBADF, "disk not open");
    if (extentNumber >= d.ExtentCount())
        return CQiError::VS(VS_ERROR_END_OF_DISK,
                            "extent " + std::to_string(extentNumber) + " past the end of " + d.path);
    CQiError err = d.Read(buffer, extentNumber);
    if (err.IsError()) return err;
    ctx.position = extentNumber;
    ctx.extentSize = d.extentSize;
    d.lastReturned = extentNumber;
    return {};
}

CQiError CArchiveVirtualDiskFile::Close() {
    if (!m_impl->open) return {};
    m_impl->layout.Close();
    m_impl->open = false;
    m_impl->base.reset();
    return {};
}

bool CArchiveVirtualDiskFile::IsErrorEOF(const CQiError& error) {
    return FXErrorUtil::IsVS(error, VS_ERROR_END_OF_DISK);
}

unsigned long long CArchiveVirtualDiskFile::DiskSize() const {
    return m_impl->layout.size;
}

unsigned long long CArchiveVirtualDiskFile::ExtentSize() const {
    return m_impl->extentSize;
}
