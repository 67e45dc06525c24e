// Disk layouts: raw images and flat VMDK extents, read with pread and probed for data
// with SEEK_DATA so that holes are never read; other formats and chains through qemu-nbd,
// probed for data with NBD block status.
#include "disk/vdisk_layout.h"

#include "vshost/beneath.h"
#include "vshost/vmdk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vshost::vdisk {

Layout& Layout::operator=(Layout&& other) noexcept {
    if (this != &other) {
        Close();
        size = other.size;
        m_segments = std::move(other.m_segments);
        other.m_segments.clear();
        m_nbd = std::move(other.m_nbd);
        other.size = 0;
    }
    return *this;
}

void Layout::Close() {
    for (Segment& s : m_segments)
        if (s.fd >= 0) ::close(s.fd);
    m_segments.clear();
    m_nbd.reset();
    size = 0;
}

size_t Layout::FileCount() const {
    if (m_nbd) return m_nbd->FileCount();
    return static_cast<size_t>(
        std::count_if(m_segments.begin(), m_segments.end(), [](const Segment& s) { return s.fd >= 0; }));
}

CQiError Layout::Open(const Source& source, const std::string& path, int, Layout& out) {
    out.Close();
    diskchain::Chain chain;
    std::string why;
    if (!diskchain::Inspect({source.root, source.datastore}, path, chain, why)) return CQiError(ENOTSUP, why);
    Layout layout;
    if (chain.Native()) {
        if (CQiError err = OpenNative(chain.images.front(), layout); err.IsError()) return err;
    } else {
        layout.size = chain.Size();
        if (CQiError err = NbdDisk::Open(std::move(chain), source.workDir, layout.m_nbd); err.IsError()) return err;
    }
    out = std::move(layout);
    return {};
}

CQiError Layout::OpenNative(diskchain::Image& image, Layout& layout) {
    const std::string& path = image.path;
    if (image.format == diskchain::Format::Raw) {
        Segment seg;
        seg.file = path;
        seg.length = image.fileSize;
        seg.fd = image.fd.Release();
        layout.size = seg.length;
        layout.m_segments.push_back(seg);
        return {};
    }
    uint64_t diskOffset = 0;
    for (size_t i = 0; i < image.descriptor.extents.size(); ++i) {
        const vmdk::Extent& extent = image.descriptor.extents[i];
        Segment seg;
        seg.diskOffset = diskOffset;
        seg.length = extent.sectors * 512;
        if (!extent.IsZero()) {
            seg.file = extent.file;
            seg.fileOffset = extent.offsetSectors * 512;
            seg.fd = image.extentFds[i].Release();
            layout.m_segments.push_back(seg);  // owns the descriptor from here on
            // A flat file always spans its whole extent, even when thin; a shorter one
            // lost its end, and reading it as zeros would back up a damaged disk as sound.
            struct stat st {};
            if (fstat(seg.fd, &st) != 0) return CQiError::FromErrno("stat extent " + extent.file + " of " + path);
            const uint64_t needed = seg.FileEnd();
            if (static_cast<uint64_t>(st.st_size) < needed)
                return CQiError(EIO, "extent file " + extent.file + " of " + path + " holds " +
                                         std::to_string(st.st_size) + " bytes, the descriptor needs " +
                                         std::to_string(needed) + ": the image is cut short");
        } else {
            layout.m_segments.push_back(seg);
        }
        diskOffset += seg.length;
    }
    layout.size = diskOffset;
    return {};
}

CQiError Layout::Read(char* dest, uint64_t offset, uint64_t length) const {
    if (m_nbd) return m_nbd->Read(dest, offset, length);
    if (offset + length > size || offset + length < offset) return CQiError(EINVAL, "read past the end of the disk");
    // Extent boundaries may fall inside a read: each segment serves its own part.
    for (Segment& seg : m_segments) {
        if (length == 0) break;
        const uint64_t segEnd = seg.diskOffset + seg.length;
        if (segEnd <= offset) continue;
        const uint64_t take = std::min(length, segEnd - offset);
        if (seg.fd < 0) {
            std::memset(dest, 0, take);
        } else if (CQiError err = ReadSegment(seg, dest, seg.fileOffset + (offset - seg.diskOffset), take);
                   err.IsError()) {
            return err;
        }
        dest += take;
        offset += take;
        length -= take;
    }
    return {};
}

