// Restored disk images in raw, VMDK (monolithic flat) and qcow2 form.
#include "imagesink.h"

#include "hostapi/zeroscan.h"

#include <libnbd.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vsstream {

namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kSector = 512;
constexpr uint64_t kZeroSpan = uint64_t{1} << 30;  // asked of qemu-nbd at once

std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// The name without an image extension of its own (".vmdk", ".qcow2", ".img", ".raw").
std::string Stem(const std::string& name) {
    const size_t dot = name.rfind('.');
    const size_t slash = name.find_last_of("\\/");
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return name;
    const std::string ext = Lower(name.substr(dot));
    return ext == ".vmdk" || ext == ".qcow2" || ext == ".img" || ext == ".raw" ? name.substr(0, dot) : name;
}

// Calls `write(from, length)` for each run of `data` that holds something other than
// zeros, in 4 KiB blocks of the image (its unit of allocation).
template <class Write>
bool ForEachDataRun(const char* data, uint64_t length, uint64_t at, Write&& write) {
    uint64_t runStart = 0, done = 0;
    bool inRun = false;
    while (done < length) {
        const uint64_t n = std::min(length - done, kBlock - (at + done) % kBlock);
        const bool zero = IsZeroFilled(data + done, n);
        if (!zero && !inRun) {
            runStart = done;
            inRun = true;
        } else if (zero && inRun) {
            if (!write(runStart, done - runStart)) return false;
            inRun = false;
        }
        done += n;
    }
    return !inRun || write(runStart, length - runStart);
}

class Raw final : public ImageSink {
public:
    explicit Raw(vshost::Fd fd) : m_fd(std::move(fd)) {}
    bool Write(const char* data, uint64_t length, uint64_t at, bool sparse) override {
        const int fd = m_fd.get();
        const bool ok = sparse ? ForEachDataRun(data, length, at,
                                                [&](uint64_t from, uint64_t n) {
                                                    return vshost::PwriteAll(fd, data + from, n, at + from);
                                                })
                               : vshost::PwriteAll(fd, data, length, at);
        return ok || Fail(std::strerror(errno));
    }
    bool Zero(uint64_t at, uint64_t length) override {
        if (length == 0) return true;
        if (::fallocate(m_fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                        static_cast<off_t>(length)) == 0)
            return true;
        if (errno != EOPNOTSUPP && errno != ENOSYS) return Fail(std::strerror(errno));
        // A file system that cannot punch holes gets zeros.
        static const char zeros[64 * 1024] = {};
        while (length > 0) {
            const uint64_t n = std::min<uint64_t>(length, sizeof zeros);
            if (!vshost::PwriteAll(m_fd.get(), zeros, n, at)) return Fail(std::strerror(errno));
            at += n;
            length -= n;
        }
        return true;
    }
    bool Resize(uint64_t size) override {
        return ::ftruncate(m_fd.get(), static_cast<off_t>(size)) == 0 || Fail(std::strerror(errno));
    }
    bool Sync() override { return ::fdatasync(m_fd.get()) == 0 || Fail(std::strerror(errno)); }

private:
    vshost::Fd m_fd;
};

class Qcow2 final : public ImageSink {
public:
    explicit Qcow2(vshost::Fd fd) : m_fd(std::move(fd)) {}
    ~Qcow2() override { Disconnect(); }
    Qcow2(const Qcow2&) = delete;
    Qcow2& operator=(const Qcow2&) = delete;

