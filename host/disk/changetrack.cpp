#include "vshost/changetrack.h"

#include "catalog/db.h"
#include "detail.h"
#include "vscodec/xxh3.h"
#include "vshost/catalog.h"
#include "vshost/queue.h"

#include <cstring>
#include <mutex>
#include <stdexcept>

namespace vshost::changetrack {

namespace {

std::mutex g_passMutex;
std::optional<DiskDigests> g_completedPass;
std::optional<LoadedBase> g_loadedBase;

// Stored form: (extent, high, low) triples of little-endian 64-bit numbers.
constexpr size_t kEntryBytes = 24;

void Put(std::string& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

uint64_t Get(const char* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

std::string Serialize(const DiskDigests& digests) {
    std::string blob;
    blob.reserve(digests.extents.size() * kEntryBytes);
    for (const auto& [extent, digest] : digests.extents) {
        Put(blob, extent);
        Put(blob, digest.high);
        Put(blob, digest.low);
    }
    return blob;
}

void WriteDigests(db::Connection& conn, const std::string& changeId, uint64_t diskSize, uint64_t extentSize,
                  const std::string& blob) {
    db::Statement(conn,
                  "INSERT INTO disk_digests (change_id, disk_size, extent_size, digests) VALUES (?1, ?2, ?3, ?4) "
                  "ON CONFLICT (change_id) DO UPDATE SET disk_size = excluded.disk_size, "
                  "extent_size = excluded.extent_size, digests = excluded.digests")
        .Bind(1, changeId)
        .Bind(2, static_cast<int64_t>(diskSize))
        .Bind(3, static_cast<int64_t>(extentSize))
        .BindBlob(4, blob)
        .Run();
}

void WriteJobDisk(db::Connection& conn, int64_t jobId, const JobDisk& disk) {
    // A disk recorded again becomes the latest recorded.
    db::Statement(conn,
                  "INSERT INTO job_disks (job_id, vm_guid, disk_name, change_id, seq) VALUES (?1, ?2, ?3, ?4, "
                  "(SELECT COALESCE(MAX(seq), 0) + 1 FROM job_disks)) ON CONFLICT (job_id, vm_guid, disk_name) "
                  "DO UPDATE SET change_id = excluded.change_id, seq = excluded.seq")
        .Bind(1, jobId)
        .Bind(2, disk.vmGuid)
        .Bind(3, disk.diskName)
        .Bind(4, disk.changeId)
        .Run();
}

}  // namespace

Digest DigestOf(const void* data, size_t length) {
    const XXH128_hash_t h = XXH3_128bits(data, length);
    vshost::detail::AfterVectorHash();
    return Digest{h.high64, h.low64};
}

void Store(const std::string& changeId, const DiskDigests& digests) {
    db::Connection conn(Catalog().Path());
    WriteDigests(conn, changeId, digests.diskSize, digests.extentSize, Serialize(digests));
}

std::optional<DiskDigests> Load(const std::string& changeId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn, "SELECT disk_size, extent_size, digests FROM disk_digests WHERE change_id = ?1");
    q.Bind(1, changeId);
    if (!q.Step()) return std::nullopt;
    DiskDigests d;
    d.diskSize = static_cast<uint64_t>(q.Int(0));
    d.extentSize = static_cast<uint64_t>(q.Int(1));
    const std::string blob = q.Blob(2);
    if (blob.size() % kEntryBytes != 0) throw std::runtime_error("digests of change id " + changeId + " are damaged");
    for (size_t at = 0; at < blob.size(); at += kEntryBytes)
        d.extents[Get(blob.data() + at)] = Digest{Get(blob.data() + at + 8), Get(blob.data() + at + 16)};
    std::lock_guard<std::mutex> lock(g_passMutex);
    g_loadedBase = LoadedBase{changeId, d.diskSize, d.extentSize};
    return d;
}

void LeaveCompletedPass(DiskDigests digests) {
    std::lock_guard<std::mutex> lock(g_passMutex);
    g_completedPass = std::move(digests);
}

std::optional<LoadedBase> TakeLoadedBase() {
    std::lock_guard<std::mutex> lock(g_passMutex);
    std::optional<LoadedBase> taken = std::move(g_loadedBase);
    g_loadedBase.reset();
    return taken;
}

void ClearCompletedPass() {
    std::lock_guard<std::mutex> lock(g_passMutex);
    g_completedPass.reset();
}

std::optional<DiskDigests> TakeCompletedPass() {
    std::lock_guard<std::mutex> lock(g_passMutex);
    std::optional<DiskDigests> taken = std::move(g_completedPass);
    g_completedPass.reset();
    return taken;
}

bool CommitCompletedPass(const std::string& changeId) {
    std::optional<DiskDigests> pass = TakeCompletedPass();
    if (!pass || changeId.empty()) return false;
    Store(changeId, *pass);
    return true;
}

void RecordJobDisk(int64_t jobId, const JobDisk& disk) {
    db::Connection conn(Catalog().Path());
    db::InTransaction(conn, [&] {
        detail::CheckHeldLease(conn, jobId);
        WriteJobDisk(conn, jobId, disk);
    });
}

std::vector<JobDisk> JobDisks(int64_t jobId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn,
                    "SELECT vm_guid, disk_name, change_id FROM job_disks WHERE job_id = ?1 "
                    "ORDER BY seq, vm_guid, disk_name");
    q.Bind(1, jobId);
    std::vector<JobDisk> out;
    while (q.Step()) out.push_back(JobDisk{q.Text(0), q.Text(1), q.Text(2)});
    return out;
}

std::vector<JobDisk> LatestDisks() {
    db::Connection conn(Catalog().Path());
    // Each disk's last recorded row; rows recorded at the same moment outside a write
    // transaction may share a seq, and the higher job id wins then.
    db::Statement q(conn,
                    "SELECT vm_guid, disk_name, change_id FROM (SELECT vm_guid, disk_name, change_id, "
                    "ROW_NUMBER() OVER (PARTITION BY vm_guid, disk_name ORDER BY seq DESC, job_id DESC) AS r "
                    "FROM job_disks WHERE change_id <> '') AS latest WHERE r = 1 ORDER BY vm_guid, disk_name");
    std::vector<JobDisk> out;
    while (q.Step()) out.push_back(JobDisk{q.Text(0), q.Text(1), q.Text(2)});
    return out;
}

bool CompletedDisks::Add(int64_t jobId, const JobDisk& disk) {
    if (m_disks.empty()) m_oldest = std::chrono::steady_clock::now();
    Row row{jobId, disk, false, 0, 0, {}};
    // Taken even without a change id, so that the pass cannot be stored under the next disk's.
    std::optional<DiskDigests> pass = TakeCompletedPass();
    if (pass && !disk.changeId.empty()) {
        row.hasDigests = true;
        row.diskSize = pass->diskSize;
        row.extentSize = pass->extentSize;
        row.digests = Serialize(*pass);
        m_bytes += row.digests.size();
    }
    m_disks.push_back(std::move(row));
    return m_disks.back().hasDigests;
}

void CompletedDisks::Drop() {
    m_disks.clear();
    m_bytes = 0;
}

void CompletedDisks::TakeFrom(CompletedDisks& other) {
    if (other.m_disks.empty()) return;
    if (m_disks.empty()) m_oldest = other.m_oldest;
    for (Row& row : other.m_disks) m_disks.push_back(std::move(row));
    m_bytes += other.m_bytes;
    other.Drop();
}

bool CompletedDisks::Due() const {
    return !m_disks.empty() && (m_disks.size() >= kMaxDisks || m_bytes >= kMaxBytes ||
                                std::chrono::steady_clock::now() - m_oldest >= kMaxAge);
}

void CompletedDisks::Flush() {
    if (m_disks.empty()) return;
    try {
        db::Connection conn(Catalog().Path());
        db::InTransaction(conn, [&] {
            // A worker that lost its item's lease records none of its disks.
            int64_t checked = -1;
            for (const Row& row : m_disks)
                if (row.jobId != checked) detail::CheckHeldLease(conn, checked = row.jobId);
            for (const Row& row : m_disks) {
                WriteJobDisk(conn, row.jobId, row.disk);
                if (row.hasDigests) WriteDigests(conn, row.disk.changeId, row.diskSize, row.extentSize, row.digests);
            }
        });
    } catch (const queue::LeaseLost&) {
        Drop();
        throw;
    }
    Drop();
}

}  // namespace vshost::changetrack
