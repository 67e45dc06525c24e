// Where each byte of a virtual disk lies: the image files (and zero ranges) that make
// up the disk, in disk order.
#pragma once

#include "hostapi/fileutil.h"

#include <cstdint>
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
};

class Layout {
public:
    // A raw image, or a VMDK descriptor whose extents are flat files or zero ranges. Every
    // file is opened below the folder `root` only (see vshost/beneath.h).
    static CQiError Open(const std::string& root, const std::string& path, int diskType, Layout& out);

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
    std::vector<Segment> m_segments;
};

}  // namespace vshost::vdisk
