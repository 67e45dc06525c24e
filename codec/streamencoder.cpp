// Framing and structure of the backup stream as it is written.
#include "vscodec/streamencoder.h"

#include "streamrecords.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"

#include <algorithm>
#include <ctime>

namespace vshost::detail {

using stream::Kind;

namespace {

int64_t NowNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string KindText(Kind kind) {
    const char* name = stream::KindName(kind);
    return name ? name : "record";
}

}  // namespace

void StreamEncoder::SetOrigin(const std::string& hubServer, const std::string& clientName) {
    if (m_originSet) return;
    m_hubServer = hubServer;
    m_clientName = clientName;
    m_originSet = true;
}

vsStreamTotals StreamEncoder::Totals() const {
    vsStreamTotals t = m_totals;
    const unsigned long long zeros = std::min<unsigned long long>(m_sink.PackedZeros(), t.dataBytes);
    t.dataBytes -= zeros;
    t.holeBytes += zeros;
    return t;
}

int StreamEncoder::Fail(int status, std::string why) {
    m_error = std::move(why);
    return status;
}

int StreamEncoder::Flush() {
    if (!m_sink.Flush()) return Fail(vsArchive::kErrPipeline, "the pipeline failed: " + m_sink.Error());
    return vsArchive::kOk;
}

// The checks every call makes first: a failed pipeline outranks any other complaint.
int StreamEncoder::Ready() {
    if (m_sink.Failed()) return Fail(vsArchive::kErrPipeline, "the pipeline failed: " + m_sink.Error());
    if (m_finished) return Fail(vsArchive::kErrFinished, "the stream is finished; its trailer is written");
    return vsArchive::kOk;
}

int StreamEncoder::Emit(Kind kind, const char* payload, size_t length) {
    // Refused before the header or an identity change goes out for it.
    if (int rc = CheckLength(kind, length); rc != vsArchive::kOk) return rc;
    if (int rc = Prepare(); rc != vsArchive::kOk) return rc;
    return Frame(kind, payload, length);
}

int StreamEncoder::CheckLength(Kind kind, size_t length) {
    if (length <= stream::kMaxPayload) return vsArchive::kOk;
    return Fail(vsArchive::kErrArgument, KindText(kind) + " record of " + std::to_string(length) +
                                             " bytes exceeds the limit of " + std::to_string(stream::kMaxPayload) +
                                             "; nothing written");
}

// Prologue and stream header before the first record, and an identity record when the
// identity changed since the stream last stated it.
int StreamEncoder::Prepare() {
    if (!m_started) {
        // The header goes out with the first record, not at attach time: the readers
        // set the job id, token and archive file ids only after attaching.
        PayloadBuilder h;
        h.I64(m_identity.jobId);
        for (uint32_t id : m_identity.archiveFileIds) h.U32(id);
        h.I64(NowNs()).Bytes(m_identity.jobToken).Bytes(m_hubServer).Bytes(m_clientName);
        // A header that cannot be framed leaves the stream unstarted, not half written.
        if (int rc = CheckLength(Kind::StreamHeader, h.str().size()); rc != vsArchive::kOk) return rc;
        m_started = true;
        std::memcpy(m_prologue, stream::kMagic, sizeof stream::kMagic);
        PutLE(m_prologue + 8, stream::kMajorVersion, 2);
        PutLE(m_prologue + 10, stream::kMinorVersion, 2);
        if (!m_sink.Write(m_prologue, sizeof m_prologue)) return Fail(vsArchive::kErrPipeline, m_sink.Error());
        m_written = m_identity;
        return Frame(Kind::StreamHeader, h.str().data(), h.str().size());
    }
    if (m_identity == m_written) return vsArchive::kOk;
    PayloadBuilder id;
    id.I64(m_identity.jobId);
    for (uint32_t v : m_identity.archiveFileIds) id.U32(v);
    id.Bytes(m_identity.jobToken);
    if (int rc = Frame(Kind::Identity, id.str().data(), id.str().size()); rc != vsArchive::kOk) return rc;
    m_written = m_identity;
    return vsArchive::kOk;
}

// The one place a record is framed: every kind, the header and trailer included,
// passes the payload limit here.
int StreamEncoder::Frame(Kind kind, const char* payload, size_t length) {
    if (int rc = CheckLength(kind, length); rc != vsArchive::kOk) return rc;
    char frame[stream::kFrameBytes];
    PutLE(frame, static_cast<uint16_t>(kind), 2);
    PutLE(frame + 2, 0, 2);
    PutLE(frame + 4, length, 4);
    PutLE(frame + 8, FrameCheck(frame, m_index), 4);
    char sum[stream::kChecksumBytes];
    const char* prologue = m_index == 0 ? m_prologue : nullptr;
    const uint64_t checksum =
        RecordChecksum(prologue, sizeof m_prologue, frame, sizeof frame, payload, length, m_index);
    PutLE(sum, checksum, 8);
    m_sink.RecordBegins(m_index);
    if (!m_sink.Write(frame, sizeof frame) || !m_sink.Write(payload, length) || !m_sink.Write(sum, sizeof sum))
        return Fail(vsArchive::kErrPipeline, m_sink.Error());
    const int tapped = m_tap ? Tap(kind, std::string_view(payload, length), checksum) : vsArchive::kOk;
    ++m_index;
    if (kind != Kind::Trailer) ++m_totals.records;
    return tapped;
}

int StreamEncoder::Tap(Kind kind, std::string_view payload, uint64_t checksum) {
    StreamRecord record;
    record.kind = kind;
    record.index = m_index;
    record.checksum = checksum;
    std::string why;
    // Written from the same layouts the decoder reads: a record it cannot read back is a
    // fault of this program, and the call that wrote it fails rather than count it wrong.
    if (!ParseRecordBody(kind, payload, stream::kMinorVersion, false, record.body, why))
        return Fail(vsArchive::kErrArgument,
                    "the " + KindText(kind) + " record just written cannot be read back: " + why);
    m_tap(record);
    return vsArchive::kOk;
}

int StreamEncoder::BeginEntry(Kind kind, std::string_view payload, bool container, std::string_view path) {
    if (int rc = Ready(); rc != vsArchive::kOk) return rc;
    if (m_open != Open::None)
        return Fail(vsArchive::kErrOrder,
                    "header for [" + std::string(path) + "] while entry [" + m_openPath + "] is still open");
    if (int rc = Emit(kind, payload.data(), payload.size()); rc != vsArchive::kOk) return rc;
    m_open = container ? Open::Container : Open::Content;
    m_openPath = path;
    ++m_totals.entries;
    m_sink.NoteProgress(Totals(), &m_openPath);
    return vsArchive::kOk;
}

int StreamEncoder::CheckContent(const char* what) {
    if (int rc = Ready(); rc != vsArchive::kOk) return rc;
    if (m_open == Open::None) return Fail(vsArchive::kErrOrder, std::string(what) + " with no entry open");
    if (m_open == Open::Container)
        return Fail(vsArchive::kErrOrder, std::string(what) + " inside container entry [" + m_openPath + "]");
    return vsArchive::kOk;
}

int StreamEncoder::Data(const char* data, size_t length) {
    if (int rc = CheckContent("data"); rc != vsArchive::kOk) return rc;
    while (length > 0) {
        const size_t piece = length < stream::kMaxPayload ? length : stream::kMaxPayload;
        if (int rc = Prepare(); rc != vsArchive::kOk) return rc;
        // Framed by the sink, which may check-sum and write it on a thread of its own.
        if (!m_sink.WriteData(m_index, data, piece)) return Fail(vsArchive::kErrPipeline, m_sink.Error());
        if (m_tap) {
            StreamRecord record;
            record.kind = Kind::Data;
            record.index = m_index;
            record.body = DataRecord{std::string_view(data, piece), {}, 0, 0};
            m_tap(record);
        }
        ++m_index;
        ++m_totals.records;
        m_totals.dataBytes += piece;
        m_sink.NoteProgress(Totals(), nullptr);
        data += piece;
        length -= piece;
    }
    return vsArchive::kOk;
}

int StreamEncoder::Hole(uint64_t length) {
    if (int rc = CheckContent("hole"); rc != vsArchive::kOk) return rc;
    PayloadBuilder p;
    p.U64(length);
    if (int rc = Emit(Kind::Hole, p.str().data(), p.str().size()); rc != vsArchive::kOk) return rc;
    m_totals.holeBytes += length;
    m_sink.NoteProgress(Totals(), nullptr);
    return vsArchive::kOk;
}

int StreamEncoder::EndEntry(bool complete, uint32_t arg) {
    if (int rc = Ready(); rc != vsArchive::kOk) return rc;
    if (m_open == Open::None) return Fail(vsArchive::kErrOrder, "end-of-file with no entry open");
    PayloadBuilder p;
    p.Bool(complete).U32(arg);
    if (int rc = Emit(Kind::EndOfFile, p.str().data(), p.str().size()); rc != vsArchive::kOk) return rc;
    m_open = Open::None;
    m_openPath.clear();
    if (!complete) ++m_totals.badEntries;
    return vsArchive::kOk;
}

int StreamEncoder::Between(Kind kind, std::string_view payload) {
    if (int rc = Ready(); rc != vsArchive::kOk) return rc;
    if (m_open != Open::None)
        return Fail(vsArchive::kErrOrder, KindText(kind) + " record inside entry [" + m_openPath + "]");
    if (int rc = Emit(kind, payload.data(), payload.size()); rc != vsArchive::kOk) return rc;
    if (kind == Kind::DirectoryEntry) ++m_totals.directories;
    return vsArchive::kOk;
}

int StreamEncoder::Detach(bool finish) {
    if (m_writers > 0) --m_writers;
    if (!finish) m_abandoned = true;
    int rc = vsArchive::kOk;
    bool trailer = false;
    if (finish && m_writers == 0 && !m_finished && !m_sink.Failed()) {
        if (m_open != Open::None) {
            m_abandoned = true;
            rc = Fail(vsArchive::kErrOrder, "entry [" + m_openPath + "] is still open; the stream gets no trailer");
        } else if (m_abandoned) {
            rc = Fail(vsArchive::kErrOrder, "the stream was abandoned; it gets no trailer");
        } else if ((rc = Prepare()) == vsArchive::kOk && !m_sink.Flush()) {
            rc = Fail(vsArchive::kErrPipeline, m_sink.Error());
        } else if (rc == vsArchive::kOk) {
            // The trailer states its own offset (known once every record before it is
            // written): a stream that lost or gained bytes before it cannot match.
            PayloadBuilder t;
            const vsStreamTotals totals = Totals();
            t.U64(totals.records).U64(totals.entries).U64(totals.badEntries).U64(totals.directories);
            t.U64(totals.dataBytes).U64(totals.holeBytes).U64(m_sink.Accepted());
            rc = Frame(Kind::Trailer, t.str().data(), t.str().size());
            trailer = rc == vsArchive::kOk;
        }
    }
    // A failed pipeline outranks every other complaint, and a trailer only counts once
    // it has left the batch.
    if (!m_sink.Flush()) return Fail(vsArchive::kErrPipeline, m_sink.Error());
    if (trailer) m_finished = true;
    return rc;
}

}  // namespace vshost::detail
