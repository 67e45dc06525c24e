// Jobs shared by workers through the catalog: items leased one at a time, fenced by the
// lease generation.
#include "vshost/queue.h"

#include "catalog/db.h"
#include "detail.h"
#include "vshost/catalog.h"

#include <ctime>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace vshost::queue {
namespace {

constexpr const char* kItemColumns =
    "SELECT job_id, item_no, path, spec, state, lease_owner, lease_expires, lease_gen, progress, failure, "
    "stream_key, streams FROM work_items ";

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

Item ItemRow(const db::Statement& q) {
    Item it;
    it.jobId = q.Int(0);
    it.itemNo = q.Int(1);
    it.path = q.Text(2);
    it.spec = q.Text(3);
    it.state = q.Text(4);
    it.owner = q.Text(5);
    it.leaseExpires = q.Int(6);
    it.generation = q.Int(7);
    it.progress = q.Int(8);
    it.failure = q.Text(9);
    it.streamKey = q.Text(10);
    it.streams = Lines(q.Text(11));
    return it;
}

int64_t Now() {
    return static_cast<int64_t>(std::time(nullptr));
}

// True when `lease` is still held; on PostgreSQL the item's row stays locked until the
// transaction ends, so a worker taking the item over waits for what is being recorded
// under the old generation (or, having taken it, makes this check fail).
bool StillHeld(db::Connection& conn, const Lease& lease) {
    std::string sql =
        "SELECT 1 FROM work_items WHERE job_id = ?1 AND item_no = ?2 AND lease_gen = ?3 AND lease_owner = ?4 "
        "AND state = 'running'";
    if (conn.GetDialect() == db::Dialect::PostgreSQL) sql += " FOR UPDATE";
    db::Statement q(conn, sql.c_str());
    q.Bind(1, lease.jobId).Bind(2, lease.itemNo).Bind(3, lease.generation).Bind(4, lease.owner);
    return q.Step();
}

std::mutex g_heldMutex;
std::optional<Lease> g_held;

}  // namespace

int LeaseSeconds() {
    const auto text = detail::Setting("Catalog", "nLeaseSeconds");
    if (!text) return kDefaultLeaseSeconds;
    const auto n = detail::ParseWholeNumber(*text);
    if (!n || *n < 1 || *n > 86400)
        throw std::runtime_error("[Catalog] nLeaseSeconds must be a whole number of seconds from 1 to 86400, not \"" +
                                 *text + "\"");
    return static_cast<int>(*n);
}

void CreateJob(const WorkJob& job, const std::vector<NewItem>& items) {
    db::Connection conn(Catalog().Path());
    db::InTransaction(conn, [&] {
        db::Statement known(conn, "SELECT 1 FROM work_jobs WHERE job_id = ?1");
        known.Bind(1, job.jobId);
        if (known.Step()) throw std::runtime_error("job " + std::to_string(job.jobId) + " is queued already");
        db::Statement(conn,
                      "INSERT INTO work_jobs (job_id, snap_job_id, spec, out_prefix, compress, created) "
                      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)")
            .Bind(1, job.jobId)
            .Bind(2, job.snapJobId)
            .Bind(3, job.spec)
            .Bind(4, job.outPrefix)
            .Bind(5, job.compress)
            .Bind(6, job.created)
            .Run();
        int64_t n = 0;
        for (const NewItem& item : items)
            db::Statement(conn,
                          "INSERT INTO work_items (job_id, item_no, path, spec, updated) VALUES (?1, ?2, ?3, ?4, ?5)")
                .Bind(1, job.jobId)
                .Bind(2, ++n)
                .Bind(3, item.path)
                .Bind(4, item.spec)
                .Bind(5, job.created)
                .Run();
    });
}

std::optional<WorkJob> FindJob(int64_t jobId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn,
                    "SELECT job_id, snap_job_id, spec, out_prefix, compress, created FROM work_jobs WHERE job_id = ?1");
    q.Bind(1, jobId);
    if (!q.Step()) return std::nullopt;
    return WorkJob{q.Int(0), q.Int(1), q.Text(2), q.Text(3), static_cast<int>(q.Int(4)), q.Int(5)};
}

std::vector<Item> Items(int64_t jobId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn, (std::string(kItemColumns) + "WHERE job_id = ?1 ORDER BY item_no").c_str());
    q.Bind(1, jobId);
    std::vector<Item> out;
    while (q.Step()) out.push_back(ItemRow(q));
    return out;
}

