// Reading single records of a stream file at places known beforehand (from a stream
// index), instead of reading the stream from its start: each record is checked as the
// sequential decoder checks it (frame check and checksum, both seeded with the record's
// number, so a record read at the wrong place or under the wrong number fails).
#pragma once

#include "vscodec/api.h"
#include "vscodec/streamformat.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vshost {

class VS_CODEC_API RecordSeeker {
public:
    // Reads exactly `length` bytes at `offset`; false at the end of the stream or on an error.
    using ReadAt = std::function<bool(char* out, size_t length, uint64_t offset)>;
    // `fd` (not owned) is read with pread only: several seekers may share it.
    explicit RecordSeeker(int fd);
    // A stream read through `read`: an object read with ranged requests.
    explicit RecordSeeker(ReadAt read);
    ~RecordSeeker();
    RecordSeeker(const RecordSeeker&) = delete;
    RecordSeeker& operator=(const RecordSeeker&) = delete;

    // Reads and checks the prologue. False with `why`.
    bool Open(std::string& why);
    // Record number `index` of the stream, which begins at `offset`: checked and decoded
    // (a data body stays valid until the next call). `next` is the offset just past it.
    // False with `why` ("offset N: ...").
    bool Read(uint64_t offset, uint64_t index, StreamRecord& record, uint64_t& next, std::string& why);
    uint16_t minorVersion() const { return m_minor; }

private:
    bool Fail(uint64_t offset, const std::string& what, std::string& why);

    ReadAt m_read;
    char m_prologue[stream::kPrologueBytes] = {};
    uint16_t m_minor = 0;
    std::vector<char> m_payload;
    std::unique_ptr<detail::DataUnpacker> m_unpacker;
};

}  // namespace vshost
