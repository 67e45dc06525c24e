// Where a run's stream goes. A stream file is written under a temporary name beside the
// target and renamed into place when the stream is closed, so that a run that cannot
// start leaves an earlier stream of that name as it was; a FIFO, a device or standard
// output is written to directly. No target may be a file the job reads or the host home
// keeps.
#pragma once

#include "jobspec.h"

#include <string>

namespace vsdm {

// Throws UsageError when `target` (a path, or "-" for standard output) is a folder or
// the very file of one of the job's inputs: the job file, a file the host home keeps
// (settings, catalog, keys, logs, job results, snapshots) or a file of the datastore
// volumes of the job's archive files.
void CheckNotAnInput(const DataMoverJob& job, const std::string& jobFile, const std::string& target);

// Where a stream is written: fd() takes its bytes; Publish makes it the stream of its
// name, Discard drops it and leaves an earlier stream of that name as it was.
class Target {
public:
    Target() = default;
    virtual ~Target() = default;
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    virtual int fd() const = 0;
    virtual bool Publish(std::string& why) = 0;
    virtual void Discard() = 0;
    // True when the stream's bytes are stored only by Publish (an object), so that no
    // sync before it makes them durable.
    virtual bool StoredOnlyWhenPublished() const { return false; }
};

// A file, FIFO, device or standard output (objects: objecttarget.h).
class StreamTarget final : public Target {
public:
    // Opens `out` for writing; throws std::runtime_error with the reason.
    explicit StreamTarget(const std::string& out);
    ~StreamTarget() override;  // removes a temporary that was not published

    int fd() const override { return m_fd; }
    // The file being written: the temporary while there is one.
    const std::string& writing() const { return m_temp.empty() ? m_out : m_temp; }
    // Makes the stream durable under its name: file synced, closed, renamed over the
    // target, folder synced. False with `why`.
    bool Publish(std::string& why) override;
    // Drops what was written: the temporary is removed, the target left as it was.
    void Discard() override;

private:
    std::string m_out, m_temp;
    int m_fd = -1;
    bool m_ownsFd = false;
};

// Syncs the folder holding `path`, so that a file renamed into it survives a power loss.
bool SyncFolderOf(const std::string& path, std::string& why);

}  // namespace vsdm
