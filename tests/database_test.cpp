// Both database back ends through the same tests (concurrent registrations through
// two servers on one database: zel_server_test).
#include "server/database.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <latch>
#include <thread>

#include "support/log_capture.h"
#include "support/test_databases.h"

namespace ZEL::Server {
namespace {

using namespace Testing;
using Lookup = Database::Lookup;
using Addition = Database::Addition;

class DatabaseBackend : public BackendTest {
  protected:
    std::unique_ptr<Database> open() {
        std::string error;
        std::unique_ptr<Database> database = Database::open(url_, error);
        EXPECT_NE(database, nullptr) << error;
        return database;
    }
};

TEST_P(DatabaseBackend, UsersAndKeysAndTheirFailures) {
    auto database = open();
    ASSERT_NE(database, nullptr);
    EXPECT_EQ(database->addUser("o'brien; --", "acme"), Addition::Added);
    EXPECT_EQ(database->addUser("o'brien; --", "acme"), Addition::Exists);
    EXPECT_EQ(database->addUser("o'brien; --", "other"), Addition::Added);
    EXPECT_EQ(database->findUser("o'brien; --", "acme"), Lookup::Registered);
    EXPECT_EQ(database->countUsers("acme"), 1u);

    EXPECT_EQ(database->addKey("k1", "acme"), Addition::Added);
    EXPECT_EQ(database->addKey("k1", "other"), Addition::Exists);
    EXPECT_EQ(database->addKey("k2", "other", false), Addition::Added);
    const Database::KeyLookup k1 = database->findKey("k1"), k2 = database->findKey("k2");
    EXPECT_EQ(k1.realm + (k1.enabled ? "+" : "-") + k2.realm + (k2.enabled ? "+" : "-"),
              "acme+other-");
    EXPECT_EQ(database->findKey("k3").result, Lookup::Unknown);

    queryTestDatabase(url_, "DROP TABLE users; DROP TABLE api_keys");
    const LogCapture log("ZEL.Server.Database");
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Failed);
    EXPECT_EQ(database->addUser("alice", "acme"), Addition::Failed);
    EXPECT_EQ(database->countUsers("acme"), std::nullopt);
    EXPECT_EQ(database->findKey("k1").result, Lookup::Failed);
    ASSERT_EQ(log.messages().size(), 4u);
    EXPECT_THAT(log.messages()[0].text, ::testing::ContainsRegex("^user lookup failed: .*users"));
}

TEST_P(DatabaseBackend, MigratesFromVersionOneAndRefusesANewerSchema) {
    // The users table as the first servers made it (schema version 1), and a stray
    // table on which the step to version 2 fails, leaving version 1 as it was.
    queryTestDatabase(url_,
                      "CREATE TABLE users (realm TEXT NOT NULL, username TEXT NOT NULL, created"
                      " INTEGER NOT NULL, PRIMARY KEY (realm, username))" +
                          std::string(GetParam() == Backend::kSqlite ? " WITHOUT ROWID" : "") +
                          "; INSERT INTO users VALUES ('acme', 'alice', 1); CREATE TABLE api_keys"
                          " (key TEXT)");
    std::string error;
    EXPECT_EQ(Database::open(url_, error), nullptr);
    EXPECT_NE(error.find(": schema step to version 2 failed: "), std::string::npos) << error;
    queryTestDatabase(url_, "DROP TABLE api_keys");
    auto database = open();
    ASSERT_NE(database, nullptr);
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Registered);
    EXPECT_EQ(database->addKey("k1", "acme"), Addition::Added);

    queryTestDatabase(url_, "UPDATE schema_version SET version = 5");
    EXPECT_EQ(Database::open(url_, error), nullptr);
    EXPECT_NE(error.find(": the database's schema version 5 is newer than this program's (4)"),
              std::string::npos)
        << error;
}

TEST_P(DatabaseBackend, NodesStartingTogetherMigrateOnce) {
    std::latch start(3);
    auto node = [&] {
        start.arrive_and_wait();
        return open();
    };
    auto first = std::async(std::launch::async, node),
         second = std::async(std::launch::async, node);
    const std::unique_ptr<Database> nodes[] = {node(), first.get(), second.get()};
    ASSERT_TRUE(nodes[0] && nodes[1] && nodes[2]);
    EXPECT_EQ(queryTestDatabase(url_, "SELECT COUNT(*) || ' ' || MAX(version) FROM schema_version"),
              "1 4");
}

INSTANTIATE_TEST_SUITE_P(SqliteAndPostgresql, DatabaseBackend,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

// A statement the server does not answer (here: a lock held by another session)
// fails at the URL's connect_timeout instead of holding its request; once the
// lock is gone the next one runs.
using PostgresqlDatabase = DatabaseBackend;
TEST_P(PostgresqlDatabase, AStatementWithoutAnAnswerFailsAtTheDeadline) {
    url_ += "&connect_timeout=2";
    auto database = open();
    ASSERT_NE(database, nullptr);
    ASSERT_EQ(database->addUser("alice", "acme"), Addition::Added);
    const std::string lock = "psql -XAtq '" + url_ +
                             "' -c 'BEGIN; LOCK TABLE users; SELECT pg_sleep(60)' >/dev/null 2>&1";
    FILE* holder = popen(lock.c_str(), "r");
    const std::string locks =
        "SELECT COUNT(*) FROM pg_locks WHERE relation = 'users'::regclass AND granted";
    for (int i = 0; i < 200 && queryTestDatabase(url_, locks) == "0"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const LogCapture log("ZEL.Server.Database");
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Failed);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].text, "user lookup failed: no answer within 2 s");
    queryTestDatabase(url_,
                      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
                      " WHERE query LIKE '%pg_sleep(60)%' AND pid <> pg_backend_pid()");
    pclose(holder);
    EXPECT_EQ(database->findUser("alice", "acme"), Lookup::Registered);
}

INSTANTIATE_TEST_SUITE_P(Only, PostgresqlDatabase, ::testing::Values(Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

TEST(DatabaseUrl, IsRefusedUnlessItNamesABackEnd) {
    std::string error;
    EXPECT_EQ(Database::open("mysql://host/zel", error), nullptr);
    EXPECT_EQ(error,
              "unknown database URL \"mysql://host/zel\": use sqlite:PATH or postgresql://...");
    EXPECT_EQ(Database::open("postgresql:///zel?host=/nonexistent", error), nullptr);
    EXPECT_EQ(error.rfind("cannot open the PostgreSQL database: ", 0), 0u) << error;
}

}  // namespace
}  // namespace ZEL::Server
