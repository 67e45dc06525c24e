// SQLite connections, statements and schema migrations of the catalog.
#include "catalog/sqlite.h"

#include <sqlite3.h>
#include <stdexcept>
#include <vector>

namespace vshost::db {
namespace {

// Schema steps, applied in order; version N means the first N are in place. Never edit
// a released step: append a new one.
constexpr const char* kMigrations[] = {
    R"sql(
        CREATE TABLE clients (
            id   INTEGER PRIMARY KEY,
            name TEXT NOT NULL UNIQUE COLLATE NOCASE
        );
        CREATE TABLE applications (
            app_id1        INTEGER NOT NULL,
            app_id2        INTEGER NOT NULL,
            instance_type  INTEGER NOT NULL DEFAULT 0,
            server_host    TEXT NOT NULL DEFAULT '',
            snap_mount_esx TEXT NOT NULL DEFAULT '',
            indexing_v2    INTEGER NOT NULL DEFAULT 0,
            PRIMARY KEY (app_id1, app_id2)
        );
        CREATE TABLE app_credentials (
            app_id1      INTEGER NOT NULL,
            app_id2      INTEGER NOT NULL,
            seq          INTEGER NOT NULL,
            host         TEXT NOT NULL DEFAULT '',
            server       TEXT NOT NULL DEFAULT '',
            user         TEXT NOT NULL DEFAULT '',
            password_enc TEXT NOT NULL DEFAULT '',
            type         INTEGER NOT NULL DEFAULT 1,
            PRIMARY KEY (app_id1, app_id2, seq)
        );
        CREATE INDEX app_credentials_server ON app_credentials (server COLLATE NOCASE);
        CREATE TABLE archive_files (
            afile_id       INTEGER PRIMARY KEY,
            app_id2        INTEGER NOT NULL DEFAULT 0,
            backup_job_id  INTEGER NOT NULL DEFAULT 0,
            name           TEXT NOT NULL DEFAULT '',
            volume         TEXT NOT NULL DEFAULT '',
            snap_engine_id INTEGER NOT NULL DEFAULT 0
        );
        CREATE TABLE copies (
            arch_group_id INTEGER NOT NULL,
            copy_id       INTEGER NOT NULL,
            precedence    INTEGER NOT NULL,
            PRIMARY KEY (arch_group_id, copy_id)
        );
        )sql",
    // Restore options, pending causes and the VM clients of subclients.
    R"sql(
        ALTER TABLE applications ADD COLUMN has_settings        INTEGER NOT NULL DEFAULT 1;
        ALTER TABLE applications ADD COLUMN parent_app_id       INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN client_id           INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN backup_set_id       INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN backup_set_settings INTEGER NOT NULL DEFAULT 1;
        ALTER TABLE applications ADD COLUMN proxy_details_set   INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN snap_failover_rc    INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN hubcell_id          INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN subclient_id        INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE applications ADD COLUMN subclient_guid      TEXT NOT NULL DEFAULT '';
        CREATE TABLE pending_causes (
            job_id       INTEGER NOT NULL,
            seq          INTEGER NOT NULL,
            cause_id     INTEGER NOT NULL,
            event_args   TEXT NOT NULL DEFAULT '[]',
            arg2         INTEGER NOT NULL DEFAULT 0,
            arg3         INTEGER NOT NULL DEFAULT 0,
            flag1        INTEGER NOT NULL DEFAULT 0,
            message_type INTEGER NOT NULL DEFAULT 0,
            flag2        INTEGER NOT NULL DEFAULT 0,
            alert_level  INTEGER NOT NULL DEFAULT 0,
            flags        INTEGER NOT NULL DEFAULT 0,
            value1       INTEGER NOT NULL DEFAULT 0,
            value2       INTEGER NOT NULL DEFAULT 0,
            client_ready INTEGER NOT NULL DEFAULT 0,
            PRIMARY KEY (job_id, seq)
        );
        CREATE TABLE vm_clients (
            hubcell_id     INTEGER NOT NULL,
            subclient_id   INTEGER NOT NULL,
            client_name    TEXT NOT NULL DEFAULT '',
            has_properties INTEGER NOT NULL DEFAULT 1,
            instance_uuid  TEXT NOT NULL DEFAULT '',
            PRIMARY KEY (hubcell_id, subclient_id)
        );
        )sql",
    // Datastore snapshots: the snapshot job and datastore each archive file holds.
    R"sql(
        ALTER TABLE archive_files ADD COLUMN snap_job_id INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE archive_files ADD COLUMN datastore   TEXT NOT NULL DEFAULT '';
        )sql",
    // Change tracking: extent digests of a disk's state, by change id.
    R"sql(
        CREATE TABLE disk_digests (
            change_id   TEXT PRIMARY KEY,
            disk_size   INTEGER NOT NULL,
            extent_size INTEGER NOT NULL,
            digests     BLOB NOT NULL
        );
        )sql",
    // What each job read: every disk completed, with the change id of its state.
    R"sql(
        CREATE TABLE job_disks (
            job_id    INTEGER NOT NULL,
            vm_guid   TEXT NOT NULL,
            disk_name TEXT NOT NULL,
            change_id TEXT NOT NULL,
            PRIMARY KEY (job_id, vm_guid, disk_name)
        );
        )sql",
    // Snapshots registered in the home (their volumes are the archive files of their
    // snapshot job), and the ids of the jobs the home made itself.
    R"sql(
        CREATE TABLE snapshots (
            snap_job_id    INTEGER PRIMARY KEY,
            snap_engine_id INTEGER NOT NULL DEFAULT 0,
            added          INTEGER NOT NULL DEFAULT 0
        );
        CREATE TABLE home_jobs (
            job_id      INTEGER PRIMARY KEY,
            snap_job_id INTEGER NOT NULL,
            created     INTEGER NOT NULL
        );
        )sql",
};

}  // namespace

