// The file-backup writer: each entry of a collect file, placed on this host by the name
// mapper, opened below its volume's root only, and sent as a file-level entry.
#include "hostapi/filebackup.h"

#include "files/foldernames.h"
#include "hostapi/fd.h"
#include "vshost/beneath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

using vshost::Fd;
using vshost::OpenBeneath;

std::string Errno(int err) {
    return std::strerror(err);
}

long long Ns(const timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

}  // namespace

struct ClBackupFile::Entry {
    enum class Kind { File, Folder, Link, Other, Refused, Missing };
    Kind kind = Kind::Missing;
    std::string clientPath;
    MappedPath where;
    std::string why;  // for Refused and Missing
    Fd fd;            // File and Folder
    struct stat sb {};
    std::string linkTarget;
    bool open = false;  // an entry is open in the stream
};

// Entries of one collect file lie below one volume root, mostly: its descriptor is kept
// from one entry to the next instead of being opened again for each file.
struct ClBackupFile::Root {
    std::string path;
    Fd fd;
};

ClBackupFile::ClBackupFile(CPipelayer* pipe, KtEvent* event, bool ownLog)
    : m_pipe(pipe), m_event(event), m_archive(nullptr, nullptr, &m_sim, std::string()) {
    InitKTlog(&m_log, ownLog ? "CLBACKUP\t" : "", "nCLBACKUP", 0);
}

ClBackupFile::~ClBackupFile() {
    if (m_attached) m_archive.close(true);
}

void ClBackupFile::setErrorsTolerated(bool tolerated) {
    m_tolerated = tolerated;
}

void ClBackupFile::setFNameMapper(FSIDANameMapper* mapper) {
    m_mapper = mapper;
}

int ClBackupFile::Init(int, int, void** out1, void** out2) {
    if (out1) *out1 = nullptr;
    if (out2) *out2 = nullptr;
    if (m_attached) return 0;
    if (!m_pipe) {
        KTlog(&m_log, 1, "ClBackupFile::Init: no pipeline");
        return 1;
    }
    if (m_archive.init(m_pipe, &m_log, "file-level") != 0) return 1;
    m_attached = true;
    return 0;
}

int ClBackupFile::Failure(int code, const std::string& why) {
    KTlog(&m_log, 1, "ClBackupFile: %s", why.c_str());
    return code;
}

