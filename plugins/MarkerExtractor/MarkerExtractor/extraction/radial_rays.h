// SPDX-License-Identifier: Apache-2.0
//
// Rays from the centre of a blob, and where on each the grey value falls most.
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <type_traits>
#include <vector>

namespace kestrune {

constexpr float kCoarseStep = 3.0f;  ///< px: about the width of a blurred edge, so that one step holds most of its fall

/// Bilinear grey value.
struct GreySample {
    bool valid;   ///< the position lies on the image, between the centres of its outermost pixels
    float value;  ///< grey level; 0 if not valid
};
/// A part of an image, with places as in the whole one.
struct GreyView {
    GreyView(const cv::Mat& image)  // NOLINT(google-explicit-constructor): the whole of it
        : first(image.ptr<uchar>()),
          step(static_cast<std::ptrdiff_t>(image.step)),
          cols(image.cols),
          rows(image.rows) {}
    GreyView(const uchar* pixels, std::ptrdiff_t rowStep, cv::Point origin, cv::Size whole)
        : first(pixels), step(rowStep), left(origin.x), top(origin.y), cols(whole.width), rows(whole.height) {}
    const uchar* at(int x, int y) const { return first + ((y - top) * step + (x - left)); }

    const uchar* first;
    std::ptrdiff_t step;  ///< bytes
    int left = 0, top = 0;
    int cols, rows;  ///< of the whole image
};

/// Inline, because it is the innermost step of the ray search.
inline GreySample sampleBilinear(const GreyView& image, float x, float y) {
    if (!(x >= 0 && x <= static_cast<float>(image.cols - 1) && y >= 0 && y <= static_cast<float>(image.rows - 1))) {
        return {false, 0};
    }
    const int x0 = static_cast<int>(x);
    const int y0 = static_cast<int>(y);
    const std::ptrdiff_t right = x0 + 1 < image.cols ? 1 : 0;
    const std::ptrdiff_t below = y0 + 1 < image.rows ? image.step : 0;
    const float fx = x - static_cast<float>(x0);
    const float fy = y - static_cast<float>(y0);
    const uchar* const upper = image.at(x0, y0);
    const uchar* const lower = upper + below;
    const float a = upper[0], b = upper[right], c = lower[0], d = lower[right];
    return {true, (1 - fy) * (a * (1 - fx) + b * fx) + fy * (c * (1 - fx) + d * fx)};
}

/// What a ray search met.
struct RaySearch {
    double beyond;  ///< px by which the outer circle and a coarse step leave the image; 0 or less where they do not
    float bearing;  ///< share of the rays that bear an edge
};

/// Storage of a thread, kept from call to call.
struct RayScratch {
    template <typename Offset>
    std::vector<Offset>& offsetsOf() {
        if constexpr (std::is_same_v<Offset, int>) {
            return offsets;
        } else {
            return longOffsets;
        }
    }
    std::vector<int> offsets;
    std::vector<std::ptrdiff_t> longOffsets;
    std::vector<int> before, here;       ///< grey values of all rays
    std::vector<int> steepest, heights;  ///< step and grey levels of the coarse fall of each ray
    std::vector<float> radii, given, around, sorted;
    std::vector<char> kept;
};

/// How far from the centre a search with this outer radius reads, px along either axis.
int reachOfRays(float rOut);

/// Whether the outer circle and a coarse step stay on the image. Without that no pixel is read.
bool areRaysOnImage(cv::Size image, cv::Point2f centre, float rOut);

/// Casts one ray along each direction and finds on it the point of steepest fall: coarsely in steps of `kCoarseStep`
/// between `rIn` and `rOut`, then in steps of 1 px, then by a parabola through three differences. The radii are then
/// median filtered, freed of outliers and smoothed around the circle.
///
/// The radius is measured from the first sample of the steepest pair, so that it is half a pixel short of the edge
/// between the two; the centre is not touched by that.
///
/// @param image          `CV_8UC1`, smoothed.
/// @param points         result, px, in the order of the directions; empty if the outer circle comes within a coarse
///                       step of the border or too few rays bear an edge.
/// @param dropThreshold  least coarse fall, grey levels, inclusive.
/// @param minRayRatio    least share of rays with an edge, inclusive.
RaySearch searchRadialEdges(const cv::Mat& image, cv::Point2f centre, float rIn, float rOut,
                            std::vector<cv::Point2f>& points, const std::vector<cv::Point2f>& directions,
                            int dropThreshold, float minRayRatio);

/// Radii between which edges are searched, px.
struct RayReach {
    float rIn, rOut;
};

/// The same on an image of which a part is there: all that is within `reachOfRays`.
RaySearch searchRadialEdges(const GreyView& image, cv::Point2f centre, const RayReach& reach,
                            std::vector<cv::Point2f>& points, const std::vector<cv::Point2f>& directions,
                            int dropThreshold, float minRayRatio, RayScratch& scratch);

/// Replaces each radius by the upper median of the positive radii up to `halfWindow` places away on the circle, itself
/// included; by -1 if there are fewer than three. A ray without an edge (-1) can gain a radius from its neighbours.
void medianFilterRadii(std::vector<float>& radii, int halfWindow);

/// Marks off negative radii, and radii that differ from the mean of their non-negative neighbours up to `halfWindow`
/// away by more than `tolerance` px. Every other radius is replaced by the mean of its nearest neighbours that are not
/// marked off - `halfWindow` of them on either side, at most 3 `halfWindow` places away - without itself; by -1 if
/// there are none. Radii that are marked off become -1.
void rejectAndSmoothRadii(std::vector<float>& radii, float tolerance, int halfWindow);

}  // namespace kestrune