    bool Make(bool fresh, uint64_t size) {
        std::string why;
        const std::string tool = FindTool("qemu-img");
        if (tool.empty()) return Fail("qemu-img is not installed (Debian package qemu-utils)");
        if (fresh &&
            !RunWithFd({tool, "create", "-q", "-f", "qcow2", "/proc/self/fd/3", std::to_string(size)}, m_fd.get(), why))
            return Fail("qemu-img create: " + why);
        return Connect();
    }
    bool Write(const char* data, uint64_t length, uint64_t at, bool sparse) override {
        auto write = [&](uint64_t from, uint64_t n) {
            return n == 0 || nbd_pwrite(m_nbd, data + from, n, at + from, 0) == 0 || NbdFail("write");
        };
        return sparse ? ForEachDataRun(data, length, at, write) : write(0, length);
    }
    bool Zero(uint64_t at, uint64_t length) override {
        // Without NO_HOLE, qemu may deallocate the range: zeros cost the image nothing.
        for (uint64_t done = 0; done < length;) {
            const uint64_t n = std::min(length - done, kZeroSpan);
            if (nbd_zero(m_nbd, n, at + done, 0) != 0) return NbdFail("zero");
            done += n;
        }
        return true;
    }
    bool Resize(uint64_t size) override {
        if (size == m_size) return true;
        // qemu-nbd cannot change the size it serves: the image is resized between two.
        Disconnect();
        std::string why;
        if (!RunWithFd({FindTool("qemu-img"), "resize", "-q", "-f", "qcow2", "--shrink", "/proc/self/fd/3",
                        std::to_string(size)},
                       m_fd.get(), why))
            return Fail("qemu-img resize: " + why);
        return Connect();
    }
    bool Sync() override { return nbd_flush(m_nbd, 0) == 0 || NbdFail("flush"); }

private:
    bool NbdFail(const char* what) {
        const char* text = nbd_get_error();
        return Fail(std::string(what) + " through qemu-nbd: " + (text ? text : "unknown error"));
    }
    bool Connect() {
        const std::string tool = FindTool("qemu-nbd");
        if (tool.empty()) return Fail("qemu-nbd is not installed (Debian package qemu-utils)");
        if (!(m_nbd = nbd_create())) return NbdFail("start");
        // libnbd starts qemu-nbd with its socket as descriptor 3 and lets it inherit the
        // rest: the image goes along as a descriptor above that, for this start only.
        const vshost::Fd passed(::fcntl(m_fd.get(), F_DUPFD, 10));
        if (!passed.valid()) return Fail(std::strerror(errno));
        const std::string path = "/proc/self/fd/" + std::to_string(passed.get());
        std::vector<std::string> args = {tool, "--format=qcow2", "--discard=unmap", "--cache=writeback", path};
        std::vector<char*> argv = Argv(args);
        if (nbd_connect_systemd_socket_activation(m_nbd, argv.data()) != 0) return NbdFail("connect");
        const int64_t size = nbd_get_size(m_nbd);
        if (size < 0) return NbdFail("size");
        m_size = static_cast<uint64_t>(size);
        return true;
    }
    void Disconnect() {
        if (!m_nbd) return;
        // Without --persistent, qemu-nbd ends when its one client has gone.
        nbd_shutdown(m_nbd, 0);
        nbd_close(m_nbd);
        m_nbd = nullptr;
    }

    vshost::Fd m_fd;
    nbd_handle* m_nbd = nullptr;
    uint64_t m_size = 0;
};

}  // namespace

bool ImageSink::Fail(std::string why) {
    m_error = std::move(why);
    return false;
}

bool ParseImageFormat(const std::string& text, ImageFormat& format) {
    for (ImageFormat f : {ImageFormat::Native, ImageFormat::Raw, ImageFormat::Vmdk, ImageFormat::Qcow2})
        if (text == ImageFormatName(f)) {
            format = f;
            return true;
        }
    return false;
}

const char* ImageFormatName(ImageFormat format) {
    switch (format) {
        case ImageFormat::Native:
            return "native";
        case ImageFormat::Raw:
            return "raw";
        case ImageFormat::Vmdk:
            return "vmdk";
        case ImageFormat::Qcow2:
            return "qcow2";
    }
    return "?";
}

ImageFormat NativeFormat(const std::string& diskName) {
    const std::string lower = Lower(diskName);
    if (lower.ends_with(".vmdk")) return ImageFormat::Vmdk;
    if (lower.ends_with(".qcow2")) return ImageFormat::Qcow2;
    return ImageFormat::Raw;
}

