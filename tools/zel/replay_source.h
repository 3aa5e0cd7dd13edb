// Feeds recorded scans to the library through its scan-source extension: each
// scan the engine reads is the next line of the recording.
#pragma once

#include <string>
#include <vector>

#include "core/scanned_ap.h"
#include "zelapi_ext.h"

namespace ZEL::Cli {

class ReplaySource {
  public:
    // Reads the recording at `path`; malformed lines are reported on stderr and skipped.
    // Returns false (after saying why) when the file can't be read or holds no scan.
    bool load(const std::string& path);

    // Makes this the library's only Wi-Fi adapter until uninstall() or destruction.
    void install();
    void uninstall();
    ~ReplaySource() { uninstall(); }

    size_t scanCount() const { return scans_.size(); }
    // Scans handed out so far; past the end of the recording every scan is empty.
    size_t delivered() const { return next_; }
    bool exhausted() const { return next_ >= scans_.size(); }

  private:
    static int nextScan(void* self, ZEL_APEntry* aps, unsigned int capacity, unsigned int* count);

    std::vector<ZEL::Core::ApList> scans_;
    size_t next_ = 0;
    bool installed_ = false;
};

// Chooses where the scans come from: the recording at `replayPath` when one is given
// (installed into `replay`), else the system's Wi-Fi adapter. Returns the exit
// status to stop with (after saying why on stderr), or 0 to go on.
int chooseScanSource(const std::string& replayPath, ReplaySource& replay);

}  // namespace ZEL::Cli
