// What the database back ends share: the schema's version history and the
// migration that walks a database forward through it. Only the back ends and
// Database::open include this.
//
// Versions: 1 is the users table alone (no version table: the first servers made
// it so); 2 adds the API keys and the one-row table that holds the version; 3 the
// reports devices submit and their observations; 4 what learning keeps of them
// (database_learning.h).
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace ZEL::Server {

class Database;

inline constexpr int kSchemaVersion = 4;

// One back end's connection while it holds the transaction that excludes every
// other migration of the same database.
class SchemaSession {
  public:
    virtual ~SchemaSession() = default;
    // Runs `sql` (one or more statements); false with `error` set when it fails.
    virtual bool execute(const std::string& sql, std::string& error) = 0;
    // The first column of the first row of `sql` as a number; nullopt with
    // `error` set when the query fails or returns no row.
    virtual std::optional<long long> number(const std::string& sql, std::string& error) = 0;
};

struct SchemaDialect {
    // Opens the transaction in which the migration runs, excluding every other
    // migration of the same database until it ends.
    const char* beginExclusive;
    // A query counting the tables whose name is the quoted literal appended to it.
    const char* countTablesNamed;
    // steps[v] takes the schema from version v to v + 1.
    const char* steps[kSchemaVersion];
};

// Brings the database of `session` to kSchemaVersion in one transaction. False with
// `error` set when a step fails or the database's version is newer than kSchemaVersion.
bool migrateSchema(SchemaSession& session, const SchemaDialect& dialect, std::string& error);

// The back ends, reached through Database::open.
std::unique_ptr<Database> openSqliteDatabase(const std::string& path, std::string& error);
std::unique_ptr<Database> openPostgresqlDatabase(const std::string& url, std::string& error);

}  // namespace ZEL::Server
