// Where each byte of a virtual disk lies: the image files (and zero ranges) that make
// up a raw or flat disk, in disk order; or, for every other format and for chains, the
// qemu-nbd that reads it.
#pragma once

#include "disk/nbd.h"
#include "hostapi/fileutil.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vshost::vdisk {

struct Segment {
    uint64_t diskOffset = 0;
    uint64_t length = 0;
    int fd = -1;  // -1: a range that reads as zeros
    uint64_t fileOffset = 0;
    std::string file;

    // The file must reach this far for as long as the disk is read.
    uint64_t FileEnd() const { return fileOffset + length; }

    // What SEEK_DATA and SEEK_HOLE last said, in file offsets: [from, dataStart) is a
    // hole and [dataStart, dataEnd) data; dataStart == FileEnd(): no data from `from` on.
    // The file is asked again only outside [from, dataEnd), so a run of extents costs
    // two lseek calls per data region rather than per extent.
    struct Region {
        bool known = false;
        uint64_t from = 0, dataStart = 0, dataEnd = 0;
    };
    Region region;
};

// Where a disk's files come from, and where its qemu-nbd may put its socket.
struct Source {
    std::string root;       // the volume folder every file of the disk lies beneath
    std::string datastore;  // that volume's datastore (parents named /vmfs/volumes/<datastore>/...)
    std::string workDir;    // the job's results folder; empty: a temporary folder
};

class Layout {
public:
    // A raw image or a flat VMDK, read here with pread and SEEK_DATA; any other disk or
    // chain (diskchain::Inspect), read through qemu-nbd. Every file is opened below the
    // folder `source.root` only (see vshost/beneath.h).
    static CQiError Open(const Source& source, const std::string& path, int diskType, Layout& out);

    // Reads [offset, offset + length) of the disk; a file that ends early is an error.
    CQiError Read(char* dest, uint64_t offset, uint64_t length) const;
    // The first disk offset at or after `from` that may hold data into `next`; none past
    // the last. A file that no longer reaches the size it had when opened is an error:
    // finding no data past its new end must not pass for the rest being a hole.
    CQiError NextData(uint64_t from, std::optional<uint64_t>& next) const;
    void Close();
    size_t FileCount() const;

    uint64_t size = 0;

    Layout() = default;
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;
    Layout(Layout&& other) noexcept { *this = std::move(other); }
    Layout& operator=(Layout&& other) noexcept;
    ~Layout() { Close(); }

private:
    static CQiError OpenNative(diskchain::Image& image, Layout& layout);
    static CQiError RegionAt(Segment& seg, uint64_t fileOffset);
    static CQiError ReadSegment(Segment& seg, char* out, uint64_t fileOffset, uint64_t length);
    static CQiError CheckLength(const Segment& seg);

    // Mutable: the region each segment was last probed at is a cache of what reads find.
    mutable std::vector<Segment> m_segments;
    std::unique_ptr<NbdDisk> m_nbd;
};

}  // namespace vshost::vdisk
