// The catalog's two databases, for tests that run against each: SQLite in the test home,
// and the PostgreSQL server that $VS_TEST_PG names (a libpq connection string, such as
// scripts/pg-test-server prints), each test in a schema of its own that is dropped after.
// Without $VS_TEST_PG the PostgreSQL variants are skipped, saying so; with it they must
// reach the server, or fail.
#pragma once

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vstest {

enum class Backend { SQLite, PostgreSQL };

inline std::string BackendName(const testing::TestParamInfo<Backend>& info) {
    return info.param == Backend::SQLite ? "SQLite" : "PostgreSQL";
}
inline void PrintTo(Backend b, std::ostream* os) {
    *os << (b == Backend::SQLite ? "SQLite" : "PostgreSQL");
}

// The test server's connection string, or empty.
inline std::string TestServer() {
    const char* server = std::getenv("VS_TEST_PG");
    return server ? server : "";
}

inline void QuietNotice(void*, const char*) {}

// A session of the test server's administrator, open for the life of the object (a
// transaction begun in it holds its locks that long); Exec throws with the server's
// message.
class ServerSession {
public:
    explicit ServerSession(const std::string& server) : m_server(server), m_conn(PQconnectdb(server.c_str())) {
        if (PQstatus(m_conn) != CONNECTION_OK) {
            const std::string why = PQerrorMessage(m_conn);
            PQfinish(m_conn);
            throw std::runtime_error("VS_TEST_PG (" + server + "): " + why);
        }
        PQsetNoticeProcessor(m_conn, QuietNotice, nullptr);  // "drop cascades to ..."
    }
    ~ServerSession() { PQfinish(m_conn); }
    ServerSession(const ServerSession&) = delete;
    ServerSession& operator=(const ServerSession&) = delete;

    void Exec(const std::string& sql) {
        PGresult* res = PQexec(m_conn, sql.c_str());
        const ExecStatusType st = PQresultStatus(res);
        const std::string why = PQresultErrorMessage(res);
        PQclear(res);
        if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK)
            throw std::runtime_error("VS_TEST_PG (" + m_server + "): " + why);
    }

private:
    std::string m_server;
    PGconn* m_conn;
};

inline void ServerExec(const std::string& server, const std::string& sql) {
    ServerSession(server).Exec(sql);
}

// A fresh, empty schema on the test server; the catalog of a home that uses
// Connection() lives in it.
class PgSchema {
public:
    explicit PgSchema(std::string server) : m_server(std::move(server)) {
        static std::atomic<int> counter = 0;
        m_name = "vs_test_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" +
                 std::to_string(std::random_device()() % 100000);
        ServerExec(m_server, "CREATE SCHEMA " + m_name);
    }
    ~PgSchema() {
        try {
            ServerExec(m_server, "DROP SCHEMA " + m_name + " CASCADE");
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
    PgSchema(const PgSchema&) = delete;
    PgSchema& operator=(const PgSchema&) = delete;

    // The catalog's connections name themselves after the schema, so that a test can
    // find them on the server.
    std::string Connection() const {
        return m_server + " options='-c search_path=" + m_name + "' application_name=" + m_name;
    }
    const std::string& Name() const { return m_name; }

private:
    std::string m_server;
    std::string m_name;
};

// Runs `body(i)` in `n` child processes at once; true when every one exited 0.
template <class Body>
bool InProcesses(int n, Body body) {
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        const pid_t pid = fork();
        if (pid < 0) return false;
        if (pid == 0) {
            int rc = 0;
            try {
                rc = body(i);
            } catch (const std::exception& e) {
                (void)std::fprintf(stderr, "child %d: %s\n", i, e.what());
                rc = 1;
            }
            _exit(rc);
        }
        pids.push_back(pid);
    }
    bool ok = true;
    for (pid_t pid : pids) {
        int status = 0;
        ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
    }
    return ok;
}

// The numbers `take(process, thread)` returned in `processes` child processes of
// `threads` threads each, all running at once (handed back through files in `folder`);
// none when any of them failed.
template <class Take>
std::vector<int64_t> TakenInProcesses(const std::string& folder, int processes, int threads, Take take) {
    const auto file = [&](int p) { return folder + "/taken" + std::to_string(p); };
    const bool ok = InProcesses(processes, [&](int p) {
        std::vector<std::vector<int64_t>> got(static_cast<size_t>(threads));
        std::atomic<int> failed = 0;
        std::vector<std::thread> running;
        for (int t = 0; t < threads; ++t)
            running.emplace_back([&, t] {
                try {
                    got[static_cast<size_t>(t)] = take(p, t);
                } catch (const std::exception& e) {
                    (void)std::fprintf(stderr, "%s\n", e.what());
                    ++failed;
                }
            });
        for (auto& th : running) th.join();
        std::ofstream out(file(p));
        for (const auto& list : got)
            for (int64_t n : list) out << n << "\n";
        return failed == 0 && out.flush() ? 0 : 1;
    });
    std::vector<int64_t> all;
    for (int p = 0; ok && p < processes; ++p) {
        std::ifstream in(file(p));
        for (int64_t n = 0; in >> n;) all.push_back(n);
    }
    return all;
}

// A test run once on each database: TempHome(CatalogConnection()) is a home whose catalog
// is on this test's database.
class CatalogBackendTest : public testing::TestWithParam<Backend> {
protected:
    void SetUp() override {
        if (GetParam() != Backend::PostgreSQL) return;
        const std::string server = TestServer();
        if (server.empty())
            GTEST_SKIP() << "SKIPPED the PostgreSQL variant: no test server. Run it with "
                            "VS_TEST_PG=\"$(scripts/pg-test-server start /tmp/vs-pg)\"";
        try {
            m_schema = std::make_unique<PgSchema>(server);
        } catch (const std::exception& e) {
            FAIL() << e.what();
        }
    }
    void TearDown() override { m_schema.reset(); }

    // The [Catalog] sConnection of this test's homes: empty (catalog.db) on SQLite.
    std::string CatalogConnection() const { return m_schema ? m_schema->Connection() : std::string(); }
    const vstest::PgSchema& Schema() const { return *m_schema; }
    bool OnPostgres() const { return GetParam() == Backend::PostgreSQL; }

private:
    std::unique_ptr<PgSchema> m_schema;
};

}  // namespace vstest

// Runs the tests of `Suite` (a CatalogBackendTest) on both databases.
#define VS_ON_BOTH_CATALOGS(Suite)                                                                                  \
    INSTANTIATE_TEST_SUITE_P(Catalog, Suite, testing::Values(vstest::Backend::SQLite, vstest::Backend::PostgreSQL), \
                             vstest::BackendName)
