// The server's users, by realm and username, in an SQLite database.
//
// The database runs in WAL mode with a busy timeout, so several server processes
// may share one file; within a process one connection is shared under a mutex.
// Creating a user is a single INSERT: two concurrent registrations of one name
// leave exactly one row and tell exactly one caller that it was created.
// Threading: every operation may be called from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Server {

class UserStore {
  public:
    // Opens (creating when missing) the database at `path`; ":memory:" is a store
    // of this process alone. Null with `error` set when it cannot be opened or
    // its table cannot be made.
    static std::unique_ptr<UserStore> open(const std::string& path, std::string& error);
    ~UserStore();
    UserStore(const UserStore&) = delete;
    UserStore& operator=(const UserStore&) = delete;

    enum class Lookup { Registered, Unknown, Failed };
    Lookup find(const std::string& username, const std::string& realm);

    enum class Addition { Added, Exists, Failed };
    Addition add(const std::string& username, const std::string& realm);

    // Users of `realm`; nullopt when the database fails.
    std::optional<size_t> count(const std::string& realm);

  private:
    UserStore(sqlite3* database, SPI::Logger& category);
    bool prepare(std::string& error);

    SPI::Logger& category_;
    std::mutex mutex_;
    sqlite3* database_;
    sqlite3_stmt* find_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    sqlite3_stmt* count_ = nullptr;
};

}  // namespace ZEL::Server
