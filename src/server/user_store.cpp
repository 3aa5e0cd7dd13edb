#include "server/user_store.h"

#include <sqlite3.h>

#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

// Long enough to ride out another process's write, short enough that a stuck
// database shows up as an error rather than a hung request.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char kSchema[] =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "CREATE TABLE IF NOT EXISTS users ("
    " realm TEXT NOT NULL,"
    " username TEXT NOT NULL,"
    " created INTEGER NOT NULL,"
    " PRIMARY KEY (realm, username)) WITHOUT ROWID;";

// Binds the two texts to parameters 1 and 2 of `statement`, reset for a new step.
void bindNames(sqlite3_stmt* statement, const std::string& first, const std::string& second) {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    sqlite3_bind_text(statement, 1, first.data(), static_cast<int>(first.size()), SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, second.data(), static_cast<int>(second.size()), SQLITE_STATIC);
}

}  // namespace

UserStore::UserStore(sqlite3* database, SPI::Logger& category)
    : category_(category), database_(database) {}

UserStore::~UserStore() {
    sqlite3_finalize(find_);
    sqlite3_finalize(insert_);
    sqlite3_finalize(count_);
    sqlite3_close(database_);
}

std::unique_ptr<UserStore> UserStore::open(const std::string& path, std::string& error) {
    SPI::Logger& category = SPI::getLogger("ZEL.Server.UserStore");
    sqlite3* database = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &database, flags, nullptr) != SQLITE_OK) {
        error = "cannot open user database " + path + ": " +
                (database ? sqlite3_errmsg(database) : "out of memory");
        sqlite3_close(database);
        ZEL_LOG_ERROR(category, "%s", error.c_str());
        return nullptr;
    }
    std::unique_ptr<UserStore> store(new UserStore(database, category));
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    char* message = nullptr;
    if (sqlite3_exec(database, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
        error = "cannot set up user database " + path + ": " + (message ? message : "");
        sqlite3_free(message);
        ZEL_LOG_ERROR(category, "%s", error.c_str());
        return nullptr;
    }
    if (!store->prepare(error)) {
        ZEL_LOG_ERROR(category, "%s", error.c_str());
        return nullptr;
    }
    return store;
}

bool UserStore::prepare(std::string& error) {
    const struct {
        const char* sql;
        sqlite3_stmt** statement;
    } statements[] = {
        {"SELECT 1 FROM users WHERE username = ?1 AND realm = ?2", &find_},
        {"INSERT INTO users (username, realm, created) VALUES (?1, ?2, ?3)"
         " ON CONFLICT DO NOTHING",
         &insert_},
        {"SELECT COUNT(*) FROM users WHERE realm = ?1", &count_},
    };
    for (const auto& [sql, statement] : statements) {
        if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) !=
            SQLITE_OK) {
            error = std::string("cannot prepare user query: ") + sqlite3_errmsg(database_);
            return false;
        }
    }
    return true;
}

UserStore::Lookup UserStore::find(const std::string& username, const std::string& realm) {
    std::lock_guard lock(mutex_);
    bindNames(find_, username, realm);
    const int result = sqlite3_step(find_);
    sqlite3_reset(find_);
    if (result == SQLITE_ROW) {
        return Lookup::Registered;
    }
    if (result == SQLITE_DONE) {
        return Lookup::Unknown;
    }
    ZEL_LOG_ERROR(category_, "user lookup failed: %s", sqlite3_errmsg(database_));
    return Lookup::Failed;
}

UserStore::Addition UserStore::add(const std::string& username, const std::string& realm) {
    std::lock_guard lock(mutex_);
    bindNames(insert_, username, realm);
    sqlite3_bind_int64(insert_, 3, SPI::currentTime().seconds);
    const int result = sqlite3_step(insert_);
    sqlite3_reset(insert_);
    if (result != SQLITE_DONE) {
        ZEL_LOG_ERROR(category_, "adding user failed: %s", sqlite3_errmsg(database_));
        return Addition::Failed;
    }
    return sqlite3_changes(database_) == 1 ? Addition::Added : Addition::Exists;
}

std::optional<size_t> UserStore::count(const std::string& realm) {
    std::lock_guard lock(mutex_);
    sqlite3_reset(count_);
    sqlite3_bind_text(count_, 1, realm.data(), static_cast<int>(realm.size()), SQLITE_STATIC);
    std::optional<size_t> users;
    if (sqlite3_step(count_) == SQLITE_ROW) {
        users = static_cast<size_t>(sqlite3_column_int64(count_, 0));
    }
    sqlite3_reset(count_);
    return users;
}

}  // namespace ZEL::Server
