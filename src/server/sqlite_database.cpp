// The embedded back end: one SQLite file, one connection per process under a mutex.
// The file runs in WAL mode with a busy timeout, so the server processes of one
// machine may share it; BEGIN IMMEDIATE makes their migrations take turns.
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

#include "server/database.h"
#include "server/database_learning.h"
#include "server/database_schema.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

// Long enough to ride out another process's write, short enough that a stuck
// database shows up as an error rather than a hung request.
constexpr int kBusyTimeoutMs = 5000;

constexpr SchemaDialect kDialect = {
    "BEGIN IMMEDIATE",
    "SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name = ",
    {
        "CREATE TABLE users ("
        " realm TEXT NOT NULL,"
        " username TEXT NOT NULL,"
        " created INTEGER NOT NULL,"
        " PRIMARY KEY (realm, username)) WITHOUT ROWID;",

        "CREATE TABLE api_keys ("
        " key TEXT NOT NULL PRIMARY KEY,"
        " realm TEXT NOT NULL,"
        " enabled INTEGER NOT NULL,"
        " created INTEGER NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE schema_version (version INTEGER NOT NULL);"
        "INSERT INTO schema_version VALUES (2);",

        // AUTOINCREMENT: ids only grow, also past deleted rows, so "every id above the
        // last one read" is exactly what came since.
        "CREATE TABLE reports ("
        " id INTEGER PRIMARY KEY AUTOINCREMENT,"
        " realm TEXT NOT NULL,"
        " api_key TEXT NOT NULL,"
        " nickname TEXT NOT NULL,"
        " received_ms INTEGER NOT NULL);"
        "CREATE TABLE observations ("
        " id INTEGER PRIMARY KEY AUTOINCREMENT,"
        " report_id INTEGER NOT NULL REFERENCES reports(id),"
        " realm TEXT NOT NULL,"
        " mac INTEGER NOT NULL,"
        " latitude REAL NOT NULL,"
        " longitude REAL NOT NULL,"
        " accuracy REAL NOT NULL,"
        " rss INTEGER NOT NULL,"
        " time_ms INTEGER NOT NULL);",

        "CREATE TABLE ap_cells ("
        " realm TEXT NOT NULL,"
        " mac INTEGER NOT NULL,"
        " cell_row INTEGER NOT NULL,"
        " cell_column INTEGER NOT NULL,"
        " count INTEGER NOT NULL,"
        " weight REAL NOT NULL,"
        " weighted_latitude REAL NOT NULL,"
        " weighted_longitude REAL NOT NULL,"
        " accuracy_sum REAL NOT NULL,"
        " rss_count INTEGER NOT NULL,"
        " rss_sum REAL NOT NULL,"
        " rss_squares REAL NOT NULL,"
        " oldest_ms INTEGER NOT NULL,"
        " newest_ms INTEGER NOT NULL,"
        " PRIMARY KEY (realm, mac, cell_row, cell_column)) WITHOUT ROWID;"
        "CREATE TABLE learned_aps ("
        " realm TEXT NOT NULL,"
        " mac INTEGER NOT NULL,"
        " verdict INTEGER NOT NULL,"
        " latitude REAL NOT NULL,"
        " longitude REAL NOT NULL,"
        " quality INTEGER NOT NULL,"
        " signal_exponent REAL NOT NULL,"
        " exponent_fitted INTEGER NOT NULL,"
        " overflowing INTEGER NOT NULL,"
        " PRIMARY KEY (realm, mac)) WITHOUT ROWID;"
        "CREATE TABLE learning_state ("
        " realm TEXT NOT NULL PRIMARY KEY,"
        " watermark INTEGER NOT NULL) WITHOUT ROWID;",
    }};

enum Statement {
    kFindUser,
    kAddUser,
    kCountUsers,
    kFindKey,
    kAddKey,
    kAddReport,
    kAddObservation,
    kStatements
};

