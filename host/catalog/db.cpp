// The catalog's db layer: connections and statements over either backend, the SQL
// translation for PostgreSQL and the schema migrations both share.
#include "catalog/db.h"
#include "catalog/backend.h"

#include <strings.h>
#include <cctype>
#include <stdexcept>

namespace vshost::db {
namespace {

// Schema steps, applied in order; version N means the first N are in place. Never change
// what a released step makes: append a new one. Each step is written once for both
// databases (catalog/db.h lists what the PostgreSQL side translates). `sqliteRows` carries
// rows of an older SQLite catalog forward where only SQLite can say how; a PostgreSQL
// catalog is always created by a host that knows every such step, with its tables empty.
struct Step {
    const char* sql;
    const char* sqliteRows = nullptr;
};

constexpr Step kMigrations[] = {
    {R"sql(
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
            "user"       TEXT NOT NULL DEFAULT '',
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
        )sql"},
    // Restore options, pending causes and the VM clients of subclients.
    {R"sql(
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
        )sql"},
    // Datastore snapshots: the snapshot job and datastore each archive file holds.
    {R"sql(
        ALTER TABLE archive_files ADD COLUMN snap_job_id INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE archive_files ADD COLUMN datastore   TEXT NOT NULL DEFAULT '';
        )sql"},
    // Change tracking: extent digests of a disk's state, by change id.
    {R"sql(
        CREATE TABLE disk_digests (
            change_id   TEXT PRIMARY KEY,
            disk_size   INTEGER NOT NULL,
            extent_size INTEGER NOT NULL,
            digests     BLOB NOT NULL
        );
        )sql"},
    // What each job read: every disk completed, with the change id of its state.
    {R"sql(
        CREATE TABLE job_disks (
            job_id    INTEGER NOT NULL,
            vm_guid   TEXT NOT NULL,
            disk_name TEXT NOT NULL,
            change_id TEXT NOT NULL,
            PRIMARY KEY (job_id, vm_guid, disk_name)
        );
        )sql"},
    // Snapshots registered in the home (their volumes are the archive files of their
    // snapshot job), and the ids of the jobs the home made itself.
    {R"sql(
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
        )sql"},
    // The order in which disks were recorded, as a column of its own: PostgreSQL has no
    // rowid, and the latest backup of each disk is the last one recorded.
    {R"sql(
        ALTER TABLE job_disks ADD COLUMN seq INTEGER NOT NULL DEFAULT 0;
        CREATE INDEX job_disks_seq ON job_disks (seq);
        )sql",
     "UPDATE job_disks SET seq = rowid"},
    // The key that stored passwords are encrypted under, by its fingerprint: hosts that
    // share a catalog must share the key, and one that does not is refused before it
    // stores a password the others cannot read.
    {R"sql(
        CREATE TABLE secret_key (
            fingerprint TEXT NOT NULL  -- the key's keyed hash, in hex; one row at most
        );
        )sql"},
    // Jobs whose items workers on any host share (vsdm job create, vsdm worker): each item
    // is leased by one worker at a time; the lease generation fences out a worker that
    // lost its lease, so that it records nothing.
    {R"sql(
        CREATE TABLE work_jobs (
            job_id      INTEGER PRIMARY KEY,
            snap_job_id INTEGER NOT NULL,
            spec        TEXT NOT NULL,             -- the job as a job file, without items and out
            out_prefix  TEXT NOT NULL,             -- each item's stream name starts with it
            compress    INTEGER NOT NULL DEFAULT 0, -- zstd level; 0: not compressed
            created     INTEGER NOT NULL
        );
        CREATE TABLE work_items (
            job_id        INTEGER NOT NULL,
            item_no       INTEGER NOT NULL,
            path          TEXT NOT NULL,              -- the item's snap source path
            spec          TEXT NOT NULL,              -- the item as a job file's item
            state         TEXT NOT NULL DEFAULT 'queued', -- queued, running, done, failed
            lease_owner   TEXT NOT NULL DEFAULT '',
            lease_expires INTEGER NOT NULL DEFAULT 0, -- seconds since 1970-01-01 UTC
            lease_gen     INTEGER NOT NULL DEFAULT 0, -- one more at every lease
            progress      INTEGER NOT NULL DEFAULT 0, -- bytes read by the latest attempt
            failure       TEXT NOT NULL DEFAULT '',
            stream_key    TEXT NOT NULL DEFAULT '',   -- the stream the latest attempt writes
            streams       TEXT NOT NULL DEFAULT '',   -- every attempt's stream, one a line, in order
            updated       INTEGER NOT NULL DEFAULT 0,
            PRIMARY KEY (job_id, item_no)
        );
        CREATE INDEX work_items_state ON work_items (state, lease_expires);
        )sql"},
};

// Made before the first step on PostgreSQL: SQLite's NOCASE, case-insensitive
// comparison, as a collation of the catalog's own schema.
constexpr const char* kPostgresPrelude =
    "CREATE COLLATION IF NOT EXISTS nocase (provider = icu, locale = 'und-u-ks-level2', deterministic = false)";

bool IsWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

}  // namespace