// The file's data ranges are read; its holes are zeros handed on without a read.
CQiError Layout::ReadSegment(Segment& seg, char* out, uint64_t fileOffset, uint64_t length) {
    const uint64_t end = fileOffset + length;
    bool holes = false;
    for (uint64_t pos = fileOffset; pos < end;) {
        if (CQiError err = RegionAt(seg, pos); err.IsError()) return err;
        const uint64_t holeEnd = std::min(seg.region.dataStart, end);
        if (pos < holeEnd) {
            std::memset(out + (pos - fileOffset), 0, holeEnd - pos);
            holes = true;
            pos = holeEnd;
            continue;
        }
        const uint64_t dataEnd = std::min(seg.region.dataEnd, end);
        while (pos < dataEnd) {
            const ssize_t n = ::pread(seg.fd, out + (pos - fileOffset), dataEnd - pos, static_cast<off_t>(pos));
            if (n < 0) {
                if (errno == EINTR) continue;
                return CQiError::FromErrno("read " + seg.file);
            }
            if (n == 0)  // the file was cut short after it was opened
                return CQiError(EIO, seg.file + " ends before byte " + std::to_string(dataEnd) +
                                         ": the image was cut short while it was read");
            pos += static_cast<uint64_t>(n);
        }
    }
    // Holes were not read, so nothing noticed whether the file still reaches that far:
    // zeros must not pass for bytes it lost since it was probed.
    return holes ? CheckLength(seg) : CQiError{};
}

CQiError Layout::CheckLength(const Segment& seg) {
    struct stat st {};
    if (::fstat(seg.fd, &st) != 0) return CQiError::FromErrno("stat " + seg.file);
    if (static_cast<uint64_t>(st.st_size) < seg.FileEnd())
        return CQiError(EIO, seg.file + " holds " + std::to_string(st.st_size) + " bytes, the disk needs " +
                                 std::to_string(seg.FileEnd()) + ": the image was cut short while it was read");
    return {};
}

CQiError Layout::RegionAt(Segment& seg, uint64_t fileOffset) {
    Segment::Region& r = seg.region;
    if (r.known && fileOffset >= r.from && fileOffset < std::max(r.dataEnd, r.dataStart)) return {};
    r = Segment::Region{};
    const off_t data = ::lseek(seg.fd, static_cast<off_t>(fileOffset), SEEK_DATA);
    if (data < 0) {
        if (errno != ENXIO) return CQiError::FromErrno("look for data in " + seg.file);
        // ENXIO: no data from here to the end of the file, which is a hole only while
        // the file still has the size it had when opened.
        if (CQiError err = CheckLength(seg); err.IsError()) return err;
        r = {true, fileOffset, seg.FileEnd(), seg.FileEnd()};
        return {};
    }
    const uint64_t start = std::min(static_cast<uint64_t>(data), seg.FileEnd());
    const off_t hole = start < seg.FileEnd() ? ::lseek(seg.fd, data, SEEK_HOLE) : data;
    if (hole < 0) return CQiError::FromErrno("look for the end of data in " + seg.file);
    r = {true, fileOffset, start, std::min(static_cast<uint64_t>(hole), seg.FileEnd())};
    return {};
}

CQiError Layout::NextData(uint64_t from, std::optional<uint64_t>& next) const {
    if (m_nbd) return m_nbd->NextData(from, next);
    next.reset();
    for (Segment& seg : m_segments) {
        const uint64_t segEnd = seg.diskOffset + seg.length;
        if (segEnd <= from || seg.fd < 0) continue;
        const uint64_t start = std::max(from, seg.diskOffset);
        const uint64_t fileOffset = seg.fileOffset + (start - seg.diskOffset);
        if (CQiError err = RegionAt(seg, fileOffset); err.IsError()) return err;
        const uint64_t found = std::max(fileOffset, seg.region.dataStart);
        if (found < seg.FileEnd()) {
            next = seg.diskOffset + (found - seg.fileOffset);
            return {};
        }
    }
    return {};
}

}  // namespace vshost::vdisk
