// Change tracking by digest, for every disk format. The virtual-disk reader digests each
// extent it reads; when a pass over the whole disk completes it leaves the digests
// behind, and the archive writer stores them under the change id with which it records
// the disk's read as complete. A later read opened with that change id compares against
// them.
#pragma once

#include "hostapi/types.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vshost::changetrack {

struct Digest {
    uint64_t high = 0;
    uint64_t low = 0;
    bool operator==(const Digest&) const = default;
};

// XXH3-128 of an extent's bytes.
VS_HOST_API Digest DigestOf(const void* data, size_t length);

// Digests by extent number, kept in one sorted array: 24 bytes an extent (a node of a
// std::map took about 80), as a pass holds one per extent with data of the disk and an
// incremental holds its base's too. A pass adds extents in ascending order, at the end.
class ExtentDigests {
public:
    using Entry = std::pair<uint64_t, Digest>;
    using const_iterator = std::vector<Entry>::const_iterator;

    Digest& operator[](uint64_t extent) {
        if (m_entries.empty() || m_entries.back().first < extent)
            return m_entries.emplace_back(extent, Digest{}).second;
        auto it = Lower(extent);
        if (it == m_entries.end() || it->first != extent) it = m_entries.insert(it, Entry{extent, Digest{}});
        return it->second;
    }
    const_iterator lower_bound(uint64_t extent) const { return Lower(extent); }
    const_iterator find(uint64_t extent) const {
        const auto it = Lower(extent);
        return it != end() && it->first == extent ? it : end();
    }
    size_t count(uint64_t extent) const { return find(extent) != end() ? 1 : 0; }
    void erase(uint64_t extent) {
        if (const auto it = find(extent); it != end()) m_entries.erase(it);
    }
    void clear() { std::vector<Entry>().swap(m_entries); }
    size_t size() const { return m_entries.size(); }
    const_iterator begin() const { return m_entries.begin(); }
    const_iterator end() const { return m_entries.end(); }
    bool operator==(const ExtentDigests&) const = default;

private:
    std::vector<Entry>::iterator Lower(uint64_t extent) {
        return std::lower_bound(m_entries.begin(), m_entries.end(), extent,
                                [](const Entry& e, uint64_t n) { return e.first < n; });
    }
    const_iterator Lower(uint64_t extent) const {
        return std::lower_bound(m_entries.begin(), m_entries.end(), extent,
                                [](const Entry& e, uint64_t n) { return e.first < n; });
    }
    std::vector<Entry> m_entries;
};

// The digests of one state of a disk: one per extent that held data; extents not listed
// held none.
struct DiskDigests {
    uint64_t diskSize = 0;
    uint64_t extentSize = 0;
    ExtentDigests extents;
};

// Catalog storage, by change id. Store replaces what the id held; throws on a catalog error.
VS_HOST_API void Store(const std::string& changeId, const DiskDigests& digests);
VS_HOST_API std::optional<DiskDigests> Load(const std::string& changeId);

// Hand-over from the disk reader to the archive writer within one process: the digests
// of the last pass that covered a whole disk. Taking them empties the slot, and a pass
// that does not cover the whole disk clears it.
VS_HOST_API void LeaveCompletedPass(DiskDigests digests);
VS_HOST_API void ClearCompletedPass();
VS_HOST_API std::optional<DiskDigests> TakeCompletedPass();

// Hand-over of the base a disk is read against, from its opening to its description in
// the stream: Load leaves the id and geometry of the digests it found, and taking them
// empties the slot (so a disk opened without a change id finds it empty).
struct LoadedBase {
    std::string changeId;
    uint64_t diskSize = 0;
    uint64_t extentSize = 0;
};
VS_HOST_API std::optional<LoadedBase> TakeLoadedBase();

// Stores the completed pass under `changeId`, if there is one; false when there was
// none to store (nothing is then recorded for the id).
VS_HOST_API bool CommitCompletedPass(const std::string& changeId);

// Disks a job completed, with the change id of each: what an incremental job reads against.
struct JobDisk {
    std::string vmGuid;
    std::string diskName;
    std::string changeId;
};
VS_HOST_API void RecordJobDisk(int64_t jobId, const JobDisk& disk);
VS_HOST_API std::vector<JobDisk> JobDisks(int64_t jobId);
// Every disk any job completed, each with the change id of its latest completion: what
// an incremental of the newest state reads against.
VS_HOST_API std::vector<JobDisk> LatestDisks();

// What a job records as each disk completes (the disk, and the digests of the pass that
// just covered it), gathered and written to the catalog in one transaction: a durable
// commit costs several syncs, and paying them twice per disk made a job of many small
// disks wait on the catalog more than it read. Written once kMaxDisks disks or kMaxBytes
// of digests are waiting or the oldest has waited kMaxAge, and at Flush. What was not
// flushed when the process dies is lost: those disks have no change id to build an
// incremental on, so that incremental reads them whole.
class VS_HOST_API CompletedDisks {
public:
    static constexpr size_t kMaxDisks = 256;
    static constexpr size_t kMaxBytes = 8u << 20;
    static constexpr std::chrono::seconds kMaxAge{5};

    // Records `disk` of job `jobId` with the completed pass, which it takes; false when
    // there was none (the disk is recorded, its change id gets no digests).
    bool Add(int64_t jobId, const JobDisk& disk);
    // Whether Add's caller should Flush now.
    bool Due() const;
    // Writes what waits. On a catalog error throws and keeps what waited for the next
    // Flush (a catalog back from a short outage takes it then); when the lease of the
    // item is no longer held, throws queue::LeaseLost and drops it.
    void Flush();
    // Forgets what waits (its stream could not be made durable).
    void Drop();
    // Moves what waits in `other` behind what waits here (a pipeline holding the disks
    // until its stream is stored takes them from its archive writers).
    void TakeFrom(CompletedDisks& other);
    size_t Waiting() const { return m_disks.size(); }

private:
    struct Row {
        int64_t jobId;
        JobDisk disk;
        bool hasDigests;
        uint64_t diskSize, extentSize;
        std::string digests;  // stored form
    };
    std::vector<Row> m_disks;
    size_t m_bytes = 0;
    std::chrono::steady_clock::time_point m_oldest;
};

}  // namespace vshost::changetrack
