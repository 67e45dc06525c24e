#include "output.h"

#include "vshost/catalog.h"
#include "vshost/home.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace vsdm {

namespace fs = std::filesystem;

namespace {

std::string ErrnoText() {
    return std::strerror(errno);
}

bool SameFile(const fs::path& path, const struct stat& target) {
    struct stat sb {};
    return ::stat(path.c_str(), &sb) == 0 && sb.st_dev == target.st_dev && sb.st_ino == target.st_ino;
}

// The file under `root` (or `root` itself) that is `target`, or empty.
std::string FindIn(const fs::path& root, const struct stat& target) {
    if (SameFile(root, target)) return root.string();
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
        if (SameFile(it->path(), target)) return it->path().string();
    return {};
}

}  // namespace

void CheckNotAnInput(const DataMoverJob& job, const std::string& jobFile, const std::string& target) {
    if (target.rfind("s3://", 0) == 0) return;  // an object is none of the job's inputs
    struct stat t {};
    const std::string name = target == "-" ? std::string("standard output") : target;
    if (target == "-" ? ::fstat(STDOUT_FILENO, &t) != 0 : ::stat(target.c_str(), &t) != 0) return;  // a new file
    if (S_ISDIR(t.st_mode)) throw UsageError("the stream target " + name + " is a folder: give --out a file");
    if (!S_ISREG(t.st_mode)) return;  // a FIFO or a device holds nothing to lose
    const auto refuse = [&](const std::string& what) {
        throw UsageError("the stream target " + name + " is " + what + ": give --out another file");
    };
    if (!jobFile.empty() && SameFile(jobFile, t)) refuse("the job file");

    const fs::path home = vshost::HomeDir();
    if (home.empty()) return;
    std::vector<fs::path> kept = {"settings.ini",       "catalog.db", "catalog.db-wal", "catalog.db-shm",
                                  "catalog.db-journal", "keys",       "IndexCache",     "JobResults",
                                  "Log Files",          "Snapshots"};
    for (fs::path& p : kept) p = home / p;
    std::string results;
    if (vshost::settings::Get("Host", "sJobResultsDir", results) && !results.empty()) kept.emplace_back(results);
    for (const fs::path& p : kept)
        if (const std::string hit = FindIn(p, t); !hit.empty()) refuse("a file the host home keeps (" + hit + ")");

    const vshost::Catalog catalog;
    for (uint64_t id : job.archiveFiles) {
        const auto afile = catalog.ArchiveFile(id);
        if (!afile || afile->volume.empty()) continue;
        const fs::path volume =
            fs::path(afile->volume).is_absolute() ? fs::path(afile->volume) : home / "Snapshots" / afile->volume;
        if (const std::string hit = FindIn(volume, t); !hit.empty())
            refuse("a file of the volume of archive file " + std::to_string(id) + " (" + hit + ")");
    }
}

StreamTarget::StreamTarget(const std::string& out) : m_out(out) {
    if (out == "-") {
        m_fd = STDOUT_FILENO;
        return;
    }
    struct stat sb {};
    if (::stat(out.c_str(), &sb) == 0 && !S_ISREG(sb.st_mode)) {
        m_fd = ::open(out.c_str(), O_WRONLY | O_CLOEXEC);
        if (m_fd < 0) throw std::runtime_error("cannot open the stream target " + out + ": " + ErrnoText());
        m_ownsFd = true;
        return;
    }
    // A link to a stream file: the file it names is the one replaced.
    std::error_code ec;
    if (fs::is_symlink(fs::symlink_status(out, ec))) {
        const fs::path real = fs::canonical(out, ec);
        if (!ec) m_out = real.string();
    }
    std::string temp = m_out + ".partial-XXXXXX";
    m_fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (m_fd < 0) throw std::runtime_error("cannot open the stream target " + out + ": " + temp + ": " + ErrnoText());
    m_temp = temp;
    m_ownsFd = true;
}

StreamTarget::~StreamTarget() {
    Discard();
}

void StreamTarget::Discard() {
    if (m_ownsFd && m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    if (!m_temp.empty()) ::unlink(m_temp.c_str());
    m_temp.clear();
}

bool StreamTarget::Publish(std::string& why) {
    if (m_temp.empty()) {
        const int fd = m_ownsFd ? m_fd : -1;
        m_fd = -1;
        if (fd >= 0 && ::close(fd) != 0) {
            why = "close " + m_out + ": " + ErrnoText();
            return false;
        }
        return true;
    }
    // Data first, then the name: after a crash the target holds the whole stream or the one before.
    if (::fsync(m_fd) != 0) {
        why = "fsync " + m_temp + ": " + ErrnoText();
        return false;
    }
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) {
        why = "close " + m_temp + ": " + ErrnoText();
        return false;
    }
    if (::rename(m_temp.c_str(), m_out.c_str()) != 0) {
        why = "rename " + m_temp + " to " + m_out + ": " + ErrnoText();
        return false;
    }
    m_temp.clear();
    return SyncFolderOf(m_out, why);
}

bool SyncFolderOf(const std::string& path, std::string& why) {
    fs::path folder = fs::path(path).parent_path();
    if (folder.empty()) folder = ".";
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) {
        why = "fsync " + folder.string() + ": " + ErrnoText();
        if (fd >= 0) ::close(fd);
        return false;
    }
    ::close(fd);
    return true;
}

}  // namespace vsdm
