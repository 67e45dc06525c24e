// Where a restored disk's bytes go, by the format it is restored in: a raw image, the
// flat file of a monolithic-flat VMDK (beside its descriptor), or a qcow2 image written
// through qemu-nbd. Every kind keeps the image sparse: zeros are never written as data.
#pragma once

#include "hostapi/fd.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vsstream {

enum class ImageFormat { Native, Raw, Vmdk, Qcow2 };

// "raw", "vmdk", "qcow2" (and "native" for Native); false for anything else.
bool ParseImageFormat(const std::string& text, ImageFormat& format);
const char* ImageFormatName(ImageFormat format);
// What a disk of this name was: a .vmdk is restored as a VMDK, a .qcow2 as a qcow2,
// anything else as a raw image.
ImageFormat NativeFormat(const std::string& diskName);

// The files a disk restored in `format` takes, beside each other in its VM's folder.
struct ImageNames {
    std::string data;        // the file that holds the disk's bytes (raw, flat, qcow2)
    std::string descriptor;  // a VMDK's descriptor, empty for the other formats
};
// `name` is the disk's name in the stream; `format` is never Native here.
ImageNames NamesFor(const std::string& name, ImageFormat format);

class ImageSink {
public:
    virtual ~ImageSink() = default;
    // Writes `data` at `at`; `sparse` leaves its 4 KiB blocks of zeros unwritten (the
    // range is known to read as zeros already).
    virtual bool Write(const char* data, uint64_t length, uint64_t at, bool sparse) = 0;
    // Makes the range read as zeros, deallocating it where the format can.
    virtual bool Zero(uint64_t at, uint64_t length) = 0;
    virtual bool Resize(uint64_t size) = 0;
    // Everything written so far is durable.
    virtual bool Sync() = 0;
    // Why the last call failed.
    const std::string& error() const { return m_error; }

protected:
    bool Fail(std::string why);
    std::string m_error;
};

// A raw file (a raw image, a VMDK's flat file), written with pwrite and punched holes.
std::unique_ptr<ImageSink> RawSink(vshost::Fd fd);
// A qcow2 image held open as `fd`: made (qemu-img create) when `fresh`, then served by
// a qemu-nbd of its own that this process is the one client of. Null with `why` when
// it cannot be made or served.
std::unique_ptr<ImageSink> Qcow2Sink(vshost::Fd fd, bool fresh, uint64_t size, std::string& why);

// The text of a monolithic-flat VMDK descriptor for a disk of `size` bytes whose data
// is the file `flatName` beside it.
std::string FlatDescriptor(uint64_t size, const std::string& flatName);

// Runs a tool to its end with `fd` as its descriptor 3 (reached as /proc/self/fd/3), so
// that it opens no name of its own choosing; its output is discarded. False with its
// own words in `why` when it fails.
bool RunWithFd(const std::vector<std::string>& argv, int fd, std::string& why);
// An argument vector for exec over `args` (which must outlive it), null-terminated.
std::vector<char*> Argv(std::vector<std::string>& args);
// The absolute path of `tool` on PATH (or /usr/bin), empty when it is not installed.
std::string FindTool(const std::string& tool);

}  // namespace vsstream
