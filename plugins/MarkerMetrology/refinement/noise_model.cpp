// SPDX-License-Identifier: Apache-2.0
#include "refinement/noise_model.h"

namespace kestrune::refinement {
namespace {

constexpr int kWeightings = 3;              // of the weights, which want the variance that is asked for
constexpr double kSlopeSignificance = 2.5;  // standard deviations of the slope from which it is believed

}  // namespace

NoiseModel noiseOf(const std::vector<ResidualSample>& samples) {
    double all = 0, count = 0, lowest = 0;
    for (const ResidualSample& s : samples) {
        all += s.count * s.variance, count += s.count;
        if (s.count > 0 && s.variance > 0) lowest = lowest > 0 ? std::min(lowest, s.variance) : s.variance;
    }
    NoiseModel result;
    result.fixed = count > 0 ? std::max(kRounding, all / count) : 1;
    const NoiseModel even = result;
    for (int i = 0; i < kWeightings; ++i) {
        double w = 0, x = 0, y = 0, xx = 0, xy = 0;
        for (const ResidualSample& s : samples) {
            const double v = result.variance(s.level), weight = s.count / (2 * v * v);
            w += weight, x += weight * s.level, y += weight * s.variance;
            xx += weight * s.level * s.level, xy += weight * s.level * s.variance;
        }
        const double spread = xx - x * x / w;
        if (!(w > 0 && spread > 1e-9 * xx)) return even;
        const double slope = (xy - x * y / w) / spread;
        if (slope * slope * spread < kSlopeSignificance * kSlopeSignificance) return even;
        result.perLevel = slope;
        result.fixed = (y - slope * x) / w;
        // Beyond the levels that were seen, and where the line would fall to nothing.
        result.least = std::max(kRounding, 0.5 * lowest);
    }
    return result;
}

}  // namespace kestrune::refinement
