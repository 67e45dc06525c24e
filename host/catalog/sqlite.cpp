// The catalog in a SQLite file of the home.
#include "catalog/backend.h"

#include <sqlite3.h>
#include <stdexcept>

namespace vshost::db {
namespace {

[[noreturn]] void Fail(sqlite3* db, const std::string& what) {
    throw std::runtime_error("catalog: " + what + ": " + sqlite3_errmsg(db));
}

class SQLiteCursor final : public Cursor {
public:
    SQLiteCursor(sqlite3* db, const char* sql) : m_db(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK) Fail(db, "prepare");
    }
    ~SQLiteCursor() override { sqlite3_finalize(m_stmt); }
    SQLiteCursor(const SQLiteCursor&) = delete;
    SQLiteCursor& operator=(const SQLiteCursor&) = delete;

    void Bind(int index, int64_t value) override {
        if (sqlite3_bind_int64(m_stmt, index, value) != SQLITE_OK) Fail(m_db, "bind");
    }
    void Bind(int index, const std::string& value) override {
        if (sqlite3_bind_text(m_stmt, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT) !=
            SQLITE_OK)
            Fail(m_db, "bind");
    }
    void BindBlob(int index, const std::string& bytes) override {
        if (sqlite3_bind_blob64(m_stmt, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT) != SQLITE_OK)
            Fail(m_db, "bind");
    }
    bool Step() override {
        const int rc = sqlite3_step(m_stmt);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        Fail(m_db, "step");
    }
    int64_t Int(int column) const override { return sqlite3_column_int64(m_stmt, column); }
    std::string Text(int column) const override {
        const unsigned char* text = sqlite3_column_text(m_stmt, column);
        const int len = sqlite3_column_bytes(m_stmt, column);
        return text ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(len)) : std::string();
    }
    std::string Blob(int column) const override {
        const void* data = sqlite3_column_blob(m_stmt, column);
        const int len = sqlite3_column_bytes(m_stmt, column);
        return data ? std::string(static_cast<const char*>(data), static_cast<size_t>(len)) : std::string();
    }

private:
    sqlite3* m_db;
    sqlite3_stmt* m_stmt = nullptr;
};

class SQLiteBackend final : public Backend {
public:
    explicit SQLiteBackend(const std::string& path) {
        const int rc = sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        if (rc != SQLITE_OK) {
            std::string msg = m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
            sqlite3_close(m_db);
            throw std::runtime_error("cannot open " + path + ": " + msg);
        }
        // Concurrent processes wait for each other instead of failing.
        sqlite3_busy_timeout(m_db, 5000);
    }
    ~SQLiteBackend() override { sqlite3_close(m_db); }
    SQLiteBackend(const SQLiteBackend&) = delete;
    SQLiteBackend& operator=(const SQLiteBackend&) = delete;

    Dialect GetDialect() const override { return Dialect::SQLite; }
    void Exec(const std::string& sql) override {
        if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail(m_db, "exec");
    }
    // IMMEDIATE takes the write lock before anything is read.
    void Begin() override { Exec("BEGIN IMMEDIATE"); }
    void Commit() override { Exec("COMMIT"); }
    void Rollback() noexcept override { sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr); }
    bool HasTable(const std::string& name) override {
        SQLiteCursor q(m_db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1");
        q.Bind(1, name);
        return q.Step();
    }
    std::unique_ptr<Cursor> Prepare(const char* sql) override { return std::make_unique<SQLiteCursor>(m_db, sql); }

private:
    sqlite3* m_db = nullptr;
};

}  // namespace

std::unique_ptr<Backend> OpenSQLite(const std::string& path) {
    return std::make_unique<SQLiteBackend>(path);
}

}  // namespace vshost::db
