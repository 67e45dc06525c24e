// Thin RAII layer over SQLite for the catalog: connections, prepared statements with
// bound parameters, and the schema migrations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace vshost::db {

class Connection {
public:
    // Opens (creating if needed) with a busy timeout, so concurrent processes wait for
    // each other instead of failing.
    explicit Connection(const std::string& path);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Exec(const std::string& sql);
    // Ends an open transaction without its changes; never throws.
    void Rollback() noexcept;
    sqlite3* Handle() const { return m_db; }
    [[noreturn]] void Fail(const std::string& what) const;

private:
    sqlite3* m_db = nullptr;
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

    int64_t Int(int column) const;
    std::string Text(int column) const;
    std::string Blob(int column) const;

private:
    Connection& m_db;
    sqlite3_stmt* m_stmt = nullptr;
};

// Runs `body` inside one write transaction (BEGIN IMMEDIATE, so that two processes
// never both read, then write); an exception rolls it back and goes on.
template <class Body>
void InTransaction(Connection& db, Body&& body) {
    db.Exec("BEGIN IMMEDIATE");
    try {
        body();
        db.Exec("COMMIT");
    } catch (...) {
        db.Rollback();
        throw;
    }
}

// Brings the schema of `db` to the latest version, in one transaction.
void Migrate(Connection& db);

}  // namespace vshost::db
