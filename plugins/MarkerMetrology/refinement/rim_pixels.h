// SPDX-License-Identifier: Apache-2.0
//
// The pixels about a rim as columns: what each of them says of each unknown, and the sums of products that normal
// equations are made of.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/disc_image.h"
#include "refinement/flat_moments.h"
#include "refinement/marker_window.h"
#include "refinement/noise_model.h"

namespace kestrune::refinement {

/// Places of the unknowns.
enum Unknown { kX, kY, kS, kE1, kE2, kBlur, kIn, kOut, kLight, kUnknowns = kLight + kLightTerms };

/// A disc in an image.
struct DiscModel {
    geometry::SmoothEllipse ellipse;
    double blur = 0;                          ///< px
    double inside = 0, outside = 0;           ///< grey levels where the light is 1
    std::array<double, kLightTerms> light{};  ///< g
    int lightDegree = 0;                      ///< beyond it g is 0

    double contrast() const { return inside - outside; }
};

class RimPixels {
  public:
    /// Takes the window's pixels, each with the weight 1.
    ///
    /// @param others  light of other markers at them, grey levels; empty for none
    /// @param limits  least and largest level of the image, which cut its light off
    void take(const MarkerWindow& window, const std::vector<float>& others, const cv::Vec2d& limits);

    /// Takes the image of a disc at the pixels.
    void draw(const MarkerWindow& window, const DiscImage& image);

    /// Weighs each pixel by the noise at its level in the drawn disc.
    void weigh(const DiscModel& model, const NoiseModel& noise);

    /// Residuals and derivatives of the drawn disc, in units of the noise.
    ///
    /// @param unknowns  that are wanted: `kLight` or more
    void fillColumns(const DiscModel& model, int unknowns);

    /// Sum of the products of two columns, of one with the residuals, and of the squared residuals.
    double product(int a, int b) const { return dot(column(a), column(b)); }
    double residualProduct(int a) const { return dot(column(a), residual_.data()); }
    double residualSquares() const { return dot(residual_.data(), residual_.data()); }

    const float* residuals() const { return residual_.data(); }  ///< in units of the noise
    const float* levels() const { return level_.data(); }        ///< of the model, grey levels; not cut off
    /// Whether any pixel of the window is at a limit of the image.
    bool isClipped() const { return isClipped_; }
    /// Pixels, less what is cut off of their noise: the sum of squared residuals that a right model leaves.
    double told() const { return told_; }

  private:
    const float* column(int a) const { return columns_[static_cast<std::size_t>(a)].data(); }
    double dot(const float* a, const float* b) const;

    void clip(int unknowns);

    int count_ = 0, padded_ = 0;
    cv::Vec2d limits_;
    bool isClipped_ = false;
    double told_ = 0;
    const float *u_ = nullptr, *v_ = nullptr;
    std::vector<float> grey_, others_, weight_, residual_, level_;
    std::array<std::vector<float>, 7> drawn_;  // M, and its derivatives in the order of `DiscPixel`
    std::array<std::vector<float>, kUnknowns> columns_;
};

}  // namespace kestrune::refinement