int ClBackupFile::RootOf(const std::string& root) {
    if (!m_root) m_root = std::make_unique<Root>();
    if (!m_root->fd.valid() || m_root->path != root) {
        m_root->fd = Fd(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        m_root->path = m_root->fd.valid() ? root : std::string();
    }
    return m_root->fd.get();
}

int ClBackupFile::CloseFile() {
    m_entry.reset();
    return 0;
}

int ClBackupFile::OpenFilesForBackup(subclientFiles& files, std::istream& list, int, int, const std::string&) {
    m_entry.reset();
    if (!m_mapper) return Failure(kFailBackup, "no name mapper installed");
    auto e = std::make_unique<Entry>();
    if (!m_pending.empty()) {
        e->clientPath = std::move(m_pending.back().first);
        e->where = std::move(m_pending.back().second);
        m_pending.pop_back();
    } else {
        std::string line;
        do {
            if (!std::getline(list, line)) return kEndOfList;
            if (!line.empty() && line.back() == '\r') line.pop_back();
        } while (line.empty());
        // A line may end in "/" (a volume, or a path as the client gave it); the entry's
        // name does not.
        e->clientPath = line;
        while (e->clientPath.size() > 1 && e->clientPath.back() == '/') e->clientPath.pop_back();
        if (!m_mapper->Map(line, e->where, e->why)) {
            e->kind = Entry::Kind::Refused;
            KTlog(&m_log, 1, "ClBackupFile: refused [%s]: %s", line.c_str(), e->why.c_str());
        }
    }
    (void)std::snprintf(files.sCurrentFile, sizeof files.sCurrentFile, "%s", e->clientPath.c_str());
    (void)std::snprintf(files.sLocalPath, sizeof files.sLocalPath, "%s/%s", e->where.root.c_str(),
                        e->where.relative.c_str());
    files.sReason[0] = 0;
    ++files.fileCount;

    if (e->kind != Entry::Kind::Refused) {
        const int root = RootOf(e->where.root);
        Fd self(root >= 0 ? OpenBeneath(root, e->where.relative, O_PATH | O_NOFOLLOW) : -1);
        if (!self.valid() || ::fstat(self.get(), &e->sb) != 0) {
            const int err = errno;
            e->kind = err == EXDEV ? Entry::Kind::Refused : Entry::Kind::Missing;
            e->why = err == EXDEV ? "its path leads out of its volume" : Errno(err);
        } else if (S_ISLNK(e->sb.st_mode)) {
            // Sent as a link, but only when following it would stay in the volume.
            Fd target(OpenBeneath(root, e->where.relative, O_PATH));
            const bool escapes = !target.valid() && errno == EXDEV;
            char buf[4096];
            const ssize_t n = ::readlinkat(self.get(), "", buf, sizeof buf);
            if (escapes) {
                e->kind = Entry::Kind::Refused;
                e->why = "it is a link that points out of its volume";
            } else if (n < 0) {
                e->kind = Entry::Kind::Missing;
                e->why = "cannot read the link: " + Errno(errno);
            } else {
                e->kind = Entry::Kind::Link;
                e->linkTarget.assign(buf, static_cast<size_t>(n));
            }
        } else if (S_ISREG(e->sb.st_mode) || S_ISDIR(e->sb.st_mode)) {
            const bool dir = S_ISDIR(e->sb.st_mode);
            e->fd = Fd(OpenBeneath(root, e->where.relative,
                                   (dir ? O_RDONLY | O_DIRECTORY : O_RDONLY | O_NONBLOCK) | O_NOFOLLOW));
            struct stat now {};
            if (!e->fd.valid() || ::fstat(e->fd.get(), &now) != 0) {
                e->kind = Entry::Kind::Missing;
                e->why = Errno(errno);
            } else if (now.st_ino != e->sb.st_ino || now.st_dev != e->sb.st_dev) {
                e->kind = Entry::Kind::Missing;
                e->why = "replaced while it was opened";
            } else {
                e->kind = dir ? Entry::Kind::Folder : Entry::Kind::File;
            }
        } else {
            e->kind = Entry::Kind::Other;
        }
        if (e->kind == Entry::Kind::Refused)
            KTlog(&m_log, 1, "ClBackupFile: refused [%s]: %s", e->clientPath.c_str(), e->why.c_str());
    }
    if (!e->why.empty()) (void)std::snprintf(files.sReason, sizeof files.sReason, "%s", e->why.c_str());
    m_entry = std::move(e);
    return kOk;
}

int ClBackupFile::CheckFile(subclientFiles&, int) {
    if (!m_entry) return 1;
    if (m_entry->kind != Entry::Kind::Other) return 0;
    KTlog(&m_log, 1, "ClBackupFile: [%s] is neither a file, a folder nor a link; not sent",
          m_entry->clientPath.c_str());
    ++m_counts.skipped;
    return 1;
}

int ClBackupFile::SendHeader(int) {
    if (!m_entry) return Failure(kFailBackup, "SendHeader without an open file");
    Entry& e = *m_entry;
    vsFileLevelInfo info;
    info.clientPath = e.clientPath;
    if (e.kind == Entry::Kind::File || e.kind == Entry::Kind::Folder || e.kind == Entry::Kind::Link) {
        info.size = e.kind == Entry::Kind::File   ? static_cast<unsigned long long>(e.sb.st_size)
                    : e.kind == Entry::Kind::Link ? e.linkTarget.size()
                                                  : 0;
        info.mode = e.sb.st_mode;
        info.uid = e.sb.st_uid;
        info.gid = e.sb.st_gid;
        info.atimeNs = Ns(e.sb.st_atim);
        info.mtimeNs = Ns(e.sb.st_mtim);
        info.ctimeNs = Ns(e.sb.st_ctim);
    }
    if (e.kind == Entry::Kind::Folder) {
        if (m_archive.isError(m_archive.sendDirectoryEntry(info)))
            return Failure(kFailBackup, "folder entry of [" + e.clientPath + "] not sent: " + m_archive.lastError());
        ++m_counts.folders;
        if (!Expand())
            KTlog(&m_log, 1, "ClBackupFile: content of folder [%s] cannot be listed: %s", e.clientPath.c_str(),
                  e.why.c_str());
        return kOk;
    }
    if (m_archive.isError(m_archive.sendFileLevelHeader(info)))
        return Failure(kFailBackup, "header of [" + e.clientPath + "] not sent: " + m_archive.lastError());
    e.open = true;
    return kOk;
}

// Queues the folder's content, names in byte order, ahead of the collect file's next line.
bool ClBackupFile::Expand() {
    Entry& e = *m_entry;
    std::vector<std::string> names;
    if (const int err = vshost::FolderNames(e.fd.get(), names); err != 0) {
        e.why = Errno(err);
        return false;
    }
    std::string base = e.clientPath;
    while (!base.empty() && base.back() == '/') base.pop_back();
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        MappedPath child{e.where.root, e.where.relative.empty() ? *it : e.where.relative + "/" + *it};
        m_pending.emplace_back(base + "/" + *it, std::move(child));
    }
    return true;
}

