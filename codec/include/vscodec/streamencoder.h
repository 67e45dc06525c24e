// The state of one backup stream and the framing of its records: prologue and stream
// header before the first record, identity changes, the open entry, totals and the
// trailer. One per pipeline, shared by every archive writer attached to it; the
// host's pipeline is its sink.
#pragma once

#include "hostapi/archive.h"
#include "vscodec/api.h"
#include "vscodec/streamformat.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vshost::detail {

struct StreamIdentity {
    int64_t jobId = 0;
    uint32_t archiveFileIds[3] = {0, 0, 0};
    std::string jobToken;
    bool operator==(const StreamIdentity& o) const {
        return jobId == o.jobId && archiveFileIds[0] == o.archiveFileIds[0] &&
               archiveFileIds[1] == o.archiveFileIds[1] && archiveFileIds[2] == o.archiveFileIds[2] &&
               jobToken == o.jobToken;
    }
};

// Where the encoder's bytes go. The first failed write fails the sink for good. A sink
// may write on a thread of its own: a write that fails there shows at a later call
// (Failed, or the next Write, WriteData or Flush to return).
class StreamSink {
public:
    // Bytes already framed: the prologue and every record but data.
    virtual bool Write(const void* data, size_t length) = 0;
    // A data record's payload and its index; the sink frames it (DataPacker). The bytes
    // are the caller's again when the call returns.
    virtual bool WriteData(uint64_t index, const char* data, size_t length) = 0;
    // Hands every byte accepted so far to the target and waits until it is written.
    virtual bool Flush() = 0;
    virtual bool Failed() const = 0;
    // Why the sink failed; empty while it has not.
    virtual const std::string& Error() const = 0;
    // Bytes of the stream written so far; after a Flush, the offset of the next record.
    virtual unsigned long long Accepted() const = 0;
    // Bytes of data the sink left out as zero runs of packed records (exact after a Flush).
    virtual unsigned long long PackedZeros() const = 0;
    // Totals and the entry opened last (null: unchanged), for a progress display.
    virtual void NoteProgress(const vsStreamTotals& totals, const std::string* entry) = 0;
    // Record `index`, framed by the encoder, begins with the next byte Write takes: a
    // sink that reports where records land in the stream marks it there.
    virtual void RecordBegins(uint64_t index) { (void)index; }

protected:
    ~StreamSink() = default;
};

class VS_CODEC_API StreamEncoder {
public:
    explicit StreamEncoder(StreamSink& sink) : m_sink(sink) {}

    // Identity; a change after the stream header went out is written as an identity
    // record before the next record.
    StreamIdentity& identity() { return m_identity; }
    // Host and client names of the stream header; the first writer's stay.
    void SetOrigin(const std::string& hubServer, const std::string& clientName);

    void Attach() { ++m_writers; }
    // See vsArchive::close.
    int Detach(bool finish);
    void Abandon() { m_abandoned = true; }

    // Hands every record to `tap` as it is written, decoded as a decoder would read it
    // (a data record's bytes are valid during the call only; offsets are not set; every
    // record the encoder frames itself carries its checksum). For counts and the stream
    // index taken while the stream is written rather than by reading it again.
    using RecordTap = std::function<void(const StreamRecord&)>;
    void SetTap(RecordTap tap) { m_tap = std::move(tap); }

    // Each returns a vsArchive status; Error() tells why a call failed.
    int BeginEntry(stream::Kind kind, std::string_view payload, bool container, std::string_view path);
    int Data(const char* data, size_t length);
    int Hole(uint64_t length);
    int EndEntry(bool complete, uint32_t arg);
    // Records that go between entries.
    int Between(stream::Kind kind, std::string_view payload);
    // Hands every batched byte to the target now.
    int Flush();
    // Fails when the pipeline failed or the trailer is written.
    int Ready();
    // Fails unless an entry that may hold data is open.
    int CheckContent(const char* what);

    // Zeros the sink found inside data count as holes, as a decoder counts them (exact
    // once the sink is flushed).
    vsStreamTotals Totals() const;
    bool EntryOpen() const { return m_open != Open::None; }
    const std::string& OpenPath() const { return m_openPath; }
    int Writers() const { return m_writers; }
    bool Finished() const { return m_finished; }
    const std::string& Error() const { return m_error; }

private:
    enum class Open { None, Container, Content };

    int Fail(int status, std::string why);
    int Emit(stream::Kind kind, const char* payload, size_t length);
    int CheckLength(stream::Kind kind, size_t length);
    int Prepare();
    int Frame(stream::Kind kind, const char* payload, size_t length);
    int Tap(stream::Kind kind, std::string_view payload, uint64_t checksum);

    StreamSink& m_sink;
    StreamIdentity m_identity;
    StreamIdentity m_written;  // as the stream last stated it
    std::string m_hubServer, m_clientName;
    bool m_originSet = false;
    char m_prologue[stream::kPrologueBytes] = {};
    bool m_started = false;  // prologue and stream header written
    bool m_finished = false;
    bool m_abandoned = false;
    int m_writers = 0;
    uint64_t m_index = 0;  // of the next record
    Open m_open = Open::None;
    std::string m_openPath;
    vsStreamTotals m_totals;
    std::string m_error;
    RecordTap m_tap;
};

}  // namespace vshost::detail
