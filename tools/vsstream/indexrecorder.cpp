// The writer's stream index, gathered into unlinked files and assembled at the end.
#include "indexrecorder.h"

#include "hostapi/fd.h"
#include "vscodec/streambytes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <tuple>

namespace vsstream {

using vshost::stream::Kind;

namespace {

// One extent closed whole, as it goes to its file: fixed size, so that the file is
// sorted where it lies.
struct SpilledExtent {
    uint32_t disk = 0;  // ordinal, by the order disks first closed an extent
    uint32_t records = 0;
    uint64_t number = 0;
    uint64_t seq = 0;  // the order it was closed in: the later copy of an extent wins
    uint64_t index = 0;
    uint64_t length = 0;
    uint64_t digestLow = 0, digestHigh = 0;
    uint8_t holes = 0;
    uint8_t pad[7] = {};
};
static_assert(sizeof(SpilledExtent) == IndexRecorder::kBytesPerExtent);

}  // namespace

// An unlinked file written through a small buffer, at any place.
struct IndexRecorder::Spill {
    explicit Spill(const std::string& folder) {
        std::string name = (folder.empty() ? std::string(".") : folder) + "/.vsdm-index-XXXXXX";
        fd = vshost::Fd(::mkostemp(name.data(), O_CLOEXEC));
        if (!fd.valid())
            throw std::runtime_error("cannot make a file for the stream index in " + folder + ": " +
                                     std::strerror(errno));
        ::unlink(name.c_str());
    }
    // `bytes` at `at`; buffered while they follow what is buffered.
    void Put(const void* bytes, size_t length, uint64_t at) {
        if (at != start + buffer.size() || buffer.size() + length > kBuffer) Flush();
        if (buffer.empty()) start = at;
        buffer.append(static_cast<const char*>(bytes), length);
    }
    bool Flush() {
        for (size_t done = 0; !failed && done < buffer.size();) {
            const ssize_t n =
                ::pwrite(fd.get(), buffer.data() + done, buffer.size() - done, static_cast<off_t>(start + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                failed = n < 0 ? errno : EIO;
                break;
            }
            done += static_cast<size_t>(n);
        }
        start += buffer.size();
        buffer.clear();
        return failed == 0;
    }
    static constexpr size_t kBuffer = size_t{64} << 10;
    vshost::Fd fd;
    std::string buffer;
    uint64_t start = 0;
    int failed = 0;  // the errno of the first write that failed
};

IndexRecorder::IndexRecorder(const std::string& folder)
    : m_builder([this](const std::string& disk, const DiskGeometry* g, uint64_t number, const IndexedExtent& e) {
          Extent(disk, g, number, e);
      }),
      m_extents(std::make_unique<Spill>(folder)),
      m_places(std::make_unique<Spill>(folder)) {}

IndexRecorder::~IndexRecorder() = default;

void IndexRecorder::Take(const vshost::StreamRecord& record) {
    std::string why;  // a record the model refuses is left out, as `vsstream index` leaves it
    const bool usable = m_model.Apply(record, why);
    m_builder.Take(record, m_model, usable);
    if (record.kind == Kind::StreamHeader) m_headerChecksum = record.checksum;
    if (record.kind == Kind::Trailer) {
        m_lastChecksum = record.checksum;
        m_complete = true;
    }
}

void IndexRecorder::Place(uint64_t index, uint64_t offset) {
    char le[8];
    vshost::detail::PutLE(le, offset, 8);
    m_places->Put(le, sizeof le, index * kBytesPerRecord);
}

void IndexRecorder::Extent(const std::string& disk, const DiskGeometry* g, uint64_t number, const IndexedExtent& e) {
    auto [it, added] = m_ordinal.emplace(disk, static_cast<uint32_t>(m_disks.size()));
    if (added) m_disks.push_back({disk, 0, 0});
    DiskState& d = m_disks[it->second];
    if (g) {
        d.size = g->size;
        d.extentSize = g->extentSize;
    }
    SpilledExtent entry;
    entry.disk = it->second;
    entry.records = e.records;
    entry.number = number;
    entry.seq = m_entries;
    entry.index = e.index;
    entry.length = e.length;
    entry.digestLow = e.digestLow;
    entry.digestHigh = e.digestHigh;
    entry.holes = e.holes ? 1 : 0;
    m_extents->Put(&entry, sizeof entry, m_entries * sizeof entry);
    ++m_entries;
}

namespace {

// The entries of the extents file, mapped: sorted in place, paged by the kernel.
class Mapped {
public:
    Mapped(int fd, uint64_t count) : m_count(count) {
        if (count == 0) return;
        void* at = ::mmap(nullptr, count * sizeof(SpilledExtent), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (at != MAP_FAILED) m_entries = static_cast<SpilledExtent*>(at);
    }
    ~Mapped() {
        if (m_entries) ::munmap(m_entries, m_count * sizeof(SpilledExtent));
    }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;
    bool ok() const { return m_count == 0 || m_entries; }
    SpilledExtent* begin() const { return m_entries; }
    SpilledExtent* end() const { return m_entries + m_count; }

private:
    SpilledExtent* m_entries = nullptr;
    uint64_t m_count;
};

}  // namespace

bool IndexRecorder::Write(IndexEncoder& out, uint64_t streamBytes, std::string& why) {
    if (!m_extents->Flush() || !m_places->Flush()) {
        why = std::string("cannot keep the index's entries: ") +
              std::strerror(m_extents->failed ? m_extents->failed : m_places->failed);
        return false;
    }
    const Mapped entries(m_extents->fd.get(), m_entries);
    if (!entries.ok()) {
        why = std::string("cannot map the index's entries: ") + std::strerror(errno);
        return false;
    }
    // Disks in the order of their keys, each extent once (its last copy), by number.
    std::vector<uint32_t> rank(m_disks.size());
    {
        std::vector<uint32_t> byKey(m_disks.size());
        std::iota(byKey.begin(), byKey.end(), 0);
        std::sort(byKey.begin(), byKey.end(), [&](uint32_t a, uint32_t b) { return m_disks[a].key < m_disks[b].key; });
        for (uint32_t r = 0; r < byKey.size(); ++r) rank[byKey[r]] = r;
    }
    std::sort(entries.begin(), entries.end(), [&rank](const SpilledExtent& a, const SpilledExtent& b) {
        return std::tie(rank[a.disk], a.number, a.seq) < std::tie(rank[b.disk], b.number, b.seq);
    });
    const auto superseded = [&entries](const SpilledExtent* e) {
        return e + 1 != entries.end() && e[1].disk == e->disk && e[1].number == e->number;
    };
    std::vector<uint64_t> counts(m_disks.size());
    for (const SpilledExtent* e = entries.begin(); e != entries.end(); ++e)
        if (!superseded(e)) ++counts[e->disk];

    StreamIndex head;
    head.streamBytes = streamBytes;
    head.headerChecksum = m_headerChecksum;
    head.lastChecksum = m_lastChecksum;
    head.complete = m_complete;
    out.Header(head, static_cast<uint32_t>(m_disks.size()));
    uint32_t disk = ~0u;
    for (const SpilledExtent* e = entries.begin(); e != entries.end(); ++e) {
        if (superseded(e)) continue;
        if (e->disk != disk) {
            disk = e->disk;
            const DiskState& d = m_disks[disk];
            out.Disk(d.key, d.size, d.extentSize, counts[disk]);
        }
        // A record whose place never came reads as 0 (a hole of the file, or past its end),
        // where no record begins: the prologue does.
        char le[8] = {};
        const ssize_t got = ::pread(m_places->fd.get(), le, sizeof le, static_cast<off_t>(e->index * kBytesPerRecord));
        IndexedExtent x;
        x.offset = got == 8 ? vshost::detail::GetLE(le, 8) : 0;
        if (x.offset == 0) {
            why = "no place was reported for record #" + std::to_string(e->index);
            return false;
        }
        x.index = e->index;
        x.records = e->records;
        x.holes = e->holes != 0;
        x.length = e->length;
        x.digestLow = e->digestLow;
        x.digestHigh = e->digestHigh;
        out.Extent(e->number, x);
    }
    return true;
}

}  // namespace vsstream
