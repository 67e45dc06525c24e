// Decoding the backup stream: prologue, record frames, check values, structure and
// the trailer's totals.
#include "vscodec/streamreader.h"

#include "streamrecords.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"
#include "vscodec/streampack.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vshost {

using detail::GetLE;
using stream::Kind;

namespace {

// Small records are read through a buffer of this size; what is left of a larger
// payload is read straight into place.
constexpr size_t kInputBytes = size_t{64} << 10;

std::string KindText(Kind kind) {
    const char* name = stream::KindName(kind);
    return name ? name : "kind " + std::to_string(static_cast<unsigned>(kind));
}

std::string Describe(uint64_t index, Kind kind) {
    return "record #" + std::to_string(index) + " (" + KindText(kind) + ")";
}

std::string TotalsMismatch(const vsStreamTotals& stated, const vsStreamTotals& counted) {
    std::string what;
    auto check = [&](const char* name, unsigned long long a, unsigned long long b) {
        if (a == b) return;
        what += std::string(what.empty() ? "" : ", ") + name + " " + std::to_string(a) + " stated, " +
                std::to_string(b) + " read";
    };
    check("records", stated.records, counted.records);
    check("entries", stated.entries, counted.entries);
    check("incomplete entries", stated.badEntries, counted.badEntries);
    check("directories", stated.directories, counted.directories);
    check("data bytes", stated.dataBytes, counted.dataBytes);
    check("hole bytes", stated.holeBytes, counted.holeBytes);
    return what;
}

}  // namespace

const char* StateName(StreamReader::State state) {
    switch (state) {
        case StreamReader::State::Reading:
            return "reading";
        case StreamReader::State::Complete:
            return "complete";
        case StreamReader::State::Incomplete:
            return "incomplete";
        case StreamReader::State::Corrupt:
            return "corrupt";
        case StreamReader::State::ReadError:
            return "unreadable";
    }
    return "?";
}

StreamReader::StreamReader(int fd) : m_fd(fd), m_in(kInputBytes) {}

StreamReader::~StreamReader() = default;

// Packed data exists from 1.2 on: in an older stream its kind is unknown, as it was to
// that stream's decoders.
bool StreamReader::ParseBody(Kind kind, std::string_view payload, bool later, RecordBody& body, std::string& why) {
    if (kind != Kind::PackedData) return detail::ParseRecordBody(kind, payload, m_minor, later, body, why);
    if (m_minor < 2) {
        why = "unknown record kind in a stream of version 1." + std::to_string(m_minor);
        return false;
    }
    if (!m_unpacker) m_unpacker = std::make_unique<detail::DataUnpacker>();
    DataRecord data;
    if (!m_unpacker->Unpack(payload, data, why)) return false;
    body = std::move(data);
    return true;
}

// Up to `length` bytes; fewer only at the end of the input or on a read error (then
// the state is ReadError).
size_t StreamReader::Read(char* out, size_t length) {
    size_t done = 0;
    while (done < length) {
        if (m_inPos == m_inEnd) {
            if (m_inputDone) break;
            const bool direct = length - done >= m_in.size();
            char* into = direct ? out + done : m_in.data();
            const ssize_t n = ::read(m_fd, into, direct ? length - done : m_in.size());
            if (n < 0) {
                const int err = errno;
                if (err == EINTR) continue;
                Stop(State::ReadError, m_offset + done, std::string("read failed: ") + std::strerror(err));
                break;
            }
            if (n == 0) {
                m_inputDone = true;
                break;
            }
            if (direct) {
                done += static_cast<size_t>(n);
                continue;
            }
            m_inPos = 0;
            m_inEnd = static_cast<size_t>(n);
        }
        const size_t n = std::min(length - done, m_inEnd - m_inPos);
        std::memcpy(out + done, m_in.data() + m_inPos, n);
        m_inPos += n;
        done += n;
    }
    m_offset += done;
    return done;
}

bool StreamReader::Stop(State state, uint64_t offset, const std::string& what) {
    if (m_state == State::Reading) {
        m_state = state;
        m_errorOffset = offset;
        m_error = "offset " + std::to_string(offset) + ": " + what;
    }
    return false;
}

