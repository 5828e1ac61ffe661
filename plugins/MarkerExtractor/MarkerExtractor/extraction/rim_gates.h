// SPDX-License-Identifier: Apache-2.0
//
// Is a thin closed edge the rim of a marker? Two stages ask: the first on whole pixels, of every candidate, is cheap
// and tells on which side the rim is bright; the second, of what is left after like rims became one, measures to a
// fraction of a pixel. Bright and dark markers pass by mirrored tests and are kept apart throughout.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/gate_rules.h"
#include "MarkerExtractor/extraction/marker_fit.h"
#include "ellipsedetection/conic_record.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Gates of both stages. In the first one, and of the last residual, a bound that is NaN refuses everything.
struct RimGates : GateTable {
    /// @param configs  read are `minDiameter`, `maxDiameter`, `minAxisRatio` and `maxFitResidual`.
    explicit RimGates(const CicrleConfigs& configs);
};

/// Full-size images that the gates read.
struct RimImages {
    cv::Mat blur16U;  ///< `CV_16UC1`
    cv::Mat grad;     ///< `CV_32FC1` without gaps between the rows
    cv::Mat dx, dy;   ///< `CV_32FC1`
};

struct RimVerdict : Verdict {
    PolarEllipse ellipse{};         ///< as far as it was filled
    std::vector<cv::Point> points;  ///< of an accepted rim: its distinct pixels in raster order, no longer a path
};

/// Lists whose storage goes from candidate to candidate.
struct RimScratch {
    RimScratch();
    std::vector<cv::Point> hull;
    std::vector<std::uint64_t> keys;
};

/// First stage: number of pixels, ellipse, residual, sign and strength of the step across the rim, and hull.
///
/// @param contour  px of the full image, at least two px from its border.
RimVerdict judgeRim(const std::vector<cv::Point>& contour, const RimImages& images, const RimGates& gates,
                    RimScratch& scratch);

struct MarkerVerdict : Verdict {
    Corner marker;  ///< as far as it was filled; complete, but for `id`, if accepted
};

/// Second stage: refinement on the gradient, undistortion, the final ellipse and its gates. Unlike in the first stage
/// `minDiameter` counts as it stands, and the product of the axes must reach four times its square: a round marker
/// passes from twice `minDiameter` on.
///
/// @param lens  none: the ellipse is fitted in the image as it is.
/// @throws cv::Exception from the undistortion, for matrices of wrong size.
MarkerVerdict measureRim(const std::vector<cv::Point>& points, const RimImages& images, const RimGates& gates,
                         const std::optional<LensModel>& lens);

}  // namespace kestrune
