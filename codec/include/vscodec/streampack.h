// Data records as the stream carries them. The encoder hands a data record's bytes and
// index to its sink; the sink frames them here, off the thread that read the data, as a
// plain data record or, when that costs less, as a packed one (kind 35: zero runs left
// out). The decoder unpacks packed records. Internal to the host and the codec.
#pragma once

#include "vscodec/api.h"
#include "vscodec/streamformat.h"
#include "vscodec/streamreader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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
    DataPacker() = default;
    DataPacker(const DataPacker&) = delete;
    DataPacker& operator=(const DataPacker&) = delete;

    // Most bytes Pack writes into `out` for a record of `length` bytes.
    static std::size_t OutBound(std::size_t length);

    // Frames the data record `index` holding `length` bytes (1 to kMaxPayload) at `data`.
    // Writes at most OutBound(length) bytes to `out`; the pieces stay valid while `out`
    // and `data` do.
    FramedRecord Pack(uint64_t index, const char* data, std::size_t length, char* out);

private:
    FramedRecord Plain(uint64_t index, const char* data, std::size_t length, char* out) const;

    std::vector<ZeroRun> m_runs;
};

// The zero runs of `length` bytes at `data` as a packed record states them: whole
// kZeroRunBlock blocks from the first byte (the last one may be shorter) holding only
// zeros, merged, at least one whole block long.
VS_CODEC_API void FindZeroRuns(const char* data, std::size_t length, std::vector<ZeroRun>& runs);

// Decodes the payload of packed data records into their bytes, zero runs filled in.
class DataUnpacker {
public:
    // False with `why` when the payload is not a sound packed record; on success `record`
    // points into this unpacker until the next call.
    bool Unpack(std::string_view payload, DataRecord& record, std::string& why);

private:
    std::vector<char> m_bytes;
};

}  // namespace vshost::detail
