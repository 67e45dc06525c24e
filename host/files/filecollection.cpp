// File collections over a folder of the snapshot: the guest file system of a disk that
// the VM-info library reports as a folder. The folder is walked depth first, one folder
// level listed at a time (so memory follows the depth and the widest folder, never the
// data), every step taken relative to an open folder descriptor without following
// links. A file's data is read ahead in large reads and handed out in the caller's
// pieces.
#include "hostapi/filecollection.h"

#include "files/foldernames.h"
#include "hostapi/fd.h"

#include "hostapi/archive.h"
#include "hostapi/log.h"
#include "vshost/home.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace {

// Large enough that a file costs one system call per MiB, whatever piece size the
// reader asks for.
constexpr size_t kReadAheadBytes = size_t{1} << 20;

KTLOGHANDLE Log() {
    static KTLogObject* log = [] {
        auto* h = new KTLogObject;
        InitKTlog(h, "FILECOL\t", "nFILECOLLECTION", 0);
        return h;
    }();
    return log;
}

// A fault setting of [FileCollectionFaults]: the number an operation fails with, or 0.
int Fault(const char* operation) {
    std::string value;
    if (!vshost::settings::Get("FileCollectionFaults", operation, value)) return 0;
    char* end = nullptr;
    const long code = std::strtol(value.c_str(), &end, 0);
    return end == value.c_str() ? 0 : static_cast<int>(code);
}

unsigned long long Ns(const timespec& t) {
    if (t.tv_sec < 0) return 0;
    return static_cast<unsigned long long>(t.tv_sec) * 1000000000ull + static_cast<unsigned long long>(t.tv_nsec);
}

using vshost::Fd;

// One folder on the way down: its descriptor and its entries in node order.
struct Level {
    Fd fd;
    std::vector<std::string> names;
    size_t next = 0;
    unsigned long long number = 0;  // the folder's node number; 0 for the top
    std::string prefix;             // node name of the folder followed by a backslash; empty at the top
};

// The entries of an open folder, sorted by name; "." and ".." left out.
CQiError ListFolder(int fd, const std::string& shown, std::vector<std::string>& names) {
    const int err = vshost::FolderNames(fd, names);
    return err != 0 ? CQiError(err, "cannot list folder " + shown) : CQiError{};
}

class FolderCollection final : public CFileCollection {
public:
    explicit FolderCollection(DiskType_t diskType) : m_diskType(diskType) {}
    ~FolderCollection() override { Close(); }

    void SetVMInfo(IVMInfo* vmInfo, const std::string& vmName, const std::string& vmGuid) override {
        m_vmInfo = vmInfo;
        m_vmName = vmName;
        m_vmGuid = vmGuid;
    }
    void SetVMDiskGuid(const std::string& diskGuid) override { m_diskGuid = diskGuid; }
    void SetArchive(vsArchive* archive) override { m_archive = archive; }
    CQiError Open(MountCtx& ctx) override;
    CQiError Close() override;
    CQiError GetNextNode(SFileNode& node) override;
    CQiError Rewind() override;
    CQiError ReadNode(SFileNode& node, char* buffer, unsigned long length, unsigned long& read) override;
    DiskType_t GetDiskType() const override { return m_diskType; }
    const std::string& GetVMDiskGuid() const override { return m_diskGuid; }
    const std::string& GetFolder() const override { return m_folder; }
    unsigned long long GetNodesReturned() const override { return m_returned; }
    unsigned long long GetBytesRead() const override { return m_bytesRead; }
    bool IsOpen() const override { return m_open; }
    int GetBuffer(SFileNode& node, unsigned long length, char** buffer, unsigned long* got) override;
    int SendBuffer(SFileNode& node, char* buffer, unsigned long length) override;

private:
    // The node whose data ReadNode hands out.
    struct Current {
        unsigned long long number = 0;
        bool file = false;
        unsigned long long size = 0;
        unsigned long long delivered = 0;  // bytes handed to the caller
        unsigned long long fetched = 0;    // bytes read from the file
        int parentFd = -1;                 // borrowed from its level, which outlives it
        std::string name;                  // in its folder
        std::string shown;                 // for messages: relative to the collection, with slashes
        dev_t device = 0;
        ino_t inode = 0;
        Fd fd;  // opened on the first read
    };