Connection::Connection(const std::string& path) {
    int rc = sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        std::string msg = m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
        sqlite3_close(m_db);
        throw std::runtime_error("cannot open " + path + ": " + msg);
    }
    sqlite3_busy_timeout(m_db, 5000);
}

Connection::~Connection() {
    sqlite3_close(m_db);
}

void Connection::Fail(const std::string& what) const {
    throw std::runtime_error("catalog: " + what + ": " + sqlite3_errmsg(m_db));
}

void Connection::Exec(const std::string& sql) {
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail("exec");
}

Statement::Statement(Connection& db, const char* sql) : m_db(db) {
    if (sqlite3_prepare_v2(db.Handle(), sql, -1, &m_stmt, nullptr) != SQLITE_OK) db.Fail("prepare");
}

Statement::~Statement() {
    sqlite3_finalize(m_stmt);
}

Statement& Statement::Bind(int index, int64_t value) {
    if (sqlite3_bind_int64(m_stmt, index, value) != SQLITE_OK) m_db.Fail("bind");
    return *this;
}

Statement& Statement::Bind(int index, const std::string& value) {
    if (sqlite3_bind_text(m_stmt, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT) != SQLITE_OK)
        m_db.Fail("bind");
    return *this;
}

Statement& Statement::BindBlob(int index, const std::string& bytes) {
    if (sqlite3_bind_blob64(m_stmt, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT) != SQLITE_OK)
        m_db.Fail("bind");
    return *this;
}

bool Statement::Step() {
    int rc = sqlite3_step(m_stmt);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    m_db.Fail("step");
}

void Statement::Run() {
    while (Step()) {
    }
}

int64_t Statement::Int(int column) const {
    return sqlite3_column_int64(m_stmt, column);
}

std::string Statement::Text(int column) const {
    const unsigned char* text = sqlite3_column_text(m_stmt, column);
    int len = sqlite3_column_bytes(m_stmt, column);
    return text ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(len)) : std::string();
}

std::string Statement::Blob(int column) const {
    const void* data = sqlite3_column_blob(m_stmt, column);
    const int len = sqlite3_column_bytes(m_stmt, column);
    return data ? std::string(static_cast<const char*>(data), static_cast<size_t>(len)) : std::string();
}

void Connection::Rollback() noexcept {
    sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Migrate(Connection& db) {
    const std::vector<const char*> steps(std::begin(kMigrations), std::end(kMigrations));
    auto current = [&db] {
        Statement q(db, "SELECT version FROM schema_version");
        return q.Step() ? q.Int(0) : int64_t{0};
    };
    // Cheap check first, so readers do not take the write lock every time.
    {
        Statement exists(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'schema_version'");
        if (exists.Step() && current() == static_cast<int64_t>(steps.size())) return;
    }
    // Two processes creating the catalog at once must not both migrate.
    InTransaction(db, [&] {
        db.Exec("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
        int64_t version = current();
        if (version > static_cast<int64_t>(steps.size()))
            throw std::runtime_error("catalog schema version " + std::to_string(version) +
                                     " is newer than this host understands");
        for (auto i = static_cast<size_t>(version); i < steps.size(); ++i) db.Exec(steps[i]);
        db.Exec("DELETE FROM schema_version");
        Statement(db, "INSERT INTO schema_version (version) VALUES (?1)")
            .Bind(1, static_cast<int64_t>(steps.size()))
            .Run();
    });
}

}  // namespace vshost::db
