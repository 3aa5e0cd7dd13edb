// The shared back end: a PostgreSQL server through libpq, for any number of nodes.
// Each operation borrows a connection from a small pool (one per operation under
// way), so requests do not queue behind each other's round trips; a
// connection that broke is dropped and the next operation connects afresh.
// Migrations take a transaction-scoped advisory lock, so nodes that start together
// migrate one after the other and the later ones find nothing left to do.
#include <libpq-fe.h>

#include <poll.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "server/database.h"
#include "server/database_learning.h"
#include "server/database_schema.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

// Idle connections kept for the next operations; more are opened when needed.
constexpr size_t kIdleConnections = 8;
// Seconds to wait for a connection, and for the answer to each statement, unless
// the URL's connect_timeout says otherwise: a server that is unreachable, frozen or
// stuck behind a lock is an error answer, not a request that hangs (libpq waits
// forever, and the request would hold one of the server's threads).
constexpr int kTimeoutSeconds = 5;

constexpr SchemaDialect kDialect = {
    // The advisory lock's key: any number, the same on every node ("ZELSCHEM" in ASCII).
    "BEGIN; SELECT pg_advisory_xact_lock(6504689157301355853)",
    "SELECT COUNT(*) FROM information_schema.tables"
    " WHERE table_schema = current_schema() AND table_name = ",
    {
        "CREATE TABLE users ("
        " realm TEXT NOT NULL,"
        " username TEXT NOT NULL,"
        " created BIGINT NOT NULL,"
        " PRIMARY KEY (realm, username));",

        "CREATE TABLE api_keys ("
        " key TEXT NOT NULL PRIMARY KEY,"
        " realm TEXT NOT NULL,"
        " enabled BOOLEAN NOT NULL,"
        " created BIGINT NOT NULL);"
        "CREATE TABLE schema_version (version INTEGER NOT NULL);"
        "INSERT INTO schema_version VALUES (2);",

        // BIGSERIAL ids are taken in order but commit in any order: a reader of "what
        // came since" must first wait for the transactions that took lower ids.
        "CREATE TABLE reports ("
        " id BIGSERIAL PRIMARY KEY,"
        " realm TEXT NOT NULL,"
        " api_key TEXT NOT NULL,"
        " nickname TEXT NOT NULL,"
        " received_ms BIGINT NOT NULL);"
        "CREATE TABLE observations ("
        " id BIGSERIAL PRIMARY KEY,"
        " report_id BIGINT NOT NULL REFERENCES reports(id),"
        " realm TEXT NOT NULL,"
        " mac BIGINT NOT NULL,"
        " latitude DOUBLE PRECISION NOT NULL,"
        " longitude DOUBLE PRECISION NOT NULL,"
        " accuracy DOUBLE PRECISION NOT NULL,"
        " rss INTEGER NOT NULL,"
        " time_ms BIGINT NOT NULL);",

        "CREATE TABLE ap_cells ("
        " realm TEXT NOT NULL,"
        " mac BIGINT NOT NULL,"
        " cell_row INTEGER NOT NULL,"
        " cell_column INTEGER NOT NULL,"
        " count BIGINT NOT NULL,"
        " weight DOUBLE PRECISION NOT NULL,"
        " weighted_latitude DOUBLE PRECISION NOT NULL,"
        " weighted_longitude DOUBLE PRECISION NOT NULL,"
        " accuracy_sum DOUBLE PRECISION NOT NULL,"
        " rss_count BIGINT NOT NULL,"
        " rss_sum DOUBLE PRECISION NOT NULL,"
        " rss_squares DOUBLE PRECISION NOT NULL,"
        " oldest_ms BIGINT NOT NULL,"
        " newest_ms BIGINT NOT NULL,"
        " PRIMARY KEY (realm, mac, cell_row, cell_column));"
        "CREATE TABLE learned_aps ("
        " realm TEXT NOT NULL,"
        " mac BIGINT NOT NULL,"
        " verdict INTEGER NOT NULL,"
        " latitude DOUBLE PRECISION NOT NULL,"
        " longitude DOUBLE PRECISION NOT NULL,"
        " quality INTEGER NOT NULL,"
        " signal_exponent DOUBLE PRECISION NOT NULL,"
        " exponent_fitted INTEGER NOT NULL,"
        " overflowing INTEGER NOT NULL,"
        " PRIMARY KEY (realm, mac));"
        "CREATE TABLE learning_state ("
        " realm TEXT NOT NULL PRIMARY KEY,"
        " watermark BIGINT NOT NULL);",
    }};

