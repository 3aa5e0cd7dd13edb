// Recorded scans: JSON Lines, one scan per line,
//
//   {"t_ms": 1750000000000, "aps": [{"mac": "AABBCCDDEEFF", "rss": -71, "ssid": "cafe"}]}
//
// `t_ms` is the scan's time in milliseconds since 1970-01-01 UTC (below 2^32 s);
// each AP has a MAC (12 hex digits, optionally ':' or '-' between octets), an RSS
// in dBm that fits 16 bits, and an optional SSID (at most 32 bytes are kept).
// A line may also say where the scan was taken: "latitude" and "longitude" in
// degrees (both or neither) and "accuracy" in metres; learning reads them. Other
// members are ignored. Recordings are untrusted input: a malformed line is
// reported with its number and skipped, never fatal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "core/scanned_ap.h"
#include "core/text_reader.h"

namespace ZEL::Local {

struct RecordedPosition {
    double latitude = 0.0;   // degrees, -90..90
    double longitude = 0.0;  // degrees, -180..180
    double accuracy = 0.0;   // metres; 0 when not stated
};

struct RecordedScan {
    uint64_t timeMs = 0;  // ms since the epoch
    Core::ApList aps;     // each AP's time is timeMs
    std::optional<RecordedPosition> position;
};

// Lines longer than this are malformed (a real scan line is a few kilobytes).
inline constexpr size_t kMaxRecordingLineBytes = 1 << 20;

// The scan of one line, or nothing with the reason in `error`.
std::optional<RecordedScan> parseRecordedScan(std::string_view line, std::string& error);

// The line for `scan`, without the newline; parseRecordedScan reads it back.
std::string formatRecordedScan(const RecordedScan& scan);

// Reads a recording from a stream, line by line. Blank lines are skipped silently.
//
//   ScanRecordingReader reader(file);
//   while (auto item = reader.next()) {
//       if (item->scan) use(*item->scan); else report(item->line, item->error);
//   }
class ScanRecordingReader {
  public:
    struct Item {
        size_t line = 0;                   // 1-based line number
        std::optional<RecordedScan> scan;  // empty when the line is malformed
        std::string error;                 // why, when malformed
    };

    explicit ScanRecordingReader(std::istream& in) : lines_(in) {}

    // The next non-blank line, parsed; nothing at the end of the stream.
    std::optional<Item> next();

  private:
    Core::TextReader lines_;
};

}  // namespace ZEL::Local
