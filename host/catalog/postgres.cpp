// The catalog on a PostgreSQL server that several hosts share, through libpq.
#include "catalog/backend.h"

#include <endian.h>
#include <libpq-fe.h>
#include <unistd.h>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace vshost::db {
namespace {

// Type oids of the values the catalog reads back (PostgreSQL's catalog/pg_type.h).
constexpr Oid kBool = 16, kBytea = 17, kInt8 = 20, kInt2 = 21, kInt4 = 23, kText = 25;

// Every write transaction of one catalog takes this advisory lock, with the catalog's
// schema as the second key: writers of one catalog queue as SQLite's do, and catalogs in
// other schemas of the same database do not wait for them.
constexpr const char* kBeginWrite =
    "BEGIN ISOLATION LEVEL READ COMMITTED; SELECT pg_advisory_xact_lock(1987273569, hashtext(current_schema()))";

// Idle connections kept per connection string and process.
constexpr size_t kIdlePerTarget = 4;

// How long a write waits for another host's transaction before it fails, as SQLite's busy
// timeout does: a host stopped inside a transaction must not stall every other. A value
// the connection string sets (options='-c lock_timeout=...') is kept.
constexpr const char* kSession =
    "SELECT set_config('lock_timeout', '30s', false) WHERE current_setting('lock_timeout') = '0'";

// libpq's messages end in a newline and may hold more lines (a hint after "\n\t"): one
// line each, so that a reason quoted in a report or a job's status stays on its line.
std::string OneLine(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    std::string out;
    for (const char c : s) {
        if (c != '\n' && c != '\t')
            out += c;
        else if (!out.empty() && out.back() != ' ')
            out += ' ';
    }
    return out;
}

[[noreturn]] void Fail(const std::string& what, const std::string& why) {
    throw std::runtime_error("catalog: " + what + ": " + OneLine(why));
}

// Connections are dear on PostgreSQL (a server process each), while the catalog's
// callers open one per call; so closed connections wait here for the next call. After a
// fork the child must not touch its parent's: they share the parent's sockets, and
// closing one would end the parent's session. It forgets them instead.
class Pool {
public:
    PGconn* Take(const std::string& conninfo) {
        std::lock_guard<std::mutex> lock(m_mutex);
        Adopt();
        auto& idle = m_idle[conninfo];
        if (idle.empty()) return nullptr;
        PGconn* conn = idle.back();
        idle.pop_back();
        return conn;
    }
    void Give(const std::string& conninfo, PGconn* conn) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Adopt();
            auto& idle = m_idle[conninfo];
            if (PQstatus(conn) == CONNECTION_OK && PQtransactionStatus(conn) == PQTRANS_IDLE &&
                idle.size() < kIdlePerTarget) {
                idle.push_back(conn);
                return;
            }
        }
        PQfinish(conn);
    }

private:
    void Adopt() {
        if (m_pid == getpid()) return;
        m_pid = getpid();
        m_idle.clear();  // the parent's connections, left alone on purpose
    }
    std::mutex m_mutex;
    pid_t m_pid = getpid();
    std::map<std::string, std::vector<PGconn*>> m_idle;
};

Pool& ThePool() {
    // Never destroyed: catalog calls may still run from other static destructors.
    static auto* pool = new Pool;
    return *pool;
}

void IgnoreNotice(void*, const char*) {}

PGconn* Connect(const std::string& conninfo) {
    // The connection string comes last, so that what it says wins.
    const char* keys[] = {"connect_timeout", "fallback_application_name", "client_encoding", "dbname", nullptr};
    const char* values[] = {"10", "vshost", "UTF8", conninfo.c_str(), nullptr};
    PGconn* conn = PQconnectdbParams(keys, values, 1);
    if (!conn) throw std::runtime_error("catalog: cannot connect to PostgreSQL: out of memory");
    if (PQstatus(conn) != CONNECTION_OK) {
        const std::string why = PQerrorMessage(conn);
        PQfinish(conn);
        Fail("cannot connect to PostgreSQL (" + Redacted(conninfo) + ")", why);
    }
    // Notices ("already exists, skipping") are no news for the catalog's callers.
    PQsetNoticeProcessor(conn, IgnoreNotice, nullptr);
    PGresult* res = PQexec(conn, kSession);
    const bool ok = PQresultStatus(res) == PGRES_TUPLES_OK;
    const std::string why = ok ? std::string() : PQresultErrorMessage(res);
    PQclear(res);
    if (!ok) {
        PQfinish(conn);
        Fail("set up the PostgreSQL session", why);
    }
    return conn;
}

// A pooled connection whose server went away (a restart, a fail-over) is only found out
// by using it: an empty query costs one round trip and spares the caller the error.
bool Alive(PGconn* conn) {
    PGresult* res = PQexec(conn, "");
    const bool alive = PQresultStatus(res) == PGRES_EMPTY_QUERY;
    PQclear(res);
    return alive;
}

// A result that is cleared when it goes out of scope.
struct Result {
    explicit Result(PGresult* r) : res(r) {}
    ~Result() { PQclear(res); }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    PGresult* res;
};

void CheckResult(PGconn* conn, const PGresult* res, const char* what) {
    if (!res) Fail(what, PQerrorMessage(conn));
    const ExecStatusType st = PQresultStatus(res);
    if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) Fail(what, PQresultErrorMessage(res));
}

