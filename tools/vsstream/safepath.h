// Turning stream names into places below the restore folder, without ever leaving it.
// Names are split at backslashes and slashes alike; a component that is empty, "." or
// "..", or holds a NUL byte, refuses the whole name. Folders are entered one component
// at a time with O_NOFOLLOW, so a symbolic link anywhere below the restore folder (one
// an earlier run or another user left there) stops the walk instead of leading out.
#pragma once

#include "hostapi/fd.h"

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace vsstream {

using PathParts = std::vector<std::string>;

// An entry name in the stream's form "\vm\disk\...": one leading backslash, then
// relative components.
bool SplitEntryPath(std::string_view path, PathParts& parts, std::string& why);
// A file-level client path ("/etc/hosts", "C:\Users\a.txt"): its leading separators
// are dropped, so it lands below the restore folder as "etc/hosts", "C:/Users/a.txt".
bool SplitClientPath(std::string_view path, PathParts& parts, std::string& why);
std::string JoinParts(const PathParts& parts, size_t count);

using Fd = vshost::Fd;

class SafeRoot {
public:
    // Creates `dir` (and its parents) when missing and holds it open.
    bool Open(const std::string& dir, std::string& why);

    // The folder made of the first `count` parts, created as needed.
    Fd Folder(const PathParts& parts, size_t count, std::string& why);
    // A new, empty regular file at `parts`, replacing a file already there (never
    // writing through it: it may be a hard link to something outside).
    Fd CreateFile(const PathParts& parts, mode_t mode, std::string& why);
    // A disk image to update in place: opened when it is a regular file with one link,
    // else created; `fresh` tells which.
    Fd OpenImage(const PathParts& parts, bool& fresh, std::string& why);
    bool IsFolder(const PathParts& parts);
    // The content of a small regular file (its first `max` bytes); false when there is none.
    bool ReadText(const PathParts& parts, std::string& text, size_t max = 4096);
    bool IsFile(const PathParts& parts);
    // Removes a file, if there is one.
    void Remove(const PathParts& parts);
    // Puts `text` at `parts` durably: written aside, synced, renamed over the name, and
    // the folder synced, so that a power loss leaves the old file or the new one.
    bool Publish(const PathParts& parts, const std::string& text, std::string& why);

    // A file this run made for an empty entry may later be needed as a folder (an
    // empty node turns out to be the parent of others); it is then replaced.
    void MarkReplaceable(const PathParts& parts) { m_replaceable.insert(JoinParts(parts, parts.size())); }
    // How many such files became folders.
    uint64_t replaced() const { return m_replaced; }

private:
    Fd m_root;
    uint64_t m_replaced = 0;
    std::unordered_set<std::string> m_replaceable;
};

}  // namespace vsstream
