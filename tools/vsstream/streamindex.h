// The stream index: for every extent of every disk in a stream file, where its records
// lie and the digest of its bytes, kept beside the stream as "<stream>.idx". With it a
// disk is read at any offset without reading the stream from its start, and a chain of
// a full backup and its incrementals is read as one disk (the newest extent wins).
#pragma once

#include "entrymodel.h"
#include "vscodec/streamseek.h"
#include "vscodec/xxh3.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace vsstream {

struct IndexedExtent {
    uint64_t offset = 0;                     // of its first record after its header
    uint64_t index = 0;                      // that record's number in the stream
    uint32_t records = 0;                    // data, packed data and hole records it holds
    bool holes = false;                      // it holds holes only: it reads as zeros
    uint64_t length = 0;                     // the bytes it stands for
    uint64_t digestLow = 0, digestHigh = 0;  // XXH3-128 of those bytes
    bool operator==(const IndexedExtent&) const = default;
};

struct IndexedDisk {
    uint64_t size = 0;
    uint64_t extentSize = 0;
    std::map<uint64_t, IndexedExtent> extents;  // by extent number; the last one the stream holds
    bool operator==(const IndexedDisk&) const = default;
};

struct StreamIndex {
    // What it was built from: the bytes of the stream's whole records, the checksum of
    // its header and of the last of them (the trailer's, when the stream is complete).
    uint64_t streamBytes = 0;
    uint64_t headerChecksum = 0;  // of its stream header (record 0)
    uint64_t lastChecksum = 0;
    bool complete = false;
    std::map<std::string, IndexedDisk> disks;  // by the disk entry's path, "\vm\disk"
    bool operator==(const StreamIndex&) const = default;
};

// Where the index of the stream file `stream` is kept.
std::string IndexPath(const std::string& stream);

// A stream's bytes read at any offset, and its index beside it: a file, or an object
// (s3://BUCKET/KEY, its index the object KEY.idx) through the opener set by a program
// that reaches the object store.
class StreamBytes {
public:
    virtual ~StreamBytes() = default;
    // Exactly `length` bytes at `offset`; false at the end of the stream or on an error.
    virtual bool ReadAt(char* out, size_t length, uint64_t offset) = 0;
    // Why the last ReadAt failed when the stream did not end there (a read error, a store
    // that did not answer); empty when it ended or nothing failed.
    virtual std::string ReadError() const = 0;
    virtual bool Size(uint64_t& size, std::string& why) = 0;
    // A descriptor that reads the stream from its start (not owned). -1 with `why`.
    virtual int Sequential(std::string& why) = 0;
    // Whether an index is kept beside it.
    virtual bool IndexExists() = 0;
    // The index kept beside it, whole; false with `why` when there is none.
    virtual bool ReadIndex(std::string& text, std::string& why) = 0;
    virtual bool SaveIndex(const StreamIndex& index, std::string& why) = 0;
    // Where its index is kept, for messages.
    virtual std::string IndexName() const = 0;
};
using ObjectOpener = std::function<std::unique_ptr<StreamBytes>(const std::string& url, std::string& why)>;
void SetObjectOpener(ObjectOpener opener);
// The stream `name`: a file, or an object when an opener is set. Null with `why`.
std::unique_ptr<StreamBytes> OpenStreamBytes(const std::string& name, std::string& why);
// The stream file `fd` (not owned), named `name`.
std::unique_ptr<StreamBytes> FileBytes(int fd, const std::string& name);

// Gathers the index while a stream is read (or written) in order.
class IndexBuilder {
public:
    // Each extent closed whole, with the geometry of its disk at that point (null when
    // the disk has none yet): where an extent goes instead of the index Finish returns.
    using ExtentSink =
        std::function<void(const std::string& disk, const DiskGeometry* g, uint64_t number, const IndexedExtent& e)>;
    IndexBuilder();
    explicit IndexBuilder(ExtentSink sink);
    ~IndexBuilder();
    IndexBuilder(const IndexBuilder&) = delete;
    IndexBuilder& operator=(const IndexBuilder&) = delete;
    // Each record once `model` has taken it; `usable` as the model said.
    void Take(const vshost::StreamRecord& record, const EntryModel& model, bool usable);
    // The index of what `reader` read from the stream file `fd`, or from `bytes`.
    StreamIndex Finish(const vshost::StreamReader& reader, int fd);
    StreamIndex Finish(const vshost::StreamReader& reader, StreamBytes& bytes);

private:
    struct Open;
    std::unique_ptr<Open> m_open;  // the extent being read
    StreamIndex m_index;
    ExtentSink m_sink;
};

