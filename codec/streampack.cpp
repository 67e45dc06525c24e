// Framing data records on the sink's side of the pipeline, packing those that hold zero
// runs, and unpacking them again in the decoder.
#include "vscodec/streampack.h"

#include "hostapi/zeroscan.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"

// The size estimates are part of the library's advanced interface.
#define ZSTD_STATIC_LINKING_ONLY
#include <zstd.h>

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
    return length / (std::size_t{2} * kZeroRunBlock) + 1;
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

// The bytes of `data` outside the zero runs, in order.
void Gather(const char* data, std::size_t length, const std::vector<ZeroRun>& runs, char* out) {
    std::size_t from = 0;
    for (const ZeroRun& run : runs) {
        std::memcpy(out, data + from, run.offset - from);
        out += run.offset - from;
        from = run.offset + run.length;
    }
    std::memcpy(out, data + from, length - from);
}

// Lays `stored` out around the zero runs, which become zeros.
void Spread(std::string_view stored, const std::vector<ZeroRun>& runs, char* out, std::size_t length) {
    std::size_t from = 0, taken = 0;
    for (const ZeroRun& run : runs) {
        std::memcpy(out + from, stored.data() + taken, run.offset - from);
        taken += run.offset - from;
        std::memset(out + run.offset, 0, run.length);
        from = run.offset + run.length;
    }
    std::memcpy(out + from, stored.data() + taken, length - from);
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

std::size_t DataPacker::ContextBytes(int zstdLevel) {
    if (zstdLevel <= 0) return 0;
    return ZSTD_estimateCCtxSize_usingCParams(ZSTD_getCParams(zstdLevel, stream::kMaxPayload, 0));
}

DataPacker::~DataPacker() {
    ZSTD_freeCCtx(m_cctx);
}

// The compressed form of `length` bytes if it fits in `room` bytes (fewer than it
// stands for), else 0.
std::size_t DataPacker::Compress(const char* data, std::size_t length, char* out, std::size_t room) {
    if (m_level <= 0 || length == 0 || room == 0) return 0;
    if (!m_cctx) {
        m_cctx = ZSTD_createCCtx();
        if (!m_cctx) return 0;
        // The record's checksum covers the bytes; the frame states its size, which the
        // decoder checks before it decompresses.
        (void)ZSTD_CCtx_setParameter(m_cctx, ZSTD_c_compressionLevel, m_level);
        (void)ZSTD_CCtx_setParameter(m_cctx, ZSTD_c_contentSizeFlag, 1);
        (void)ZSTD_CCtx_setParameter(m_cctx, ZSTD_c_checksumFlag, 0);
    }
    const std::size_t n = ZSTD_compress2(m_cctx, out, room, data, length);
    return ZSTD_isError(n) ? 0 : n;
}

// A packed record is one piece in `out`: frame, length, method, runs, the bytes outside
// the runs (compressed when that makes them smaller), checksum. A record with neither
// zero runs nor bytes worth compressing goes out plain.
FramedRecord DataPacker::Pack(uint64_t index, const char* data, std::size_t length, char* out) {
    if (length < kZeroRunBlock) return Plain(index, data, length, out);
    FindZeroRuns(data, length, m_runs);
    if (m_runs.empty() && m_level <= 0) return Plain(index, data, length, out);
    char* payload = out + stream::kFrameBytes;
    char* at = payload + kPackedHead;
    std::size_t zeros = 0;
    for (const ZeroRun& run : m_runs) {
        PutLE(at, run.offset, 4);
        PutLE(at + 4, run.length, 4);
        at += kRunBytes;
        zeros += run.length;
    }
    const std::size_t storedBytes = length - zeros;
    // The bytes outside the runs in one piece: the data itself when there are no runs,
    // else gathered, straight into the record unless they are to be compressed first.
    const char* stored = data;
    if (!m_runs.empty()) {
        char* into = at;
        if (m_level > 0) {
            m_gather.resize(storedBytes);
            into = m_gather.data();
        }
        Gather(data, length, m_runs, into);
        stored = into;
    }
    const std::size_t packed = Compress(stored, storedBytes, at, storedBytes > 0 ? storedBytes - 1 : 0);
    if (packed == 0 && m_runs.empty()) return Plain(index, data, length, out);
    if (packed == 0 && stored != at) std::memcpy(at, stored, storedBytes);
    at += packed > 0 ? packed : storedBytes;
    PutLE(payload, length, 4);
    PutLE(payload + 4, packed > 0 ? stream::kPackZstd : stream::kPackStored, 1);
    PutLE(payload + 5, m_runs.size(), 4);
    const auto payloadBytes = static_cast<std::size_t>(at - payload);
    FrameOf(stream::Kind::PackedData, index, payloadBytes, out);
    PutLE(at, RecordChecksum(nullptr, 0, out, stream::kFrameBytes, payload, payloadBytes, index), 8);
    FramedRecord r;
    r.zeroBytes = zeros;
    r.bytes = r.outBytes = stream::kFrameBytes + payloadBytes + stream::kChecksumBytes;
    r.pieces[0] = {out, r.bytes};
    r.count = 1;
    return r;
}

DataUnpacker::~DataUnpacker() {
    ZSTD_freeDCtx(m_dctx);
}

// Exactly one frame that states `expected` bytes and decompresses to them, whatever a
// stream claims: the size is checked before any memory is spent on it.
bool DataUnpacker::Decompress(std::string_view in, std::size_t expected, char* out, std::string& why) {
    const unsigned long long stated = ZSTD_getFrameContentSize(in.data(), in.size());
    if (stated != expected)
        return Refuse(why, "compressed bytes that do not state the " + std::to_string(expected) + " bytes expected");
    if (ZSTD_findFrameCompressedSize(in.data(), in.size()) != in.size())
        return Refuse(why, "bytes past the compressed frame");
    if (!m_dctx) {
        m_dctx = ZSTD_createDCtx();
        if (!m_dctx) return Refuse(why, "cannot make a zstd decompression context");
        (void)ZSTD_DCtx_setParameter(m_dctx, ZSTD_d_windowLogMax, 20);
    }
    const std::size_t n = ZSTD_decompressDCtx(m_dctx, out, expected, in.data(), in.size());
    if (ZSTD_isError(n)) return Refuse(why, std::string("compressed bytes do not decompress: ") + ZSTD_getErrorName(n));
    if (n != expected) return Refuse(why, "compressed bytes decompress to " + std::to_string(n));
    return true;
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
    if (method != stream::kPackStored && method != stream::kPackZstd)
        return Refuse(why, "unknown packing method " + std::to_string(method));
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
    std::string_view stored = payload.substr(kPackedHead + kRunBytes * count);
    record.storedBytes = static_cast<uint32_t>(stored.size());
    record.method = method;
    m_bytes.resize(length);
    if (method == stream::kPackZstd) {
        // Without runs the bytes decompress into place.
        char* into = m_bytes.data();
        if (count > 0) {
            m_stored.resize(length - zeros);
            into = m_stored.data();
        }
        if (!Decompress(stored, length - zeros, into, why)) return false;
        stored = std::string_view(into, length - zeros);
    } else if (stored.size() != length - zeros) {
        return Refuse(why, std::to_string(stored.size()) + " stored bytes where the zero runs leave " +
                               std::to_string(length - zeros));
    }
    if (stored.data() != m_bytes.data()) Spread(stored, record.zeroRuns, m_bytes.data(), length);
    record.bytes = std::string_view(m_bytes.data(), length);
    return true;
}

}  // namespace vshost::detail