// A report and its observations in one statement, so in one transaction and one
// round trip: the observations arrive as six parallel arrays.
constexpr const char kAddReportSql[] =
    "WITH report AS ("
    " INSERT INTO reports (realm, api_key, nickname, received_ms) VALUES ($1, $2, $3, $4)"
    " RETURNING id),"
    " stored AS ("
    " INSERT INTO observations"
    " (report_id, realm, mac, latitude, longitude, accuracy, rss, time_ms)"
    " SELECT report.id, $1, o.mac, o.latitude, o.longitude, o.accuracy, o.rss, o.time_ms"
    " FROM report, unnest($5::BIGINT[], $6::DOUBLE PRECISION[], $7::DOUBLE PRECISION[],"
    " $8::DOUBLE PRECISION[], $9::INTEGER[], $10::BIGINT[])"
    " AS o (mac, latitude, longitude, accuracy, rss, time_ms))"
    " SELECT id FROM report";

// The values as a PostgreSQL array literal, "{v1,v2,...}"; doubles in the shortest
// text that reads back the same.
template <typename Value>
std::string arrayText(const std::vector<Learn::Observation>& observations, Value value) {
    std::string text = "{";
    char number[32];
    for (const Learn::Observation& observation : observations) {
        const auto written = std::to_chars(number, number + sizeof number, value(observation));
        text.append(number, written.ptr);
        text += ',';
    }
    if (text.size() > 1) {
        text.pop_back();
    }
    return text + "}";
}