// Encodes an index piece by piece in its layout (header, then each disk followed by its
// extents in ascending number) into a descriptor, with its check at the end: an index is
// written without being held whole.
class IndexEncoder {
public:
    explicit IndexEncoder(int fd);  // not owned
    // The fields of `index` before its disks (its disks are not read).
    void Header(const StreamIndex& index, uint32_t disks);
    void Disk(const std::string& key, uint64_t size, uint64_t extentSize, uint64_t extents);
    void Extent(uint64_t number, const IndexedExtent& e);
    // Writes the check and what is buffered. False with `why`.
    bool Finish(std::string& why);

private:
    void Put(const std::string& bytes);
    bool Drain();
    int m_fd;
    std::string m_buffer;
    std::unique_ptr<XXH3_state_t> m_state;
    bool m_failed = false;
    int m_errno = 0;
};

// Writes an index to `path` whole or not at all: `fill` encodes it into a file beside it
// (private, as the stream is), which is then renamed over `path`. `durable`: the file is
// synced before and its folder after the rename.
bool WriteIndexFile(const std::string& path, const std::function<bool(IndexEncoder&, std::string&)>& fill, bool durable,
                    std::string& why);

// Encodes `index` whole.
void EncodeIndex(const StreamIndex& index, IndexEncoder& out);
bool SaveIndex(const StreamIndex& index, const std::string& path, std::string& why);
// False with `why` when there is none, or it is damaged.
bool LoadIndex(const std::string& path, StreamIndex& index, std::string& why);
// The index `text`, kept at `name`; false with `why` when it is damaged.
bool ParseIndex(const std::string& text, const std::string& name, StreamIndex& index, std::string& why);

// `vsstream index STREAM`: reads the stream (a file, or an object) whole and writes its
// index beside it.
int RunIndex(const std::string& stream, std::ostream& out, std::ostream& err);
// The same for a stream already open.
int IndexStream(StreamBytes& stream, std::ostream& out, std::ostream& err);

// One disk of a chain of stream files (a full, then its incrementals, oldest first) read
// through their indexes, one extent buffer at a time; nothing is written.
class ChainDisk {
public:
    ChainDisk();
    ~ChainDisk();
    ChainDisk(const ChainDisk&) = delete;
    ChainDisk& operator=(const ChainDisk&) = delete;

    // `disk` is the disk's entry path ("\vm\disk", or "vm/disk"), or its name alone
    // when only one disk of the chain has it. Each stream's index must be there and
    // match its stream, unless `built` holds the stream's index already (at its place,
    // or null). False with `why`.
    bool Open(const std::vector<std::string>& streams, const std::string& disk, std::string& why,
              const std::vector<const StreamIndex*>& built = {});
    uint64_t size() const { return m_size; }
    uint64_t extentSize() const { return m_extentSize; }
    const std::string& key() const { return m_key; }
    // Reads [offset, offset + length) of the disk.
    bool Read(char* out, uint64_t length, uint64_t offset, std::string& why);
    // Whether the extent holding `offset` reads as zeros without being read (no stream
    // holds it, or the newest one that does holds holes only).
    bool IsHole(uint64_t offset) const;
    // The extents, each with the stream (by its place in the chain) whose copy is read.
    struct Source {
        size_t stream = 0;
        const IndexedExtent* extent = nullptr;
    };
    const std::map<uint64_t, Source>& extents() const { return m_extents; }
    // Extent `number` whole, into the extent buffer; its bytes.
    bool LoadExtent(uint64_t number, const char*& bytes, uint64_t& length, std::string& why);

private:
    struct Stream;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::string m_key;
    uint64_t m_size = 0, m_extentSize = 0;
    std::map<uint64_t, Source> m_extents;
    std::vector<char> m_buffer;
    uint64_t m_loaded = ~0ull;  // the extent in the buffer
};

// The disks of a chain's indexes, in the order they first appear.
std::vector<std::string> DisksOf(const std::vector<const StreamIndex*>& chain);

// XXH3-128 of `bytes`, as the index keeps digests.
void ExtentDigest(const char* bytes, uint64_t length, uint64_t& low, uint64_t& high);

}  // namespace vsstream
