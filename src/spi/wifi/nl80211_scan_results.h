// From a scan dump's BSS entries to the scan list the scan loop reads.
#pragma once

#include "spi/log.h"

#include <vector>

#include "spi/wifi/nl80211_messages.h"

namespace ZEL::SPI {

// Replaces `list` with the infrastructure access points of `entries`, in their
// order. Ad-hoc and mesh entries are left out with a debug line each, and so are
// entries last heard more than Core::kRecentMaxAgeMs ago: the kernel keeps some
// (the associated network's) long after, and they must not pass for fresh.
void collectScanResults(const std::vector<BssEntry>& entries, Core::ApList& list, Logger& log);

}  // namespace ZEL::SPI
