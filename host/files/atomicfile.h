// A file written under a temporary name beside its final one and renamed into place
// when complete, so readers never see it half-written. Internal to the host.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>

namespace vshost::detail {

class AtomicFile {
public:
    // Creates the temporary file; check Ok() (Error() tells why not).
    AtomicFile(const std::string& finalPath, mode_t mode);
    // Removes the temporary file unless Commit succeeded.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    bool Ok() const { return m_fd >= 0 && m_error.empty(); }
    const std::string& Error() const { return m_error; }

    // Appends; after a failure every later call fails too.
    bool Write(const void* data, size_t size);
    // Flushes, closes and renames over the final path, then syncs the folder so that
    // the new name survives a power loss too.
    bool Commit();

private:
    bool Fail(const std::string& what);

    std::string m_finalPath;
    std::string m_tempPath;
    int m_fd = -1;
    bool m_committed = false;
    std::string m_error;
};

// Copies `source` to `target` through an AtomicFile, keeping the source's permission
// bits. False with `why` filled on failure; `target` is then untouched.
bool CopyFileAtomically(const std::string& source, const std::string& target, std::string& why);

}  // namespace vshost::detail
