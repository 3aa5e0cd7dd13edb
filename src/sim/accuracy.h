// How close a sequence of determined positions came to the true track.
#pragma once

#include <cstddef>
#include <vector>

namespace ZEL::Sim {

struct AccuracySummary {
    size_t scans = 0;
    size_t fixes = 0;  // scans with a position
    double medianErrorMetres = 0.0;
    double p90ErrorMetres = 0.0;  // nearest-rank 90th percentile
    double maxErrorMetres = 0.0;
    size_t withinHpe = 0;  // fixes whose true position lies within the reported HPE

    double fixShare() const { return scans == 0 ? 0.0 : double(fixes) / double(scans); }
    double withinHpeShare() const { return fixes == 0 ? 0.0 : double(withinHpe) / double(fixes); }
};

class AccuracyTally {
  public:
    void addMiss() { ++scans_; }
    void addFix(double errorMetres, double hpeMetres);
    AccuracySummary summary() const;

  private:
    size_t scans_ = 0;
    size_t withinHpe_ = 0;
    std::vector<double> errors_;
};

}  // namespace ZEL::Sim
