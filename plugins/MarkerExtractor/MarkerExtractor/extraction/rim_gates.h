// SPDX-License-Identifier: Apache-2.0
//
// Is a thin closed edge the rim of a marker? Two stages ask: the first on whole pixels, of every candidate, is cheap
// and tells on which side the rim is bright; the second, of what is left after like rims became one, measures to a
// fraction of a pixel. Bright and dark markers pass by mirrored tests and are kept apart throughout.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/gate_rules.h"
#include "MarkerExtractor/extraction/marker_fit.h"
#include "ellipsedetection/conic_record.h"
#include "ellipsedetection/pixel_set.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Gates of both stages. In the first one, and of the last residual, a bound that is NaN refuses everything.
struct RimGates : GateTable {
    /// @param configs  read are `minDiameter`, `maxDiameter`, `minAxisRatio` and `maxFitResidual`.
    explicit RimGates(const CicrleConfigs& configs);
};

/// The whole image, of which `RimImages` show a window.
class WholeImage {
  public:
    explicit WholeImage(const cv::Size& size) : size_(size) {}
    virtual ~WholeImage() = default;
    WholeImage(const WholeImage&) = delete;
    WholeImage& operator=(const WholeImage&) = delete;

    const cv::Size& size() const { return size_; }

    /// A part of the smoothed image, `CV_16UC1`: 0 where no window is.
    virtual cv::Mat smoothed(const cv::Rect& part) const = 0;

  private:
    cv::Size size_;
};

/// Images that the gates read: of full size, or a window of them.
struct RimImages {
    cv::Mat blur16U;  ///< `CV_16UC1`
    cv::Mat grad;     ///< `CV_32FC1`, without gaps between the rows where it is of full size
    cv::Mat dx, dy;   ///< `CV_32FC1`

    // Of a window only.
    cv::Point origin = {};              ///< of the window in the whole image
    const WholeImage* whole = nullptr;  ///< what it is a window of

    cv::Size wholeSize() const { return whole != nullptr ? whole->size() : blur16U.size(); }
};

struct RimVerdict : Verdict {
    PolarEllipse ellipse{};         ///< as far as it was filled
    std::vector<cv::Point> points;  ///< of an accepted rim: its distinct pixels in raster order, no longer a path
};

/// Storage that goes from candidate to candidate.
struct RimScratch {
    PixelSet pixels;
};

/// First stage: number of pixels, ellipse, residual, sign and strength of the step across the rim, and hull.
///
/// @param contour  px of the full image, at least two px from its border, or from that of the window.
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

/// The same from the refined points on.
///
/// @param size  of the whole image.
MarkerVerdict measureRefinedRim(std::vector<cv::Point2f>&& points, const cv::Size& size, const RimGates& gates,
                                const std::optional<LensModel>& lens);

}  // namespace kestrune
