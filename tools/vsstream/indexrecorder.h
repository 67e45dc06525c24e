// The stream index made by the writer of a stream, from the records it writes (a tap on
// its encoder) and the places its writer thread reports for them, without reading the
// stream back. What it gathers goes to two unlinked files as it comes, so that its memory
// stays the same however many extents a disk has: per extent a fixed entry, per record
// its offset. The index is assembled from them once the stream is complete, byte for
// byte as `vsstream index` would make it from the stream.
#pragma once

#include "entrymodel.h"
#include "streamindex.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vsstream {

class IndexRecorder {
public:
    // Its files are made in `folder` and unlinked at once. Throws std::runtime_error.
    explicit IndexRecorder(const std::string& folder);
    ~IndexRecorder();
    IndexRecorder(const IndexRecorder&) = delete;
    IndexRecorder& operator=(const IndexRecorder&) = delete;

    // Each record as the stream's encoder writes it, in order.
    void Take(const vshost::StreamRecord& record);
    // Where record `index` begins in the stream; in stream order, from one thread at a time.
    void Place(uint64_t index, uint64_t offset);
    // The stream ended with its trailer.
    bool complete() const { return m_complete; }
    // Encodes the index of the complete stream, `streamBytes` long. False with `why` (a
    // file of its own could not be written or read).
    bool Write(IndexEncoder& out, uint64_t streamBytes, std::string& why);

    // Bytes its files hold per extent and per record.
    static constexpr uint64_t kBytesPerExtent = 64, kBytesPerRecord = 8;

private:
    struct Spill;
    struct DiskState {
        std::string key;
        uint64_t size = 0, extentSize = 0;
    };
    void Extent(const std::string& disk, const DiskGeometry* g, uint64_t number, const IndexedExtent& e);

    EntryModel m_model;
    IndexBuilder m_builder;
    std::vector<DiskState> m_disks;             // by the order they first closed an extent
    std::map<std::string, uint32_t> m_ordinal;  // of each disk key in m_disks
    std::unique_ptr<Spill> m_extents, m_places;
    uint64_t m_entries = 0;
    uint64_t m_headerChecksum = 0, m_lastChecksum = 0;
    bool m_complete = false;
};

}  // namespace vsstream
