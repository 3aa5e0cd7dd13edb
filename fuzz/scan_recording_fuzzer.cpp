// Feeds arbitrary bytes to the reader of recorded scans, as a whole recording and as
// one line, and checks that every scan it accepts formats back to an equal scan.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "local/scan_recording.h"

using namespace ZEL;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream in(text);
    Local::ScanRecordingReader reader(in);
    while (auto item = reader.next()) {
        if (!item->scan) {
            continue;
        }
        std::string error;
        const auto again = Local::parseRecordedScan(Local::formatRecordedScan(*item->scan), error);
        if (!again || again->timeMs != item->scan->timeMs ||
            again->aps.size() != item->scan->aps.size()) {
            std::abort();
        }
        for (size_t i = 0; i < again->aps.size(); ++i) {
            if (again->aps[i].mac != item->scan->aps[i].mac ||
                again->aps[i].rss != item->scan->aps[i].rss) {
                std::abort();
            }
        }
    }
    std::string error;
    (void)Local::parseRecordedScan(text, error);
    return 0;
}
