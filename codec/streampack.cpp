// Framing data records on the sink's side of the pipeline.
#include "vscodec/streampack.h"

#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"

namespace vshost::detail {

std::size_t DataPacker::OutBound(std::size_t) {
    return stream::kFrameBytes + stream::kChecksumBytes;
}

FramedRecord DataPacker::Pack(uint64_t index, const char* data, std::size_t length, char* out) {
    char* frame = out;
    PutLE(frame, static_cast<uint16_t>(stream::Kind::Data), 2);
    PutLE(frame + 2, 0, 2);
    PutLE(frame + 4, length, 4);
    PutLE(frame + 8, FrameCheck(frame, index), 4);
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

}  // namespace vshost::detail
