// The server's database: its users by realm and name, and API keys with the realm
// they belong to and whether they are enabled.
//
// Two back ends stand behind it, chosen by the URL given to open():
//   sqlite:PATH         an embedded SQLite file (created when missing; "sqlite::memory:"
//                       is a database of this process alone), shareable by the
//                       processes of one machine
//   postgresql://...    a PostgreSQL server (libpq's connection URI), shared by any
//                       number of nodes
// open() brings the schema to the version this program knows, step by step from any
// older one (version 1 is the users table alone, as the first servers made it); the
// step runs in a transaction that excludes every other node's, so nodes that start
// together do not trip over each other. A database newer than the program is refused.
//
// Adding a user or a key is a single INSERT: two concurrent additions of one name,
// from one node or two, leave exactly one row and report Added to exactly one caller.
// A report (what one device submitted in one request body) is stored in one
// transaction: its row in `reports` and one row per observation in `observations`,
// all or nothing, committed before addReport returns Added.
// Every failure is logged (category "ZEL.Server.Database") and reported as Failed.
// Threading: every operation may be called from any thread.
//
// LEARNING (database_learning.cpp) keeps, per realm, MAC and grid cell of
// learn/learning.h, the sums of the observations reported so far (ap_cells), and per
// MAC what learn/learning.h learns from them (learned_aps). A run folds the
// observations reported since the last run (ids above the realm's watermark) into
// the cells with one set-based statement, so on PostgreSQL the aggregation runs
// inside the database, then learns again only the MACs those observations touched;
// all in one transaction, so a run that fails leaves nothing half counted. Runs of
// one realm, from any number of processes, take turns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "learn/learning.h"
#include "tiles/tile_writer.h"

namespace ZEL::Server {

class LearningSession;  // database_learning.h

// What one learning run did.
struct LearningTally {
    uint64_t observations = 0;                               // folded into the cells
    uint64_t accessPoints = 0;                               // learned again
    uint64_t placed = 0, moved = 0, moving = 0, fitted = 0;  // of those
};

class Database {
  public:
    // Null with `error` set when the URL names no back end, the database cannot be
    // reached, or its schema cannot be brought up to date.
    static std::unique_ptr<Database> open(const std::string& url, std::string& error);
    virtual ~Database() = default;

    enum class Lookup { Registered, Unknown, Failed };
    enum class Addition { Added, Exists, Failed };

    virtual Lookup findUser(const std::string& username, const std::string& realm) = 0;
    virtual Addition addUser(const std::string& username, const std::string& realm) = 0;
    // Users of `realm`; nullopt when the database fails.
    virtual std::optional<size_t> countUsers(const std::string& realm) = 0;

    struct KeyLookup {
        Lookup result = Lookup::Failed;
        std::string realm;  // when Registered
        bool enabled = false;
    };
    virtual KeyLookup findKey(const std::string& key) = 0;
    virtual Addition addKey(const std::string& key, const std::string& realm,
                            bool enabled = true) = 0;

    // Tables reports(id, realm, api_key, nickname, received_ms) and observations(id,
    // report_id, realm, mac, latitude, longitude, accuracy, rss, time_ms), with mac as
    // Learn::macKey and the units of Learn::Observation.
    struct Report {
        std::string realm;     // the API key's, or the open server's
        std::string apiKey;    // "" on an open server without one
        std::string nickname;  // the X-Nickname header, "" without one
        uint64_t receivedMs = 0;
        std::vector<Learn::Observation> observations;  // may be empty
    };
    // Added once committed (durable), else Failed and nothing of it stored.
    virtual Addition addReport(const Report& report) = 0;

    // One learning run for `realm`; `full` first forgets what was learned, so that
    // every observation is folded in again. `progress` (may be empty) hears what the
    // run is doing, a line at a time. Nullopt with `error` set (and logged) when the
    // database fails; nothing of the run is then kept.
    std::optional<LearningTally> learn(const std::string& realm, bool full,
                                       const std::function<void(const std::string&)>& progress,
                                       std::string& error);
    // The positions learned for `realm` (Moving ones left out), in ascending MAC
    // order; nullopt with `error` set when the database fails.
    std::optional<std::vector<Tiles::AccessPointPosition>> learnedPositions(
        const std::string& realm, std::string& error);

  protected:
    // Runs `work` on a session of its own; false with `error` set when there is none.
    virtual bool withLearningSession(const std::function<bool(LearningSession&)>& work,
                                     std::string& error) = 0;
};

// learn() for `realm`, then the tile file `path` written from every position
// learned so far, replaced atomically (written beside it, then renamed over it) so
// a reader never sees half a file. With `onlyWhenNew` the file is left as it is
// when no new observation came and it exists. A realm with fewer than two learned
// positions makes no tile file (the format's least): `replaced` stays false and
// written.error says why. Nullopt with `error` set when the database or the file
// system fails; the file is then left as it was.
struct LearnedFile {
    LearningTally tally;
    Tiles::TileWriteResult written;
    bool replaced = false;
};
std::optional<LearnedFile> learnTileFile(Database& database, const std::string& realm,
                                         const std::string& path, bool full, bool onlyWhenNew,
                                         const std::function<void(const std::string&)>& progress,
                                         std::string& error);

}  // namespace ZEL::Server
