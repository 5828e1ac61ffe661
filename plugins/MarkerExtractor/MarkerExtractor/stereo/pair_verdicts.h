// SPDX-License-Identifier: Apache-2.0
//
// Why are these two markers no pair? The matchers' own tests answer, pair by pair, for a caller who asks. Not part of
// the library's interface: kestrune-measure shows it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <vector>

namespace kestrune {

/// What ended a pair, by how far it got.
enum class PairGate : std::uint8_t {
    outline,        ///< the contour of one marker gives no sample points; constellation
    rows,           ///< |row difference| of the rectified centres, px
    area,           ///< smaller by larger area; constellation
    rimRows,        ///< row difference of top or bottom beyond that of the centres, px; constellation
    depth,          ///< of the centre
    circle,         ///< one conic is no circle's image; conics
    radius,         ///< in space; of conics the one of the two eyes that is farther off
    spread,         ///< of the rim's distance from the centre; constellation
    radiusScore,    ///< relative deviation of the radius and spread, by the tolerance; constellation
    radiusRatio,    ///< of the two eyes' radii, smaller by larger; conics
    score,          ///< another pair of one of the markers agrees better; conics
    edgeLength,     ///< relative difference of the distances to the markers that are paired, median; constellation
    edgeDirection,  ///< difference of the directions to them, rad, median; constellation
    taken,          ///< one of the markers is in another pair; constellation
    ambiguous,      ///< candidates of that marker which has more, where no constellation was found
    none            ///< a pair of the result
};

constexpr int kNobody = -1;  ///< in the place of a marker's index: the other one has failed alone
constexpr double kUnbounded = std::numeric_limits<double>::infinity();  ///< with its sign: a bound that a gate has not

/// What became of one left and one right marker.
struct PairVerdict {
    int left, right;  ///< indices, or `kNobody`
    PairGate gate;
    double measured = std::numeric_limits<double>::quiet_NaN();  ///< NaN: the gate measures nothing
    /// What the gate asks for, in the unit of `measured`; infinite where it has no such bound.
    double least = -kUnbounded, largest = kUnbounded;

    /// How far the measured value is beyond the bounds; infinite where nothing is measured.
    double excess() const;
};

/// A matcher's verdicts: those of the pairs in one row band by left, then by right index or row, then of each marker
/// that has none the nearest one in row.
using PairVerdicts = std::vector<PairVerdict>;

/// Adds, for each marker that stands in no verdict, the one of the other eye that is nearest in row.
void addNearestRows(const std::vector<double>& leftRows, const std::vector<double>& rightRows, double maxRowDifference,
                    PairVerdicts& verdicts);

/// The same for markers of any kind. @param rowOf  gives the row of one.
template <typename Markers, typename RowOf>
void addNearestRows(const Markers& left, const Markers& right, RowOf rowOf, double maxRowDifference,
                    PairVerdicts& verdicts) {
    std::vector<double> leftRows, rightRows;
    std::ranges::transform(left, std::back_inserter(leftRows), rowOf);
    std::ranges::transform(right, std::back_inserter(rightRows), rowOf);
    addNearestRows(leftRows, rightRows, maxRowDifference, verdicts);
}

}  // namespace kestrune
