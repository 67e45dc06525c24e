#include "hostapi/fxfile.h"

#include "vshost/beneath.h"
#include "vshost/catalog.h"
#include "vshost/vminfohost.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <filesystem>

namespace {

// The folder of the registered snapshot volume that `path` lies in, or "" when it lies
// in none (or no home is open).
std::string VolumeHolding(const std::string& path) {
    namespace fs = std::filesystem;
    const fs::path target = fs::path(path).lexically_normal();
    try {
        const vshost::Catalog catalog;
        for (const auto& snapshot : catalog.Snapshots())
            for (const auto& afile : catalog.ArchiveFilesOfSnapJob(snapshot.snapJobId)) {
                const auto volume = vshost::vminfohost::VolumeOfArchiveFile(afile.afileId);
                if (!volume || volume->folder.empty()) continue;
                const fs::path root(volume->folder);
                const auto [r, t] = std::mismatch(root.begin(), root.end(), target.begin(), target.end());
                if (r == root.end() && t != target.end()) return volume->folder;
            }
    } catch (const std::exception&) {
        // No catalog to ask: nothing is known to be a volume.
    }
    return {};
}

// A file of a snapshot volume is opened beneath its volume as the disk reader opens
// disks: a link swapped in since the VM was mounted cannot lead out of the volume, and a
// FIFO cannot stall the copy.
vshost::Fd OpenForCopy(const std::string& path) {
    const std::string root = VolumeHolding(path);
    if (root.empty()) return vshost::Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string why;
    return vshost::snapfile::Open(root, path, why);
}

}  // namespace

KTHANDLE FXFile::KTCreateFile(const std::string& path, unsigned, unsigned, void*, unsigned, unsigned, void*) {
    return OpenForCopy(path).Release();
}

CQiError FXFile::KTGetFileSize(const std::string& path, unsigned long long& size) {
    struct stat st {};
    if (VolumeHolding(path).empty()) {
        if (::stat(path.c_str(), &st) != 0) return CQiError::FromErrno("stat " + path);
    } else {
        const vshost::Fd fd = OpenForCopy(path);
        if (!fd.valid() || ::fstat(fd.get(), &st) != 0) return CQiError::FromErrno("stat " + path);
    }
    size = static_cast<unsigned long long>(st.st_size);
    return {};
}

CQiError FXFile::KTReadFile(KTHANDLE handle, void* buffer, unsigned long length, unsigned long& read) {
    read = 0;
    for (;;) {
        const ssize_t n = ::read(handle, buffer, length);
        if (n >= 0) {
            read = static_cast<unsigned long>(n);
            return {};
        }
        if (errno != EINTR) return CQiError::FromErrno("read");
    }
}

void auto_handle::reset(KTHANDLE h) {
    if (m_h != KT_INVALID_HANDLE_VALUE && m_h != h) ::close(m_h);
    m_h = h;
}
