// Readers of observations (learning.h) from untrusted text, one per format:
//
//   readWigle      a WiGLE CSV export: a first line "WigleWifi-..." then a header
//                  naming MAC, RSSI, CurrentLatitude, CurrentLongitude and
//                  optionally SSID, AccuracyMeters, FirstSeen ("YYYY-MM-DD
//                  HH:MM:SS", read as UTC: only differences matter) and Type (rows
//                  of another Type than WIFI are skipped silently); an RSSI of 0 or
//                  more means "not known"; a fix at 0,0 is no fix.
//   readGeosubmit  geosubmit reports: the whole text one body {"items":[...]}, or one
//                  body or one item per line. An item: "timestamp" (ms), "position"
//                  {"latitude", "longitude", "accuracy" (m), "age" (ms before the
//                  timestamp)}, "wifiAccessPoints" [{"macAddress", "signalStrength"
//                  (dBm), "age" (ms), "ssid"}]; or in the older format: "lat", "lon",
//                  "accuracy" (m, 0 = not stated), "time" ("2026-11-22T23:27:05+00":
//                  ISO 8601, optional fraction, offset Z, +HH, +HHMM or +HH:MM, none =
//                  UTC), "wifi" [{"key", "signal" (dBm), "ssid"}]. Other members (cells,
//                  Bluetooth, frequency...) are ignored; an item without Wi-Fi gives
//                  nothing and is no error.
//   readRecording  the library's scan recordings (local/scan_recording.h) whose lines
//                  carry a position; a line without one is reported.
//   readMappedCsv  CSV whose columns are named by a ColumnMapping: with an rss column
//                  each row is an observation, without one each row is an access
//                  point's position (quality 50, exponent 0.25, as in tiles/ap_csv.h).
//                  A time column holds Unix seconds, milliseconds or "YYYY-MM-DD
//                  HH:MM:SS"; a number below 10^11 is seconds (10^11 ms would be 1973).
//
// INTAKE, in every reader: an access point whose SSID ends in "_nomap", or whose MAC
// is all zero or has the multicast bit set (broadcast included), is left out and
// counted in `filtered`; a position outside -90..90, -180..180 is reported. Lines and
// quoting follow core/text_reader.h; a malformed line, item or access point is
// reported with its line number and skipped, never fatal. JSON is parsed within
// kMaxJsonBytes and kMaxJsonDepth.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "learn/learning.h"
#include "tiles/ap_csv.h"

namespace ZEL::Learn {

inline constexpr size_t kMaxJsonBytes = 64u << 20;
inline constexpr size_t kMaxJsonDepth = 16;

struct ReadResult {
    std::string error;  // set when the text as a whole is unusable (no header)
    std::vector<Observation> observations;
    std::vector<Tiles::AccessPointPosition> positions;  // from position CSVs
    std::vector<Tiles::CsvIssue> issues;                // what was skipped, and why
    size_t filtered = 0;                                // left out by the intake rules
};

// Column names for readMappedCsv, matched ignoring case; empty = no such column.
struct ColumnMapping {
    std::string mac, latitude, longitude, rss, time, accuracy, ssid;
};

// "mac=BSSID,latitude=lat,longitude=lon[,rss=..,time=..,accuracy=..,ssid=..]";
// nullopt with `error` set for an unknown or repeated key or a required one missing.
std::optional<ColumnMapping> parseColumnMapping(std::string_view text, std::string& error);

ReadResult readWigle(std::string_view text);
// The server's intake of one submitted body: the text must be one JSON object; an
// item without a time counts as made at nowMs; an item made more than maxAgeMs before
// nowMs or more than kMaxFutureMs after it, or at a position out of range, is left out
// with its access points (counted in `filtered`, not an issue).
struct Intake {
    uint64_t nowMs = 0;
    uint64_t maxAgeMs = 7 * 86'400'000ull;
};
inline constexpr uint64_t kMaxFutureMs = 10 * 60'000;

ReadResult readGeosubmit(std::string_view text, const Intake* intake = nullptr);
ReadResult readRecording(std::string_view text);
ReadResult readMappedCsv(std::string_view text, const ColumnMapping& columns);

// The reader for the text's form: readMappedCsv when `columns` is given, else by the
// first non-blank line: "WigleWifi-" a WiGLE export, "{" with "t_ms" a recording,
// other "{" geosubmit, anything else the access-point CSV of tiles/ap_csv.h.
ReadResult readAny(std::string_view text, const ColumnMapping* columns);

// Why an access point must be left out at intake, or nullopt.
std::optional<std::string> intakeRefusal(const Core::MacAddress& mac, std::string_view ssid);

}  // namespace ZEL::Learn
