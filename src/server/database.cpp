#include "server/database.h"

#include "server/database_schema.h"

namespace ZEL::Server {
namespace {

// The schema version a database holds: the version table's when it has one, 1 for
// the users table alone, 0 for an empty database.
std::optional<long long> storedVersion(SchemaSession& session, const SchemaDialect& dialect,
                                       std::string& error) {
    auto tables = [&](const char* name) {
        return session.number(std::string(dialect.countTablesNamed) + "'" + name + "'", error);
    };
    const std::optional<long long> versioned = tables("schema_version");
    if (!versioned) {
        return std::nullopt;
    }
    if (*versioned > 0) {
        return session.number("SELECT version FROM schema_version", error);
    }
    const std::optional<long long> users = tables("users");
    return users ? std::optional<long long>(*users > 0 ? 1 : 0) : std::nullopt;
}

// The migration inside its transaction.
bool migrateWithin(SchemaSession& session, const SchemaDialect& dialect, std::string& error) {
    const std::optional<long long> version = storedVersion(session, dialect, error);
    if (!version) {
        return false;
    }
    if (*version > kSchemaVersion) {
        error = "the database's schema version " + std::to_string(*version) +
                " is newer than this program's (" + std::to_string(kSchemaVersion) +
                "): run a newer zel-server";
        return false;
    }
    for (long long step = *version; step < kSchemaVersion; ++step) {
        if (!session.execute(dialect.steps[step], error)) {
            error = "schema step to version " + std::to_string(step + 1) + " failed: " + error;
            return false;
        }
    }
    return *version == kSchemaVersion ||
           session.execute("UPDATE schema_version SET version = " + std::to_string(kSchemaVersion),
                           error);
}

}  // namespace

bool migrateSchema(SchemaSession& session, const SchemaDialect& dialect, std::string& error) {
    if (!session.execute(dialect.beginExclusive, error)) {
        return false;
    }
    if (!migrateWithin(session, dialect, error)) {
        std::string ignored;
        session.execute("ROLLBACK", ignored);
        return false;
    }
    return session.execute("COMMIT", error);
}

std::unique_ptr<Database> Database::open(const std::string& url, std::string& error) {
    if (url.starts_with("sqlite:")) {
        return openSqliteDatabase(url.substr(7), error);
    }
    if (url.starts_with("postgresql://")) {
        return openPostgresqlDatabase(url, error);
    }
    error = "unknown database URL \"" + url + "\": use sqlite:PATH or postgresql://...";
    return nullptr;
}

}  // namespace ZEL::Server
