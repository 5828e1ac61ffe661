// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <vector>

#include "ellipsedetection/ellipse_record.h"

namespace kestrune {

/// Which ellipses go on, and what became of the others.
struct Merging {
    std::vector<std::size_t> kept;  ///< indices of those that go on, from small to large by the first one of each
    std::vector<std::size_t> into;  ///< for each ellipse the index of the one that goes on for it, or its own
};

/// Reduces ellipses to one for each edge of a marker. From small to large (by the product of the axes, equal ones in
/// the order given), each is compared with those kept so far, and the first like one stands for it: same polarity,
/// centres nearer than `centreTolerance` times the mean of the kept one's axes, and relative differences of widths and
/// heights whose root mean square is below `shapeTolerance`. Of two like ones the better fit stays, on a tie the
/// earlier.
Merging mergeAlike(const std::vector<const PolarEllipse*>& ellipses, double shapeTolerance, double centreTolerance);

/// The same, as copies.
///
/// @param contours  one for each ellipse.
/// @param merged,mergedContours  results, replaced.
void mergeSimilarEllipses(const std::vector<PolarEllipse>& ellipses,
                          const std::vector<std::vector<cv::Point>>& contours, std::vector<PolarEllipse>& merged,
                          std::vector<std::vector<cv::Point>>& mergedContours, double shapeTolerance,
                          double centreTolerance);

}  // namespace kestrune
