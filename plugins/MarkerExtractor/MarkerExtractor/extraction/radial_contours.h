// SPDX-License-Identifier: Apache-2.0
//
// Contours of bright round blobs without tracing an edge: blobs come from an adaptive threshold on a (usually reduced)
// image, rings around each are sampled, and rays from its centre find the steepest fall of brightness in the smoothed
// image at full size. Everything is one-sided: bright inside, dark outside.
#pragma once

#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "canny/subpixel_contours.h"
#include "checks/drops.h"

namespace kestrune {

/// Bilinear grey value.
struct GreySample {
    bool valid;   ///< the position lies on the image, between the centres of its outermost pixels
    float value;  ///< grey level; 0 if not valid
};
/// Inline, because it is the innermost step of the ray search.
inline GreySample sampleBilinear(const cv::Mat& image, float x, float y) {
    if (!(x >= 0 && x <= static_cast<float>(image.cols - 1) && y >= 0 && y <= static_cast<float>(image.rows - 1))) {
        return {false, 0};
    }
    const int x0 = static_cast<int>(x);
    const int y0 = static_cast<int>(y);
    const int x1 = x0 + 1 < image.cols ? x0 + 1 : x0;
    const int y1 = y0 + 1 < image.rows ? y0 + 1 : y0;
    const float fx = x - static_cast<float>(x0);
    const float fy = y - static_cast<float>(y0);
    const uchar* const upper = image.ptr<uchar>(y0);
    const uchar* const lower = image.ptr<uchar>(y1);
    const float a = upper[x0], b = upper[x1], c = lower[x0], d = lower[x1];
    return {true, (1 - fy) * (a * (1 - fx) + b * fx) + fy * (c * (1 - fx) + d * fx)};
}

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

/// What a ray search met.
struct RaySearch {
    double beyond;  ///< px by which the outer circle and 3 px leave the image; 0 or less where they do not
    float bearing;  ///< share of the rays that bear an edge
};

/// Casts one ray along each direction and finds on it the point of steepest fall: coarsely in steps of 3 px between
/// `rIn` and `rOut`, then in steps of 1 px, then by a parabola through three differences. The radii are then median
/// filtered, freed of outliers and smoothed around the circle.
///
/// The radius is measured from the first sample of the steepest pair, so that it is half a pixel short of the edge
/// between the two; the centre is not touched by that.
///
/// @param image          `CV_8UC1`, smoothed.
/// @param points         result, px, in the order of the directions; empty if the outer circle comes within 3 px of the
///                       border or too few rays bear an edge.
/// @param dropThreshold  least coarse fall, grey levels, inclusive.
/// @param minRayRatio    least share of rays with an edge, inclusive.
RaySearch searchRadialEdges(const cv::Mat& image, cv::Point2f centre, float rIn, float rOut,
                            std::vector<cv::Point2f>& points, const std::vector<cv::Point2f>& directions,
                            int dropThreshold, float minRayRatio);

/// Replaces each radius by the upper median of the positive radii up to `halfWindow` places away on the circle, itself
/// included; by -1 if there are fewer than three. A ray without an edge (-1) can gain a radius from its neighbours.
void medianFilterRadii(std::vector<float>& radii, int halfWindow);

/// Marks off negative radii, and radii that differ from the mean of their non-negative neighbours up to `halfWindow`
/// away by more than `tolerance` px. Every other radius is replaced by the mean of its nearest neighbours that are not
/// marked off - `halfWindow` of them on either side, at most 3 `halfWindow` places away - without itself; by -1 if
/// there are none. Radii that are marked off become -1.
void rejectAndSmoothRadii(std::vector<float>& radii, float tolerance, int halfWindow);

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
    double sigma;
    int aperture, minArea, thresholdC, scale;
    bool refineAtFullSize;
    float minRayRatio;
    int contrast;
};

/// The same, and what was dropped.
///
/// @param drops  appended to: every blob that is no candidate, boxes in pixels of `fullImage`; may be null.
void detectRadialContours(const RadialImages& images, const RadialSettings& settings,
                          const std::vector<cv::Point2f>& rayDirections,
                          const std::vector<cv::Point2f>& probeDirections, std::vector<SubpixelContour>& contours,
                          Drops* drops);

}  // namespace kestrune
