// Walking folders, matching names against wildcards, and the string helpers that the
// file-level reader builds its collect file with.
#include "hostapi/fileutil.h"

#include "files/foldernames.h"
#include "hostapi/filebackup.h"
#include "vshost/beneath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>

void FXString::Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts) {
    parts.clear();
    if (separator.empty()) {
        if (!text.empty()) parts.push_back(text);
        return;
    }
    size_t start = 0;
    for (;;) {
        const size_t pos = text.find(separator, start);
        const size_t end = pos == std::string::npos ? text.size() : pos;
        if (end > start) parts.push_back(text.substr(start, end - start));
        if (pos == std::string::npos) return;
        start = pos + separator.size();
    }
}

std::string FXString::ToUpper(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
}

namespace {

std::filesystem::path Normal(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return std::filesystem::path(path).lexically_normal();
}

// The walker and the link check serve the file-level reader, whose paths name files of
// mounted guest volumes: the folder of the volume holding `path` and the rest of the
// path below it. False for anything else (a relative path included), which is then
// never looked at.
bool SplitAtVolume(const std::string& path, std::string& root, std::string& relative) {
    if (!VMLivebrowse::FindVolumeOf(path, root)) return false;
    const std::filesystem::path rel = Normal(path).lexically_relative(Normal(root));
    relative = rel == "." ? std::string() : rel.string();
    return true;
}

}  // namespace

CQiError CQiPath::IsLink(const std::string& path, bool& isLink) {
    isLink = false;
    if (path.empty()) return {};
    std::string root, relative;
    if (!SplitAtVolume(path, root, relative)) return {};
    const size_t slash = relative.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : relative.substr(0, slash);
    const std::string name = slash == std::string::npos ? relative : relative.substr(slash + 1);
    vshost::Fd top(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top.valid()) return CQiError::FromErrno("open " + root);
    if (name.empty()) return {};  // the volume's own folder
    vshost::Fd dir(vshost::OpenBeneath(top.get(), parent, O_PATH | O_DIRECTORY));
    struct stat sb {};
    if (!dir.valid() || fstatat(dir.get(), name.c_str(), &sb, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return {};
        return CQiError::FromErrno("lstat " + path);
    }
    isLink = S_ISLNK(sb.st_mode);
    return {};
}

std::string CQiPath::Append(const std::string& folder, const std::string& name) {
    return FXPath::Join(folder, name);
}

namespace {

char Fold(char c, bool ignoreCase) {
    return ignoreCase && c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Walks the folder open at `fd` (consumed); `path` is its name for the callback. A
// subfolder that cannot be read is an error only with `stopOnError`; the top folder
// always is.
CQiError WalkFolder(int fd, const std::string& path, int levelsLeft, bool stopOnError, bool top, void* ctx,
                    CQiDirectory::WalkCallback callback) {
    const vshost::Fd owned(fd);
    const int dfd = fd;
    std::vector<std::string> names;
    if (const int err = vshost::FolderNames(dfd, names); err != 0)
        return stopOnError || top ? CQiError(err, "cannot list folder " + path) : CQiError{};
    for (const std::string& name : names) {
        struct stat sb {};
        if (fstatat(dfd, name.c_str(), &sb, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;  // gone since the folder was read
            CQiError err = CQiError::FromErrno("stat " + CQiPath::Append(path, name));
            if (stopOnError) return err;
            continue;
        }
        const bool isDir = S_ISDIR(sb.st_mode);
        CQiError err = callback(path.c_str(), name.c_str(), isDir, ctx);
        if (err.IsError()) return err;
        if (!isDir || levelsLeft == 0) continue;
        const std::string child = CQiPath::Append(path, name);
        const int sub = openat(dfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub < 0) {
            if (stopOnError) return CQiError::FromErrno("open " + child);
            continue;
        }
        err = WalkFolder(sub, child, levelsLeft < 0 ? -1 : levelsLeft - 1, stopOnError, false, ctx, callback);
        if (err.IsError()) return err;
    }
    return {};
}

}  // namespace

CQiError CQiDirectory::Walk(const std::string& path, void* ctx, int subDirLevel, bool stopOnError,
                            WalkCallback callback) {
    if (path.empty()) return CQiError(ENOENT, "walk of an empty path");
    if (path.find_first_not_of('/') == std::string::npos)
        return CQiError(EPERM, "refusing to walk the root folder " + path);
    if (!callback) return CQiError(EINVAL, "walk of " + path + " without a callback");
    std::string root, relative;
    if (!SplitAtVolume(path, root, relative))
        return CQiError(EPERM, "refusing to walk [" + path + "]: it is not in a mounted guest volume");
    vshost::Fd volume(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!volume.valid()) return CQiError::FromErrno("open " + root);
    const int fd = vshost::OpenBeneath(volume.get(), relative, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return CQiError::FromErrno("open " + path);
    std::string top = path;
    while (top.size() > 1 && top.back() == '/') top.pop_back();
    return WalkFolder(fd, top, subDirLevel, stopOnError, true, ctx, callback);
}

bool CQiDirectory::MatchWildcard(const std::string& name, const std::string& pattern, bool ignoreCase) {
    // Greedy match with one backtrack point: the last "*" seen.
    size_t n = 0, p = 0, starP = std::string::npos, starN = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starN = n;
        } else if (p < pattern.size() &&
                   (pattern[p] == '?' || Fold(pattern[p], ignoreCase) == Fold(name[n], ignoreCase))) {
            ++p;
            ++n;
        } else if (starP != std::string::npos) {
            p = starP + 1;
            n = ++starN;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}
