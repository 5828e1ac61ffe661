// SPDX-License-Identifier: Apache-2.0
//
// Parts of a marker that something lies over: found by what is left of the grey levels there, many times that of the
// rest of the rim, and left out of the fit with all pixels between the centre and beyond the rim.
#pragma once

#include <bitset>
#include <cmath>
#include <numbers>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune::refinement {

inline constexpr int kSectors = 24;
using Sectors = std::bitset<kSectors>;

/// Sector of a pixel as its ellipse sees it: equal steps of the rim's parameter.
inline int sectorOf(const geometry::SmoothEllipse& e, double x, double y) {
    const double dx = x - e.x, dy = y - e.y;
    const double c = (e.s - e.e1) * dx - e.e2 * dy, d = (e.s + e.e1) * dy - e.e2 * dx;
    const int sector = static_cast<int>((std::atan2(d, c) / std::numbers::pi + 1) * (0.5 * kSectors));
    return sector < kSectors ? sector : kSectors - 1;
}

/// Mean squared residual of each sector's pixels, and how many these are.
struct SectorResidual {
    double sum = 0;
    int count = 0;
    double mean() const { return count > 0 ? sum / count : 0; }
};

/// The sectors that something lies over: whose mean square is many times the median's, with those beside them.
///
/// @param residuals  of all sectors, in units of the noise; one without pixels counts as hidden
/// @param least      mean square of a rim that is as far off as any rim of a marker may be
Sectors hiddenSectors(const std::vector<SectorResidual>& residuals, double least);

}  // namespace kestrune::refinement