int ClBackupFile::ReadAndSendFileData(int) {
    if (!m_entry) return Failure(kFailBackup, "ReadAndSendFileData without an open file");
    Entry& e = *m_entry;
    const int failed = m_tolerated ? kFileFailed : kFailBackup;
    switch (e.kind) {
        case Entry::Kind::Folder:
            return kOk;
        case Entry::Kind::Refused:
        case Entry::Kind::Missing:
        case Entry::Kind::Other:
            return Failure(failed, "[" + e.clientPath + "] not read: " + e.why);
        case Entry::Kind::Link:
            if (m_archive.isError(m_archive.allocateAndSendDataBuffer(e.linkTarget.data(),
                                                                      static_cast<unsigned long>(e.linkTarget.size()))))
                return Failure(kFailBackup, "link [" + e.clientPath + "] not sent: " + m_archive.lastError());
            m_counts.bytes += e.linkTarget.size();
            return kOk;
        case Entry::Kind::File:
            break;
    }

    // Data ranges are read into the writer's own buffer; holes go out by length. A file
    // whose allocated blocks cover its size has no hole to look for: most small files,
    // which would otherwise pay two seeks to learn that.
    const off_t size = e.sb.st_size;
    const bool dense = static_cast<off_t>(e.sb.st_blocks) * 512 >= size;
    off_t pos = 0;
    while (pos < size) {
        off_t data = dense ? pos : ::lseek(e.fd.get(), pos, SEEK_DATA);
        if (data < 0) data = errno == ENXIO ? size : pos;  // ENXIO: only a hole is left
        data = std::min(data, size);
        if (data > pos) {
            if (m_archive.isError(m_archive.sendHole(static_cast<unsigned long>(data - pos))))
                return Failure(kFailBackup, "hole of [" + e.clientPath + "] not sent: " + m_archive.lastError());
            pos = data;
            continue;
        }
        off_t end = dense ? size : ::lseek(e.fd.get(), pos, SEEK_HOLE);
        if (end < 0 || end <= pos) end = size;
        end = std::min(end, size);
        while (pos < end) {
            unsigned long got = 0;
            void* buffer = nullptr;
            const auto want = static_cast<unsigned long>(std::min<off_t>(end - pos, off_t{1} << 20));
            if (m_archive.isError(m_archive.allocateBuffer(want, &got, &buffer)) || got == 0)
                return Failure(kFailBackup, "no buffer for [" + e.clientPath + "]: " + m_archive.lastError());
            const ssize_t n = ::pread(e.fd.get(), buffer, got, pos);
            if (n <= 0) {
                const std::string why = n < 0 ? Errno(errno) : "the file ended early (it shrank while it was read)";
                m_archive.freeBuffer();
                return Failure(failed,
                               "[" + e.clientPath + "] read failed at offset " + std::to_string(pos) + ": " + why);
            }
            if (m_archive.isError(
                    m_archive.writeDataBuffer(static_cast<const char*>(buffer), static_cast<unsigned long>(n))))
                return Failure(kFailBackup, "data of [" + e.clientPath + "] not sent: " + m_archive.lastError());
            pos += n;
            m_counts.bytes += static_cast<uint64_t>(n);
        }
    }
    return kOk;
}

int ClBackupFile::SendEndOfFileMessage(int eofKind) {
    if (!m_entry) return Failure(1, "SendEndOfFileMessage without an open file");
    std::unique_ptr<Entry> e = std::move(m_entry);
    if (!e->open) return 0;  // a folder: its entry is one record
    const bool good = eofKind == EOF_GOOD;
    if (m_archive.isError(m_archive.sendEOF(good, 0)))
        return Failure(1, "end of [" + e->clientPath + "] not sent: " + m_archive.lastError());
    ++(good ? m_counts.files : m_counts.failed);
    return 0;
}
