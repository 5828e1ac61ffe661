// SPDX-License-Identifier: Apache-2.0
#include "refinement/hidden_sectors.h"

#include <algorithm>

namespace kestrune::refinement {
namespace {

// A rim that is a little off its place, or no perfect ellipse, has residuals that differ by less from sector to sector;
// what lies over a rim leaves hundreds of times the noise.
constexpr double kFactor = 6;
constexpr double kFewest = 3;  // pixels that tell anything of a sector

}  // namespace

Sectors hiddenSectors(const std::vector<SectorResidual>& residuals, double least) {
    std::vector<double> means;
    for (const SectorResidual& r : residuals)
        if (r.count >= kFewest) means.push_back(r.mean());
    if (means.empty()) return Sectors().set();
    const auto middle = means.begin() + static_cast<std::ptrdiff_t>(means.size() / 2);
    std::nth_element(means.begin(), middle, means.end());
    const double most = std::max(least, kFactor * std::max(1.0, *middle));
    Sectors hidden, wider;
    for (std::size_t k = 0; k < residuals.size(); ++k)
        hidden[k] = residuals[k].count < kFewest || residuals[k].mean() > most;
    for (std::size_t k = 0; k < kSectors; ++k)
        wider[k] = hidden[k] || hidden[(k + 1) % kSectors] || hidden[(k + kSectors - 1) % kSectors];
    return wider;
}

}  // namespace kestrune::refinement
