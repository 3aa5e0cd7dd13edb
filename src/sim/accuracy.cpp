#include "sim/accuracy.h"

#include <algorithm>
#include <cmath>

namespace ZEL::Sim {

void AccuracyTally::addFix(double errorMetres, double hpeMetres) {
    ++scans_;
    errors_.push_back(errorMetres);
    if (errorMetres <= hpeMetres) {
        ++withinHpe_;
    }
}

AccuracySummary AccuracyTally::summary() const {
    AccuracySummary summary;
    summary.scans = scans_;
    summary.fixes = errors_.size();
    summary.withinHpe = withinHpe_;
    if (errors_.empty()) {
        return summary;
    }
    std::vector<double> sorted = errors_;
    std::sort(sorted.begin(), sorted.end());
    auto rank = [&](double share) {
        const auto index = static_cast<size_t>(std::ceil(share * double(sorted.size())));
        return sorted[std::max<size_t>(index, 1) - 1];
    };
    summary.medianErrorMetres = rank(0.5);
    summary.p90ErrorMetres = rank(0.9);
    summary.maxErrorMetres = sorted.back();
    return summary;
}

}  // namespace ZEL::Sim
