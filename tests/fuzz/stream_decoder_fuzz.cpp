// Fuzz target: the backup stream decoder on arbitrary bytes. Every input must end in a
// clear state (complete, incomplete, corrupt) with an error naming an offset inside the
// input, never a crash, a hang or unbounded memory; packed data comes out whole. Each
// record it yields reads the same when sought at its offset and number (as the stream
// index finds it), and a record sought anywhere else fails cleanly.
#include "vscodec/streamreader.h"
#include "vscodec/streamseek.h"

#include <sys/mman.h>
#include <unistd.h>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fds[2];
    if (::pipe(fds) != 0) return 0;
    // Larger inputs than a pipe holds are cut: the decoder reads sequentially anyway.
    const size_t n = size < 60000 ? size : 60000;
    if (n > 0 && ::write(fds[1], data, n) != static_cast<ssize_t>(n)) std::abort();
    ::close(fds[1]);
    const int file = ::memfd_create("fuzz", MFD_CLOEXEC);
    if (file < 0 || (n > 0 && ::write(file, data, n) != static_cast<ssize_t>(n))) std::abort();
    vshost::RecordSeeker seeker(file);
    std::string why;
    const bool seekable = seeker.Open(why);
    vshost::StreamReader reader(fds[0]);
    vshost::StreamRecord record, sought;
    uint64_t records = 0, next = 0;
    while (reader.Next(record)) {
        if (record.offset >= n) std::abort();
        if (!seekable || !seeker.Read(record.offset, record.index, sought, next, why) || sought.kind != record.kind ||
            next > n)
            std::abort();
        if (seeker.Read(record.offset + 1, record.index, sought, next, why) && next > n) std::abort();
        // A packed record's zero runs lie inside its bytes and read as zeros.
        if (auto* data = std::get_if<vshost::DataRecord>(&record.body))
            for (const vshost::ZeroRun& run : data->zeroRuns)
                if (uint64_t{run.offset} + run.length > data->bytes.size() ||
                    data->bytes.find_first_not_of('\0', run.offset) < uint64_t{run.offset} + run.length)
                    std::abort();
        ++records;
    }
    ::close(fds[0]);
    ::close(file);
    using State = vshost::StreamReader::State;
    switch (reader.state()) {
        case State::Complete:
            break;
        case State::Incomplete:
        case State::Corrupt:
            if (reader.error().empty() || reader.errorOffset() > n) std::abort();
            break;
        case State::Reading:
        case State::ReadError:
            std::abort();  // the whole input was there to read
    }
    return 0;
}
