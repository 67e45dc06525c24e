// Path components and descriptor-relative creation below the restore folder.
#include "safepath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace vsstream {
namespace {

bool IsSeparator(char c) {
    return c == '\\' || c == '/';
}

bool SplitRelative(std::string_view rest, std::string_view whole, PathParts& parts, std::string& why) {
    parts.clear();
    if (rest.empty()) {
        why = "name [" + std::string(whole) + "] has no components";
        return false;
    }
    size_t start = 0;
    for (size_t i = 0; i <= rest.size(); ++i) {
        if (i < rest.size() && !IsSeparator(rest[i])) continue;
        const std::string_view c = rest.substr(start, i - start);
        if (c.empty() || c == "." || c == ".." || c.find('\0') != std::string_view::npos) {
            why = "name [" + std::string(whole) + "] is not a plain relative name";
            return false;
        }
        parts.emplace_back(c);
        start = i + 1;
    }
    return true;
}

std::string Errno(int err) {
    return std::string(std::strerror(err));
}

}  // namespace

bool SplitEntryPath(std::string_view path, PathParts& parts, std::string& why) {
    if (path.empty() || path.front() != '\\') {
        why = "entry name [" + std::string(path) + "] does not begin with a backslash";
        return false;
    }
    return SplitRelative(path.substr(1), path, parts, why);
}

bool SplitClientPath(std::string_view path, PathParts& parts, std::string& why) {
    size_t i = 0;
    while (i < path.size() && IsSeparator(path[i])) ++i;
    return SplitRelative(path.substr(i), path, parts, why);
}

std::string JoinParts(const PathParts& parts, size_t count) {
    std::string out;
    for (size_t i = 0; i < count && i < parts.size(); ++i) out += (i ? "/" : "") + parts[i];
    return out;
}

bool SafeRoot::Open(const std::string& dir, std::string& why) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    m_root = Fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_root.valid()) {
        why = "cannot open restore folder " + dir + ": " + Errno(errno);
        return false;
    }
    return true;
}

Fd SafeRoot::Folder(const PathParts& parts, size_t count, std::string& why) {
    Fd dir(::dup(m_root.get()));
    for (size_t i = 0; i < count && dir.valid(); ++i) {
        const char* name = parts[i].c_str();
        const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        int fd = ::openat(dir.get(), name, flags);
        if (fd < 0 && errno == ENOTDIR && m_replaceable.count(JoinParts(parts, i + 1))) {
            // An empty file this run made; the stream now needs a folder there.
            if (::unlinkat(dir.get(), name, 0) == 0) {
                m_replaceable.erase(JoinParts(parts, i + 1));
                ++m_replaced;
            }
            errno = ENOENT;
        }
        if (fd < 0 && errno == ENOENT) {
            if (::mkdirat(dir.get(), name, 0755) != 0 && errno != EEXIST) {
                why = "cannot make folder " + JoinParts(parts, i + 1) + ": " + Errno(errno);
                return Fd();
            }
            fd = ::openat(dir.get(), name, flags);
        }
        if (fd < 0) {
            const int err = errno;
            struct stat st {};
            const bool link = ::fstatat(dir.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
            why = "cannot enter folder " + JoinParts(parts, i + 1) + ": " +
                  (link ? std::string("it is a symbolic link") : Errno(err));
            return Fd();
        }
        dir = Fd(fd);
    }
    if (!dir.valid() && why.empty()) why = "cannot open the restore folder: " + Errno(errno);
    return dir;
}

Fd SafeRoot::CreateFile(const PathParts& parts, mode_t mode, std::string& why) {
    Fd dir = Folder(parts, parts.size() - 1, why);
    if (!dir.valid()) return dir;
    const char* name = parts.back().c_str();
    if (::unlinkat(dir.get(), name, 0) != 0 && errno != ENOENT) {
        why = "cannot replace " + JoinParts(parts, parts.size()) + ": " + Errno(errno);
        return Fd();
    }
    m_replaceable.erase(JoinParts(parts, parts.size()));
    Fd fd(::openat(dir.get(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd.valid()) why = "cannot create " + JoinParts(parts, parts.size()) + ": " + Errno(errno);
    return fd;
}

Fd SafeRoot::OpenImage(const PathParts& parts, bool& fresh, std::string& why) {
    Fd dir = Folder(parts, parts.size() - 1, why);
    if (!dir.valid()) return dir;
    const char* name = parts.back().c_str();
    const std::string shown = JoinParts(parts, parts.size());
    fresh = true;
    Fd fd(::openat(dir.get(), name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.valid() || errno != EEXIST) {
        if (!fd.valid()) why = "cannot create " + shown + ": " + Errno(errno);
        return fd;
    }
    fresh = false;
    fd = Fd(::openat(dir.get(), name, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        why = "cannot open " + shown + ": " + (errno == ELOOP ? std::string("it is a symbolic link") : Errno(errno));
        return Fd();
    }
    if (!S_ISREG(st.st_mode) || st.st_nlink != 1) {
        why = "will not update " + shown + ": not a regular file with a single link";
        return Fd();
    }
    return fd;
}

bool SafeRoot::ReadText(const PathParts& parts, std::string& text, size_t max) {
    std::string ignored;
    Fd dir = Folder(parts, parts.size() - 1, ignored);
    if (!dir.valid()) return false;
    Fd fd(::openat(dir.get(), parts.back().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    text.clear();
    char buf[4096];
    while (text.size() < max) {
        const ssize_t n = ::read(fd.get(), buf, std::min(sizeof buf, max - text.size()));
        if (n < 0) return false;
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    return true;
}

bool SafeRoot::IsFile(const PathParts& parts) {
    std::string ignored;
    Fd parent = Folder(parts, parts.size() - 1, ignored);
    struct stat st {};
    return parent.valid() && ::fstatat(parent.get(), parts.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(st.st_mode);
}

bool SafeRoot::Publish(const PathParts& parts, const std::string& text, std::string& why) {
    Fd dir = Folder(parts, parts.size() - 1, why);
    if (!dir.valid()) return false;
    const std::string shown = JoinParts(parts, parts.size());
    const std::string aside = "." + parts.back() + ".part";
    ::unlinkat(dir.get(), aside.c_str(), 0);
    Fd fd(::openat(dir.get(), aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    bool ok = fd.valid() && ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
              ::fsync(fd.get()) == 0 && ::renameat(dir.get(), aside.c_str(), dir.get(), parts.back().c_str()) == 0;
    if (ok && ::fsync(dir.get()) != 0 && errno != EINVAL) ok = false;
    if (!ok) {
        why = "cannot write " + shown + ": " + Errno(errno);
        ::unlinkat(dir.get(), aside.c_str(), 0);
        return false;
    }
    m_replaceable.erase(shown);
    return true;
}

void SafeRoot::Remove(const PathParts& parts) {
    std::string ignored;
    Fd dir = Folder(parts, parts.size() - 1, ignored);
    if (dir.valid()) ::unlinkat(dir.get(), parts.back().c_str(), 0);
}

bool SafeRoot::IsFolder(const PathParts& parts) {
    std::string ignored;
    Fd parent = Folder(parts, parts.size() - 1, ignored);
    struct stat st {};
    return parent.valid() && ::fstatat(parent.get(), parts.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(st.st_mode);
}

}  // namespace vsstream
