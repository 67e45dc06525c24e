// Streams on S3 object storage: `s3://BUCKET/KEY` wherever the data mover takes a stream
// path (its target, a stream to resume from, the members of a stream set). An object is
// written as a multipart upload that becomes the object only when it is completed, at
// the end of the run; until then the disks the stream completes are held, not recorded
// (CPipelayer::HoldRecordsUntilStored), so that the catalog never names a disk of an
// object that was not stored.
#pragma once

#include "output.h"

#include "indexrecorder.h"

#include "hostapi/fd.h"
#include "vscodec/streamset.h"
#include "vsobj/s3.h"

#include <memory>
#include <string>

namespace vsdm {

// True when `path` names an object ("s3://..."); throws UsageError when it does so badly.
bool IsObject(const std::string& path, vsobj::S3Location* at = nullptr);

// Endpoint, region and keys: each from its AWS_* variable when that is set, else from
// the home's [ObjectStore] settings (the secret key in its stored, encrypted form).
// Throws std::runtime_error naming what is missing; the secret never appears in a message.
vsobj::S3Settings ObjectStoreSettings();

// The stream target of `out`: an object for s3://, else a file, FIFO, device or
// standard output (StreamTarget).
std::unique_ptr<Target> OpenTarget(const std::string& out);

// A stream written to an object as a multipart upload. Uploads of the same key that an
// earlier attempt left open (its process was killed, or the store went away before the
// upload could be aborted) are aborted first: their parts can never become the object.
class ObjectTarget final : public Target {
public:
    explicit ObjectTarget(const vsobj::S3Location& at);  // starts the upload; throws with the store's reason
    int fd() const override { return m_writer ? m_writer->fd() : -1; }
    // Completes the upload: the object exists from here on. False with the store's
    // reason, the upload aborted.
    bool Publish(std::string& why) override;
    // Aborts the upload: no object, no part left; an earlier object of the key stays.
    void Discard() override;
    bool StoredOnlyWhenPublished() const override { return true; }

private:
    std::unique_ptr<vsobj::ObjectWriter> m_writer;
};

// A stream read from its start: a file, or an object through a pipe. Throws UsageError
// when it cannot be opened.
class StreamSource {
public:
    explicit StreamSource(const std::string& path);
    int fd() const { return m_object ? m_object->fd() : m_file.get(); }
    // Why an object's bytes ended before its end; empty for a file or when they did not.
    std::string Error() { return m_object ? m_object->Error() : std::string(); }

private:
    vshost::Fd m_file;
    std::unique_ptr<vsobj::ObjectReader> m_object;
};

// Whether the stream `path` (a file or an object) exists.
bool StreamExists(const std::string& path);

// An object stream whose writer died before it was stored (killed, or its store went
// away) left an open upload: its parts from the first on become the object, a stream cut
// off after its last whole part, so that a resumed attempt goes on from what they hold
// rather than from nothing. True when the object now exists; `said` tells what was kept
// or why nothing was. A writer still alive then fails at its next part and stores nothing.
bool KeepCutObject(const std::string& path, std::string& said);

// Writes a stream set's manifest to `path`, a file (written atomically, its folder
// synced) or an object; false with `why`.
bool PublishStreamSet(const std::string& path, const vshost::StreamSet& set, std::string& why);

// Where the index of the stream `out` is gathered while it is written (beside a file, in
// the temporary folder for an object), or empty when `out` gets none: standard output, a
// FIFO or a device hands its bytes on and cannot be read at an offset.
std::string IndexFolderOf(const std::string& out);

// Writes the index `recorder` gathered beside the complete stream `out`, `streamBytes`
// long: `out`.idx, written aside, synced and renamed, its folder synced; for an object,
// the object KEY.idx, stored after the stream. False with `why`.
bool PublishIndex(const std::string& out, vsstream::IndexRecorder& recorder, uint64_t streamBytes, std::string& why);

// Removes the index an earlier stream of the name `out` left, which cannot be the index
// of the stream now there.
void RemoveIndex(const std::string& out);

// Removes the stream a run left at `path` (a regular file or an object), so that it
// cannot pass for a later run's.
void RemoveStream(const std::string& path);

}  // namespace vsdm