    CQiError Start();
    void EndCurrent();
    std::string Label() const { return "file collection [" + m_diskGuid + "] of VM [" + m_vmName + "]"; }

    DiskType_t m_diskType;
    IVMInfo* m_vmInfo = nullptr;
    vsArchive* m_archive = nullptr;
    std::string m_vmName, m_vmGuid, m_diskGuid;
    std::string m_folder;
    bool m_open = false;
    std::vector<Level> m_levels;
    Current m_current;
    std::vector<char> m_ahead;
    size_t m_aheadPos = 0, m_aheadLen = 0;
    unsigned long long m_returned = 0;
    unsigned long long m_dataOffset = 0;
    unsigned long long m_bytesRead = 0;
    // Fault settings, read when the collection opens: tests make operations fail.
    int m_faultNext = 0, m_faultRead = 0, m_faultGetBuffer = 0, m_faultSendBuffer = 0;
};

CQiError FolderCollection::Open(MountCtx& ctx) {
    Close();
    if (const int code = Fault("Open")) return CQiError(code, Label() + ": failing with injected error");
    if (!m_vmInfo) return CQiError(EINVAL, Label() + ": no VM-info object to find the disk with");
    std::vector<VMInfoStructs::SMountInfoFull> infos;
    if (m_vmInfo->GetFullMountInfo(ctx, infos) == 0)
        return CQiError::VS(m_vmInfo->GetErrorInfo(), Label() + ": the VM-info library cannot describe the VM");
    const VMInfoStructs::SDisk* found = nullptr;
    for (const auto& info : infos)
        for (const auto& disk : info.disks)
            if (!found && disk.sDiskName == m_diskGuid && disk.nBackupType == VMInfoStructs::kBackupTypeFileCollection)
                found = &disk;
    if (!found) return CQiError(ENOENT, Label() + ": the VM has no file-collection disk of that name");
    if (found->nDiskType != m_diskType)
        return CQiError(EINVAL, Label() + ": the disk is of type " + std::to_string(found->nDiskType) +
                                    ", the collection reads type " + std::to_string(m_diskType));
    m_folder = found->sDiskPath;
    m_faultNext = Fault("NextNode");
    m_faultRead = Fault("Read");
    m_faultGetBuffer = Fault("GetBuffer");
    m_faultSendBuffer = Fault("SendBuffer");
    CQiError err = Start();
    if (err.IsError()) {
        Close();
        return err;
    }
    KTlog(Log(), 1, "%s: opened over folder [%s]", Label().c_str(), m_folder.c_str());
    return {};
}

CQiError FolderCollection::Start() {
    EndCurrent();
    m_levels.clear();
    m_returned = 0;
    m_dataOffset = 0;
    m_bytesRead = 0;
    m_open = false;
    try {
        m_ahead.resize(kReadAheadBytes);
    } catch (const std::bad_alloc&) {
        return CQiError(ENOMEM, Label() + ": no memory for the read-ahead buffer");
    }
    // The folder the snapshot declares is taken as it is; below it nothing is followed.
    Level top;
    top.fd = Fd(::open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top.fd.valid()) return CQiError::FromErrno(Label() + ": cannot open folder " + m_folder);
    if (CQiError err = ListFolder(top.fd.get(), m_folder, top.names); err.IsError()) return err;
    m_levels.push_back(std::move(top));
    m_open = true;
    return {};
}

CQiError FolderCollection::Rewind() {
    if (m_folder.empty()) return CQiError(EBADF, Label() + ": not open");
    return Start();
}

CQiError FolderCollection::Close() {
    EndCurrent();
    m_levels.clear();
    m_open = false;
    std::vector<char>().swap(m_ahead);
    return {};
}

