// Learning in the server's database (server/database.h) on both back ends: in steps,
// as one full rebuild and as learn/learning.h's Learner over the same observations
// (what zel learn does with them as a file), the same positions; and on PostgreSQL,
// where ids commit out of order, no observation is skipped by the watermark.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <future>
#include <map>
#include <thread>

#include "learn/learning.h"
#include "server/database.h"
#include "support/test_databases.h"

namespace ZEL::Server {
namespace {

using namespace Testing;
using Learn::Observation;
using Positions = std::map<uint64_t, Tiles::AccessPointPosition>;

constexpr uint64_t kDay = 86'400'000;

// `count` observations of access point `mac` on rings of 10, 20, 40... m around the
// point `north` m from (46, 9), each ring 6 dB weaker (a path loss to fit), at `day`.
std::vector<Observation> around(uint8_t mac, double north, int count, uint64_t day) {
    std::vector<Observation> observations;
    for (int i = 0; i < count; ++i) {
        const double radius = 10.0 * (1 << (i % 5)), angle = i * 2.4;
        observations.push_back({{mac, 0, 0, 0, 0x10, 0x02},
                                46.0 + (north + radius * std::sin(angle)) / 111'226.0,
                                9.0 + radius * std::cos(angle) / 77'266.0,
                                i % 3 ? 5.0 : 0.0,
                                i % 7 ? -40 - 6 * (i % 5) : 0,
                                day + 60'000u * i});
    }
    return observations;
}

std::vector<Observation> operator+(std::vector<Observation> a, const std::vector<Observation>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Database::Report report(const std::string& realm, std::vector<Observation> observations) {
    return {realm, "key", "", 1, std::move(observations)};
}

Positions byMac(const std::vector<Tiles::AccessPointPosition>& positions) {
    Positions map;
    for (const Tiles::AccessPointPosition& position : positions) {
        map[Learn::macKey(position.mac)] = position;
    }
    return map;
}

Positions learned(Database& database, const std::string& realm) {
    std::string error;
    auto positions = database.learnedPositions(realm, error);
    EXPECT_TRUE(positions) << error;
    return positions ? byMac(*positions) : Positions{};
}

void expectSame(const Positions& a, const Positions& b, const char* what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    for (const auto& [mac, position] : a) {
        const Tiles::AccessPointPosition& other = b.at(mac);
        EXPECT_NEAR(position.latitude, other.latitude, 1e-9) << what << " " << mac;
        EXPECT_NEAR(position.longitude, other.longitude, 1e-9) << what << " " << mac;
        EXPECT_EQ(position.quality, other.quality) << what << " " << mac;
        EXPECT_NEAR(position.signalExponent, other.signalExponent, 1e-9) << what << " " << mac;
    }
}

class DatabaseLearning : public BackendTest {
  protected:
    void SetUp() override {
        BackendTest::SetUp();
        std::string error;
        database_ = Database::open(url_, error);
        ASSERT_NE(database_, nullptr) << error;
    }
    LearningTally learn(bool full = false) {
        std::string error;
        std::optional<LearningTally> tally = database_->learn("acme", full, {}, error);
        EXPECT_TRUE(tally) << error;
        return tally.value_or(LearningTally{});
    }

    std::unique_ptr<Database> database_;
};

TEST_P(DatabaseLearning, InStepsAsAFullRebuildAndAsTheLearnerFromAFile) {
    // Access point 5 is heard in more cells than any fixed one is: left out, also
    // when it is later heard in one place only.
    std::vector<Observation> everywhere;
    for (int i = 0; i <= static_cast<int>(Learn::kMaxCells); ++i) {
        everywhere.push_back({{5, 0, 0, 0, 0x10, 0x02}, 46.0 + i * 2e-4, 9.0, 0, -70, kDay});
    }
    struct Step {
        std::vector<Observation> observations;
        uint64_t relearned;
        std::vector<std::pair<uint8_t, double>> where;  // access point, metres north
    } steps[] = {
        {around(1, 0, 20, kDay) + around(2, 500, 8, kDay) + everywhere, 3, {{1, 0}, {2, 500}}},
        // Access point 1 moved 2 km; 2 is not touched and stays.
        {around(1, 2000, 20, 3 * kDay) + around(5, 0, 10, 3 * kDay), 1, {{1, 2000}, {2, 500}}},
        {around(2, 520, 5, 2 * kDay) + around(3, -300, 1, kDay), 2, {{2, 507}, {3, -300}}},
        {{}, 0, {{1, 2000}, {3, -300}}},
    };
    ASSERT_EQ(database_->addReport(report("other", around(4, 0, 5, kDay))),
              Database::Addition::Added);
    Learn::Learner learner;
    for (const Step& step : steps) {
        if (!step.observations.empty()) {
            ASSERT_EQ(database_->addReport(report("acme", step.observations)),
                      Database::Addition::Added);
        }
        for (const Observation& observation : step.observations) {
            learner.add(observation);
        }
        const LearningTally tally = learn();
        EXPECT_EQ(tally.observations, step.observations.size());
        EXPECT_EQ(tally.accessPoints, step.relearned);
        const Positions positions = learned(*database_, "acme");
        EXPECT_EQ(positions.count(Learn::macKey({5, 0, 0, 0, 0x10, 0x02})), 0u);
        for (const auto& [mac, north] : step.where) {
            const auto at = positions.find(Learn::macKey({mac, 0, 0, 0, 0x10, 0x02}));
            ASSERT_NE(at, positions.end()) << int(mac);
            EXPECT_NEAR(at->second.latitude, 46.0 + north / 111'226.0, 8 / 111'226.0) << int(mac);
        }
    }
    const Positions incremental = learned(*database_, "acme");
    std::vector<Tiles::AccessPointPosition> fromFile;
    for (const auto& [mac, ap] : learner.learnAll()) {
        if (ap.verdict != Learn::Verdict::Moving) {
            fromFile.push_back(ap.position);
        }
    }
    expectSame(incremental, byMac(fromFile), "incremental against the learner");
    EXPECT_EQ(learn(true).observations, learner.observations());
    expectSame(learned(*database_, "acme"), incremental, "full against incremental");
    EXPECT_EQ(learned(*database_, "other").size(), 0u);  // not learned yet: its own watermark
}

INSTANTIATE_TEST_SUITE_P(SqliteAndPostgresql, DatabaseLearning,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

// An observation whose transaction began before the run and commits during it,
// with a lower id than one already committed, is folded in by that run or the next;
// never stepped over by the watermark.
using PostgresqlLearning = DatabaseLearning;
TEST_P(PostgresqlLearning, AnObservationCommittedDuringARunIsNotLost) {
    FILE* writer = popen(("psql -XAtq -v ON_ERROR_STOP=1 '" + url_ + "' >/dev/null").c_str(), "w");
    ASSERT_NE(writer, nullptr);
    std::fputs(
        "BEGIN; INSERT INTO reports (realm, api_key, nickname, received_ms) VALUES"
        " ('acme', 'k', '', 1); INSERT INTO observations (report_id, realm, mac, latitude,"
        " longitude, accuracy, rss, time_ms) VALUES (currval('reports_id_seq'), 'acme', 7, 46,"
        " 9, 5, -60, 1);\n",
        writer);
    std::fflush(writer);
    const std::string pending =
        "SELECT COUNT(*) FROM pg_locks WHERE relation = 'observations'::regclass AND ";
    for (int i = 0; i < 500 && queryTestDatabase(url_, pending + "granted") == "0"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(database_->addReport(report("acme", around(1, 0, 3, kDay))),
              Database::Addition::Added);
    auto run = std::async(std::launch::async, [&] { return learn(); });
    for (int i = 0; i < 500 && queryTestDatabase(url_, pending + "NOT granted") == "0"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fputs("COMMIT;\n", writer);
    EXPECT_EQ(pclose(writer), 0);
    EXPECT_EQ(run.get().observations + learn().observations, 4u);
    EXPECT_EQ(learned(*database_, "acme").count(7), 1u);
}

INSTANTIATE_TEST_SUITE_P(Only, PostgresqlLearning, ::testing::Values(Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace ZEL::Server
