// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstdlib>

namespace kestrune {

// tan(22.5 deg) in fixed point with 15 fractional bits; tan(67.5 deg) is that plus 2.
inline constexpr int kTangentShift = 15;
inline constexpr int kTangent22 = 13573;

/// The squared magnitudes around the row that is judged; each pointer may be read from -1 to the width.
struct MagnitudeRows {
    const int* above;
    const int* centre;
    const int* below;
};

/// Whether the magnitude at column j is the largest across the edge. The comparisons are strict on one side and closed
/// on the other, so that of two equal neighbours exactly one is kept; on the diagonals both are strict.
///
/// @param xs,ys  derivatives there.
inline bool isLocalMaximum(const MagnitudeRows& rows, int j, int xs, int ys) {
    const int m = rows.centre[j];
    const int x = std::abs(xs);
    const int y = std::abs(ys) << kTangentShift;
    const int tg22x = x * kTangent22;
    if (y < tg22x) return m > rows.centre[j - 1] && m >= rows.centre[j + 1];
    // Steps above 212 grey levels would leave 32 bits here.
    const std::int64_t tg67x = tg22x + (static_cast<std::int64_t>(x) << (kTangentShift + 1));
    if (y > tg67x) return m > rows.above[j] && m >= rows.below[j];
    const int s = (xs ^ ys) < 0 ? -1 : 1;
    return m > rows.above[j - s] && m > rows.below[j + s];
}

}  // namespace kestrune
