// Data records as the stream carries them. The encoder hands a data record's bytes and
// index to its sink; the sink frames them here, off the thread that read the data.
// Internal to the host and the codec.
#pragma once

#include "vscodec/api.h"
#include "vscodec/streamformat.h"

#include <cstddef>
#include <cstdint>

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
    std::size_t bytes = 0;     // of all pieces
    std::size_t outBytes = 0;  // of the output buffer used
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
};

}  // namespace vshost::detail
