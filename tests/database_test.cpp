// The database back ends through the same tests: SQLite, and PostgreSQL on a server
// the test starts itself (skipped where the PostgreSQL programs are not installed).
// Concurrent registrations through two servers on one database: zel_server_test.
#include "server/database.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <sqlite3.h>

#include <latch>
#include <thread>

#include "support/hand_built_tile.h"
#include "support/log_capture.h"
#include "support/test_databases.h"

namespace ZEL::Server {
namespace {

using namespace Testing;
using Lookup = Database::Lookup;
using Addition = Database::Addition;

// The users table as the first servers made it: schema version 1.
constexpr const char kVersionOne[] =
    "CREATE TABLE users (realm TEXT NOT NULL, username TEXT NOT NULL,"
    " created INTEGER NOT NULL, PRIMARY KEY (realm, username))";

class DatabaseBackend : public ::testing::TestWithParam<Backend> {
  protected:
    void SetUp() override {
        std::string skipReason;
        url_ = newTestDatabase(GetParam(), folder_.path(), skipReason);
        if (url_.empty()) {
            GTEST_SKIP() << skipReason;
        }
    }

    std::unique_ptr<Database> open() {
        std::string error;
        std::unique_ptr<Database> database = Database::open(url_, error);
        EXPECT_NE(database, nullptr) << error;
        return database;
    }

    // Runs `sql` on the database past the back end; the first value it returns.
    std::string query(const std::string& sql) {
        std::string value;
        if (GetParam() == Backend::kSqlite) {
            sqlite3* connection = nullptr;
            sqlite3_open(url_.substr(7).c_str(), &connection);
            auto first = [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) = values[0] ? values[0] : "";
                return 1;  // one row is enough
            };
            const int result = sqlite3_exec(connection, sql.c_str(), first, &value, nullptr);
            EXPECT_TRUE(result == SQLITE_OK || result == SQLITE_ABORT)
                << sqlite3_errmsg(connection);
            sqlite3_close(connection);
            return value;
        }
        PGconn* connection = PQconnectdb(url_.c_str());
        PGresult* result = PQexec(connection, sql.c_str());
        EXPECT_NE(PQresultStatus(result), PGRES_FATAL_ERROR) << PQerrorMessage(connection);
        if (PQntuples(result) > 0) {
            value = PQgetvalue(result, 0, 0);
        }
        PQclear(result);
        PQfinish(connection);
        return value;
    }

    TempDir folder_;
    std::string url_;
};

TEST_P(DatabaseBackend, UsersAndKeys) {
    auto database = open();
    ASSERT_NE(database, nullptr);
    EXPECT_EQ(database->addUser("alice", "acme"), Addition::Added);
    EXPECT_EQ(database->addUser("alice", "acme"), Addition::Exists);
    EXPECT_EQ(database->addUser("alice", "other"), Addition::Added);
    EXPECT_EQ(database->addUser("o'brien; --", "acme"), Addition::Added);
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Registered);
    EXPECT_EQ(database->findUser("o'brien; --", "acme"), Lookup::Registered);
    EXPECT_EQ(database->findUser("o'brien; --", "other"), Lookup::Unknown);
    EXPECT_EQ(database->findUser("bob", "acme"), Lookup::Unknown);
    EXPECT_EQ(database->countUsers("acme"), 2u);
    EXPECT_EQ(database->countUsers("none"), 0u);

    EXPECT_EQ(database->addKey("k1", "acme"), Addition::Added);
    EXPECT_EQ(database->addKey("k1", "other"), Addition::Exists);
    EXPECT_EQ(database->addKey("k2", "other", false), Addition::Added);
    const Database::KeyLookup first = database->findKey("k1");
    EXPECT_EQ(first.result, Lookup::Registered);
    EXPECT_EQ(first.realm + (first.enabled ? " enabled" : ""), "acme enabled");
    const Database::KeyLookup second = database->findKey("k2");
    EXPECT_EQ(second.realm + (second.enabled ? " enabled" : ""), "other");
    EXPECT_EQ(database->findKey("k3").result, Lookup::Unknown);
}

