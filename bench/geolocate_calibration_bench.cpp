// Calibration of /v1/geolocate's accuracy on real Wi-Fi fingerprints: for each
// data set in ../shared/realdata (UJIIndoorLoc; SODIndoorLoc's three buildings) an
// access-point database is built from the training scans (each AP at the centroid
// of the scans that heard it, weighted by received power), and every test scan is
// asked of the server's geolocate operation in-process. Printed per data set: the
// answers, the median and 90th-percentile error (true metres), the share of answers
// whose truth lies within the answered accuracy (the target is 60-75%), and the
// median accuracy answered. The anchor for the errors is the plain weighted-centroid
// baseline each data set's README gives (UJIIndoorLoc 10.0 m median; SODIndoorLoc
// with a database from training 6.3, 8.1, 8.2 m).
//
// Run: build/bin/geolocate_calibration_bench [REALDATA_DIR]
// Skips, with a message, when the data is absent.
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "local/position_estimate.h"
#include "server/geolocate_service.h"
#include "server/location_service.h"
#include "tiles/tile_writer.h"

namespace {

using namespace ZEL;
namespace fs = std::filesystem;

constexpr double kPi = 3.14159265358979323846;
constexpr double kEarthRadius = 6378137.0;

struct Scan {
    std::vector<std::pair<int, int>> heard;  // column, dBm
    double latitude = 0.0, longitude = 0.0;
};

// How a data set's coordinates become degrees.
enum class Frame { Mercator, LocalMetres };

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream in(line);
    for (std::string field; std::getline(in, field, ',');) {
        fields.push_back(field);
    }
    return fields;
}