bool StreamReader::Prologue() {
    char* p = m_prologue;
    const size_t got = Read(p, stream::kPrologueBytes);
    if (m_state != State::Reading) return false;
    if (got == 0) return Stop(State::Incomplete, 0, "empty stream");
    if (std::memcmp(p, stream::kMagic, std::min(got, sizeof stream::kMagic)) != 0)
        return Stop(State::Corrupt, 0, "not a backup stream (wrong magic)");
    if (got < stream::kPrologueBytes) return Stop(State::Incomplete, 0, "stream ends inside its prologue");
    const auto major = static_cast<uint16_t>(GetLE(p + 8, 2));
    m_minor = static_cast<uint16_t>(GetLE(p + 10, 2));
    if (major != stream::kMajorVersion)
        return Stop(State::Corrupt, 8,
                    "format version " + std::to_string(major) + "." + std::to_string(m_minor) +
                        " is not supported (this decoder reads version " + std::to_string(stream::kMajorVersion) + ")");
    m_header.majorVersion = major;
    m_header.minorVersion = m_minor;
    m_prologueRead = true;
    return true;
}

bool StreamReader::Next(StreamRecord& record) {
    if (m_state != State::Reading) return false;
    if (!m_prologueRead && !Prologue()) return false;

    const uint64_t at = m_offset;
    char frame[stream::kFrameBytes];
    const size_t got = Read(frame, sizeof frame);
    if (m_state != State::Reading) return false;
    if (got == 0)
        return Stop(State::Incomplete, at,
                    "stream ends without a trailer after " + std::to_string(m_index) + " records");
    if (got < sizeof frame)
        return Stop(State::Incomplete, at, "stream ends inside the frame of record #" + std::to_string(m_index));
    if (static_cast<uint32_t>(GetLE(frame + 8, 4)) != detail::FrameCheck(frame, m_index))
        return Stop(State::Corrupt, at,
                    "record #" + std::to_string(m_index) +
                        ": frame check fails (kind, flags or length damaged, "
                        "or a record missing or out of place)");
    const auto kind = static_cast<Kind>(GetLE(frame, 2));
    const auto flags = static_cast<uint16_t>(GetLE(frame + 2, 2));
    const auto length = static_cast<uint32_t>(GetLE(frame + 4, 4));
    if (length > stream::kMaxPayload)
        return Stop(State::Corrupt, at,
                    Describe(m_index, kind) + ": payload of " + std::to_string(length) + " bytes exceeds the limit");

    m_payload.resize(length);
    if (Read(m_payload.data(), length) < length || m_state != State::Reading)
        return Stop(State::Incomplete, at, "stream ends inside " + Describe(m_index, kind));
    char sum[stream::kChecksumBytes];
    if (Read(sum, sizeof sum) < sizeof sum || m_state != State::Reading)
        return Stop(State::Incomplete, at, "stream ends inside " + Describe(m_index, kind));
    const char* prologue = m_index == 0 ? m_prologue : nullptr;
    if (GetLE(sum, 8) !=
        detail::RecordChecksum(prologue, sizeof m_prologue, frame, sizeof frame, m_payload.data(), length, m_index))
        return Stop(State::Corrupt, at, Describe(m_index, kind) + ": checksum mismatch");

    const bool later = m_minor > stream::kMinorVersion;  // fields and flags we may not know
    if ((flags & ~stream::kFlagSkippable) != 0 && !later)
        return Stop(State::Corrupt, at, Describe(m_index, kind) + ": unknown flags " + std::to_string(flags));

    record.kind = kind;
    record.flags = flags;
    record.offset = at;
    record.index = m_index;
    std::string why;
    const std::string_view payload(m_payload.data(), length);
    if (!stream::KindName(kind)) {
        if (!(flags & stream::kFlagSkippable))
            return Stop(State::Corrupt, at, Describe(m_index, kind) + ": unknown record kind");
        record.body = SkippedRecord{};
    } else if (!ParseBody(kind, payload, later, record.body, why)) {
        return Stop(State::Corrupt, at, Describe(m_index, kind) + ": " + why);
    }
    if (!CheckStructure(record, why)) return Stop(State::Corrupt, at, Describe(m_index, kind) + ": " + why);
    ++m_index;

    if (kind == Kind::StreamHeader) {
        auto& h = std::get<StreamHeaderRecord>(record.body);
        h.majorVersion = m_header.majorVersion;
        h.minorVersion = m_header.minorVersion;
        m_header = h;
    }
    if (kind != Kind::Trailer) return true;

    const auto& t = std::get<TrailerRecord>(record.body);
    if (!(t.totals == m_counted))
        return Stop(State::Corrupt, at,
                    "trailer totals do not match the stream: " + TotalsMismatch(t.totals, m_counted));
    if (t.offset != at) return Stop(State::Corrupt, at, "trailer states offset " + std::to_string(t.offset));
    if (!AtEnd()) return Stop(State::Corrupt, m_offset, "bytes follow the trailer");
    m_state = State::Complete;
    return true;
}

