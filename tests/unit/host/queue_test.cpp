// Items of shared jobs, leased through the catalog: one worker each, an expired lease goes
// to the next worker, and a worker that lost its lease records nothing.
#include "vshost/queue.h"
#include "catalog_backend.h"
#include "temp_home.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <map>

namespace {

namespace q = vshost::queue;
namespace ct = vshost::changetrack;

class QueueOn : public vstest::CatalogBackendTest {};
VS_ON_BOTH_CATALOGS(QueueOn);

constexpr int64_t kNow = 1700000000;

void Queue(int64_t jobId, int items) {
    std::vector<q::NewItem> list;
    for (int i = 1; i <= items; ++i) list.push_back({"vm" + std::to_string(i), "{}"});
    q::CreateJob({jobId, 77, "{}", "/out/", 0, kNow}, list);
}

q::Lease LeaseOf(const q::Item& it) {
    return {it.jobId, it.itemNo, it.generation, it.owner};
}

TEST_P(QueueOn, AnExpiredLeaseGoesToTheNextWorkerAndTheOldOneRecordsNothing) {
    vstest::TempHome home(CatalogConnection());
    EXPECT_EQ(q::LeaseSeconds(), 60);
    vshost::settings::Set("Catalog", "nLeaseSeconds", "0");
    EXPECT_THROW(q::LeaseSeconds(), std::runtime_error);
    vshost::settings::Set("Catalog", "nLeaseSeconds", "5");
    EXPECT_EQ(q::LeaseSeconds(), 5);

    Queue(9, 3);
    EXPECT_THROW(Queue(9, 1), std::runtime_error);
    const auto a = q::LeaseNext(9, "a", kNow, 10), b = q::LeaseNext(0, "b", kNow, 10);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(std::make_tuple(a->itemNo, a->generation, a->state), std::make_tuple(int64_t{1}, int64_t{1}, "running"));
    EXPECT_EQ(b->itemNo, 2);
    EXPECT_TRUE(q::LeaseNext(9, "c", kNow, 10).has_value());
    EXPECT_FALSE(q::LeaseNext(9, "d", kNow + 5, 10).has_value());  // every lease still runs
    EXPECT_EQ(q::NextExpiry(9), kNow + 10);
    EXPECT_FALSE(q::NextExpiry(8).has_value());

    // a renews and records its stream; then its worker stops answering, and d takes over.
    EXPECT_TRUE(q::Renew(LeaseOf(*a), kNow + 5, 10, 4096));
    EXPECT_TRUE(q::RecordStream(LeaseOf(*a), "/out/job9.item1.1.partial-x"));
    const auto d = q::LeaseNext(9, "d", kNow + 16, 10);
    ASSERT_TRUE(d.has_value());
    EXPECT_EQ(std::make_tuple(d->itemNo, d->generation, d->owner), std::make_tuple(int64_t{1}, int64_t{2}, "d"));
    EXPECT_EQ(d->streams, std::vector<std::string>{"/out/job9.item1.1.partial-x"});

    // Fenced: nothing a may still try is recorded, disks included.
    EXPECT_FALSE(q::Renew(LeaseOf(*a), kNow + 16, 10, 8192));
    EXPECT_FALSE(q::RecordStream(LeaseOf(*a), "/out/late"));
    EXPECT_FALSE(q::Finish(LeaseOf(*a), q::Outcome::Done, "", "/out/job9.item1.1", 8192));
    q::HoldLease(LeaseOf(*a));
    EXPECT_THROW(ct::RecordJobDisk(9, {"vm1", "a.vmdk", "c1"}), std::runtime_error);
    ct::CompletedDisks batch;
    batch.Add(9, {"vm1", "b.vmdk", "c2"});
    EXPECT_THROW(batch.Flush(), q::LeaseLost);
    EXPECT_EQ(batch.Waiting(), 0u);
    ct::RecordJobDisk(8, {"vm1", "a.vmdk", "c0"});  // another job's disks are not this lease's
    EXPECT_TRUE(ct::JobDisks(9).empty());
    // A catalog that cannot take a batch keeps it for the next Flush, which records it once.
    const auto rename = [&](const std::string& from, const std::string& to) {
        const std::string sql = "ALTER TABLE " + from + " RENAME TO " + to;
        if (OnPostgres())
            return vstest::ServerExec(vstest::TestServer(), "SET search_path = " + Schema().Name() + "; " + sql);
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(home.sub("catalog.db").c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
        sqlite3_close(db);
    };
    ct::CompletedDisks waiting;
    waiting.Add(8, {"vm1", "b.vmdk", "c3"});
    rename("job_disks", "job_disks_away");
    EXPECT_THROW(waiting.Flush(), std::runtime_error);
    EXPECT_EQ(waiting.Waiting(), 1u);
    rename("job_disks_away", "job_disks");
    waiting.Flush();
    EXPECT_EQ(waiting.Waiting(), 0u);
    EXPECT_EQ(ct::JobDisks(8).size(), 2u);

    q::HoldLease(LeaseOf(*d));
    ct::RecordJobDisk(9, {"vm1", "a.vmdk", "c1"});
    q::ReleaseLease();
    EXPECT_EQ(ct::JobDisks(9).size(), 1u);
    EXPECT_TRUE(q::RecordStream(LeaseOf(*d), "/out/job9.item1.2.partial-y"));
    EXPECT_TRUE(q::Finish(LeaseOf(*d), q::Outcome::Done, "", "/out/job9.item1.2", 65536));

    // An expired lease that nobody took is still its worker's; given back, the item is
    // leased again under the next generation; a failure keeps its reason.
    EXPECT_TRUE(q::Finish(LeaseOf(*b), q::Outcome::GivenBack, "", "", 0));
    const auto again = q::LeaseNext(9, "e", kNow + 20, 10);
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(std::make_tuple(again->itemNo, again->generation), std::make_tuple(int64_t{2}, int64_t{2}));
    EXPECT_TRUE(q::Finish(LeaseOf(*again), q::Outcome::Failed, "disk 1 unreadable", "", 0));

    const auto items = q::Items(9);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].state, "done");
    EXPECT_EQ(items[0].owner, "d");
    EXPECT_EQ(items[0].progress, 65536);
    EXPECT_EQ(items[0].streams, (std::vector<std::string>{"/out/job9.item1.1.partial-x", "/out/job9.item1.2"}));
    EXPECT_EQ(std::make_tuple(items[1].state, items[1].failure),
              std::make_tuple(std::string("failed"), std::string("disk 1 unreadable")));
    EXPECT_EQ(items[2].state, "running");
    EXPECT_EQ(q::FindJob(9)->outPrefix, "/out/");
}

// Workers in several processes, each with threads, lease at once until nothing is left:
// every item goes to exactly one of them.
TEST_P(QueueOn, ConcurrentWorkersNeverShareAnItem) {
    vstest::TempHome home(CatalogConnection());
    constexpr int kItems = 40, kProcesses = 3, kThreads = 2;
    Queue(5, kItems);
    std::map<int64_t, int> leased;
    for (int64_t n : vstest::TakenInProcesses(home.path(), kProcesses, kThreads, [](int p, int t) {
             std::vector<int64_t> got;
             const std::string owner = std::to_string(p) + "." + std::to_string(t);
             while (const auto it = q::LeaseNext(5, owner, kNow, 60)) got.push_back(it->itemNo);
             return got;
         }))
        ++leased[n];
    EXPECT_EQ(leased.size(), static_cast<size_t>(kItems));
    for (const auto& [item, times] : leased) EXPECT_EQ(times, 1) << "item " << item;
    for (const auto& it : q::Items(5)) EXPECT_EQ(it.generation, 1);
}

}  // namespace
