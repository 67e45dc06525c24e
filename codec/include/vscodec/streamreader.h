// Decoder of the backup stream: reads records one at a time with bounded memory,
// verifies every check value and the entry structure, and says whether the stream
// ended with a trailer whose totals match what was read.
#pragma once

#include "hostapi/archive.h"
#include "hostapi/types.h"
#include "vscodec/api.h"
#include "vscodec/streamformat.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vshost {

namespace detail {
class DataUnpacker;
}

struct StreamHeaderRecord {
    uint16_t majorVersion = 0;  // from the prologue
    uint16_t minorVersion = 0;
    int64_t jobId = 0;
    uint32_t archiveFileIds[3] = {0, 0, 0};
    int64_t createdNs = 0;
    std::string jobToken, hubServer, clientName;
};

struct IdentityRecord {
    int64_t jobId = 0;
    uint32_t archiveFileIds[3] = {0, 0, 0};
    std::string jobToken;
};

// Arguments are named by their place in the writer's call, the path being the first.
struct FileHeaderRecord {
    std::string path;
    uint64_t size = 0;
    int64_t arg3 = 0;
    bool container = false, arg5 = false, arg6 = false;
    int32_t arg7 = 0;
    uint32_t extentSize = 0;
    int32_t arg9 = 0;
    uint64_t arg10 = 0;
    bool arg11 = false, arg12 = false, arg13 = false;
    bool operator==(const FileHeaderRecord&) const = default;
};

struct CollectionHeaderRecord {
    std::string path;
    uint64_t size = 0;
    // Named by what they hold for a file-collection node (docs/stream-format.md).
    int64_t dataOffset = 0;  // where the node's data begins in the disk
    bool container = false, arg5 = false;
    int32_t arg6 = 0;
    uint32_t arg7 = 0;
    int32_t arg8 = 0;
    uint64_t fileId = 0;  // inode number on its file system
    bool arg10 = false, arg11 = false;
    uint64_t ctimeNs = 0, atimeNs = 0, mtimeNs = 0;
    uint32_t attributes = 0;  // FC_ATTRIBUTE_* bits
    uint64_t dataEnd = 0;     // dataOffset + size
    uint64_t parentNode = 0;  // number of the folder node holding it, 0 at the disk's top
    uint32_t mode = 0, uid = 0, gid = 0, links = 0;
    bool operator==(const CollectionHeaderRecord&) const = default;
};

// A file-level header or a directory entry (the record's kind tells which).
struct FileLevelRecord {
    vsFileLevelInfo info;
};

// A run of zeros inside a data record that the stream left out (packed data, 1.2).
struct ZeroRun {
    uint32_t offset = 0;  // from the record's first byte
    uint32_t length = 0;
    bool operator==(const ZeroRun&) const = default;
};

// An entry's data: a data record, or a packed data record unpacked (its zero runs
// filled in). `bytes` is valid until the next call of StreamReader::Next.
struct DataRecord {
    std::string_view bytes;
    // Packed records only: where the zero runs are (they read as zeros in `bytes`), how
    // the rest was stored (stream::kPackStored, kPackZstd) and how many bytes it took.
    std::vector<ZeroRun> zeroRuns;
    uint8_t method = 0;
    uint32_t storedBytes = 0;
};

struct HoleRecord {
    uint64_t length = 0;
};

struct EndOfFileRecord {
    bool complete = false;
    uint32_t arg = 0;
};

struct DiskInfoRecord {
    std::string vmGuid, name, extra;
    uint64_t itemType = 0, productType = 0, diskType = 0, size = 0, extentSize = 0, extentCount = 0;
    // From version 1.1 on (hasBase): the change id the disk is read against, whose
    // unchanged extents the stream leaves out; empty for a read of the whole disk.
    bool hasBase = false;
    std::string baseChangeId;
    bool operator==(const DiskInfoRecord&) const = default;
};