constexpr const char* kStatementSql[kStatements] = {
    "SELECT 1 FROM users WHERE username = ?1 AND realm = ?2",
    "INSERT INTO users (username, realm, created) VALUES (?1, ?2, ?3) ON CONFLICT DO NOTHING",
    "SELECT COUNT(*) FROM users WHERE realm = ?1",
    "SELECT realm, enabled FROM api_keys WHERE key = ?1",
    "INSERT INTO api_keys (key, realm, enabled, created) VALUES (?1, ?2, ?3, ?4)"
    " ON CONFLICT DO NOTHING",
    "INSERT INTO reports (realm, api_key, nickname, received_ms) VALUES (?1, ?2, ?3, ?4)",
    "INSERT INTO observations (realm, report_id, mac, latitude, longitude, accuracy, rss, time_ms)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
};

// A statement under way; reset when it goes, so that no read stays open.
struct ResetStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_reset(statement); }
};
using Running = std::unique_ptr<sqlite3_stmt, ResetStatement>;

std::string message(sqlite3* connection) {
    return connection ? sqlite3_errmsg(connection) : "out of memory";
}

class Session final : public SchemaSession {
  public:
    explicit Session(sqlite3* connection) : connection_(connection) {}

    bool execute(const std::string& sql, std::string& error) override {
        char* text = nullptr;
        if (sqlite3_exec(connection_, sql.c_str(), nullptr, nullptr, &text) == SQLITE_OK) {
            return true;
        }
        error = text ? text : message(connection_);
        sqlite3_free(text);
        return false;
    }

    std::optional<long long> number(const std::string& sql, std::string& error) override {
        sqlite3_stmt* statement = nullptr;
        std::optional<long long> value;
        if (sqlite3_prepare_v2(connection_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            value = sqlite3_column_int64(statement, 0);
        } else {
            error = "\"" + sql + "\": " + message(connection_);
        }
        sqlite3_finalize(statement);
        return value;
    }

  private:
    sqlite3* connection_;
};

// The C library's floor and pow as SQL functions, for an SQLite built without its
// own, so that the learning statements read the same on both back ends.
void floorFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
    sqlite3_result_double(context, std::floor(sqlite3_value_double(arguments[0])));
}

void powerFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
    sqlite3_result_double(
        context, std::pow(sqlite3_value_double(arguments[0]), sqlite3_value_double(arguments[1])));
}

bool haveMathFunctions(sqlite3* connection, std::string& error) {
    Session session(connection);
    if (session.number("SELECT floor(1.5) + power(10, 2)", error)) {
        return true;
    }
    const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
    return (sqlite3_create_function(connection, "floor", 1, flags, nullptr, floorFunction, nullptr,
                                    nullptr) == SQLITE_OK &&
            sqlite3_create_function(connection, "power", 2, flags, nullptr, powerFunction, nullptr,
                                    nullptr) == SQLITE_OK) ||
           (error = message(connection), false);
}

class Row final : public SqlRow {
  public:
    explicit Row(sqlite3_stmt* statement) : statement_(statement) {}
    int64_t integer(int column) const override { return sqlite3_column_int64(statement_, column); }
    double real(int column) const override { return sqlite3_column_double(statement_, column); }

  private:
    sqlite3_stmt* statement_;
};

// The learning statements on the process's one connection. Parameters $N are
// SQLite's ?N, numbered as written.
class Learning final : public LearningSession {
  public:
    explicit Learning(sqlite3* connection) : connection_(connection) {}

    bool run(const std::string& sql, const std::vector<SqlValue>& parameters,
             const std::function<void(const SqlRow&)>& row, std::string& error) override {
        std::string text = sql;
        std::replace(text.begin(), text.end(), '$', '?');
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(connection_, text.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            error = message(connection_);
            return false;
        }
        for (size_t i = 0; i < parameters.size(); ++i) {
            const int index = static_cast<int>(i) + 1;
            if (const auto* number = std::get_if<int64_t>(&parameters[i])) {
                sqlite3_bind_int64(statement, index, *number);
            } else if (const auto* real = std::get_if<double>(&parameters[i])) {
                sqlite3_bind_double(statement, index, *real);
            } else {
                const std::string& value = std::get<std::string>(parameters[i]);
                sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                                  SQLITE_TRANSIENT);
            }
        }
        int stepped = SQLITE_ROW;
        const Row reader(statement);
        while ((stepped = sqlite3_step(statement)) == SQLITE_ROW) {
            if (row) {
                row(reader);
            }
        }
        if (stepped != SQLITE_DONE) {
            error = message(connection_);
        }
        sqlite3_finalize(statement);
        return stepped == SQLITE_DONE;
    }

    bool begin(std::string& error) override { return run("BEGIN IMMEDIATE", {}, {}, error); }

    // One writer at a time gives AUTOINCREMENT ids, and each commits before the
    // next begins: every id up to the largest is settled.
    std::optional<int64_t> settledObservations(std::string& error) override {
        std::optional<int64_t> settled;
        if (!run(
                "SELECT COALESCE(MAX(id), 0) FROM observations", {},
                [&](const SqlRow& row) { settled = row.integer(0); }, error)) {
            return std::nullopt;
        }
        return settled;
    }

  private:
    sqlite3* connection_;
};

