// What every observation reader's fuzz target checks of its result: the intake rules
// held, and learning from what was read gives positions the tile file can store.
#pragma once

#include <cmath>
#include <cstdlib>

#include "learn/learning.h"
#include "learn/observation_readers.h"

inline void checkReadAndLearn(const ZEL::Learn::ReadResult& read) {
    using namespace ZEL::Learn;
    Learner learner;
    for (const Observation& observation : read.observations) {
        if (intakeRefusal(observation.mac, "") || std::fabs(observation.latitude) > 90 ||
            std::fabs(observation.longitude) > 180 || observation.rss > 0) {
            abort();  // an observation the intake rules should have refused
        }
        learner.add(observation);
    }
    for (const auto& [mac, ap] : learner.learnAll()) {
        const auto& p = ap.position;
        if (ap.verdict != Verdict::Moving &&
            (!(std::fabs(p.latitude) <= 90) || !(std::fabs(p.longitude) <= 180) || p.quality < 18 ||
             p.quality > 145 || !(p.signalExponent >= 1.0 / 6 - 1e-12) ||
             !(p.signalExponent <= 0.5))) {
            abort();  // a learned access point out of the stored ranges
        }
    }
}
