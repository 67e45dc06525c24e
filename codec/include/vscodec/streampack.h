// Data records as the stream carries them. The encoder hands a data record's bytes and
// index to its sink; the sink frames them here, off the thread that read the data, as a
// plain data record or, when that costs less, as a packed one (kind 35: zero runs left
// out, the rest compressed when asked for). The decoder unpacks packed records. Internal to the host and the codec.
#pragma once

#include "vscodec/api.h"
#include "vscodec/streamformat.h"
#include "vscodec/streamreader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// zstd's contexts, as its header names them.
struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace vshost::detail {

// What a framed data record is made of, in stream order. A piece points either into
// the caller's output buffer or into the data itself, which is never copied when the
// record goes out as it came.
struct FramedRecord {
    struct Piece {
        const char* data = nullptr;
        std::size_t length = 0;
    };
    Piece pieces[3];
    int count = 0;
    std::size_t bytes = 0;      // of all pieces
    std::size_t outBytes = 0;   // of the output buffer used
    std::size_t zeroBytes = 0;  // left out as zero runs
};

class VS_CODEC_API DataPacker {
public:
    // Smallest and largest zstd level a stream may be compressed at.
    static constexpr int kMinLevel = 1;
    static constexpr int kMaxLevel = 19;

    // `zstdLevel` 0: zero runs only; kMinLevel to kMaxLevel: the bytes outside them are
    // compressed too, each record on its own, and kept so when that makes them smaller.
    explicit DataPacker(int zstdLevel = 0) : m_level(zstdLevel) {}
    ~DataPacker();
    DataPacker(const DataPacker&) = delete;
    DataPacker& operator=(const DataPacker&) = delete;

    // Memory a packer of `zstdLevel` needs for its compression context.
    static std::size_t ContextBytes(int zstdLevel);

    // Most bytes Pack writes into `out` for a record of `length` bytes.
    static std::size_t OutBound(std::size_t length);

    // Frames the data record `index` holding `length` bytes (1 to kMaxPayload) at `data`.
    // Writes at most OutBound(length) bytes to `out`; the pieces stay valid while `out`
    // and `data` do.
    FramedRecord Pack(uint64_t index, const char* data, std::size_t length, char* out);

private:
    FramedRecord Plain(uint64_t index, const char* data, std::size_t length, char* out) const;
    std::size_t Compress(const char* data, std::size_t length, char* out, std::size_t room);

    int m_level;
    ZSTD_CCtx_s* m_cctx = nullptr;
    std::vector<ZeroRun> m_runs;
    std::vector<char> m_gather;  // the bytes outside the zero runs, for the compressor
};

// The zero runs of `length` bytes at `data` as a packed record states them: whole
// kZeroRunBlock blocks from the first byte (the last one may be shorter) holding only
// zeros, merged, at least one whole block long.
VS_CODEC_API void FindZeroRuns(const char* data, std::size_t length, std::vector<ZeroRun>& runs);

// Decodes the payload of packed data records into their bytes, zero runs filled in.
class DataUnpacker {
public:
    DataUnpacker() = default;
    ~DataUnpacker();
    DataUnpacker(const DataUnpacker&) = delete;
    DataUnpacker& operator=(const DataUnpacker&) = delete;

    // False with `why` when the payload is not a sound packed record; on success `record`
    // points into this unpacker until the next call.
    bool Unpack(std::string_view payload, DataRecord& record, std::string& why);

private:
    bool Decompress(std::string_view in, std::size_t expected, char* out, std::string& why);

    ZSTD_DCtx_s* m_dctx = nullptr;
    std::vector<char> m_bytes;
    std::vector<char> m_stored;  // decompressed bytes outside the zero runs
};

}  // namespace vshost::detail
