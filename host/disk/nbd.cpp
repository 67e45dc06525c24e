#include "disk/nbd.h"

#include "disk/qemu.h"

#include <libnbd.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace vshost::vdisk {

namespace {

namespace fs = std::filesystem;

constexpr const char* kAllocation = "base:allocation";
constexpr uint64_t kMaxRequest = uint64_t{32} << 20;  // qemu-nbd's own limit on one request
constexpr uint64_t kStatusSpan = uint64_t{1} << 30;   // asked of block status at once
constexpr int kExitSeconds = 10;
constexpr uint64_t kAheadBytes = uint64_t{4} << 20;  // read ahead of the caller, at most

// The folder qemu-nbd's socket and the files it opens by name live in, for as long as
// it takes qemu to open them.
class PrivateDir {
public:
    explicit PrivateDir(const std::string& workDir) {
        std::error_code ec;
        std::string base = workDir;
        if (base.empty() || !fs::is_directory(base, ec)) {
            const char* tmp = std::getenv("TMPDIR");
            base = tmp && *tmp == '/' ? tmp : "/tmp";
        }
        std::string pattern = base + "/vsnbd-XXXXXX";
        if (::mkdtemp(pattern.data())) m_path = pattern;
    }
    ~PrivateDir() { Remove(); }
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;
    void Remove() {
        std::error_code ec;
        if (!m_path.empty()) fs::remove_all(m_path, ec);
        m_path.clear();
    }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

CQiError NbdError(const std::string& what) {
    const int err = nbd_get_errno();
    const char* text = nbd_get_error();
    return CQiError(err ? err : EIO, what + ": " + (text ? text : "unknown libnbd error"));
}

int OnExtents(void* data, const char* context, uint64_t offset, uint32_t* entries, size_t count, int*) {
    auto* runs = static_cast<std::vector<std::pair<uint64_t, uint32_t>>*>(data);
    if (std::strcmp(context, kAllocation) != 0) return 0;
    for (size_t i = 0; i + 1 < count; i += 2) {
        runs->emplace_back(offset, entries[i + 1]);
        offset += entries[i];
    }
    runs->emplace_back(offset, ~0u);  // the end of the last run
    return 0;
}

}  // namespace

CQiError NbdDisk::Open(diskchain::Chain chain, const std::string& workDir, std::unique_ptr<NbdDisk>& out) {
    out.reset();
    if (chain.images.empty()) return CQiError(EINVAL, "no image to read");
    std::unique_ptr<NbdDisk> disk(new NbdDisk);
    disk->m_name = chain.images.front().path;
    disk->m_chain = std::move(chain);
    if (CQiError err = disk->Start(workDir); err.IsError()) return err;
    out = std::move(disk);
    return {};
}

NbdDisk::~NbdDisk() {
    if (m_nbd) {
        DropAhead();
        nbd_shutdown(m_nbd, 0);
        nbd_close(m_nbd);
    } else if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);  // never connected: it would wait for a client forever
    }
    // Without --persistent, qemu-nbd ends when its one client has gone.
    if (m_pid > 0) qemu::Reap(m_pid, kExitSeconds);
}