bool StreamReader::AtEnd() {
    char c;
    const uint64_t before = m_offset;
    const bool end = Read(&c, 1) == 0 && m_state == State::Reading;
    m_offset = before;
    return end;
}

// The rules a writer keeps: the stream header first and only there, entries opened
// by a header and closed by an end-of-file record, data and holes only in an open
// entry that is not a container, every other record between entries.
bool StreamReader::CheckStructure(const StreamRecord& record, std::string& why) {
    const Kind kind = record.kind;
    if ((m_index == 0) != (kind == Kind::StreamHeader)) {
        why = m_index == 0 ? "the stream does not begin with its header" : "a second stream header";
        return false;
    }
    if (stream::OpensEntry(kind)) {
        std::string path;
        bool container = false;
        if (auto* f = std::get_if<FileHeaderRecord>(&record.body)) {
            path = f->path;
            container = f->container;
        } else if (auto* c = std::get_if<CollectionHeaderRecord>(&record.body)) {
            path = c->path;
            container = c->container;
        } else if (auto* l = std::get_if<FileLevelRecord>(&record.body)) {
            path = l->info.clientPath;
        }
        if (m_open != Open::None) {
            why = "header of [" + path + "] while entry [" + m_openPath + "] is open";
            return false;
        }
        m_open = container ? Open::Container : Open::Content;
        m_openPath = path;
        ++m_counted.records;
        ++m_counted.entries;
        return true;
    }
    switch (kind) {
        case Kind::Data:
        case Kind::PackedData:
        case Kind::Hole:
            if (m_open != Open::Content) {
                why = m_open == Open::None ? "outside any entry" : "inside container entry [" + m_openPath + "]";
                return false;
            }
            if (kind == Kind::Hole) {
                m_counted.holeBytes += std::get<HoleRecord>(record.body).length;
            } else {
                // A packed record's zero runs count as holes: the stream left them out.
                const auto& data = std::get<DataRecord>(record.body);
                uint64_t zeros = 0;
                for (const ZeroRun& run : data.zeroRuns) zeros += run.length;
                m_counted.dataBytes += data.bytes.size() - zeros;
                m_counted.holeBytes += zeros;
            }
            break;
        case Kind::EndOfFile:
            if (m_open == Open::None) {
                why = "no entry is open";
                return false;
            }
            if (!std::get<EndOfFileRecord>(record.body).complete) ++m_counted.badEntries;
            m_open = Open::None;
            m_openPath.clear();
            break;
        case Kind::StreamHeader:
        case Kind::Identity:
            break;
        default:
            if (std::holds_alternative<SkippedRecord>(record.body)) break;
            if (m_open != Open::None) {
                why = "inside entry [" + m_openPath + "]";
                return false;
            }
            if (kind == Kind::DirectoryEntry) ++m_counted.directories;
            break;
    }
    if (kind != Kind::Trailer) ++m_counted.records;
    return true;
}

}  // namespace vshost