TEST_P(DatabaseBackend, MigratesTheFirstServersUsersTable) {
    const bool sqlite = GetParam() == Backend::kSqlite;
    query(std::string(kVersionOne) + (sqlite ? " WITHOUT ROWID" : "") +
          "; INSERT INTO users VALUES ('acme', 'alice', 1)");
    auto database = open();
    ASSERT_NE(database, nullptr);
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Registered);
    EXPECT_EQ(database->addKey("k1", "acme"), Addition::Added);
    database.reset();
    // Opening again finds the schema current and changes nothing.
    ASSERT_NE(database = open(), nullptr);
    EXPECT_EQ(database->findKey("k1").result, Lookup::Registered);
    EXPECT_EQ(query("SELECT COUNT(*) || ' ' || MAX(version) FROM schema_version"), "1 2");
}

TEST_P(DatabaseBackend, NodesStartingTogetherMigrateOnce) {
    constexpr int kNodes = 4;
    std::latch start(kNodes);
    std::unique_ptr<Database> nodes[kNodes];
    std::vector<std::thread> threads;
    for (auto& node : nodes) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            node = open();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (auto& node : nodes) {
        ASSERT_NE(node, nullptr);
    }
    EXPECT_EQ(nodes[0]->addUser("alice", "acme"), Addition::Added);
    EXPECT_EQ(nodes[kNodes - 1]->addUser("alice", "acme"), Addition::Exists);
    EXPECT_EQ(query("SELECT COUNT(*) || ' ' || MAX(version) FROM schema_version"), "1 2");
}

TEST_P(DatabaseBackend, RefusesASchemaNewerThanItKnows) {
    ASSERT_NE(open(), nullptr);
    query("UPDATE schema_version SET version = 3");
    std::string error;
    EXPECT_EQ(Database::open(url_, error), nullptr);
    EXPECT_NE(error.find(": the database's schema version 3 is newer than this program's (2)"),
              std::string::npos)
        << error;
}

TEST_P(DatabaseBackend, FailuresAreLoggedAndReported) {
    auto database = open();
    ASSERT_NE(database, nullptr);
    query("DROP TABLE users; DROP TABLE api_keys");
    const LogCapture log("ZEL.Server.Database");
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Failed);
    EXPECT_EQ(database->addUser("alice", "acme"), Addition::Failed);
    EXPECT_EQ(database->countUsers("acme"), std::nullopt);
    EXPECT_EQ(database->findKey("k1").result, Lookup::Failed);
    EXPECT_EQ(database->addKey("k1", "acme"), Addition::Failed);
    ASSERT_EQ(log.messages().size(), 5u);
    EXPECT_EQ(log.messages()[0].text.rfind("user lookup failed: ", 0), 0u);
    EXPECT_EQ(log.messages()[4].priority, SPI::LogPriority::kError);
}

INSTANTIATE_TEST_SUITE_P(SqliteAndPostgresql, DatabaseBackend,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgresql),
                         backendName<::testing::TestParamInfo<Backend>>);

TEST(DatabaseUrl, NamesTheBackEndOrIsRefused) {
    const std::pair<const char*, const char*> rows[] = {
        {"mysql://host/zel", "unknown database URL \"mysql://host/zel\""},
        {"/var/lib/zel/users.db", "unknown database URL"},
        {"sqlite:/nonexistent/folder/users.db", "cannot open database sqlite:/nonexistent/"},
        {"postgresql:///zel?host=/nonexistent", "cannot open the PostgreSQL database: "},
        {"postgres:///zel?host=/nonexistent", "cannot open the PostgreSQL database: "},
    };
    for (const auto& [url, message] : rows) {
        std::string error;
        EXPECT_EQ(Database::open(url, error), nullptr) << url;
        EXPECT_EQ(error.rfind(message, 0), 0u) << error;
    }
}

}  // namespace
}  // namespace ZEL::Server