CQiError NbdDisk::Start(const std::string& workDir) {
    std::string why;
    const std::string tool = qemu::Tool("qemu-nbd", why);
    if (tool.empty()) return CQiError(ENOENT, why);
    PrivateDir dir(workDir);
    if (dir.path().empty()) return CQiError::FromErrno("make a folder for qemu-nbd in " + workDir);

    // Each image's node names its file and its backing node; the base's backing is null,
    // so qemu follows no name an image holds. Text descriptors are read from a copy of
    // the text checked, beside links to the extent files opened beneath the volume.
    std::vector<int> inherit = {-1};  // the listening socket comes first
    auto childPath = [&](int fd, const std::string& path) {
        inherit.push_back(fd);
        m_files.push_back(File{fd, 0, path});
        return qemu::ChildFdPath(qemu::kFirstChildFd + static_cast<int>(inherit.size()) - 1);
    };
    nlohmann::json node = nullptr;
    for (size_t i = m_chain.images.size(); i-- > 0;) {
        const diskchain::Image& image = m_chain.images[i];
        nlohmann::json file = {{"driver", "file"}, {"locking", "off"}};
        if (image.TextDescriptor()) {
            const fs::path folder = fs::path(dir.path()) / std::to_string(i);
            const fs::path copy = folder / fs::path(image.path).filename();
            std::error_code ec;
            fs::create_directories(folder, ec);
            std::ofstream(copy, std::ios::binary) << image.descriptorText;
            for (size_t k = 0; k < image.descriptor.extents.size(); ++k) {
                if (image.descriptor.extents[k].IsZero()) continue;
                const fs::path link = folder / image.descriptor.extents[k].name;
                fs::create_directories(link.parent_path(), ec);
                fs::create_symlink(childPath(image.extentFds[k].get(), image.descriptor.extents[k].file), link, ec);
                if (ec) return CQiError(ec.value(), "link " + link.string() + " for qemu-nbd: " + ec.message());
            }
            file["filename"] = copy.string();
        } else {
            file["filename"] = childPath(image.fd.get(), image.path);
        }
        nlohmann::json next = {{"driver", diskchain::DriverOf(image.format)}, {"file", file}};
        if (image.format != diskchain::Format::Raw) next["backing"] = node;
        node = std::move(next);
    }
    node["read-only"] = true;
    for (File& f : m_files) {
        struct stat st {};
        if (::fstat(f.fd, &st) != 0) return CQiError::FromErrno("stat " + f.path);
        f.size = static_cast<uint64_t>(st.st_size);
    }

    const Fd dirFd(::open(dir.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::string socketPath = dir.path() + "/nbd.sock";
    sockaddr_un address{};
    if (socketPath.size() >= sizeof address.sun_path)  // a deep results folder: reach it through its descriptor
        socketPath = "/proc/self/fd/" + std::to_string(dirFd.get()) + "/nbd.sock";
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    address.sun_family = AF_UNIX;
    Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.valid() || ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 1) != 0)
        return CQiError::FromErrno("make the socket " + dir.path() + "/nbd.sock for qemu-nbd");
    const std::string logPath = dir.path() + "/qemu-nbd.log";
    const Fd log(::open(logPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!log.valid()) return CQiError::FromErrno("make " + logPath);

    inherit[0] = listener.get();
    qemu::SpawnSpec spec;
    spec.argv = {tool, "--read-only", std::string("--format=") + diskchain::DriverOf(m_chain.images.front().format),
                 "--shared=1", "json:" + node.dump()};
    spec.inherit = inherit;
    spec.err = log.get();
    spec.socketActivation = true;
    m_pid = qemu::Spawn(spec, why);
    if (m_pid < 0) return CQiError(EIO, why);
    // Only qemu-nbd holds the socket now: should it end without serving, the connection
    // is refused instead of waiting for it.
    listener.Reset();
    CQiError err = Connect(socketPath, logPath);
    dir.Remove();  // qemu has every file open; nothing is left behind should the data mover die
    return err;
}

CQiError NbdDisk::Connect(const std::string& socketPath, const std::string& logPath) {
    m_nbd = nbd_create();
    if (!m_nbd) return NbdError("libnbd");
    if (nbd_add_meta_context(m_nbd, kAllocation) != 0 || nbd_connect_unix(m_nbd, socketPath.c_str()) != 0) {
        std::ifstream in(logPath);
        std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        said.resize(std::min<size_t>(said.size(), 4096));
        while (!said.empty() && (said.back() == '\n' || said.back() == ' ')) said.pop_back();
        // qemu names files by the descriptors it was given; say which files they are.
        for (size_t i = 0; i < m_files.size(); ++i) {
            const std::string alias = qemu::ChildFdPath(qemu::kFirstChildFd + 1 + static_cast<int>(i));
            for (size_t at = said.find(alias); at != std::string::npos; at = said.find(alias, at + 1))
                said.replace(at, alias.size(), m_files[i].path);
        }
        const CQiError failed = NbdError("qemu-nbd cannot serve " + m_name);
        nbd_close(m_nbd);
        m_nbd = nullptr;
        return said.empty() ? failed : CQiError(EIO, "qemu-nbd cannot serve " + m_name + ": " + said);
    }
    if (nbd_can_meta_context(m_nbd, kAllocation) != 1)
        return CQiError(ENOTSUP, "qemu-nbd gives no allocation of " + m_name + ": its holes could not be skipped");
    const int64_t size = nbd_get_size(m_nbd);
    if (size < 0) return NbdError("size of " + m_name);
    m_size = static_cast<uint64_t>(size);
    if (m_size != m_chain.Size())
        return CQiError(EIO, "qemu reads " + std::to_string(m_size) + " bytes of disk from " + m_name +
                                 ", its header or descriptor says " + std::to_string(m_chain.Size()));
    const int64_t maxRequest = nbd_get_block_size(m_nbd, LIBNBD_SIZE_MAXIMUM);
    m_maxRequest = maxRequest > 0 ? std::min<uint64_t>(static_cast<uint64_t>(maxRequest), kMaxRequest) : kMaxRequest;
    return {};
}

CQiError NbdDisk::CheckFiles() const {
    for (const File& f : m_files) {
        struct stat st {};
        if (::fstat(f.fd, &st) != 0) return CQiError::FromErrno("stat " + f.path);
        if (static_cast<uint64_t>(st.st_size) < f.size)
            return CQiError(EIO, f.path + " holds " + std::to_string(st.st_size) + " bytes, it held " +
                                     std::to_string(f.size) + " when " + m_name +
                                     " was opened: the image was cut short while it was read");
    }
    return {};
}

CQiError NbdDisk::ReadNow(char* dest, uint64_t offset, uint64_t length) {
    for (uint64_t done = 0; done < length;) {
        const uint64_t n = std::min(length - done, m_maxRequest);
        if (nbd_pread(m_nbd, dest + done, n, offset + done, 0) != 0)
            return NbdError("read " + m_name + " at " + std::to_string(offset + done) + " through qemu-nbd");
        done += n;
    }
    return {};
}

CQiError NbdDisk::Await(const Ahead& ahead) {
    int done = 0;
    while ((done = nbd_aio_command_completed(m_nbd, static_cast<uint64_t>(ahead.cookie))) == 0)
        if (nbd_poll(m_nbd, -1) < 0) break;
    if (done == 1) return {};
    return NbdError("read " + m_name + " at " + std::to_string(ahead.offset) + " through qemu-nbd");
}

void NbdDisk::DropAhead() {
    // A read in flight writes into its buffer until it completes: each is waited for.
    for (Ahead& ahead : m_ahead) {
        (void)Await(ahead);
        m_spare.push_back(std::move(ahead.data));
    }
    m_ahead.clear();
}

void NbdDisk::SendAhead(uint64_t from, uint64_t length) {
    const size_t depth = static_cast<size_t>(std::max<uint64_t>(1, kAheadBytes / length));
    uint64_t next = m_ahead.empty() ? from : m_ahead.back().offset + m_ahead.back().length;
    while (m_ahead.size() < depth && next < m_size) {
        std::optional<uint64_t> data;
        if (NextData(next, data).IsError() || !data) return;
        Ahead ahead;
        ahead.offset = std::max(next, *data / length * length);
        ahead.length = std::min(length, m_size - ahead.offset);
        if (!m_spare.empty()) {
            ahead.data = std::move(m_spare.back());
            m_spare.pop_back();
        }
        ahead.data.resize(ahead.length);
        ahead.cookie = nbd_aio_pread(m_nbd, ahead.data.data(), ahead.length, ahead.offset, NBD_NULL_COMPLETION, 0);
        if (ahead.cookie < 0) return;
        next = ahead.offset + ahead.length;
        m_ahead.push_back(std::move(ahead));
    }
}

CQiError NbdDisk::Read(char* dest, uint64_t offset, uint64_t length) {
    if (offset + length > m_size || offset + length < offset) return CQiError(EINVAL, "read past the end of the disk");
    CQiError err;
    if (!m_ahead.empty() && m_ahead.front().offset == offset && m_ahead.front().length == length) {
        err = Await(m_ahead.front());
        if (!err.IsError()) std::memcpy(dest, m_ahead.front().data.data(), length);
        m_spare.push_back(std::move(m_ahead.front().data));
        m_ahead.pop_front();
    } else {
        DropAhead();  // the caller went elsewhere
        err = ReadNow(dest, offset, length);
    }
    if (err.IsError()) {
        DropAhead();
        return err;
    }
    if (length > 0 && length <= m_maxRequest && offset % length == 0) SendAhead(offset + length, length);
    return CheckFiles();
}

CQiError NbdDisk::Status(uint64_t from) {
    std::vector<std::pair<uint64_t, uint32_t>> marks;  // where each run starts, and its flags
    nbd_extent_callback callback{};
    callback.callback = OnExtents;
    callback.user_data = &marks;
    if (nbd_block_status(m_nbd, std::min(m_size - from, kStatusSpan), from, callback, 0) != 0)
        return NbdError("allocation of " + m_name + " at " + std::to_string(from));
    m_runs.clear();
    for (size_t i = 0; i + 1 < marks.size(); ++i)
        m_runs.push_back(
            Run{marks[i].first, std::min(marks[i + 1].first, m_size), (marks[i].second & LIBNBD_STATE_ZERO) == 0});
    if (m_runs.empty() || m_runs.front().start > from || m_runs.back().end <= from)
        return CQiError(EIO, "qemu-nbd gave no allocation of " + m_name + " at " + std::to_string(from));
    return {};
}

CQiError NbdDisk::NextData(uint64_t from, std::optional<uint64_t>& next) {
    next.reset();
    for (uint64_t pos = from; pos < m_size;) {
        if (m_runs.empty() || pos < m_runs.front().start || pos >= m_runs.back().end)
            if (CQiError err = Status(pos); err.IsError()) return err;
        for (const Run& run : m_runs)
            if (run.end > pos && run.data) {
                next = std::max(pos, run.start);
                return CheckFiles();
            }
        pos = m_runs.back().end;
    }
    return CheckFiles();
}

}  // namespace vshost::vdisk
