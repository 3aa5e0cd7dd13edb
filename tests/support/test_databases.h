// Databases for the tests that run on both back ends: an SQLite file in a test's
// folder, or a database on a PostgreSQL server of the test process's own: initdb into a temporary
// folder, the server listening on a Unix socket in that folder only (no TCP), stopped and the
// folder removed when the process exits (and the server killed with the process should it die
// first). initdb and the server refuse to run as root, so under root they run as "nobody", who then
// owns the folder.
#pragma once

#include <sys/types.h>
#include <memory>
#include <ostream>
#include <string>

namespace ZEL::Testing {

class TestPostgresql {
  public:
    // The process's server, started on first use. Null when it cannot be had:
    // `skipReason` says why when the server programs are not installed; a server
    // that is installed but fails to start is a test failure, reported here.
    static TestPostgresql* shared(std::string& skipReason);
    ~TestPostgresql();

    // The URL (postgresql://...) of a new, empty database on the server.
    std::string newDatabase();

  private:
    TestPostgresql() = default;
    bool start(const std::string& binaries, std::string& error);

    std::string directory_;
    pid_t server_ = -1;
    int databases_ = 0;
};

enum class Backend { kSqlite, kPostgresql };

// The URL of a new, empty database of `backend`: a file in `folder`, or a database
// on the shared server. "" when none can be had, with `skipReason` set.
std::string newTestDatabase(Backend backend, const std::string& folder, std::string& skipReason);

// The name of a parameterised test's back end: "Sqlite" or "Postgresql".
template <typename Info>
std::string backendName(const Info& info) {
    return info.param == Backend::kSqlite ? "Sqlite" : "Postgresql";
}
inline void PrintTo(Backend backend, std::ostream* out) {
    *out << (backend == Backend::kSqlite ? "SQLite" : "PostgreSQL");
}

}  // namespace ZEL::Testing
