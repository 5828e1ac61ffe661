// SPDX-License-Identifier: Apache-2.0
//
// Contours of bright round blobs without tracing an edge: blobs come from an adaptive threshold on a (usually reduced)
// image, rings around each are sampled, and rays from its centre find the steepest fall of brightness in the smoothed
// image at full size. Everything is one-sided: bright inside, dark outside.
#pragma once

#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "MarkerExtractor/extraction/radial_rays.h"
#include "canny/subpixel_refinement.h"
#include "checks/drops.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

// Where a blob is looked at again, and where its rays end.
constexpr double kWindowSigmas = 3.0;  ///< around the blob's box at full size, of the smoothing, and ...
constexpr int kWindowMargin = 3;       ///< ... px
constexpr double kOuterReach = 1.25;   ///< of the rays, over half the diagonal of the blob's box

/// Mean grey value of the pixels whose centres lie in a disc, and their number; (0, 0) if there are none.
///
/// @param image   `CV_8UC1`.
/// @param centre  px.
/// @param radius  px.
std::pair<float, int> meanInDisc(const cv::Mat& image, cv::Point2f centre, float radius);

/// Share of directions along which the brightest of `n` samples inside `r1` exceeds the darkest of `n` samples between
/// `r1` and `r2` by more than `contrast` grey levels.
float probeRadialContrast(const cv::Mat& image, cv::Point2f centre, float r1, float r2, int contrast,
                          const std::vector<cv::Point2f>& directions, int n);

/// The whole front end. The four image buffers come from the caller and are written in place.
///
/// @param image             `CV_8UC1`, `fullImage` reduced by `scale`.
/// @param fullImage         `CV_8UC1`.
/// @param blurredFull       out, smoothed `fullImage`.
/// @param binary            out, adaptive threshold of `image`.
/// @param fullBinary        out, adaptive threshold of the surroundings of blobs in `fullImage`.
/// @param labels            out, `CV_32SC1`, components of `binary`.
/// @param sigma             of the Gaussian, px, 0 or more; 0: as follows from `aperture`.
/// @param aperture          side of the Gaussian kernel and block of the adaptive threshold, odd, 3 or more.
/// @param contours          result, one record with `points` in pixels of `fullImage` for each accepted blob.
/// @param rayDirections     unit vectors.
/// @param probeDirections   unit vectors.
/// @param minArea           least area of a blob, px^2 of `image`.
/// @param thresholdC        constant of the adaptive threshold, grey levels.
/// @param refineAtFullSize  detect each blob again in `fullImage` (if `scale` is not 1), where noise tears faint ones.
/// @param minRayRatio       least share of rays that must bear an edge. At 0 or below, blobs without any point are
///                          accepted.
/// @param contrast          least difference of the blob's mean to that of the ring around it, grey levels.
/// @throws cv::Exception    for a setting that the front end cannot work with.
void detectRadialContours(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blurredFull, cv::Mat& binary,
                          cv::Mat& fullBinary, cv::Mat& labels, double sigma, int aperture,
                          std::vector<SubpixelContour>& contours, const std::vector<cv::Point2f>& rayDirections,
                          const std::vector<cv::Point2f>& probeDirections, int minArea, int thresholdC, int scale,
                          bool refineAtFullSize, float minRayRatio, int contrast);

/// The images of a call and its settings, as above.
struct RadialImages {
    const cv::Mat& image;
    const cv::Mat& fullImage;
    cv::Mat& blurredFull;
    cv::Mat& binary;
    cv::Mat& fullBinary;
    cv::Mat& labels;
};
struct RadialSettings {
    /// Of the simple path, checked, but for the scale, which goes with the image. The least size is an area here and
    /// not divided by `scale`; the sub-pixel front end takes it as a length and divided.
    ///
    /// @throws cv::Exception for what the front end cannot work with.
    static RadialSettings of(const CicrleConfigs& configs);

    void check() const;

    double sigma;
    int aperture, minArea, thresholdC, scale;
    bool refineAtFullSize;
    float minRayRatio;
    int contrast;
};
/// Unit vectors.
struct RadialDirections {
    const std::vector<cv::Point2f>& rays;
    const std::vector<cv::Point2f>& probes;
};

/// The same, and what was dropped. Images and settings are not looked at any more.
///
/// @param drops  appended to: every blob that is no candidate, boxes in pixels of `fullImage`; may be null.
void detectRadialContours(const RadialImages& images, const RadialSettings& settings,
                          const RadialDirections& directions, std::vector<SubpixelContour>& contours, Drops* drops);

}  // namespace kestrune
