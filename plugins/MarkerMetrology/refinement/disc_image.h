// SPDX-License-Identifier: Apache-2.0
//
// The image of a disc: an ellipse of height 1, blurred by a Gaussian of standard deviation b and integrated over square
// pixels, with its derivatives.
//
// With k(d) = Phi((d + 1/2) / b) - Phi((d - 1/2) / b), what a pixel gets of a point source d away along one axis, the
// pixel at p sees M(p) = integral over the ellipse of k(p.x - x) k(p.y - y). By the divergence theorem M and all its
// derivatives are integrals along the rim, exact for every radius and blur:
//   dM / dq = integral of k(p.x - x) k(p.y - y) (v . n) ds     where the rim moves by v as the number q grows,
//   dM / db = -b integral of (k'(p.x - x) k(p.y - y) n.x + k(p.x - x) k'(p.y - y) n.y) ds       (heat equation),
//   M(p) - M(p - (1, 0)) = -integral of (S(p.x - x) - S(p.x - 1 - x)) k(p.y - y) n.x ds         (S: integral of k).
// The integrand is smooth and periodic, so equal steps of the rim's parameter are as good as exact once they are
// shorter than the blur (trapezoidal rule). Each step reaches only pixels within a few blurs.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune::refinement {

/// How far a rim's blur is followed, in standard deviations of blur and pixel together. What is cut off there is below
/// 2e-4 of the step, and gone by twice the distance.
inline constexpr double kReach = 3.7;

/// Least and largest blur, px: below, no image tells it from none; above, a marker is a smear.
inline constexpr double kLeastBlur = 0.2, kLargestBlur = 8;

/// Standard deviation of blur and the pixel's square together, px.
inline double totalBlur(double blur) {
    return std::sqrt(blur * blur + 1.0 / 12);
}

/// Derivatives of M by centre x, centre y, s, e1, e2 and blur, and M itself by its steps along the row.
struct DiscPixel {
    float x, y, s, e1, e2, blur;
    float step;   ///< M less that of the pixel to the left
    float spare;  ///< 0
};

/// Pixels that the largest blur reaches, with what vectors read beyond.
inline constexpr int kLongestKernel = 2 * 31 + 16;

/// k, its slope and the steps of S along one axis, for the pixels about a point.
struct DiscKernel {
    float k[kLongestKernel], slope[kLongestKernel], step[kLongestKernel];
};

/// The kernels of points anywhere between two pixels: a table whose steps are so small that a straight line from row to
/// row is right to 1e-5.
struct DiscKernels {
    static constexpr int kRows = 64;
    std::array<DiscKernel, kRows + 1> rows{};
    double blur = 0, reach = 0;  ///< px; reach to both sides
    int count = 0;               ///< pixels

    void fill(double newBlur, double newReach);
};

/// Scratch storage for the images of discs in one box of pixels.
class DiscImage {
  public:
    /// Takes a box of the image; all is 0.
    void reset(const cv::Rect& box);
    const cv::Rect& box() const { return box_; }

    /// Adds the image of a disc.
    ///
    /// @param ellipse  px of the image; minor half axis above 0
    /// @param blur     px, `kLeastBlur` to `kLargestBlur`
    /// @returns false, with nothing added, where the reach of the rim leaves the box.
    bool add(const geometry::SmoothEllipse& ellipse, double blur);

    /// Row of the image, from the box's first column on.
    const DiscPixel* row(int y) const {
        return &pixels_[static_cast<std::size_t>(y - box_.y) * static_cast<std::size_t>(box_.width)];
    }

  private:
    cv::Rect box_;
    std::vector<DiscPixel> pixels_;
    DiscKernels kernels_;
};

}  // namespace kestrune::refinement
