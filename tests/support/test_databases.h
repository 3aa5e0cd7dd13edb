// Tests that run on each database back end: an SQLite file, and a new database on a
// PostgreSQL server of the process's own (tests/support/postgresql.sh).
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "support/hand_built_tile.h"

namespace ZEL::Testing {

enum class Backend { kSqlite, kPostgresql };

// Also a parameterised test's name.
inline void PrintTo(Backend backend, std::ostream* out) {
    *out << (backend == Backend::kSqlite ? "SQLite" : "PostgreSQL");
}

// `url_`: a new, empty database. Skipped without PostgreSQL's server programs.
class BackendTest : public ::testing::TestWithParam<Backend> {
  protected:
    void SetUp() override;

    TempDir folder_;
    std::string url_;
};

// Runs `sql` past the back ends (sqlite3, psql): the rows it returns, a line each,
// columns joined by '|'.
std::string queryTestDatabase(const std::string& url, const std::string& sql);

}  // namespace ZEL::Testing