void FolderCollection::EndCurrent() {
    m_current = Current{};
    m_aheadPos = m_aheadLen = 0;
}

CQiError FolderCollection::GetNextNode(SFileNode& node) {
    if (!m_open) return CQiError(EBADF, Label() + ": not open");
    if (m_faultNext) return CQiError(m_faultNext, Label() + ": next node failing with injected error");
    EndCurrent();
    while (!m_levels.empty()) {
        Level& level = m_levels.back();
        if (level.next == level.names.size()) {
            m_levels.pop_back();
            continue;
        }
        const std::string name = level.names[level.next++];
        const std::string shown = [&] {
            std::string s = level.prefix;
            std::replace(s.begin(), s.end(), '\\', '/');
            return s + name;
        }();
        struct stat st {};
        if (::fstatat(level.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) {
                KTlog(Log(), 1, "%s: [%s] went away while the collection was read", Label().c_str(), shown.c_str());
                continue;
            }
            return CQiError::FromErrno(Label() + ": cannot inspect " + shown);
        }
        if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
            KTlog(Log(), 1, "%s: [%s] is neither a file nor a folder; not collected", Label().c_str(), shown.c_str());
            continue;
        }
        if (name.find('\\') != std::string::npos) {
            // Node names use the backslash as their separator; such a name would land elsewhere.
            KTlog(Log(), KTLOG_ALWAYS, "%s: [%s] holds a backslash in its name; not collected", Label().c_str(),
                  shown.c_str());
            continue;
        }

        node = SFileNode{};
        node.sName = level.prefix + name;
        node.ullNodeNumber = m_returned + 1;
        node.llSize = S_ISREG(st.st_mode) ? static_cast<long long>(st.st_size) : 0;
        node.ullAllocated = static_cast<unsigned long long>(st.st_blocks) * 512;
        node.llDataOffset = static_cast<long long>(m_dataOffset);
        node.ullChangeTime = Ns(st.st_ctim);
        node.ullAccessTime = Ns(st.st_atim);
        node.ullModifyTime = Ns(st.st_mtim);
        node.nAttributes = S_ISDIR(st.st_mode) ? FC_ATTRIBUTE_DIRECTORY : FC_ATTRIBUTE_NORMAL;
        if ((st.st_mode & 0222) == 0) node.nAttributes |= FC_ATTRIBUTE_READONLY;
        node.ullParentNumber = level.number;
        node.ullDataEnd = m_dataOffset + static_cast<unsigned long long>(node.llSize);
        node.nMode = st.st_mode;
        node.nUid = st.st_uid;
        node.nGid = st.st_gid;
        node.nLinks = static_cast<uint32_t>(st.st_nlink);
        node.ullFileId = st.st_ino;
        node.ullDevice = st.st_dev;

        if (S_ISDIR(st.st_mode)) {
            Level below;
            below.fd = Fd(::openat(level.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!below.fd.valid()) return CQiError::FromErrno(Label() + ": cannot enter folder " + shown);
            if (CQiError err = ListFolder(below.fd.get(), shown, below.names); err.IsError()) return err;
            below.number = node.ullNodeNumber;
            below.prefix = node.sName + "\\";
            m_levels.push_back(std::move(below));  // `level` is not used past this point
        } else {
            m_current.file = true;
            m_current.size = static_cast<unsigned long long>(node.llSize);
            m_current.parentFd = level.fd.get();
            m_current.name = name;
            m_current.device = st.st_dev;
            m_current.inode = st.st_ino;
        }
        m_current.number = node.ullNodeNumber;
        m_current.shown = shown;
        m_dataOffset = node.ullDataEnd;
        ++m_returned;
        return {};
    }
    // Only a collection read to here may be marked read in the stream.
    if (m_archive) m_archive->noteCollectionEnd();
    return CQiError::VS(VS_ERROR_END_OF_COLLECTION, Label() + ": no more nodes");
}

