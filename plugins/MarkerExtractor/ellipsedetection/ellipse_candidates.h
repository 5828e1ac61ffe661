// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "checks/drops.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// A bound of pixels for a bound of the diameter, and linear in it although a blob has an area: blobs and contours of a
/// marker are rings. A rim of one pixel has about pi pixels for each of the diameter, so that one as small as
/// `minDiameter` is too short.
constexpr std::int64_t kPixelsPerDiameter = 4;

/// Finds pixel contours that may be the rims of round markers, bright or dark. A search for blobs in the reduced image
/// says where to look; the edges of a window around each blob are thinned to one pixel, and their nesting is judged:
/// a marker's edge is a closed line, which a contour tree shows as an outline with a hole of about its size.
///
/// The working images are made of the right size and type where they are not. What is in them before has no say;
/// `blur16U`, `img_grad`, `img_dx`, `img_dy` and `edge_mask` afterwards hold each window's values, where windows
/// overlap those of the later one.
///
/// @param image         `CV_8UC1`, the reduced image.
/// @param fullImage     `CV_8UC1`, about `scale` times as large.
/// @param blur16U       `CV_16UC1`, full size: smoothed, grey levels times 256.
/// @param img_grad,img_dx,img_dy  `CV_32FC1`, full size: the gradient of `blur16U`.
/// @param binary        `CV_8UC1`, reduced size: adaptive threshold of `image`.
/// @param edge_mask     `CV_8UC1`, full size: thinned edges.
/// @param labels        `CV_32SC1`, reduced size: components of `binary`.
/// @param candidates    result, appended to: contours in full-size pixels, all pixels of each.
/// @param sigma         of the smoothing, px of the full image.
/// @param aperture      block of the adaptive threshold, odd, 3 or more.
/// @param thresholdC    constant of the adaptive threshold, grey levels; from 256 up and -256 down all are alike.
/// @param scale         1 or more.
/// @param edgePercentile  share of a window's pixels that are no edge; edges begin at half that magnitude.
/// @param nmsFactor     of `find_edge_mask_nms`.
/// @param minAxisRatio  least shorter over longer side of a box.
/// @param minDiameter,maxDiameter  px: bounds of a box's sides, of the reduced image for blobs and of the full one for
///                      contours. Four times these bound a blob's area and a contour's length: a rim is a line, whose
///                      pixels grow with the diameter.
void detectEllipseCandidates(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blur16U, cv::Mat& img_grad,
                             cv::Mat& img_dx, cv::Mat& img_dy, cv::Mat& binary, cv::Mat& edge_mask, cv::Mat& labels,
                             std::vector<std::vector<cv::Point>>& candidates, float sigma, int aperture, int thresholdC,
                             int scale, float edgePercentile, float nmsFactor, float minAxisRatio, int minDiameter,
                             int maxDiameter);

/// The images of a call and its settings, as above.
struct CandidateImages {
    const cv::Mat& image;
    const cv::Mat& fullImage;
    cv::Mat& blur16U;
    cv::Mat& grad;
    cv::Mat& dx;
    cv::Mat& dy;
    cv::Mat& binary;
    cv::Mat& edgeMask;
    cv::Mat& labels;
    std::vector<std::uint16_t>& smoothing;  ///< scratch of `fastGaussianOfWindow`
};
struct RimSettings {
    /// Of the edge-based path, checked, but for the scale, which goes with the image.
    ///
    /// @throws cv::Exception for what the front end cannot work with.
    static RimSettings of(const CicrleConfigs& configs);

    float sigma;
    int aperture, thresholdC, scale;
    float edgePercentile, nmsFactor, minAxisRatio;
    int minDiameter, maxDiameter;
};

/// The same, and what was dropped. Images and settings are not looked at any more.
///
/// @param drops  appended to: every blob that no candidate came of, and the lines in the windows of the others that are
///               none; boxes in pixels of `fullImage`. May be null.
void detectEllipseCandidates(const CandidateImages& images, const RimSettings& settings,
                             std::vector<std::vector<cv::Point>>& candidates, Drops* drops);

}  // namespace kestrune