ImageNames NamesFor(const std::string& name, ImageFormat format) {
    switch (format) {
        case ImageFormat::Vmdk:
            return {Stem(name) + "-flat.vmdk", Stem(name) + ".vmdk"};
        case ImageFormat::Qcow2:
            return {Stem(name) + ".qcow2", ""};
        default:
            // A raw disk keeps its name; any other is not given the name of a format it
            // is not in.
            return {NativeFormat(name) == ImageFormat::Raw ? name : Stem(name) + ".img", ""};
    }
}

std::string FlatDescriptor(uint64_t size, const std::string& flatName) {
    const uint64_t sectors = (size + kSector - 1) / kSector;
    // The geometry a BIOS would report for the disk, as VMware's tools compute it.
    const uint64_t cylinders = std::min<uint64_t>(sectors / (uint64_t{16} * 63), 16383);
    return "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType=\"monolithicFlat\"\n\n"
           "# Extent description\nRW " +
           std::to_string(sectors) + " FLAT \"" + flatName +
           "\" 0\n\n# The Disk Data Base\n#DDB\n\nddb.virtualHWVersion = \"4\"\nddb.geometry.cylinders = \"" +
           std::to_string(cylinders) +
           "\"\nddb.geometry.heads = \"16\"\nddb.geometry.sectors = \"63\"\nddb.adapterType = \"lsilogic\"\n";
}

std::unique_ptr<ImageSink> RawSink(vshost::Fd fd) {
    return std::make_unique<Raw>(std::move(fd));
}

std::unique_ptr<ImageSink> Qcow2Sink(vshost::Fd fd, bool fresh, uint64_t size, std::string& why) {
    auto sink = std::make_unique<Qcow2>(std::move(fd));
    if (sink->Make(fresh, size)) return sink;
    why = sink->error();
    return nullptr;
}

std::string FindTool(const std::string& tool) {
    const char* env = std::getenv("PATH");
    const std::string path = std::string(env && *env ? env : "") + ":/usr/bin:/bin";
    for (size_t start = 0; start <= path.size();) {
        size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        const std::string dir = path.substr(start, end - start);
        start = end + 1;
        if (dir.empty() || dir.front() != '/') continue;  // a relative entry depends on the folder we run in
        if (::access((dir + "/" + tool).c_str(), X_OK) == 0) return dir + "/" + tool;
    }
    return {};
}

std::vector<char*> Argv(std::vector<std::string>& args) {
    std::vector<char*> argv(args.size() + 1, nullptr);
    std::transform(args.begin(), args.end(), argv.begin(), [](std::string& a) { return a.data(); });
    return argv;
}

bool RunWithFd(const std::vector<std::string>& argv, int fd, std::string& why) {
    if (argv.empty() || argv[0].empty()) {
        why = "not installed";
        return false;
    }
    // Above 3, so that placing it at 3 never lands on itself (and keeps its close-on-exec).
    const vshost::Fd high(::fcntl(fd, F_DUPFD_CLOEXEC, 10));
    const vshost::Fd err(::memfd_create("vsstream-tool", MFD_CLOEXEC));
    if (!high.valid() || !err.valid()) {
        why = std::strerror(errno);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, err.get(), 2);
    posix_spawn_file_actions_adddup2(&actions, high.get(), 3);
    std::vector<std::string> args = argv;
    std::vector<char*> cargs = Argv(args);
    std::string lcAll = "LC_ALL=C", pathEnv = "PATH=/usr/bin:/bin";
    char* envp[] = {lcAll.data(), pathEnv.data(), nullptr};
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, cargs[0], &actions, nullptr, cargs.data(), envp);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        why = "cannot start " + argv[0] + ": " + std::strerror(rc);
        return false;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    char said[4096];
    const ssize_t n = ::pread(err.get(), said, sizeof said, 0);
    why.assign(said, n > 0 ? static_cast<size_t>(n) : 0);
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
    if (why.empty()) why = argv[0] + " failed";
    return false;
}

}  // namespace vsstream