CQiError FolderCollection::ReadNode(SFileNode& node, char* buffer, unsigned long length, unsigned long& read) {
    read = 0;
    if (m_faultRead) return CQiError(m_faultRead, Label() + ": read failing with injected error");
    if (!m_open) return CQiError(EBADF, Label() + ": not open");
    if (node.ullNodeNumber == 0 || node.ullNodeNumber != m_current.number)
        return CQiError(EINVAL, Label() + ": node [" + node.sName + "] is not the node being read");
    Current& c = m_current;
    if (!c.file || c.delivered >= c.size || length == 0) return {};
    if (!buffer) return CQiError(EINVAL, Label() + ": read into no buffer");

    if (m_aheadPos == m_aheadLen) {
        if (!c.fd.valid()) {
            // Reading does not touch the access time where the file system lets us.
            int fd = ::openat(c.parentFd, c.name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME);
            if (fd < 0 && errno == EPERM) fd = ::openat(c.parentFd, c.name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
            if (fd < 0) return CQiError::FromErrno(Label() + ": cannot open " + c.shown);
            c.fd = Fd(fd);
            struct stat st {};
            if (::fstat(fd, &st) != 0) return CQiError::FromErrno(Label() + ": cannot inspect " + c.shown);
            if (!S_ISREG(st.st_mode) || st.st_ino != c.inode || st.st_dev != c.device)
                return CQiError::VS(VS_ERROR_NODE_CHANGED,
                                    Label() + ": " + c.shown + " was replaced after it was listed");
            ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        }
        const size_t want = static_cast<size_t>(std::min<unsigned long long>(m_ahead.size(), c.size - c.fetched));
        ssize_t n;
        do {
            n = ::read(c.fd.get(), m_ahead.data(), want);
        } while (n < 0 && errno == EINTR);
        if (n < 0) return CQiError::FromErrno(Label() + ": cannot read " + c.shown);
        if (n == 0)
            return CQiError::VS(VS_ERROR_NODE_CHANGED, Label() + ": " + c.shown + " ends at " +
                                                           std::to_string(c.fetched) + " bytes; " +
                                                           std::to_string(c.size) + " were listed");
        m_aheadPos = 0;
        m_aheadLen = static_cast<size_t>(n);
        c.fetched += static_cast<unsigned long long>(n);
    }
    const size_t n = std::min<size_t>(length, m_aheadLen - m_aheadPos);
    std::memcpy(buffer, m_ahead.data() + m_aheadPos, n);
    m_aheadPos += n;
    c.delivered += n;
    m_bytesRead += n;
    read = static_cast<unsigned long>(n);
    return {};
}

int FolderCollection::GetBuffer(SFileNode&, unsigned long length, char** buffer, unsigned long* got) {
    if (m_faultGetBuffer) {
        KTlog(Log(), 1, "%s: buffer failing with injected status [%d]", Label().c_str(), m_faultGetBuffer);
        return m_faultGetBuffer;
    }
    if (!m_archive) return vsArchive::kErrNotAttached;
    if (!buffer || !got) return vsArchive::kErrArgument;
    void* lent = nullptr;
    const int rc = m_archive->allocateBuffer(length, got, &lent);
    *buffer = static_cast<char*>(lent);
    return rc;
}

int FolderCollection::SendBuffer(SFileNode&, char* buffer, unsigned long length) {
    if (m_faultSendBuffer) {
        KTlog(Log(), 1, "%s: send failing with injected status [%d]", Label().c_str(), m_faultSendBuffer);
        return m_faultSendBuffer;
    }
    if (!m_archive) return vsArchive::kErrNotAttached;
    return m_archive->writeDataBuffer(buffer, length);
}

}  // namespace

CFileCollection::~CFileCollection() = default;

boost::shared_ptr<CFileCollection> CFileCollection::createFileCollectionInstance(DiskType_t diskType) {
    if (diskType != VS_DISK_TYPE_FOLDER) {
        KTlog(Log(), 1, "No file collection reads disks of type [%d]", diskType);
        return {};
    }
    try {
        return boost::shared_ptr<CFileCollection>(new FolderCollection(diskType));
    } catch (const std::bad_alloc&) {
        return {};
    }
}
