// Database::learn: the observations reported since the last run, folded into the
// per-cell sums of learn/learning.h by one INSERT ... SELECT ... GROUP BY ... ON
// CONFLICT DO UPDATE, then learn/learning.h's learn() for the MACs they touched.
//
// Partitioned by MAC: a cell's row depends on its realm and MAC alone, and so does
// a learned row, so the work splits by MAC (see the README's "Learning at scale").
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "learn/learning.h"
#include "server/database.h"
#include "server/database_learning.h"
#include "spi/log.h"

namespace ZEL::Server {
namespace {

// A constant of learn/learning.h as SQL text that reads back to the same double.
std::string literal(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return "CAST(" + std::string(text) + " AS DOUBLE PRECISION)";
}

// $1 realm, $2 the watermark (exclusive), $3 the settled id (inclusive).
const std::string kNewObservations = "realm = $1 AND id > $2 AND id <= $3";

// The cell and the weight of an observation as ApSummary::add computes them; a MAC
// found overflowing (kMaxCells) keeps no cells, as an overflowing ApSummary.
std::string aggregation() {
    using namespace Learn;
    const std::string accuracy =
        "CASE WHEN accuracy > 0 THEN accuracy ELSE " + literal(kDefaultAccuracy) + " END";
    const std::string rss = "CAST(CASE WHEN rss = 0 THEN " + std::to_string(kUnknownRss) +
                            " ELSE rss END AS DOUBLE PRECISION)";
    const std::string weight = "power(" + literal(10) + ", " + rss + " / 20) / (" +
                               literal(kRangeMetres * kRangeMetres) + " + (" + accuracy + ") * (" +
                               accuracy + "))";
    auto later = [](const char* column, const char* comparison) {
        return std::string(column) + " = CASE WHEN excluded." + column + comparison + "ap_cells." +
               column + " THEN excluded." + column + " ELSE ap_cells." + column + " END";
    };
    return "INSERT INTO ap_cells (realm, mac, cell_row, cell_column, count, weight,"
           " weighted_latitude, weighted_longitude, accuracy_sum, rss_count, rss_sum,"
           " rss_squares, oldest_ms, newest_ms)"
           " SELECT realm, mac, cell_row, cell_column, COUNT(*), SUM(w), SUM(w * latitude),"
           " SUM(w * longitude), SUM(accuracy), SUM(known), SUM(rss), SUM(rss * rss),"
           " MIN(time_ms), MAX(time_ms) FROM ("
           "SELECT realm, mac, latitude, longitude, time_ms,"
           " CAST(floor(latitude / " +
           literal(kCellDegrees) +
           ") AS INTEGER) AS cell_row,"
           " CAST(floor(longitude / " +
           literal(kCellDegrees) + ") AS INTEGER) AS cell_column, " + accuracy +
           " AS accuracy, CASE WHEN rss = 0 THEN 0 ELSE 1 END AS known,"
           " CAST(rss AS DOUBLE PRECISION) AS rss, " +
           weight + " AS w FROM observations o WHERE " + kNewObservations +
           " AND NOT EXISTS (SELECT 1 FROM learned_aps l WHERE l.realm = o.realm"
           " AND l.mac = o.mac AND l.overflowing = 1)) AS fresh"
           " GROUP BY realm, mac, cell_row, cell_column"
           " ON CONFLICT (realm, mac, cell_row, cell_column) DO UPDATE SET"
           " count = ap_cells.count + excluded.count,"
           " weight = ap_cells.weight + excluded.weight,"
           " weighted_latitude = ap_cells.weighted_latitude + excluded.weighted_latitude,"
           " weighted_longitude = ap_cells.weighted_longitude + excluded.weighted_longitude,"
           " accuracy_sum = ap_cells.accuracy_sum + excluded.accuracy_sum,"
           " rss_count = ap_cells.rss_count + excluded.rss_count,"
           " rss_sum = ap_cells.rss_sum + excluded.rss_sum,"
           " rss_squares = ap_cells.rss_squares + excluded.rss_squares, " +
           later("oldest_ms", " < ") + ", " + later("newest_ms", " > ");
}

// Rows of learned_aps written by one statement (9 parameters each, well within
// both back ends' limits).
constexpr size_t kLearnedBatch = 500;
constexpr int kLearnedColumns = 9;

struct Learned {
    uint64_t mac = 0;
    Learn::LearnedAp ap;
    bool overflowing = false;
};

bool writeLearned(LearningSession& session, const std::string& realm,
                  const std::vector<Learned>& learned, std::string& error) {
    for (size_t start = 0; start < learned.size(); start += kLearnedBatch) {
        const size_t end = std::min(learned.size(), start + kLearnedBatch);
        std::string sql =
            "INSERT INTO learned_aps (realm, mac, verdict, latitude, longitude, quality,"
            " signal_exponent, exponent_fitted, overflowing) VALUES ";
        std::vector<SqlValue> values;
        for (size_t i = start; i < end; ++i) {
            const Learned& row = learned[i];
            const int first = static_cast<int>(values.size()) + 1;
            sql += i == start ? "(" : ", (";
            for (int column = 0; column < kLearnedColumns; ++column) {
                sql += (column ? ", $" : "$") + std::to_string(first + column);
            }
            sql += ")";
            values.insert(
                values.end(),
                {realm, static_cast<int64_t>(row.mac), static_cast<int64_t>(row.ap.verdict),
                 row.ap.position.latitude, row.ap.position.longitude,
                 static_cast<int64_t>(row.ap.position.quality), row.ap.position.signalExponent,
                 int64_t{row.ap.exponentFitted}, int64_t{row.overflowing}});
        }
        sql +=
            " ON CONFLICT (realm, mac) DO UPDATE SET verdict = excluded.verdict,"
            " latitude = excluded.latitude, longitude = excluded.longitude,"
            " quality = excluded.quality, signal_exponent = excluded.signal_exponent,"
            " exponent_fitted = excluded.exponent_fitted, overflowing = excluded.overflowing";
        if (!session.run(sql, values, {}, error)) {
            return false;
        }
    }
    // Their observations tell no more: no fixed access point spans that many cells.
    for (const Learned& row : learned) {
        if (row.overflowing && !session.run("DELETE FROM ap_cells WHERE realm = $1 AND mac = $2",
                                            {realm, static_cast<int64_t>(row.mac)}, {}, error)) {
            return false;
        }
    }
    return true;
}

// Learns every MAC with cells that the new observations touched.
std::optional<std::vector<Learned>> learnTouched(
    LearningSession& session, const std::vector<SqlValue>& range,
    const std::function<void(const std::string&)>& progress, std::string& error) {
    std::vector<Learned> learned;
    Learn::ApSummary summary;
    uint64_t current = 0;
    auto finish = [&] {
        if (summary.cells.empty()) {
            return;
        }
        Learned row;
        row.mac = current;
        row.overflowing = summary.cells.size() > Learn::kMaxCells;
        if (row.overflowing) {
            summary.cells.clear();
        }
        summary.overflowing = row.overflowing;
        row.ap = Learn::learn(Learn::macOfKey(current), summary);
        learned.push_back(row);
        summary.cells.clear();
        if (progress && learned.size() % 100'000 == 0) {
            progress("learned " + std::to_string(learned.size()) + " access points");
        }
    };
    const bool ran = session.run(
        "SELECT mac, cell_row, cell_column, count, weight, weighted_latitude,"
        " weighted_longitude, accuracy_sum, rss_count, rss_sum, rss_squares, oldest_ms,"
        " newest_ms FROM ap_cells WHERE realm = $1 AND mac IN (SELECT mac FROM observations"
        " WHERE " +
            kNewObservations + ") ORDER BY mac, cell_row, cell_column",
        range,
        [&](const SqlRow& row) {
            const auto mac = static_cast<uint64_t>(row.integer(0));
            if (mac != current) {
                finish();
                current = mac;
            }
            Learn::Cell cell;
            cell.row = static_cast<int32_t>(row.integer(1));
            cell.column = static_cast<int32_t>(row.integer(2));
            cell.count = static_cast<uint64_t>(row.integer(3));
            cell.weight = row.real(4);
            cell.weightedLatitude = row.real(5);
            cell.weightedLongitude = row.real(6);
            cell.accuracySum = row.real(7);
            cell.rssCount = static_cast<uint64_t>(row.integer(8));
            cell.rssSum = row.real(9);
            cell.rssSquares = row.real(10);
            cell.oldestMs = static_cast<uint64_t>(row.integer(11));
            cell.newestMs = static_cast<uint64_t>(row.integer(12));
            summary.cells.push_back(cell);
        },
        error);
    if (!ran) {
        return std::nullopt;
    }
    finish();
    return learned;
}

// The run inside its transaction, from the watermark up to `settled`.
std::optional<LearningTally> learnWithin(LearningSession& session, const std::string& realm,
                                         bool full, int64_t settled,
                                         const std::function<void(const std::string&)>& progress,
                                         std::string& error) {
    // The realm's row is locked by the UPDATE until the run commits: another run of
    // the realm waits here, then reads the watermark this one leaves.
    std::optional<int64_t> watermark;
    auto read = [&](const SqlRow& row) { watermark = row.integer(0); };
    if (!session.run("INSERT INTO learning_state (realm, watermark) VALUES ($1, 0)"
                     " ON CONFLICT (realm) DO NOTHING",
                     {realm}, {}, error) ||
        !session.run("UPDATE learning_state SET watermark = watermark WHERE realm = $1"
                     " RETURNING watermark",
                     {realm}, read, error)) {
        return std::nullopt;
    }
    if (full) {
        watermark = 0;
        if (!session.run("DELETE FROM ap_cells WHERE realm = $1", {realm}, {}, error) ||
            !session.run("DELETE FROM learned_aps WHERE realm = $1", {realm}, {}, error)) {
            return std::nullopt;
        }
    }
    LearningTally tally;
    if (!watermark || *watermark >= settled) {
        return tally;
    }
    const std::vector<SqlValue> range = {realm, *watermark, settled};
    if (!session.run(
            "SELECT COUNT(*) FROM observations WHERE " + kNewObservations, range,
            [&](const SqlRow& row) { tally.observations = row.integer(0); }, error)) {
        return std::nullopt;
    }
    if (progress) {
        progress("folding " + std::to_string(tally.observations) + " observations into the cells");
    }
    if (!session.run(aggregation(), range, {}, error)) {
        return std::nullopt;
    }
    std::optional<std::vector<Learned>> learned = learnTouched(session, range, progress, error);
    if (!learned || !writeLearned(session, realm, *learned, error) ||
        !session.run("UPDATE learning_state SET watermark = $2 WHERE realm = $1", {realm, settled},
                     {}, error)) {
        return std::nullopt;
    }
    for (const Learned& row : *learned) {
        ++tally.accessPoints;
        ++(row.ap.verdict == Learn::Verdict::Placed  ? tally.placed
           : row.ap.verdict == Learn::Verdict::Moved ? tally.moved
                                                     : tally.moving);
        tally.fitted += row.ap.verdict != Learn::Verdict::Moving && row.ap.exponentFitted;
    }
    return tally;
}

}  // namespace

std::optional<LearningTally> Database::learn(
    const std::string& realm, bool full, const std::function<void(const std::string&)>& progress,
    std::string& error) {
    std::optional<LearningTally> tally;
    const bool ran = withLearningSession(
        [&](LearningSession& session) {
            const std::optional<int64_t> settled = session.settledObservations(error);
            if (!settled || !session.begin(error)) {
                return false;
            }
            tally = learnWithin(session, realm, full, *settled, progress, error);
            std::string ignored;
            return tally ? session.run("COMMIT", {}, {}, error)
                         : (session.run("ROLLBACK", {}, {}, ignored), false);
        },
        error);
    if (!ran) {
        ZEL_LOG_ERROR(SPI::getLogger("ZEL.Server.Database"), "learning realm \"%s\" failed: %s",
                      realm.c_str(), error.c_str());
        return std::nullopt;
    }
    return tally;
}

std::optional<std::vector<Tiles::AccessPointPosition>> Database::learnedPositions(
    const std::string& realm, std::string& error) {
    std::vector<Tiles::AccessPointPosition> positions;
    const bool ran = withLearningSession(
        [&](LearningSession& session) {
            return session.run(
                "SELECT mac, latitude, longitude, quality, signal_exponent FROM learned_aps"
                " WHERE realm = $1 AND verdict <> " +
                    std::to_string(static_cast<int>(Learn::Verdict::Moving)) + " ORDER BY mac",
                {realm},
                [&](const SqlRow& row) {
                    positions.push_back({Learn::macOfKey(static_cast<uint64_t>(row.integer(0))),
                                         row.real(1), row.real(2),
                                         static_cast<uint32_t>(row.integer(3)), row.real(4)});
                },
                error);
        },
        error);
    if (!ran) {
        ZEL_LOG_ERROR(SPI::getLogger("ZEL.Server.Database"),
                      "reading the learned positions of realm \"%s\" failed: %s", realm.c_str(),
                      error.c_str());
        return std::nullopt;
    }
    return positions;
}

std::optional<LearnedFile> learnTileFile(Database& database, const std::string& realm,
                                         const std::string& path, bool full, bool onlyWhenNew,
                                         const std::function<void(const std::string&)>& progress,
                                         std::string& error) {
    LearnedFile learned;
    std::optional<LearningTally> tally = database.learn(realm, full, progress, error);
    if (!tally) {
        return std::nullopt;
    }
    learned.tally = *tally;
    if (onlyWhenNew && tally->observations == 0 && access(path.c_str(), F_OK) == 0) {
        return learned;
    }
    std::optional<std::vector<Tiles::AccessPointPosition>> positions =
        database.learnedPositions(realm, error);
    if (!positions) {
        return std::nullopt;
    }
    if (positions->size() < 2) {
        learned.written.error = "fewer than two access points learned: no tile file yet";
        return learned;
    }
    std::string temporary = path + ".partXXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0 || fchmod(fd, 0644) != 0 || close(fd) != 0) {
        error = "cannot write a file beside " + path;
        return std::nullopt;
    }
    learned.written = Tiles::TileWriter::writeFile(temporary, *positions, realm);
    if (!learned.written.ok || std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = learned.written.ok ? "cannot replace " + path : learned.written.error;
        unlink(temporary.c_str());
        return std::nullopt;
    }
    learned.replaced = true;
    return learned;
}

}  // namespace ZEL::Server
