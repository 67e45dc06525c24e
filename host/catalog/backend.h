// What each database under the catalog's db layer provides (catalog/db.h); the layer
// itself is backend-neutral.
#pragma once

#include "catalog/db.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vshost::db {

// One statement being run.
class Cursor {
public:
    virtual ~Cursor() = default;
    virtual void Bind(int index, int64_t value) = 0;
    virtual void Bind(int index, const std::string& value) = 0;
    virtual void BindBlob(int index, const std::string& bytes) = 0;
    virtual bool Step() = 0;
    virtual int64_t Int(int column) const = 0;
    virtual std::string Text(int column) const = 0;
    virtual std::string Blob(int column) const = 0;
};

// One open connection.
class Backend {
public:
    virtual ~Backend() = default;
    virtual Dialect GetDialect() const = 0;
    virtual void Exec(const std::string& sql) = 0;
    virtual void Begin() = 0;
    virtual void Commit() = 0;
    virtual void Rollback() noexcept = 0;
    virtual bool HasTable(const std::string& name) = 0;
    virtual std::unique_ptr<Cursor> Prepare(const char* sql) = 0;
};

std::unique_ptr<Backend> OpenSQLite(const std::string& path);
std::unique_ptr<Backend> OpenPostgres(const std::string& conninfo);

// The catalog's SQL in PostgreSQL's words (the list in catalog/db.h).
std::string ToPostgres(const std::string& sql);
// A connection string fit for messages: its password, if any, masked.
std::string Redacted(const std::string& conninfo);

}  // namespace vshost::db