struct FinishConnection {
    void operator()(PGconn* connection) const { PQfinish(connection); }
};
using Connection = std::unique_ptr<PGconn, FinishConnection>;
struct ClearResult {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ClearResult>;

// The server's message without libpq's trailing newline.
std::string message(PGconn* connection, const PGresult* result = nullptr) {
    std::string text = result ? PQresultErrorMessage(result) : PQerrorMessage(connection);
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// connect_timeout from the URL, else kTimeoutSeconds; at least 1 (libpq's rule for 0
// is "forever", which a statement must never wait).
int timeoutSeconds(const std::string& url) {
    int seconds = kTimeoutSeconds;
    PQconninfoOption* options = PQconninfoParse(url.c_str(), nullptr);
    for (PQconninfoOption* option = options; option && option->keyword; ++option) {
        if (std::string(option->keyword) == "connect_timeout" && option->val) {
            seconds = std::max(1, std::atoi(option->val));
        }
    }
    PQconninfoFree(options);
    return seconds;
}

// Waits until a result of the statement sent on `connection` is ready; false with
// `error` set when it broke or nothing came before `deadline`.
bool awaitResult(PGconn* connection, std::chrono::steady_clock::time_point deadline,
                 std::string& error) {
    while (PQisBusy(connection)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd socket{PQsocket(connection), POLLIN, 0};
        if (left.count() <= 0 || poll(&socket, 1, static_cast<int>(left.count())) == 0) {
            error = "no answer in time";
            return false;
        }
        if (!PQconsumeInput(connection)) {
            error = message(connection);
            return false;
        }
    }
    return true;
}

// The result of one statement, or null with `error` set when it could not be sent
// or its answer did not come within `seconds` (the caller must then drop the
// connection: closing it ends the statement's session on the server).
Result execute(PGconn* connection, const char* sql, const std::vector<const char*>& values,
               int seconds, std::string& error) {
    if (!PQsendQueryParams(connection, sql, static_cast<int>(values.size()), nullptr, values.data(),
                           nullptr, nullptr, 0)) {
        error = message(connection);
        return nullptr;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    if (!awaitResult(connection, deadline, error)) {
        if (error == "no answer in time") {
            error = "no answer within " + std::to_string(seconds) + " s";
        }
        return nullptr;
    }
    Result result(PQgetResult(connection));
    while (PGresult* more = PQgetResult(connection)) {  // the protocol ends with a null
        PQclear(more);
    }
    return result;
}

// A statement of a learning run may take minutes on a large database (the first
// run folds in every observation); one that has no answer in this long is failed.
constexpr int kLearningTimeoutSeconds = 1800;

class Row final : public SqlRow {
  public:
    explicit Row(const PGresult* result) : result_(result) {}
    int64_t integer(int column) const override {
        return std::strtoll(PQgetvalue(result_, 0, column), nullptr, 10);
    }
    double real(int column) const override {
        return std::strtod(PQgetvalue(result_, 0, column), nullptr);
    }

  private:
    const PGresult* result_;
};

// Learning on one connection; rows come one at a time (libpq's single-row mode),
// so a run over millions of cells never holds them all.
class Learning final : public LearningSession {
  public:
    explicit Learning(PGconn* connection) : connection_(connection) {}

    bool run(const std::string& sql, const std::vector<SqlValue>& parameters,
             const std::function<void(const SqlRow&)>& row, std::string& error) override {
        std::vector<std::string> texts;
        for (const SqlValue& parameter : parameters) {
            if (const auto* number = std::get_if<int64_t>(&parameter)) {
                texts.push_back(std::to_string(*number));
            } else if (const auto* real = std::get_if<double>(&parameter)) {
                char text[40];
                std::snprintf(text, sizeof text, "%.17g", *real);  // reads back the same
                texts.emplace_back(text);
            } else {
                texts.push_back(std::get<std::string>(parameter));
            }
        }
        std::vector<const char*> values;
        for (const std::string& text : texts) {
            values.push_back(text.c_str());
        }
        if (!PQsendQueryParams(connection_, sql.c_str(), static_cast<int>(values.size()), nullptr,
                               values.data(), nullptr, nullptr, 0)) {
            error = message(connection_);
            return false;
        }
        PQsetSingleRowMode(connection_);
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::seconds(kLearningTimeoutSeconds);
        bool ok = true;
        while (true) {
            if (!awaitResult(connection_, deadline, error)) {
                return false;  // the connection is dropped, being busy
            }
            Result result(PQgetResult(connection_));
            if (!result) {
                return ok;
            }
            const ExecStatusType status = PQresultStatus(result.get());
            if (status == PGRES_SINGLE_TUPLE && row) {
                row(Row(result.get()));
            } else if (status != PGRES_SINGLE_TUPLE && status != PGRES_TUPLES_OK &&
                       status != PGRES_COMMAND_OK && ok) {
                error = message(connection_, result.get());
                ok = false;
            }
        }
    }

    bool begin(std::string& error) override { return run("BEGIN", {}, {}, error); }

    // Ids come from a sequence and commit out of order. SHARE mode waits for every
    // transaction that has inserted into the table (any that holds an id) to end,
    // and keeps new ones out while the largest id is read; briefly, so that intake
    // waits no longer than the read.
    std::optional<int64_t> settledObservations(std::string& error) override {
        std::optional<int64_t> settled;
        std::string ignored;
        if (run("BEGIN", {}, {}, error) && run("SET LOCAL lock_timeout = '30s'", {}, {}, error) &&
            run("LOCK TABLE observations IN SHARE MODE", {}, {}, error) &&
            run(
                "SELECT COALESCE(MAX(id), 0) FROM observations", {},
                [&](const SqlRow& row) { settled = row.integer(0); }, error) &&
            run("COMMIT", {}, {}, error)) {
            return settled;
        }
        run("ROLLBACK", {}, {}, ignored);
        return std::nullopt;
    }

  private:
    PGconn* connection_;
};

class Session final : public SchemaSession {
  public:
    explicit Session(PGconn* connection) : connection_(connection) {}

    bool execute(const std::string& sql, std::string& error) override {
        Result result(PQexec(connection_, sql.c_str()));
        const ExecStatusType status = PQresultStatus(result.get());
        if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
            return true;
        }
        error = message(connection_, result.get());
        return false;
    }

    std::optional<long long> number(const std::string& sql, std::string& error) override {
        Result result(PQexec(connection_, sql.c_str()));
        if (PQresultStatus(result.get()) == PGRES_TUPLES_OK && PQntuples(result.get()) > 0) {
            return std::stoll(PQgetvalue(result.get(), 0, 0));
        }
        error = "\"" + sql + "\": " + message(connection_, result.get());
        return std::nullopt;
    }

  private:
    PGconn* connection_;
};

class PostgresqlDatabase final : public Database {
  public:
    PostgresqlDatabase(std::string url, SPI::Logger& category)
        : category_(category), url_(std::move(url)), timeoutSeconds_(timeoutSeconds(url_)) {}

    // Connects and migrates the schema.
    bool start(std::string& error) {
        Connection connection = connect(error);
        if (!connection) {
            return false;
        }
        Session session(connection.get());
        if (!migrateSchema(session, kDialect, error)) {
            return false;
        }
        idle_.push_back(std::move(connection));
        return true;
    }

    Lookup findUser(const std::string& username, const std::string& realm) override {
        return run("user lookup", "SELECT 1 FROM users WHERE username = $1 AND realm = $2",
                   {username, realm}, [](PGresult*) {});
    }

    Addition addUser(const std::string& username, const std::string& realm) override {
        return added(run("adding a user",
                         "INSERT INTO users (username, realm, created) VALUES ($1, $2, $3)"
                         " ON CONFLICT DO NOTHING",
                         {username, realm, now()}, [](PGresult*) {}));
    }

    std::optional<size_t> countUsers(const std::string& realm) override {
        size_t users = 0;
        const Lookup result =
            run("counting users", "SELECT COUNT(*) FROM users WHERE realm = $1", {realm},
                [&](PGresult* rows) { users = std::stoull(PQgetvalue(rows, 0, 0)); });
        return result == Lookup::Registered ? std::optional<size_t>(users) : std::nullopt;
    }

    KeyLookup findKey(const std::string& key) override {
        KeyLookup found;
        found.result = run("key lookup", "SELECT realm, enabled FROM api_keys WHERE key = $1",
                           {key}, [&](PGresult* rows) {
                               found.realm = PQgetvalue(rows, 0, 0);
                               found.enabled = PQgetvalue(rows, 0, 1)[0] == 't';
                           });
        return found;
    }

    Addition addKey(const std::string& key, const std::string& realm, bool enabled) override {
        return added(run("adding a key",
                         "INSERT INTO api_keys (key, realm, enabled, created)"
                         " VALUES ($1, $2, $3, $4) ON CONFLICT DO NOTHING",
                         {key, realm, enabled ? "true" : "false", now()}, [](PGresult*) {}));
    }

    // The one retry after a broken connection (see run) stores the report twice in
    // the rare case that the connection broke after the commit: never lost.
    Addition addReport(const Report& report) override {
        using Observation = Learn::Observation;
        const std::vector<Observation>& all = report.observations;
        const Lookup stored =
            run("storing a report", kAddReportSql,
                {report.realm, report.apiKey, report.nickname, std::to_string(report.receivedMs),
                 arrayText(all, [](const Observation& o) { return int64_t(Learn::macKey(o.mac)); }),
                 arrayText(all, [](const Observation& o) { return o.latitude; }),
                 arrayText(all, [](const Observation& o) { return o.longitude; }),
                 arrayText(all, [](const Observation& o) { return o.accuracy; }),
                 arrayText(all, [](const Observation& o) { return o.rss; }),
                 arrayText(all, [](const Observation& o) { return int64_t(o.timeMs); })},
                [](PGresult*) {});
        return stored == Lookup::Registered ? Addition::Added : Addition::Failed;
    }

  protected:
    // A connection of the pool for the run; dropped afterwards unless it is idle
    // and outside any transaction (a statement that had no answer in time may
    // still be running on it).
    bool withLearningSession(const std::function<bool(LearningSession&)>& work,
                             std::string& error) override {
        Connection connection = borrow(error);
        if (!connection) {
            return false;
        }
        Learning session(connection.get());
        const bool done = work(session);
        if (PQtransactionStatus(connection.get()) == PQTRANS_IDLE) {
            giveBack(std::move(connection));
        }
        return done;
    }

  private:
    static std::string now() { return std::to_string(SPI::currentTime().seconds); }

    // An INSERT ... ON CONFLICT DO NOTHING "finds" a row when it inserted one.
    static Addition added(Lookup inserted) {
        switch (inserted) {
            case Lookup::Registered:
                return Addition::Added;
            case Lookup::Unknown:
                return Addition::Exists;
            case Lookup::Failed:
                break;
        }
        return Addition::Failed;
    }

    Connection connect(std::string& error) {
        // The URL's own settings override the time-out given before it.
        const char* const keywords[] = {"connect_timeout", "dbname", nullptr};
        const std::string timeout = std::to_string(kTimeoutSeconds);
        const char* const values[] = {timeout.c_str(), url_.c_str(), nullptr};
        Connection connection(PQconnectdbParams(keywords, values, 1));
        if (PQstatus(connection.get()) != CONNECTION_OK) {
            error = message(connection.get());
            return nullptr;
        }
        return connection;
    }

    // Runs one statement with text parameters on a pooled connection, once more on
    // a new connection when the pooled one turns out broken (the server restarted).
    // Registered when it returned or changed a row (`read` then sees the result),
    // Unknown when none, Failed (logged) when it did not run.
    template <typename Read>
    Lookup run(const char* what, const char* sql, std::initializer_list<std::string> parameters,
               Read read) {
        std::vector<const char*> values;
        for (const std::string& parameter : parameters) {
            values.push_back(parameter.c_str());
        }
        std::string error;
        for (int attempt = 0; attempt < 2; ++attempt) {
            Connection connection = borrow(error);
            if (!connection) {
                break;
            }
            Result result = execute(connection.get(), sql, values, timeoutSeconds_, error);
            if (!result) {
                if (PQstatus(connection.get()) == CONNECTION_OK) {
                    break;  // no answer in time: a second try would wait as long again
                }
                continue;  // broken: once more on a new connection
            }
            const ExecStatusType status = PQresultStatus(result.get());
            if (status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK) {
                const bool row = status == PGRES_TUPLES_OK
                                     ? PQntuples(result.get()) > 0
                                     : std::string(PQcmdTuples(result.get())) == "1";
                if (row) {
                    read(result.get());
                }
                giveBack(std::move(connection));
                return row ? Lookup::Registered : Lookup::Unknown;
            }
            error = message(connection.get(), result.get());
            if (PQstatus(connection.get()) == CONNECTION_OK) {
                giveBack(std::move(connection));
                break;
            }
        }
        ZEL_LOG_ERROR(category_, "%s failed: %s", what, error.c_str());
        return Lookup::Failed;
    }

    Connection borrow(std::string& error) {
        {
            std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                Connection connection = std::move(idle_.back());
                idle_.pop_back();
                return connection;
            }
        }
        return connect(error);
    }

    // Keeps the connection for later unless it broke or enough are idle.
    void giveBack(Connection connection) {
        std::lock_guard lock(mutex_);
        if (PQstatus(connection.get()) == CONNECTION_OK && idle_.size() < kIdleConnections) {
            idle_.push_back(std::move(connection));
        }
    }

    SPI::Logger& category_;
    const std::string url_;
    const int timeoutSeconds_;
    std::mutex mutex_;
    std::vector<Connection> idle_;
};

}  // namespace

std::unique_ptr<Database> openPostgresqlDatabase(const std::string& url, std::string& error) {
    SPI::Logger& category = SPI::getLogger("ZEL.Server.Database");
    auto database = std::make_unique<PostgresqlDatabase>(url, category);
    if (!database->start(error)) {
        // Not the URL: it may hold a password.
        error = "cannot open the PostgreSQL database: " + error;
        ZEL_LOG_ERROR(category, "%s", error.c_str());
        return nullptr;
    }
    return database;
}

}  // namespace ZEL::Server