struct VolumeHeaderRecord {
    std::string vmGuid, diskName;
    std::string_view data;  // valid until the next call of StreamReader::Next
};

struct DiskReadCompletedRecord {
    std::string vmGuid, diskName, changeId;
};

struct VMReadCompletedRecord {
    std::string vmGuid;
};

struct TrailerRecord {
    vsStreamTotals totals;
    uint64_t offset = 0;  // where the trailer begins, as its writer saw it
};

// A record of a kind this decoder does not know, marked as skippable by its writer.
struct SkippedRecord {};

using RecordBody =
    std::variant<StreamHeaderRecord, IdentityRecord, FileHeaderRecord, CollectionHeaderRecord, FileLevelRecord,
                 DataRecord, HoleRecord, EndOfFileRecord, DiskInfoRecord, VolumeHeaderRecord, DiskReadCompletedRecord,
                 VMReadCompletedRecord, TrailerRecord, SkippedRecord>;

struct StreamRecord {
    stream::Kind kind = stream::Kind::StreamHeader;
    uint16_t flags = 0;
    uint64_t offset = 0;  // of the record's first byte in the stream
    uint64_t index = 0;   // 0 is the stream header
    // Its checksum, as the stream holds it (the encoder's tap only; 0 when read).
    uint64_t checksum = 0;
    RecordBody body;
};

class VS_CODEC_API StreamReader {
public:
    enum class State {
        Reading,     // no fault so far, trailer not yet read
        Complete,    // trailer read, totals match, nothing follows it
        Incomplete,  // the stream ends early: no trailer, or cut inside a record
        Corrupt,     // a check value, a field or the structure is wrong
        ReadError,   // the input could not be read
    };

    // Reads `fd` (not owned) from its current position, sequentially: pipes and
    // standard input work.
    explicit StreamReader(int fd);
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    // The next record; false at the end of the stream or at the first fault, after
    // which state() and error() tell which. The trailer is returned like any record.
    bool Next(StreamRecord& record);

    State state() const { return m_state; }
    // "offset N: what is wrong"; empty unless the state is Incomplete, Corrupt or
    // ReadError.
    const std::string& error() const { return m_error; }
    uint64_t errorOffset() const { return m_errorOffset; }
    // Bytes consumed so far.
    uint64_t offset() const { return m_offset; }
    // Totals of the records read so far, counted as a writer counts them.
    const vsStreamTotals& counted() const { return m_counted; }
    // Valid after the first record.
    const StreamHeaderRecord& header() const { return m_header; }
    bool entryOpen() const { return m_open != Open::None; }
    const std::string& openPath() const { return m_openPath; }

private:
    enum class Open { None, Container, Content };

    size_t Read(char* out, size_t length);
    bool Stop(State state, uint64_t offset, const std::string& what);
    bool Prologue();
    bool ParseBody(stream::Kind kind, std::string_view payload, bool later, RecordBody& body, std::string& why);
    bool CheckStructure(const StreamRecord& record, std::string& why);
    bool AtEnd();

    int m_fd;
    std::vector<char> m_in;
    size_t m_inPos = 0, m_inEnd = 0;
    bool m_inputDone = false;
    std::vector<char> m_payload;
    std::unique_ptr<detail::DataUnpacker> m_unpacker;  // made at the first packed record
    uint64_t m_offset = 0;
    uint64_t m_index = 0;
    State m_state = State::Reading;
    std::string m_error;
    uint64_t m_errorOffset = 0;
    bool m_prologueRead = false;
    char m_prologue[stream::kPrologueBytes] = {};
    uint16_t m_minor = 0;
    StreamHeaderRecord m_header;
    vsStreamTotals m_counted;
    Open m_open = Open::None;
    std::string m_openPath;
};

// "complete", "incomplete", ...
VS_CODEC_API const char* StateName(StreamReader::State state);

}  // namespace vshost