std::string ToPostgres(const std::string& sql) {
    std::string out;
    out.reserve(sql.size() + 16);
    for (size_t i = 0; i < sql.size();) {
        const char c = sql[i];
        if (c == '\'' || c == '"') {
            // Quoted text or identifiers, copied whole; a doubled quote inside stays in.
            const size_t end = sql.find(c, i + 1);
            const size_t stop = end == std::string::npos ? sql.size() : end + 1;
            out.append(sql, i, stop - i);
            i = stop;
        } else if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
            // A comment, to the end of its line: its words are no SQL, its quotes no quotes.
            const size_t end = sql.find('\n', i);
            const size_t stop = end == std::string::npos ? sql.size() : end;
            out.append(sql, i, stop - i);
            i = stop;
        } else if (c == '?' && i + 1 < sql.size() && std::isdigit(static_cast<unsigned char>(sql[i + 1])) != 0) {
            out += '$';
            ++i;
        } else if (IsWordChar(c)) {
            size_t end = i;
            while (end < sql.size() && IsWordChar(sql[end])) ++end;
            const std::string word = sql.substr(i, end - i);
            if (strcasecmp(word.c_str(), "INTEGER") == 0)
                out += "BIGINT";
            else if (strcasecmp(word.c_str(), "BLOB") == 0)
                out += "BYTEA";
            else
                out += word;
            i = end;
        } else {
            out += c;
            ++i;
        }
    }
    return out;
}

Connection::Connection(const std::string& location)
    : m_impl(!location.empty() && location[0] == '/' ? OpenSQLite(location) : OpenPostgres(location)) {}

Connection::~Connection() = default;

void Connection::Exec(const std::string& sql) {
    m_impl->Exec(sql);
}

void Connection::Begin() {
    m_impl->Begin();
}

void Connection::BeginRowLocked() {
    if (GetDialect() == Dialect::PostgreSQL)
        m_impl->Exec("BEGIN ISOLATION LEVEL READ COMMITTED");
    else
        m_impl->Begin();
}

void Connection::Commit() {
    m_impl->Commit();
}

void Connection::Rollback() noexcept {
    m_impl->Rollback();
}

Dialect Connection::GetDialect() const {
    return m_impl->GetDialect();
}

bool Connection::HasTable(const std::string& name) {
    return m_impl->HasTable(name);
}

Statement::Statement(Connection& db, const char* sql) : m_cursor(db.Impl().Prepare(sql)) {}

Statement::~Statement() = default;

Statement& Statement::Bind(int index, int64_t value) {
    m_cursor->Bind(index, value);
    return *this;
}

Statement& Statement::Bind(int index, const std::string& value) {
    m_cursor->Bind(index, value);
    return *this;
}

Statement& Statement::BindBlob(int index, const std::string& bytes) {
    m_cursor->BindBlob(index, bytes);
    return *this;
}

bool Statement::Step() {
    return m_cursor->Step();
}

void Statement::Run() {
    while (Step()) {
    }
}

int64_t Statement::Int(int column) const {
    return m_cursor->Int(column);
}

std::string Statement::Text(int column) const {
    return m_cursor->Text(column);
}

std::string Statement::Blob(int column) const {
    return m_cursor->Blob(column);
}

void Migrate(Connection& db) {
    constexpr auto latest = static_cast<int64_t>(std::size(kMigrations));
    auto current = [&db] {
        Statement q(db, "SELECT version FROM schema_version");
        return q.Step() ? q.Int(0) : int64_t{0};
    };
    // Cheap check first, so readers do not take the write lock every time.
    if (db.HasTable("schema_version") && current() == latest) return;
    // Two processes (or hosts) creating the catalog at once must not both migrate.
    InTransaction(db, [&] {
        db.Exec("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
        const int64_t version = current();
        if (version > latest)
            throw std::runtime_error("catalog schema version " + std::to_string(version) +
                                     " is newer than this host understands");
        if (version == latest) return;
        const bool sqlite = db.GetDialect() == Dialect::SQLite;
        if (!sqlite) db.Exec(kPostgresPrelude);
        for (auto i = static_cast<size_t>(version); i < std::size(kMigrations); ++i) {
            db.Exec(kMigrations[i].sql);
            if (sqlite && kMigrations[i].sqliteRows) db.Exec(kMigrations[i].sqliteRows);
        }
        db.Exec("DELETE FROM schema_version");
        Statement(db, "INSERT INTO schema_version (version) VALUES (?1)").Bind(1, latest).Run();
    });
}

}  // namespace vshost::db
