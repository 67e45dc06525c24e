#include "vshost/beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace vshost {

int OpenBeneath(int root, const std::string& relative, int flags) {
    const char* path = relative.empty() ? "." : relative.c_str();
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const long fd = syscall(SYS_openat2, root, path, &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS) return static_cast<int>(fd);
    Fd dir(::dup(root));
    std::string rest = relative;
    while (dir.valid()) {
        const size_t slash = rest.find('/');
        const std::string part = rest.substr(0, slash);
        if (part == "..") {
            errno = EXDEV;
            return -1;
        }
        if (slash == std::string::npos)
            return ::openat(dir.get(), part.empty() ? "." : part.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
        dir = Fd(::openat(dir.get(), part.empty() ? "." : part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        rest = rest.substr(slash + 1);
    }
    return -1;
}

namespace snapfile {

namespace {

Fd Refuse(std::string& why, std::string reason, int err) {
    why = std::move(reason);
    errno = err;
    return Fd();
}

}  // namespace

Fd Open(const std::string& root, const std::string& path, std::string& why) {
    std::string base = root;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (path.size() <= base.size() + 1 || path.compare(0, base.size(), base) != 0 ||
        (base != "/" && path[base.size()] != '/'))
        return Refuse(why, path + ": lies outside " + root, EXDEV);
    const std::string relative = path.substr(base == "/" ? 1 : base.size() + 1);

    Fd dir(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return Refuse(why, root + ": cannot be opened: " + std::strerror(errno), errno);
    // Non-blocking, so that a FIFO (or a device) put in place of a file cannot stall the
    // open; what was opened is looked at before anything is read from it.
    Fd fd(OpenBeneath(dir.get(), relative, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!fd.valid()) {
        const int err = errno;
        if (err == EXDEV) return Refuse(why, path + ": leads out of " + root + " (through a link or ..)", err);
        if (err == ELOOP) return Refuse(why, path + ": is reached through a symbolic link", err);
        return Refuse(why, path + ": cannot be opened: " + std::strerror(err), err);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return Refuse(why, path + ": cannot be examined: " + std::strerror(errno), errno);
    if (!S_ISREG(st.st_mode)) return Refuse(why, path + ": not a regular file", EINVAL);
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return Refuse(why, path + ": cannot be set to blocking reads: " + std::strerror(errno), errno);
    return fd;
}

bool ReadText(const std::string& root, const std::string& path, std::string& text, std::string& why, uint64_t cap) {
    text.clear();
    Fd fd = Open(root, path, why);
    if (!fd.valid()) return false;
    struct stat st {};
    const std::string limit = " bytes a text file of a snapshot may hold";
    if (::fstat(fd.get(), &st) == 0 && static_cast<uint64_t>(st.st_size) > cap) {
        why = path + ": holds " + std::to_string(st.st_size) + " bytes, more than the " + std::to_string(cap) + limit;
        errno = EFBIG;
        return false;
    }
    // The file may grow while it is read: never more than the cap is taken in.
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            why = path + ": cannot be read: " + std::strerror(errno);
            return false;
        }
        if (n == 0) return true;
        if (text.size() + static_cast<uint64_t>(n) > cap) {
            why = path + ": grew past the " + std::to_string(cap) + limit + " while it was read";
            errno = EFBIG;
            return false;
        }
        text.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace snapfile
}  // namespace vshost