class SqliteDatabase final : public Database {
  public:
    SqliteDatabase(sqlite3* connection, SPI::Logger& category)
        : category_(category), connection_(connection) {}

    ~SqliteDatabase() override {
        for (sqlite3_stmt* statement : statements_) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(connection_);
    }

    // Switching a new file to WAL takes a lock the busy handler does not wait for,
    // so a node opening the same new file at once can make it fail busy: try again
    // for as long as the busy time-out.
    bool enterWalMode(Session& session, std::string& error) {
        for (int waitedMs = 0;; waitedMs += 10) {
            if (session.execute("PRAGMA journal_mode=WAL", error)) {
                return true;
            }
            if ((sqlite3_errcode(connection_) & 0xFF) != SQLITE_BUSY ||
                waitedMs >= kBusyTimeoutMs) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    // Sets the connection up, migrates the schema and prepares the statements.
    bool start(std::string& error) {
        sqlite3_busy_timeout(connection_, kBusyTimeoutMs);
        Session session(connection_);
        // FULL: an acknowledged registration or report survives a power cut, not
        // only a crash of the process (a sync per commit; reports come in batches).
        if (!enterWalMode(session, error) || !session.execute("PRAGMA synchronous=FULL", error) ||
            !haveMathFunctions(connection_, error) || !migrateSchema(session, kDialect, error)) {
            return false;
        }
        for (int i = 0; i < kStatements; ++i) {
            if (sqlite3_prepare_v3(connection_, kStatementSql[i], -1, SQLITE_PREPARE_PERSISTENT,
                                   &statements_[i], nullptr) != SQLITE_OK) {
                error = "cannot prepare a query: " + message(connection_);
                return false;
            }
        }
        return true;
    }

    Lookup findUser(const std::string& username, const std::string& realm) override {
        std::lock_guard lock(mutex_);
        Running find = bind(kFindUser, {username, realm});
        return lookup(sqlite3_step(find.get()), "user lookup");
    }

    Addition addUser(const std::string& username, const std::string& realm) override {
        std::lock_guard lock(mutex_);
        Running insert = bind(kAddUser, {username, realm});
        sqlite3_bind_int64(insert.get(), 3, SPI::currentTime().seconds);
        return addition(sqlite3_step(insert.get()), "adding a user");
    }

    std::optional<size_t> countUsers(const std::string& realm) override {
        std::lock_guard lock(mutex_);
        Running count = bind(kCountUsers, {realm});
        if (lookup(sqlite3_step(count.get()), "counting users") != Lookup::Registered) {
            return std::nullopt;
        }
        return static_cast<size_t>(sqlite3_column_int64(count.get(), 0));
    }

    KeyLookup findKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        Running find = bind(kFindKey, {key});
        KeyLookup found;
        found.result = lookup(sqlite3_step(find.get()), "key lookup");
        if (found.result == Lookup::Registered) {
            found.realm = reinterpret_cast<const char*>(sqlite3_column_text(find.get(), 0));
            found.enabled = sqlite3_column_int(find.get(), 1) != 0;
        }
        return found;
    }

    Addition addKey(const std::string& key, const std::string& realm, bool enabled) override {
        std::lock_guard lock(mutex_);
        Running insert = bind(kAddKey, {key, realm});
        sqlite3_bind_int(insert.get(), 3, enabled ? 1 : 0);
        sqlite3_bind_int64(insert.get(), 4, SPI::currentTime().seconds);
        return addition(sqlite3_step(insert.get()), "adding a key");
    }

    Addition addReport(const Report& report) override {
        std::lock_guard lock(mutex_);
        Session session(connection_);
        std::string error;
        if (!session.execute("BEGIN IMMEDIATE", error)) {
            ZEL_LOG_ERROR(category_, "storing a report failed: %s", error.c_str());
            return Addition::Failed;
        }
        bool stored = false;
        {
            Running insert = bind(kAddReport, {report.realm, report.apiKey, report.nickname});
            sqlite3_bind_int64(insert.get(), 4, static_cast<sqlite3_int64>(report.receivedMs));
            stored = sqlite3_step(insert.get()) == SQLITE_DONE;
        }
        const sqlite3_int64 reportId = sqlite3_last_insert_rowid(connection_);
        for (size_t i = 0; stored && i < report.observations.size(); ++i) {
            const Learn::Observation& observation = report.observations[i];
            Running insert = bind(kAddObservation, {report.realm});
            sqlite3_bind_int64(insert.get(), 2, reportId);
            sqlite3_bind_int64(insert.get(), 3,
                               static_cast<sqlite3_int64>(Learn::macKey(observation.mac)));
            sqlite3_bind_double(insert.get(), 4, observation.latitude);
            sqlite3_bind_double(insert.get(), 5, observation.longitude);
            sqlite3_bind_double(insert.get(), 6, observation.accuracy);
            sqlite3_bind_int(insert.get(), 7, observation.rss);
            sqlite3_bind_int64(insert.get(), 8, static_cast<sqlite3_int64>(observation.timeMs));
            stored = sqlite3_step(insert.get()) == SQLITE_DONE;
        }
        error = message(connection_);
        if (stored && session.execute("COMMIT", error)) {
            return Addition::Added;
        }
        std::string ignored;
        session.execute("ROLLBACK", ignored);
        ZEL_LOG_ERROR(category_, "storing a report failed: %s", error.c_str());
        return Addition::Failed;
    }

  protected:
    // Learning holds the process's one connection for its run: requests wait for it
    // (an incremental run takes milliseconds at the sizes one SQLite file serves).
    bool withLearningSession(const std::function<bool(LearningSession&)>& work,
                             std::string&) override {
        std::lock_guard lock(mutex_);
        Learning session(connection_);
        return work(session);
    }

  private:
    // The statement, reset, with the texts bound to its first parameters.
    Running bind(Statement which, std::initializer_list<std::string> texts) {
        sqlite3_stmt* statement = statements_[which];
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
        int parameter = 1;
        for (const std::string& text : texts) {
            sqlite3_bind_text(statement, parameter++, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT);
        }
        return Running(statement);
    }

    Lookup lookup(int stepResult, const char* what) {
        if (stepResult == SQLITE_ROW) {
            return Lookup::Registered;
        }
        if (stepResult == SQLITE_DONE) {
            return Lookup::Unknown;
        }
        ZEL_LOG_ERROR(category_, "%s failed: %s", what, sqlite3_errmsg(connection_));
        return Lookup::Failed;
    }

    Addition addition(int stepResult, const char* what) {
        if (stepResult != SQLITE_DONE) {
            ZEL_LOG_ERROR(category_, "%s failed: %s", what, sqlite3_errmsg(connection_));
            return Addition::Failed;
        }
        return sqlite3_changes(connection_) == 1 ? Addition::Added : Addition::Exists;
    }

    SPI::Logger& category_;
    std::mutex mutex_;
    sqlite3* connection_;
    sqlite3_stmt* statements_[kStatements] = {};
};

}  // namespace

std::unique_ptr<Database> openSqliteDatabase(const std::string& path, std::string& error) {
    SPI::Logger& category = SPI::getLogger("ZEL.Server.Database");
    sqlite3* connection = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int opened = sqlite3_open_v2(path.c_str(), &connection, flags, nullptr);
    auto database = std::make_unique<SqliteDatabase>(connection, category);
    if (opened != SQLITE_OK || !database->start(error)) {
        error = "cannot open database sqlite:" + path + ": " +
                (opened != SQLITE_OK ? message(connection) : error);
        ZEL_LOG_ERROR(category, "%s", error.c_str());
        return nullptr;
    }
    return database;
}

}  // namespace ZEL::Server
