// Files written under a temporary name and renamed into place when complete.
#include "files/atomicfile.h"
#include "hostapi/fd.h"
#include "vshost/durable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vshost::detail {
namespace {

std::string ErrnoText(int err) {
    char buf[256];
    return std::string(strerror_r(err, buf, sizeof buf)) + " (errno " + std::to_string(err) + ")";
}

// A dot name beside the target, so folder listings and globbing skip it.
std::string TempPattern(const std::string& finalPath) {
    const size_t slash = finalPath.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : finalPath.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? finalPath : finalPath.substr(slash + 1);
    return dir + "." + base + ".part-XXXXXX";
}

}  // namespace
}  // namespace vshost::detail

namespace vshost {
namespace {
std::atomic<unsigned long long> g_folderSyncs{0};
}  // namespace

bool SyncFolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const Fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) return false;
    if (fsync(fd.get()) != 0 && errno != EINVAL && errno != EROFS) return false;
    ++g_folderSyncs;
    return true;
}

unsigned long long FolderSyncs() {
    return g_folderSyncs.load();
}

}  // namespace vshost

namespace vshost::detail {

AtomicFile::AtomicFile(const std::string& finalPath, mode_t mode)
    : m_finalPath(finalPath), m_tempPath(TempPattern(finalPath)) {
    m_fd = mkostemp(m_tempPath.data(), O_CLOEXEC);
    if (m_fd < 0) {
        const int err = errno;
        m_tempPath.clear();
        m_error = "cannot create a temporary file for " + finalPath + ": " + ErrnoText(err);
        return;
    }
    if (fchmod(m_fd, mode) != 0) Fail("chmod " + m_tempPath);
}

AtomicFile::~AtomicFile() {
    if (m_fd >= 0) close(m_fd);
    if (!m_committed && !m_tempPath.empty()) unlink(m_tempPath.c_str());
}

bool AtomicFile::Fail(const std::string& what) {
    if (m_error.empty()) m_error = what + ": " + ErrnoText(errno);
    return false;
}

bool AtomicFile::Write(const void* data, size_t size) {
    if (!Ok()) return false;
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(m_fd, p, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return Fail("write " + m_tempPath);
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool AtomicFile::Commit() {
    if (!Ok()) return false;
    // Data first, then the name: after a crash the final name holds all or nothing.
    if (fsync(m_fd) != 0) return Fail("fsync " + m_tempPath);
    const int fd = m_fd;
    m_fd = -1;
    if (close(fd) != 0) return Fail("close " + m_tempPath);
    if (rename(m_tempPath.c_str(), m_finalPath.c_str()) != 0) return Fail("rename to " + m_finalPath);
    m_committed = true;
    if (!SyncFolderOf(m_finalPath)) return Fail("sync the folder of " + m_finalPath);
    return true;
}

bool CopyFileAtomically(const std::string& source, const std::string& target, std::string& why) {
    // Non-blocking, so that a FIFO in place of the file cannot hang the copy.
    const Fd in(open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!in.valid()) {
        why = "open " + source + ": " + ErrnoText(errno);
        return false;
    }
    struct stat sb {};
    if (fstat(in.get(), &sb) != 0) {
        why = "stat " + source + ": " + ErrnoText(errno);
        return false;
    }
    if (!S_ISREG(sb.st_mode)) {
        why = source + " is not a regular file";
        return false;
    }
    AtomicFile out(target, sb.st_mode & 0777);
    char buf[64 * 1024];
    for (;;) {
        const ssize_t n = read(in.get(), buf, sizeof buf);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            why = "read " + source + ": " + ErrnoText(errno);
            return false;
        }
        if (!out.Write(buf, static_cast<size_t>(n))) break;
    }
    if (!out.Commit()) {
        why = out.Error();
        return false;
    }
    return true;
}

}  // namespace vshost::detail
