// What one catalog call costs: a read (opening the catalog, which checks its schema, and
// one query) and a write transaction (a new job id), on SQLite in a temporary home and,
// when $VS_TEST_PG names a server, on PostgreSQL; and what a new PostgreSQL connection
// costs, which the host's connection pool saves on every call but the first; and what the
// catalog costs a shared job per item (lease, stream, one renewal, two disks, outcome).
#include "vshost/catalog.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vshost/queue.h"

#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

// Opens a temporary home whose catalog is on SQLite or on the server, for one benchmark,
// and gives the process back the home it had.
class CatalogHome {
public:
    explicit CatalogHome(const std::string& server) : m_before(vshost::HomeDir()) {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vsbench-catalog-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
        m_dir = pattern;
        vshost::OpenHome(m_dir);
        if (!server.empty()) vshost::settings::Set("Catalog", "sConnection", server);
        vshost::Catalog().AddCopy(1, 1, 1);
    }
    ~CatalogHome() {
        if (m_before.empty())
            vshost::CloseHome();
        else
            vshost::OpenHome(m_before);
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
    CatalogHome(const CatalogHome&) = delete;
    CatalogHome& operator=(const CatalogHome&) = delete;

private:
    std::string m_before, m_dir;
};

void BM_CatalogRead(benchmark::State& state, const std::string& server) {
    const CatalogHome home(server);
    for (auto _ : state) benchmark::DoNotOptimize(vshost::Catalog().CopyPrecedence(1, 1));
}

void BM_CatalogWrite(benchmark::State& state, const std::string& server) {
    const CatalogHome home(server);
    for (auto _ : state) benchmark::DoNotOptimize(vshost::Catalog().NewJobId(1));
}

void BM_PostgresConnect(benchmark::State& state, const std::string& server) {
    for (auto _ : state) {
        PGconn* conn = PQconnectdb(server.c_str());
        if (PQstatus(conn) != CONNECTION_OK) state.SkipWithError(PQerrorMessage(conn));
        PQfinish(conn);
    }
}

// One item of a shared job as a worker goes through it: leased, its stream recorded, its
// lease renewed once, its two disks recorded under the lease, its outcome recorded.
void BM_QueueItem(benchmark::State& state, const std::string& server) {
    namespace q = vshost::queue;
    const CatalogHome home(server);
    int64_t job = 0;
    for (auto _ : state) {
        auto item = q::LeaseNext(job, "bench", 1700000000, 60);
        if (!item) {
            state.PauseTiming();
            std::vector<q::NewItem> items(1000, q::NewItem{"vm", "{}"});
            job = vshost::Catalog().NewJobId(1);  // a server's catalog outlives one repetition
            q::CreateJob({job, 1, "{}", "/out/", 0, 1700000000}, items);
            state.ResumeTiming();
            item = q::LeaseNext(job, "bench", 1700000000, 60);
        }
        const q::Lease lease{item->jobId, item->itemNo, item->generation, "bench"};
        q::RecordStream(lease, "/out/stream");
        q::Renew(lease, 1700000001, 60, 1 << 20);
        q::HoldLease(lease);
        vshost::changetrack::CompletedDisks disks;
        disks.Add(item->jobId, {"vm" + std::to_string(item->itemNo), "a.vmdk", ""});
        disks.Add(item->jobId, {"vm" + std::to_string(item->itemNo), "b.vmdk", ""});
        disks.Flush();
        q::ReleaseLease();
        benchmark::DoNotOptimize(q::Finish(lease, q::Outcome::Done, "", "/out/stream", 1 << 20));
    }
}

// The PostgreSQL benchmarks exist only when a server is named.
const bool kRegistered = [] {
    benchmark::RegisterBenchmark("Catalog/read_SQLite", BM_CatalogRead, std::string())->UseRealTime();
    benchmark::RegisterBenchmark("Catalog/write_transaction_SQLite", BM_CatalogWrite, std::string())->UseRealTime();
    benchmark::RegisterBenchmark("Catalog/queue_item_SQLite", BM_QueueItem, std::string())->UseRealTime();
    const char* server = std::getenv("VS_TEST_PG");
    if (!server || !*server) return false;
    benchmark::RegisterBenchmark("Catalog/read_PostgreSQL", BM_CatalogRead, std::string(server))->UseRealTime();
    benchmark::RegisterBenchmark("Catalog/write_transaction_PostgreSQL", BM_CatalogWrite, std::string(server))
        ->UseRealTime();
    benchmark::RegisterBenchmark("Catalog/queue_item_PostgreSQL", BM_QueueItem, std::string(server))->UseRealTime();
    benchmark::RegisterBenchmark("Catalog/new_PostgreSQL_connection", BM_PostgresConnect, std::string(server))
        ->UseRealTime();
    return true;
}();

}  // namespace
