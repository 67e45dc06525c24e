// Framing data records on the sink's side of the pipeline, packing those that hold zero
// runs, and unpacking them again in the decoder.
#include "vscodec/streampack.h"

#include "hostapi/zeroscan.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"

#include <algorithm>
#include <cstring>

namespace vshost::detail {

using stream::kZeroRunBlock;

namespace {

// Length, method and run count before the runs of a packed payload.
constexpr std::size_t kPackedHead = 4 + 1 + 4;
constexpr std::size_t kRunBytes = 8;

// Most runs a record of `length` bytes can hold: runs are separated by data blocks.
std::size_t MaxRuns(std::size_t length) {
    return length / (2 * kZeroRunBlock) + 1;
}

bool Refuse(std::string& why, std::string text) {
    why = std::move(text);
    return false;
}

void FrameOf(stream::Kind kind, uint64_t index, std::size_t length, char* frame) {
    PutLE(frame, static_cast<uint16_t>(kind), 2);
    PutLE(frame + 2, 0, 2);
    PutLE(frame + 4, length, 4);
    PutLE(frame + 8, FrameCheck(frame, index), 4);
}

}  // namespace

void FindZeroRuns(const char* data, std::size_t length, std::vector<ZeroRun>& runs) {
    runs.clear();
    std::size_t start = 0;
    bool inRun = false;
    for (std::size_t at = 0; at < length; at += kZeroRunBlock) {
        const std::size_t n = std::min<std::size_t>(kZeroRunBlock, length - at);
        const bool zero = IsZeroFilled(data + at, n);
        if (zero && !inRun) start = at;
        // A short last block joins a run but never makes one.
        if (!zero && inRun && at - start >= kZeroRunBlock)
            runs.push_back({static_cast<uint32_t>(start), static_cast<uint32_t>(at - start)});
        inRun = zero;
    }
    if (inRun && length - start >= kZeroRunBlock)
        runs.push_back({static_cast<uint32_t>(start), static_cast<uint32_t>(length - start)});
}

std::size_t DataPacker::OutBound(std::size_t length) {
    const std::size_t plain = stream::kFrameBytes + stream::kChecksumBytes;
    if (length < kZeroRunBlock) return plain;
    return plain + kPackedHead + kRunBytes * MaxRuns(length) + length;
}

FramedRecord DataPacker::Plain(uint64_t index, const char* data, std::size_t length, char* out) const {
    char* frame = out;
    FrameOf(stream::Kind::Data, index, length, frame);
    char* sum = out + stream::kFrameBytes;
    PutLE(sum, RecordChecksum(nullptr, 0, frame, stream::kFrameBytes, data, length, index), 8);
    FramedRecord r;
    r.pieces[0] = {frame, stream::kFrameBytes};
    r.pieces[1] = {data, length};
    r.pieces[2] = {sum, stream::kChecksumBytes};
    r.count = 3;
    r.bytes = stream::kFrameBytes + length + stream::kChecksumBytes;
    r.outBytes = stream::kFrameBytes + stream::kChecksumBytes;
    return r;
}

// A record with zero runs becomes one piece in `out`: frame, length, method, runs, the
// bytes between the runs, checksum.
FramedRecord DataPacker::Pack(uint64_t index, const char* data, std::size_t length, char* out) {
    if (length < kZeroRunBlock) return Plain(index, data, length, out);
    FindZeroRuns(data, length, m_runs);
    if (m_runs.empty()) return Plain(index, data, length, out);
    char* payload = out + stream::kFrameBytes;
    char* at = payload;
    PutLE(at, length, 4);
    PutLE(at + 4, stream::kPackStored, 1);
    PutLE(at + 5, m_runs.size(), 4);
    at += kPackedHead;
    for (const ZeroRun& run : m_runs) {
        PutLE(at, run.offset, 4);
        PutLE(at + 4, run.length, 4);
        at += kRunBytes;
    }
    std::size_t from = 0;
    for (const ZeroRun& run : m_runs) {
        std::memcpy(at, data + from, run.offset - from);
        at += run.offset - from;
        from = run.offset + run.length;
    }
    std::memcpy(at, data + from, length - from);
    at += length - from;
    const auto payloadBytes = static_cast<std::size_t>(at - payload);
    FrameOf(stream::Kind::PackedData, index, payloadBytes, out);
    PutLE(at, RecordChecksum(nullptr, 0, out, stream::kFrameBytes, payload, payloadBytes, index), 8);
    FramedRecord r;
    for (const ZeroRun& run : m_runs) r.zeroBytes += run.length;
    r.bytes = r.outBytes = stream::kFrameBytes + payloadBytes + stream::kChecksumBytes;
    r.pieces[0] = {out, r.bytes};
    r.count = 1;
    return r;
}

// Every field is checked before a byte is placed: runs in order, inside the record, and
// exactly as many stored bytes as the runs leave.
bool DataUnpacker::Unpack(std::string_view payload, DataRecord& record, std::string& why) {
    PayloadParser p(payload);
    const uint64_t length = p.U32();
    const auto method = static_cast<uint8_t>(p.U8());
    const uint64_t count = p.U32();
    if (!p.ok()) return Refuse(why, p.why());
    if (length == 0 || length > stream::kMaxPayload) return Refuse(why, "packed length " + std::to_string(length));
    if (method != stream::kPackStored) return Refuse(why, "unknown packing method " + std::to_string(method));
    if (count > (payload.size() - kPackedHead) / kRunBytes) return Refuse(why, "more zero runs than the payload holds");
    record.zeroRuns.resize(count);
    uint64_t end = 0, zeros = 0;
    for (ZeroRun& run : record.zeroRuns) {
        run.offset = static_cast<uint32_t>(p.U32());
        run.length = static_cast<uint32_t>(p.U32());
        if (run.length == 0 || run.offset < end || uint64_t{run.offset} + run.length > length)
            return Refuse(why, "zero run at " + std::to_string(run.offset) + " of " + std::to_string(run.length) +
                                   " bytes is out of order or place");
        end = uint64_t{run.offset} + run.length;
        zeros += run.length;
    }
    const std::size_t head = kPackedHead + kRunBytes * count;
    const std::string_view stored = payload.substr(head);
    if (stored.size() != length - zeros)
        return Refuse(why, std::to_string(stored.size()) + " stored bytes where the zero runs leave " +
                               std::to_string(length - zeros));
    m_bytes.resize(length);
    std::size_t from = 0, taken = 0;
    for (const ZeroRun& run : record.zeroRuns) {
        std::memcpy(m_bytes.data() + from, stored.data() + taken, run.offset - from);
        taken += run.offset - from;
        std::memset(m_bytes.data() + run.offset, 0, run.length);
        from = run.offset + run.length;
    }
    std::memcpy(m_bytes.data() + from, stored.data() + taken, length - from);
    record.bytes = std::string_view(m_bytes.data(), length);
    record.method = method;
    record.storedBytes = static_cast<uint32_t>(stored.size());
    return true;
}

}  // namespace vshost::detail
