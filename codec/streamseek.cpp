// Single records read at known places, checked as the sequential decoder checks them.
#include "vscodec/streamseek.h"

#include "streamrecords.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"
#include "vscodec/streampack.h"

#include "hostapi/fd.h"

#include <cstring>

namespace vshost {

using detail::GetLE;
using stream::Kind;

RecordSeeker::RecordSeeker(int fd)
    : m_read([fd](char* out, size_t length, uint64_t at) { return PreadAll(fd, out, length, at); }) {}

RecordSeeker::RecordSeeker(ReadAt read) : m_read(std::move(read)) {}

RecordSeeker::~RecordSeeker() = default;

bool RecordSeeker::Fail(uint64_t offset, const std::string& what, std::string& why) {
    why = "offset " + std::to_string(offset) + ": " + what;
    return false;
}

bool RecordSeeker::Open(std::string& why) {
    if (!m_read(m_prologue, sizeof m_prologue, 0)) return Fail(0, "cannot read the prologue", why);
    if (std::memcmp(m_prologue, stream::kMagic, sizeof stream::kMagic) != 0)
        return Fail(0, "not a backup stream (wrong magic)", why);
    if (GetLE(m_prologue + 8, 2) != stream::kMajorVersion) return Fail(8, "format version not supported", why);
    m_minor = static_cast<uint16_t>(GetLE(m_prologue + 10, 2));
    return true;
}

bool RecordSeeker::Read(uint64_t offset, uint64_t index, StreamRecord& record, uint64_t& next, std::string& why) {
    char frame[stream::kFrameBytes];
    if (!m_read(frame, sizeof frame, offset)) return Fail(offset, "the stream ends before this record", why);
    if (static_cast<uint32_t>(GetLE(frame + 8, 4)) != detail::FrameCheck(frame, index))
        return Fail(offset, "frame check of record #" + std::to_string(index) + " fails", why);
    const auto kind = static_cast<Kind>(GetLE(frame, 2));
    const auto flags = static_cast<uint16_t>(GetLE(frame + 2, 2));
    const auto length = static_cast<uint32_t>(GetLE(frame + 4, 4));
    if (length > stream::kMaxPayload) return Fail(offset, "payload over the limit", why);
    m_payload.resize(length + stream::kChecksumBytes);
    if (!m_read(m_payload.data(), m_payload.size(), offset + sizeof frame))
        return Fail(offset, "the stream ends inside record #" + std::to_string(index), why);
    const char* prologue = index == 0 ? m_prologue : nullptr;
    if (GetLE(m_payload.data() + length, 8) !=
        detail::RecordChecksum(prologue, sizeof m_prologue, frame, sizeof frame, m_payload.data(), length, index))
        return Fail(offset, "checksum mismatch in record #" + std::to_string(index), why);
    record.kind = kind;
    record.flags = flags;
    record.offset = offset;
    record.index = index;
    next = offset + sizeof frame + length + stream::kChecksumBytes;
    const std::string_view payload(m_payload.data(), length);
    const bool later = m_minor > stream::kMinorVersion;
    std::string what;
    if (!stream::KindName(kind)) {
        if (!(flags & stream::kFlagSkippable)) return Fail(offset, "unknown record kind", why);
        record.body = SkippedRecord{};
        return true;
    }
    if (kind != Kind::PackedData) {
        if (!detail::ParseRecordBody(kind, payload, m_minor, later, record.body, what)) return Fail(offset, what, why);
        return true;
    }
    if (m_minor < 2) return Fail(offset, "packed data in a stream of version 1." + std::to_string(m_minor), why);
    if (!m_unpacker) m_unpacker = std::make_unique<detail::DataUnpacker>();
    DataRecord data;
    if (!m_unpacker->Unpack(payload, data, what)) return Fail(offset, what, why);
    record.body = std::move(data);
    return true;
}

}  // namespace vshost
