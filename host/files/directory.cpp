// Creating and removing folders and files.
#include "hostapi/fileutil.h"

#include "files/foldernames.h"
#include "hostapi/fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <memory>

namespace {

// Gives the owner full access to a folder so that its content can be removed.
void MakeOwnerAccessible(int parentFd, const char* name, const struct stat& sb) {
    if ((sb.st_mode & S_IRWXU) != S_IRWXU) fchmodat(parentFd, name, (sb.st_mode & 07777) | S_IRWXU, 0);
}

// Removes everything inside the folder open at `dirFd` (the descriptor is consumed).
// Works relative to descriptors opened with O_NOFOLLOW, so a link swapped in for a
// folder during the walk is removed as a link, never entered.
CQiError EmptyFolder(int dirFd, const std::string& path, bool force) {
    const vshost::Fd owned(dirFd);
    const int fd = dirFd;
    // Names are read first: removing entries while the folder is read may skip others.
    std::vector<std::string> names;
    if (const int err = vshost::FolderNames(fd, names); err != 0) return CQiError(err, "cannot list folder " + path);
    for (const std::string& name : names) {
        const std::string child = path + "/" + name;
        struct stat sb {};
        if (fstatat(fd, name.c_str(), &sb, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;  // removed by someone else meanwhile
            return CQiError::FromErrno("stat " + child);
        }
        if (S_ISDIR(sb.st_mode)) {
            if (force) MakeOwnerAccessible(fd, name.c_str(), sb);
            int sub = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0) return CQiError::FromErrno("open " + child);
            CQiError err = EmptyFolder(sub, child, force);
            if (err.IsError()) return err;
            if (unlinkat(fd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
                return CQiError::FromErrno("rmdir " + child);
        } else if (unlinkat(fd, name.c_str(), 0) != 0 && errno != ENOENT) {
            return CQiError::FromErrno("unlink " + child);
        }
    }
    return {};
}

}  // namespace

bool FXFolder::DoesFolderExist(const std::string& path) {
    return CQiPath::IsDirectory(path);
}

CQiError FXFolder::Create(const std::string& path, unsigned mode) {
    if (path.empty()) return CQiError(ENOENT, "mkdir of an empty path");
    // Every prefix ending before a '/', then the whole path.
    for (size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
        const std::string prefix = pos == std::string::npos ? path : path.substr(0, pos);
        if (mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0) {
            if (errno != EEXIST) return CQiError::FromErrno("mkdir " + prefix);
            if (!CQiPath::IsDirectory(prefix)) return CQiError(ENOTDIR, "mkdir " + prefix);
        }
        if (pos == std::string::npos) return {};
    }
}

CQiError CQiDirectory::Remove(const std::string& path, bool recursive, bool force) {
    if (path.empty()) return CQiError(ENOENT, "remove of an empty path");
    if (!recursive) {
        if (rmdir(path.c_str()) != 0 && !(force && errno == ENOENT)) return CQiError::FromErrno("rmdir " + path);
        return {};
    }
    if (path.find_first_not_of('/') == std::string::npos) return CQiError(EPERM, "refusing to remove " + path);
    struct stat sb {};
    if (lstat(path.c_str(), &sb) != 0) {
        if (force && errno == ENOENT) return {};
        return CQiError::FromErrno("stat " + path);
    }
    // A link is not a folder: its target lies outside what we were asked to remove.
    if (!S_ISDIR(sb.st_mode)) return CQiError(ENOTDIR, "remove " + path);
    if (force) MakeOwnerAccessible(AT_FDCWD, path.c_str(), sb);
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return CQiError::FromErrno("open " + path);
    CQiError err = EmptyFolder(fd, path, force);
    if (err.IsError()) return err;
    if (rmdir(path.c_str()) != 0) return CQiError::FromErrno("rmdir " + path);
    return {};
}

CQiError CQiFile::Delete(const std::string& path, bool force) {
    if (unlink(path.c_str()) != 0 && !(force && errno == ENOENT)) return CQiError::FromErrno("unlink " + path);
    return {};
}

CQiError CQiDirectory::Create(const char* path, bool recursive) {
    if (!path || !*path) return CQiError(ENOENT, "mkdir of an empty path");
    if (recursive) return FXFolder::Create(path, 0755);
    if (mkdir(path, 0755) == 0) return {};
    if (errno != EEXIST) return CQiError::FromErrno(std::string("mkdir ") + path);
    if (!CQiPath::IsDirectory(path)) return CQiError(ENOTDIR, std::string("mkdir ") + path);
    return {};
}
