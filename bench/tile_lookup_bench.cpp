// Tile file lookups, size and open time on a synthetic city, against SQLite and
// std::unordered_map on the same data.
//
// The city: 1,000,000 access points over 50 km x 50 km around 48 N 11 E,
// placed in buildings (a dense centre and a uniform spread of suburbs, a few
// devices per building, within 20 m). MACs are drawn like real ones: a vendor
// prefix from a pool of 400 with skewed popularity, random low 24 bits, and
// 40% of devices sending 2 to 4 consecutive BSSIDs. BM_Size_UniformMacs shows
// the size when MACs are uniformly random 48-bit numbers instead.
//
// Run: build/bin/tile_lookup_bench (set-up takes a few seconds, once).
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_format.h"
#include "tiles/tile_writer.h"

using namespace ZEL;
using namespace ZEL::Tiles;

namespace {

constexpr size_t kAccessPoints = 1'000'000;
constexpr size_t kQueries = 1 << 16;

Core::MacAddress macOfKey(uint64_t key) {
    Core::MacAddress mac{};
    for (int i = 0; i < 6; ++i) {
        mac[i] = static_cast<uint8_t>(key >> (8 * i));
    }
    return mac;
}

struct City {
    std::vector<Tiles::AccessPointPosition> aps;
    std::vector<uint64_t> ouis;
};

City makeCity(bool uniformMacs) {
    std::mt19937_64 random(20240601);
    City city;
    for (int i = 0; i < 400; ++i) {
        city.ouis.push_back(random() & 0xFCFFFF);  // globally administered, unicast
    }
    std::uniform_real_distribution<double> unit(0, 1);
    auto oui = [&] {  // skewed: the first vendors are far more common
        return city.ouis[static_cast<size_t>(std::pow(unit(random), 3) * city.ouis.size())];
    };
    const double latCentre = 48.0, lonCentre = 11.0;
    const double latSpan = 50.0 / 111.32, lonSpan = 50.0 / (111.32 * std::cos(48.0 * M_PI / 180));
    std::normal_distribution<double> centre(0, 0.15);
    std::unordered_set<uint64_t> used;
    while (city.aps.size() < kAccessPoints) {
        double u = unit(random) < 0.5 ? std::clamp(centre(random), -0.5, 0.5) : unit(random) - 0.5;
        double v = unit(random) < 0.5 ? std::clamp(centre(random), -0.5, 0.5) : unit(random) - 0.5;
        double buildingLat = latCentre + u * latSpan, buildingLon = lonCentre + v * lonSpan;
        int devices = 1 + static_cast<int>(random() % 8);
        for (int d = 0; d < devices && city.aps.size() < kAccessPoints; ++d) {
            double lat = buildingLat + (unit(random) - 0.5) * 0.00036;  // +-20 m
            double lon = buildingLon + (unit(random) - 0.5) * 0.00054;
            uint32_t quality = 18 + static_cast<uint32_t>(random() % 32);
            double exponent = 1.0 / 6 + unit(random) / 3;
            int bssids = unit(random) < 0.4 ? 2 + static_cast<int>(random() % 3) : 1;
            uint64_t key =
                uniformMacs ? random() & 0xFEFFFFFFFFFF : oui() << 24 | (random() & 0xFFFFF0);
            for (int b = 0; b < bssids && city.aps.size() < kAccessPoints; ++b) {
                if (used.insert(key + b).second) {
                    city.aps.push_back({macOfKey(key + b), lat, lon, quality, exponent});
                }
            }
        }
    }
    return city;
}

// Half present (random access points), half absent (vendor-like MACs not stored).
std::vector<Core::MacAddress> makeQueries(const City& city,
                                          const std::vector<size_t>& presentPool) {
    std::mt19937_64 random(99);
    std::unordered_set<uint64_t> stored;
    for (const auto& ap : city.aps) {
        stored.insert(Tiles::TileFormat::plainKey(ap.mac));
    }
    std::vector<Core::MacAddress> queries;
    while (queries.size() < kQueries) {
        if (queries.size() % 2 == 0) {
            queries.push_back(city.aps[presentPool[random() % presentPool.size()]].mac);
        } else {
            uint64_t key = city.ouis[random() % city.ouis.size()] << 24 | (random() & 0xFFFFFF);
            if (!stored.count(key)) {
                queries.push_back(macOfKey(key));
            }
        }
    }
    return queries;
}

struct Fixture {
    std::filesystem::path dir;
    City city;
    std::string plainPath, hashedPath, sqlitePath;
    Tiles::TileWriteResult plain, hashed;
    std::vector<Core::MacAddress> mixed, hashedFront, hashedAbsent;
    std::unordered_map<uint64_t, Tiles::StoredApData> map;

