// SPDX-License-Identifier: Apache-2.0
//
// What pixels far from a rim tell of a level and of the light, gathered once: there the model is linear, so that a fit
// needs sums of the pixels only, never the pixels again.
#pragma once

#include <Eigen/Core>
#include <array>

namespace kestrune::refinement {

/// Light across a marker: L = 1 + g . (u, v, u^2, u v, v^2), with u, v the pixel's place from the middle of the window
/// in units of its size.
inline constexpr int kLightTerms = 5;
using LightTerms = Eigen::Matrix<double, 1 + kLightTerms, 1>;  ///< 1, u, v, u^2, u v, v^2

inline LightTerms lightTerms(double u, double v) {
    return (LightTerms() << 1, u, v, u * u, u * v, v * v).finished();
}

/// Number of terms beyond the constant of a polynomial of this degree, 0 to 2.
inline constexpr int termsOfDegree(int degree) {
    return degree == 0 ? 0 : degree == 1 ? 2 : kLightTerms;
}

/// Where u and v begin, and their unit.
struct LightFrame {
    int x = 0, y = 0;     ///< px of the image
    double perPixel = 1;  ///< 1 / unit, 1 / px
};

/// Sums over pixels of one level.
struct FlatSums {
    double count = 0;
    Eigen::Matrix<double, 6, 6> terms = Eigen::Matrix<double, 6, 6>::Zero();  ///< of p p^T, p: `LightTerms`
    LightTerms grey = LightTerms::Zero();                                     ///< of p I
    double greySquared = 0;                                                   ///< of I^2, with I less `reference`
    double level() const { return grey[0] / count; }
    /// Variance of the pixels about the best light of degree 2; not to be asked for below 12 pixels.
    double variance() const;
};

/// Gathers runs of pixels along rows.
class FlatMoments {
  public:
    /// @param reference  a grey level near all pixels: sums are those of the difference, for their digits
    void reset(const LightFrame& frame, double reference);
    /// @param grey  of `count` pixels from (x, y) on
    void add(int x, int y, int count, const float* grey);
    FlatSums sums() const;

  private:
    LightFrame frame_;
    double reference_ = 0;
    std::array<std::array<double, 5>, 5> powers_{};  // [i][j]: of X^i Y^j, in pixels from the frame's middle
    std::array<double, 6> grey_{};                   // I, I X, I Y, I X^2, I X Y, I Y^2
    double greySquared_ = 0;
};

}  // namespace kestrune::refinement