std::optional<Item> LeaseNext(int64_t jobId, const std::string& owner, int64_t now, int seconds) {
    db::Connection conn(Catalog().Path());
    // PostgreSQL: workers pass over each other's rows instead of queueing for them.
    // SQLite: the transaction holds the database's write lock, which is as exclusive.
    std::string pick =
        "SELECT job_id, item_no FROM work_items WHERE (state = 'queued' OR (state = 'running' AND "
        "lease_expires < ?1)) AND (?2 = 0 OR job_id = ?2) ORDER BY job_id, item_no LIMIT 1";
    if (conn.GetDialect() == db::Dialect::PostgreSQL) pick += " FOR UPDATE SKIP LOCKED";
    std::optional<Item> out;
    db::InRowLockedTransaction(conn, [&] {
        int64_t job = 0, item = 0;
        {
            db::Statement q(conn, pick.c_str());
            q.Bind(1, now).Bind(2, jobId);
            if (!q.Step()) return;
            job = q.Int(0);
            item = q.Int(1);
        }
        db::Statement(conn,
                      "UPDATE work_items SET state = 'running', lease_owner = ?3, lease_expires = ?4, "
                      "lease_gen = lease_gen + 1, progress = 0, failure = '', stream_key = '', updated = ?5 "
                      "WHERE job_id = ?1 AND item_no = ?2")
            .Bind(1, job)
            .Bind(2, item)
            .Bind(3, owner)
            .Bind(4, now + seconds)
            .Bind(5, now)
            .Run();
        db::Statement q(conn, (std::string(kItemColumns) + "WHERE job_id = ?1 AND item_no = ?2").c_str());
        q.Bind(1, job).Bind(2, item);
        if (q.Step()) out = ItemRow(q);
    });
    return out;
}

std::optional<int64_t> NextExpiry(int64_t jobId) {
    db::Connection conn(Catalog().Path());
    db::Statement q(conn,
                    "SELECT MIN(lease_expires) FROM work_items WHERE state = 'running' AND (?1 = 0 OR job_id = ?1) "
                    "HAVING COUNT(*) > 0");
    q.Bind(1, jobId);
    if (!q.Step()) return std::nullopt;
    return q.Int(0);
}

bool Renew(const Lease& lease, int64_t now, int seconds, int64_t progress) {
    db::Connection conn(Catalog().Path());
    bool held = false;
    db::InRowLockedTransaction(conn, [&] {
        held = StillHeld(conn, lease);
        if (!held) return;
        db::Statement(conn,
                      "UPDATE work_items SET lease_expires = ?3, progress = ?4, updated = ?5 "
                      "WHERE job_id = ?1 AND item_no = ?2")
            .Bind(1, lease.jobId)
            .Bind(2, lease.itemNo)
            .Bind(3, now + seconds)
            .Bind(4, progress)
            .Bind(5, now)
            .Run();
    });
    return held;
}

bool RecordStream(const Lease& lease, const std::string& key) {
    db::Connection conn(Catalog().Path());
    bool held = false;
    db::InRowLockedTransaction(conn, [&] {
        held = StillHeld(conn, lease);
        if (!held) return;
        db::Statement(conn,
                      "UPDATE work_items SET stream_key = ?3, streams = streams || ?3 || ?4, updated = ?5 "
                      "WHERE job_id = ?1 AND item_no = ?2")
            .Bind(1, lease.jobId)
            .Bind(2, lease.itemNo)
            .Bind(3, key)
            .Bind(4, std::string("\n"))
            .Bind(5, Now())
            .Run();
    });
    return held;
}

bool Finish(const Lease& lease, Outcome outcome, const std::string& failure, const std::string& stream,
            int64_t progress) {
    db::Connection conn(Catalog().Path());
    bool held = false;
    db::InRowLockedTransaction(conn, [&] {
        held = StillHeld(conn, lease);
        if (!held) return;
        std::string streams;
        std::string key;
        {
            db::Statement q(conn, "SELECT streams, stream_key FROM work_items WHERE job_id = ?1 AND item_no = ?2");
            q.Bind(1, lease.jobId).Bind(2, lease.itemNo);
            if (q.Step()) {
                streams = q.Text(0);
                key = q.Text(1);
            }
        }
        // The attempt's stream under its final name: the temporary it was written as is gone.
        if (!stream.empty() && !key.empty()) {
            std::vector<std::string> list = Lines(streams);
            if (!list.empty() && list.back() == key) list.back() = stream;
            streams.clear();
            for (const std::string& s : list) streams += s + "\n";
            key = stream;
        }
        const char* state = outcome == Outcome::Done ? "done" : outcome == Outcome::Failed ? "failed" : "queued";
        db::Statement(conn,
                      "UPDATE work_items SET state = ?3, failure = ?4, stream_key = ?5, streams = ?6, progress = ?7, "
                      "lease_expires = 0, updated = ?8 WHERE job_id = ?1 AND item_no = ?2")
            .Bind(1, lease.jobId)
            .Bind(2, lease.itemNo)
            .Bind(3, std::string(state))
            .Bind(4, failure)
            .Bind(5, key)
            .Bind(6, streams)
            .Bind(7, progress)
            .Bind(8, Now())
            .Run();
    });
    return held;
}

void HoldLease(const Lease& lease) {
    std::lock_guard<std::mutex> lock(g_heldMutex);
    g_held = lease;
}

void ReleaseLease() {
    std::lock_guard<std::mutex> lock(g_heldMutex);
    g_held.reset();
}

}  // namespace vshost::queue

namespace vshost::detail {

void CheckHeldLease(db::Connection& conn, int64_t jobId) {
    std::optional<queue::Lease> held;
    {
        std::lock_guard<std::mutex> lock(queue::g_heldMutex);
        held = queue::g_held;
    }
    if (!held || held->jobId != jobId) return;
    if (!queue::StillHeld(conn, *held))
        throw queue::LeaseLost("the lease of item " + std::to_string(held->itemNo) + " of job " +
                               std::to_string(jobId) + " (generation " + std::to_string(held->generation) +
                               ") is no longer this worker's: nothing recorded");
}

}  // namespace vshost::detail
