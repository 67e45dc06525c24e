// Thin RAII layer over the catalog's database, SQLite in the home or a PostgreSQL server
// that several hosts share: connections, prepared statements with bound parameters,
// write transactions and the schema migrations.
//
// SQL is written once, for both. Where the dialects differ the callers write SQL that
// both accept (ON CONFLICT upserts, window functions, bound times instead of strftime,
// the quoted column "user"), and the PostgreSQL side translates this small set only:
//   ?N placeholders  -> $N
//   INTEGER          -> BIGINT  (SQLite integers are 64-bit)
//   BLOB             -> BYTEA
//   COLLATE NOCASE   -> the same words: the migrations create a case-insensitive ICU
//                       collation named nocase in the catalog's schema
// Words inside quotes are never translated.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace vshost::db {

enum class Dialect { SQLite, PostgreSQL };

class Backend;
class Cursor;

class Connection {
public:
    // `location` is where the catalog lives: an absolute path names a SQLite file (made
    // when missing; concurrent processes wait for each other's locks), anything else is a
    // libpq connection string. PostgreSQL connections come from a per-process pool.
    explicit Connection(const std::string& location);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Runs statements that take no parameters and return no rows; several may be given
    // separated by ';'.
    void Exec(const std::string& sql);
    // Starts a write transaction that no other writer of the catalog runs beside: SQLite's
    // BEGIN IMMEDIATE; on PostgreSQL a transaction holding the catalog's advisory lock, so
    // that what a body reads (the next free number) is still true when it writes.
    void Begin();
    // Starts a write transaction whose exclusivity comes from the rows it locks: on
    // PostgreSQL a plain transaction (SELECT ... FOR UPDATE [SKIP LOCKED] picks the rows),
    // so that writers of different rows do not queue behind the catalog's advisory lock;
    // SQLite has no row locks and takes BEGIN IMMEDIATE, as Begin does.
    void BeginRowLocked();
    void Commit();
    // Ends an open transaction without its changes; never throws.
    void Rollback() noexcept;
    Dialect GetDialect() const;
    // True when the catalog's schema holds table `name`.
    bool HasTable(const std::string& name);
    Backend& Impl() { return *m_impl; }

private:
    std::unique_ptr<Backend> m_impl;
};

class Statement {
public:
    Statement(Connection& db, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Parameters are numbered from 1, as in SQL "?1".
    Statement& Bind(int index, int64_t value);
    Statement& Bind(int index, const std::string& value);
    Statement& BindBlob(int index, const std::string& bytes);
    // True while a row is available; false when done.
    bool Step();
    // Runs a statement that returns no rows.
    void Run();

    // A NULL reads as 0 or empty.
    int64_t Int(int column) const;
    std::string Text(int column) const;
    std::string Blob(int column) const;

private:
    std::unique_ptr<Cursor> m_cursor;
};

// Runs `body` inside one write transaction that `begin` (Connection::Begin or
// Connection::BeginRowLocked) starts; an exception rolls it back and goes on.
template <class Body>
void InTransactionBegunBy(Connection& db, void (Connection::*begin)(), Body&& body) {
    (db.*begin)();
    try {
        body();
        db.Commit();
    } catch (...) {
        db.Rollback();
        throw;
    }
}

// In a transaction begun with Connection::Begin.
template <class Body>
void InTransaction(Connection& db, Body&& body) {
    InTransactionBegunBy(db, &Connection::Begin, std::forward<Body>(body));
}

// In a transaction begun with Connection::BeginRowLocked.
template <class Body>
void InRowLockedTransaction(Connection& db, Body&& body) {
    InTransactionBegunBy(db, &Connection::BeginRowLocked, std::forward<Body>(body));
}

// Brings the schema of `db` to the latest version, in one transaction.
void Migrate(Connection& db);

}  // namespace vshost::db