    // Writer options, overridable for layout experiments: ZEL_BENCH_TILE_RECORDS,
    // ZEL_BENCH_BLOCK_RECORDS, ZEL_BENCH_CELL_DEGREES.
    static Tiles::TileWriterOptions options() {
        Tiles::TileWriterOptions options;
        if (const char* value = std::getenv("ZEL_BENCH_TILE_RECORDS")) {
            options.tileRecords = static_cast<uint32_t>(std::atoi(value));
        }
        if (const char* value = std::getenv("ZEL_BENCH_BLOCK_RECORDS")) {
            options.blockRecords = static_cast<uint32_t>(std::atoi(value));
        }
        if (const char* value = std::getenv("ZEL_BENCH_CELL_DEGREES")) {
            options.cellDegrees = std::atof(value);
        }
        return options;
    }

    Fixture() : city(makeCity(false)) {
        dir = std::filesystem::temp_directory_path() / ("zel-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
        plainPath = (dir / "plain.zel").string();
        hashedPath = (dir / "hashed.zel").string();
        sqlitePath = (dir / "aps.db").string();
        plain = Tiles::TileWriter::writeFile(plainPath, city.aps, "", options());
        hashed = Tiles::TileWriter::writeFile(hashedPath, city.aps, "bench", options());
        if (!plain.ok || !hashed.ok) {
            std::fprintf(stderr, "writing the tile files failed: %s %s\n", plain.error.c_str(),
                         hashed.error.c_str());
            std::exit(1);
        }
        std::vector<size_t> all(city.aps.size());
        for (size_t i = 0; i < all.size(); ++i) {
            all[i] = i;
            map[Tiles::TileFormat::plainKey(city.aps[i].mac)] = {
                city.aps[i].latitude, city.aps[i].longitude, city.aps[i].quality,
                city.aps[i].signalExponent};
        }
        mixed = makeQueries(city, all);
        // The access points of one tile, so that every lookup answers from the front.
        std::vector<size_t> oneTile;
        for (size_t i = 0; i < all.size(); ++i) {
            if (hashed.tileOfInput[i] == hashed.tileOfInput[0]) {
                oneTile.push_back(i);
            }
        }
        for (size_t i = 0; i < kQueries; ++i) {
            hashedFront.push_back(city.aps[oneTile[i % oneTile.size()]].mac);
            if (i % 2 == 1) {
                hashedAbsent.push_back(mixed[i]);
            }
        }
        if (!std::getenv("ZEL_BENCH_NO_SQLITE")) {
            writeSqlite();
        }
    }
    ~Fixture() { std::filesystem::remove_all(dir); }

    void writeSqlite() {
        sqlite3* db = nullptr;
        sqlite3_open(sqlitePath.c_str(), &db);
        sqlite3_exec(db,
                     "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; CREATE TABLE ap(mac INTEGER "
                     "PRIMARY KEY, lat, lon, quality, exponent); BEGIN;",
                     nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(db, "INSERT INTO ap VALUES(?,?,?,?,?)", -1, &insert, nullptr);
        for (const auto& ap : city.aps) {
            sqlite3_bind_int64(insert, 1,
                               static_cast<int64_t>(Tiles::TileFormat::plainKey(ap.mac)));
            sqlite3_bind_double(insert, 2, ap.latitude);
            sqlite3_bind_double(insert, 3, ap.longitude);
            sqlite3_bind_int(insert, 4, static_cast<int>(ap.quality));
            sqlite3_bind_double(insert, 5, ap.signalExponent);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        sqlite3_exec(db, "COMMIT; VACUUM;", nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
};

Fixture& fixture() {
    static Fixture instance;
    return instance;
}

void lookups(benchmark::State& state, const std::string& path, const std::string& realm,
             const std::vector<Core::MacAddress>& queries) {
    auto reader = Tiles::LocalCompressedFileReader::create();
    if (!reader->open(path, realm)) {
        state.SkipWithError("open failed");
        return;
    }
    size_t i = 0, found = 0;
    for (auto _ : state) {
        std::optional<Tiles::StoredApData> record = reader->lookup(queries[i++ % queries.size()]);
        found += record.has_value();
        benchmark::DoNotOptimize(record);
    }
    state.counters["found_share"] = static_cast<double>(found) / state.iterations();
}

void BM_TileLookup_Plain_HalfAbsent(benchmark::State& state) {
    lookups(state, fixture().plainPath, "", fixture().mixed);
    state.counters["tiles"] = fixture().plain.tiles;
}

// The same mix over 32 MACs, as one scan repeats them: everything in CPU cache,
// so this is the decoding cost without memory misses.
void BM_TileLookup_Plain_HalfAbsent_ScanSized(benchmark::State& state) {
    std::vector<Core::MacAddress> scan(fixture().mixed.begin(), fixture().mixed.begin() + 32);
    lookups(state, fixture().plainPath, "", scan);
}

void BM_UnorderedMapLookup_HalfAbsent(benchmark::State& state) {
    const auto& map = fixture().map;
    const auto& queries = fixture().mixed;
    size_t i = 0;
    for (auto _ : state) {
        auto it = map.find(Tiles::TileFormat::plainKey(queries[i++ % queries.size()]));
        benchmark::DoNotOptimize(it);
        if (it != map.end()) {
            benchmark::DoNotOptimize(it->second);
        }
    }
}

void BM_SqliteLookup_HalfAbsent(benchmark::State& state) {
    sqlite3* db = nullptr;
    std::string uri = "file:" + fixture().sqlitePath + "?immutable=1";
    sqlite3_open_v2(uri.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    sqlite3_exec(db, "PRAGMA mmap_size=1073741824;", nullptr, nullptr, nullptr);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT lat, lon, quality, exponent FROM ap WHERE mac=?", -1, &select,
                       nullptr);
    const auto& queries = fixture().mixed;
    size_t i = 0;
    for (auto _ : state) {
        sqlite3_bind_int64(
            select, 1,
            static_cast<int64_t>(Tiles::TileFormat::plainKey(queries[i++ % queries.size()])));
        Tiles::StoredApData data;
        if (sqlite3_step(select) == SQLITE_ROW) {
            data = {sqlite3_column_double(select, 0), sqlite3_column_double(select, 1),
                    static_cast<uint32_t>(sqlite3_column_int(select, 2)),
                    sqlite3_column_double(select, 3)};
        }
        benchmark::DoNotOptimize(data);
        sqlite3_reset(select);
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
}

void BM_TileLookup_Hashed_PresentFrontTile(benchmark::State& state) {
    lookups(state, fixture().hashedPath, "bench", fixture().hashedFront);
    state.counters["tiles"] = fixture().hashed.tiles;
}

void BM_TileLookup_Hashed_Absent(benchmark::State& state) {
    lookups(state, fixture().hashedPath, "bench", fixture().hashedAbsent);
    state.counters["tiles"] = fixture().hashed.tiles;
}

void BM_TileLookup_Hashed_HalfAbsent(benchmark::State& state) {
    lookups(state, fixture().hashedPath, "bench", fixture().mixed);
}

void BM_Open(benchmark::State& state, bool hashed) {
    const std::string& path = hashed ? fixture().hashedPath : fixture().plainPath;
    auto reader = Tiles::LocalCompressedFileReader::create();
    for (auto _ : state) {
        bool ok = reader->open(path, hashed ? "bench" : "");
        benchmark::DoNotOptimize(ok);
    }
    state.counters["tiles"] = hashed ? fixture().hashed.tiles : fixture().plain.tiles;
}
void BM_Open_Plain(benchmark::State& state) {
    BM_Open(state, false);
}
void BM_Open_Hashed(benchmark::State& state) {
    BM_Open(state, true);
}

// Sizes are reported as counters; the loop itself measures nothing of interest.
void BM_Size(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.plain.fileBytes);
    }
    double aps = static_cast<double>(f.city.aps.size());
    double sqliteBytes = static_cast<double>(std::filesystem::file_size(f.sqlitePath));
    state.counters["plain_bytes_per_ap"] = f.plain.fileBytes / aps;
    state.counters["hashed_bytes_per_ap"] = f.hashed.fileBytes / aps;
    state.counters["sqlite_bytes_per_ap"] = sqliteBytes / aps;
    state.counters["sqlite_over_plain"] = sqliteBytes / f.plain.fileBytes;
}

void BM_Size_UniformMacs(benchmark::State& state) {
    City city = makeCity(true);
    Tiles::TileWriteResult plain = Tiles::TileWriter::build(city.aps, "");
    Tiles::TileWriteResult hashed = Tiles::TileWriter::build(city.aps, "bench");
    for (auto _ : state) {
        benchmark::DoNotOptimize(plain.fileBytes);
    }
    state.counters["plain_bytes_per_ap"] = plain.fileBytes / double(city.aps.size());
    state.counters["hashed_bytes_per_ap"] = hashed.fileBytes / double(city.aps.size());
}

}  // namespace

BENCHMARK(BM_TileLookup_Plain_HalfAbsent);
BENCHMARK(BM_TileLookup_Plain_HalfAbsent_ScanSized);
BENCHMARK(BM_UnorderedMapLookup_HalfAbsent);
BENCHMARK(BM_SqliteLookup_HalfAbsent);
BENCHMARK(BM_TileLookup_Hashed_PresentFrontTile);
BENCHMARK(BM_TileLookup_Hashed_Absent);
BENCHMARK(BM_TileLookup_Hashed_HalfAbsent);
BENCHMARK(BM_Open_Plain)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Open_Hashed)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Size)->Iterations(1);
BENCHMARK(BM_Size_UniformMacs)->Iterations(1);
BENCHMARK_MAIN();