// Parameters go in binary, each with its type, so that PostgreSQL need not guess types
// from the SQL (it cannot in INSERT ... SELECT ?1), and text keeps every byte it has.
class PgCursor final : public Cursor {
public:
    PgCursor(PGconn* conn, const char* sql) : m_conn(conn), m_sql(ToPostgres(sql)) {}
    ~PgCursor() override { PQclear(m_result); }
    PgCursor(const PgCursor&) = delete;
    PgCursor& operator=(const PgCursor&) = delete;

    void Bind(int index, int64_t value) override {
        const uint64_t big = htobe64(static_cast<uint64_t>(value));
        Set(index, kInt8, std::string(reinterpret_cast<const char*>(&big), sizeof big));
    }
    void Bind(int index, const std::string& value) override { Set(index, kText, value); }
    void BindBlob(int index, const std::string& bytes) override { Set(index, kBytea, bytes); }
    bool Step() override {
        if (!m_result) Execute();
        return ++m_row < PQntuples(m_result);
    }
    int64_t Int(int column) const override {
        if (Null(column)) return 0;
        const char* v = PQgetvalue(m_result, m_row, column);
        switch (PQftype(m_result, column)) {
            case kInt8:
                return static_cast<int64_t>(be64toh(Load<uint64_t>(v)));
            case kInt4:
                return static_cast<int32_t>(be32toh(Load<uint32_t>(v)));
            case kInt2:
                return static_cast<int16_t>(be16toh(Load<uint16_t>(v)));
            case kBool:
                return v[0] != 0 ? 1 : 0;
            default:
                Fail("read", "column " + std::to_string(column) + " is no whole number");
        }
    }
    std::string Text(int column) const override { return Bytes(column); }
    std::string Blob(int column) const override { return Bytes(column); }

private:
    template <class T>
    static T Load(const char* p) {
        T v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    void Set(int index, Oid type, std::string value) {
        if (index < 1) Fail("bind", "parameter " + std::to_string(index));
        const auto i = static_cast<size_t>(index - 1);
        if (m_values.size() <= i) {
            m_values.resize(i + 1);
            m_types.resize(i + 1, 0);
        }
        m_values[i] = std::move(value);
        m_types[i] = type;
    }
    void Execute() {
        const size_t n = m_values.size();
        std::vector<const char*> values(n);
        std::vector<int> lengths(n), formats(n, 1);
        for (size_t i = 0; i < n; ++i) {
            values[i] = m_values[i].data();
            lengths[i] = static_cast<int>(m_values[i].size());
        }
        m_result = PQexecParams(m_conn, m_sql.c_str(), static_cast<int>(n), m_types.data(), values.data(),
                                lengths.data(), formats.data(), 1);
        CheckResult(m_conn, m_result, "step");
        m_row = -1;
    }
    bool Null(int column) const { return PQgetisnull(m_result, m_row, column) != 0; }
    std::string Bytes(int column) const {
        if (Null(column)) return {};
        return std::string(PQgetvalue(m_result, m_row, column),
                           static_cast<size_t>(PQgetlength(m_result, m_row, column)));
    }

    PGconn* m_conn;
    std::string m_sql;
    std::vector<std::string> m_values;
    std::vector<Oid> m_types;
    PGresult* m_result = nullptr;
    int m_row = -1;
};

class PgBackend final : public Backend {
public:
    explicit PgBackend(std::string conninfo) : m_conninfo(std::move(conninfo)) {
        while ((m_conn = ThePool().Take(m_conninfo)) != nullptr && !Alive(m_conn)) PQfinish(m_conn);
        if (!m_conn) m_conn = Connect(m_conninfo);
    }
    ~PgBackend() override { ThePool().Give(m_conninfo, m_conn); }
    PgBackend(const PgBackend&) = delete;
    PgBackend& operator=(const PgBackend&) = delete;

    Dialect GetDialect() const override { return Dialect::PostgreSQL; }
    void Exec(const std::string& sql) override {
        const Result r(PQexec(m_conn, ToPostgres(sql).c_str()));
        CheckResult(m_conn, r.res, "exec");
    }
    void Begin() override { Exec(kBeginWrite); }
    // A transaction that failed inside ends with COMMIT answering ROLLBACK: that is an error.
    void Commit() override {
        const Result r(PQexec(m_conn, "COMMIT"));
        CheckResult(m_conn, r.res, "commit");
        if (std::strcmp(PQcmdStatus(r.res), "COMMIT") != 0) Fail("commit", "the transaction was rolled back");
    }
    void Rollback() noexcept override { PQclear(PQexec(m_conn, "ROLLBACK")); }
    bool HasTable(const std::string& name) override {
        PgCursor q(m_conn, "SELECT 1 FROM pg_catalog.pg_tables WHERE schemaname = current_schema() AND tablename = ?1");
        q.Bind(1, name);
        return q.Step();
    }
    std::unique_ptr<Cursor> Prepare(const char* sql) override { return std::make_unique<PgCursor>(m_conn, sql); }

private:
    std::string m_conninfo;
    PGconn* m_conn = nullptr;
};

}  // namespace

std::string Redacted(const std::string& conninfo) {
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), &error);
    PQfreemem(error);
    if (!options) return "an unreadable connection string";
    std::string out;
    for (const PQconninfoOption* o = options; o->keyword; ++o) {
        if (!o->val) continue;
        const bool secret = std::strcmp(o->keyword, "password") == 0 || std::strcmp(o->keyword, "sslpassword") == 0;
        out += (out.empty() ? "" : " ") + std::string(o->keyword) + "=" + (secret ? "***" : o->val);
    }
    PQconninfoFree(options);
    return out;
}

std::unique_ptr<Backend> OpenPostgres(const std::string& conninfo) {
    return std::make_unique<PgBackend>(conninfo);
}

}  // namespace vshost::db
