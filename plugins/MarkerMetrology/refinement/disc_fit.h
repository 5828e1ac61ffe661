// SPDX-License-Identifier: Apache-2.0
//
// Least squares of a disc's image on the grey levels about its rim:
//   I(p) = L(p) (outside + (inside - outside) M(p)) + noise,   L(p) = 1 + g . (u, v, u^2, u v, v^2),
// with M the blurred disc of `disc_image.h`, and noise whose variance is a straight line over the grey level.
// Gauss-Newton with Levenberg's damping where a step does not help.
#pragma once

#include <Eigen/Core>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/disc_image.h"
#include "refinement/light_prior.h"
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

/// What the pixels say of a model: the normal equations of its unknowns, in units of the noise.
struct NormalEquations {
    Eigen::Matrix<double, kUnknowns, kUnknowns> matrix = Eigen::Matrix<double, kUnknowns, kUnknowns>::Zero();
    Eigen::Matrix<double, kUnknowns, 1> right = Eigen::Matrix<double, kUnknowns, 1>::Zero();
    double cost = 0;     ///< sum of squared residuals, all pixels
    double rimCost = 0;  ///< of the pixels about the rim
};

/// Scratch storage of a fit; one for each thread.
class DiscFit {
  public:
    struct Outcome {
        bool converged = false;
        DiscModel model;
        NormalEquations equations;  ///< at the last model that was evaluated, a small step before the end
        int evaluations = 0;
        LightEvidence light;  ///< of a fit in even light
    };

    /// What is known beside the window.
    struct Knowledge {
        NoiseModel noise;
        LightPrior light;           ///< what the light's polynomial is drawn from; even light where it is none
        cv::Vec2d limits;           ///< least and largest level of the image: a pixel there says no more than "beyond"
        std::vector<float> others;  ///< light of other markers at the window's rim pixels, grey levels; empty for none
    };

    /// @param window  about the start
    /// @param record  the ellipse of the marker's record
    Outcome fit(const MarkerWindow& window, const geometry::SmoothEllipse& record, const DiscModel& start,
                const Knowledge& known);

    /// Fills residuals and levels of a model as it is. @returns false where it leaves the window.
    bool look(const MarkerWindow& window, const DiscModel& model, const Knowledge& known);

    /// Residuals of the last evaluation and the model's grey levels, at the window's rim pixels; in units of the noise
    /// and grey levels.
    const float* residuals() const { return residual_.data(); }
    const float* levels() const { return level_.data(); }

  private:
    void begin(const MarkerWindow& window, const Knowledge& known);
    bool evaluate(const MarkerWindow& window, const DiscModel& model, NormalEquations& equations);
    void prepareRim(const MarkerWindow& window, const DiscModel& model);
    void addRim(NormalEquations& equations) const;
    void addFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                 NormalEquations& equations) const;
    void weigh(const MarkerWindow& window, const DiscModel& model, const NoiseModel& noise);

    DiscImage image_;
    std::vector<float> columns_[kUnknowns];  // derivatives at the rim's pixels, in units of the noise
    std::vector<float> weight_, residual_, level_;
    std::vector<float> others_;
    cv::Vec2d limits_;
    double insideWeight_ = 0, outsideWeight_ = 0;
};

}  // namespace kestrune::refinement