// Reads a fingerprint CSV (RSSI columns named PREFIXn, 100 or <= -105: not heard).
std::vector<Scan> readScans(const fs::path& path, const std::string& prefix, const char* east,
                            const char* north, Frame frame) {
    std::vector<Scan> scans;
    gzFile file = gzopen(path.c_str(), "rb");
    if (!file) {
        return scans;
    }
    std::string text;
    char buffer[1 << 16];
    for (int got; (got = gzread(file, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    gzclose(file);
    std::stringstream lines(text);
    std::string line;
    std::getline(lines, line);
    const std::vector<std::string> header = split(line);
    std::map<int, int> columns;  // field index -> AP id
    size_t eastAt = 0, northAt = 0;
    for (size_t i = 0; i < header.size(); ++i) {
        if (header[i].rfind(prefix, 0) == 0) {
            columns[static_cast<int>(i)] = std::stoi(header[i].substr(prefix.size()));
        }
        eastAt = header[i] == east ? i : eastAt;
        northAt = header[i] == north ? i : northAt;
    }
    while (std::getline(lines, line)) {
        const std::vector<std::string> fields = split(line);
        if (fields.size() != header.size()) {
            continue;
        }
        Scan scan;
        for (const auto& [index, id] : columns) {
            const int rss = std::stoi(fields[index]);
            if (rss < 0 && rss > -105) {
                scan.heard.emplace_back(id, rss);
            }
        }
        const double x = std::stod(fields[eastAt]), y = std::stod(fields[northAt]);
        if (frame == Frame::Mercator) {  // shifted 1 degree east, off the prime meridian
            scan.longitude = x / kEarthRadius * 180.0 / kPi + 1.0;
            scan.latitude = (2.0 * std::atan(std::exp(y / kEarthRadius)) - kPi / 2) * 180.0 / kPi;
        } else {
            scan.latitude = 36.6 + y / 111'195.0;
            scan.longitude = 117.0 + x / (111'195.0 * std::cos(36.6 * kPi / 180.0));
        }
        if (!scan.heard.empty()) {
            scans.push_back(std::move(scan));
        }
    }
    return scans;
}

Core::MacAddress macOf(int id) {
    Core::MacAddress mac{};  // 00:5A:45:4C:HH:LL, last octet first
    mac = {static_cast<uint8_t>(id & 0xFF), static_cast<uint8_t>(id >> 8), 0x4C, 0x45, 0x5A, 0x00};
    return mac;
}

double percentile(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(share * values.size()))];
}

void evaluate(const std::string& name, const std::vector<Scan>& training,
              const std::vector<Scan>& testing) {
    std::map<int, std::array<double, 3>> sums;  // id -> weight, weighted lat, weighted lon
    for (const Scan& scan : training) {
        for (const auto& [id, rss] : scan.heard) {
            const double weight = std::pow(10.0, rss * 0.25 / 10.0);
            auto& sum = sums[id];
            sum[0] += weight, sum[1] += weight * scan.latitude, sum[2] += weight * scan.longitude;
        }
    }
    std::vector<Tiles::AccessPointPosition> aps;
    for (const auto& [id, sum] : sums) {
        aps.push_back({macOf(id), sum[1] / sum[0], sum[2] / sum[0], 50, 0.25});
    }
    const std::string tiles = (fs::temp_directory_path() / ("zel-calibration-" + name + ".zel"));
    std::string error;
    Server::ServiceData data;
    data.users = Server::Database::open("sqlite::memory:", error);
    std::unique_ptr<Server::LocationService> service;
    if (Tiles::TileWriter::writeFile(tiles, aps, "bench").ok) {
        service = Server::LocationService::create({{tiles}, "bench", true}, std::move(data), error);
    }
    if (!service) {
        std::printf("%-16s cannot build the service: %s\n", name.c_str(), error.c_str());
        return;
    }
    std::vector<double> errors, accuracies;
    size_t within = 0, unanswered = 0;
    for (const Scan& scan : testing) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& [id, rss] : scan.heard) {
            list.push_back({{"macAddress", Core::macText(macOf(id))}, {"signalStrength", rss}});
        }
        const std::string body =
            nlohmann::json{{"considerIp", false}, {"wifiAccessPoints", list}}.dump();
        Server::GeolocateCall call;
        call.body = body;
        const Server::Reply reply = service->geolocate(call);
        if (reply.status != 200) {
            ++unanswered;
            continue;
        }
        const auto answer = nlohmann::json::parse(reply.body);
        const double distance = Local::greatCircleDistance(
            scan.latitude, scan.longitude, answer["location"]["lat"], answer["location"]["lng"]);
        const double accuracy = answer["accuracy"];
        errors.push_back(distance);
        accuracies.push_back(accuracy);
        within += distance <= accuracy ? 1 : 0;
    }
    fs::remove(tiles);
    std::printf(
        "%-16s %5zu answers (%zu unanswered): error median %5.1f m, p90 %5.1f m; "
        "truth within accuracy %4.1f%%, median accuracy %5.1f m\n",
        name.c_str(), errors.size(), unanswered, percentile(errors, 0.5), percentile(errors, 0.9),
        100.0 * within / std::max<size_t>(errors.size(), 1), percentile(accuracies, 0.5));
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path root =
        argc > 1 ? fs::path(argv[1]) : fs::path(ZEL_SOURCE_DIR) / "../shared/realdata";
    if (!fs::is_directory(root)) {
        std::printf("geolocate calibration: no real data at %s; skipped\n", root.c_str());
        return 0;
    }
    const fs::path uji = root / "ujiindoorloc";
    evaluate(
        "ujiindoorloc",
        readScans(uji / "trainingData.csv.gz", "WAP", "LONGITUDE", "LATITUDE", Frame::Mercator),
        readScans(uji / "validationData.csv.gz", "WAP", "LONGITUDE", "LATITUDE", Frame::Mercator));
    const fs::path sod = root / "sodindoorloc";
    for (const char* building : {"CETC331", "HCXY", "SYL"}) {
        const std::string training =
            std::string("Training_") + building +
            (std::string(building) == "CETC331" ? ".csv.gz" : "_AP_30.csv.gz");
        const std::string testing = std::string("Testing_") + building +
                                    (std::string(building) == "CETC331" ? ".csv.gz" : "_AP.csv.gz");
        evaluate(std::string("sod-") + building,
                 readScans(sod / training, "MAC", "ECoord", "NCoord", Frame::LocalMetres),
                 readScans(sod / testing, "MAC", "ECoord", "NCoord", Frame::LocalMetres));
    }
    return 0;
}
