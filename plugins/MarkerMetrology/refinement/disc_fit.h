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
#include "refinement/rim_pixels.h"

namespace kestrune::refinement {

/// No rim is drawn of a shorter half axis, px.
inline constexpr double kThinnestRim = 0.5;

/// What the pixels say of a model: the normal equations of its unknowns, in units of the noise.
struct NormalEquations {
    Eigen::Matrix<double, kUnknowns, kUnknowns> matrix = Eigen::Matrix<double, kUnknowns, kUnknowns>::Zero();
    Eigen::Matrix<double, kUnknowns, 1> right = Eigen::Matrix<double, kUnknowns, 1>::Zero();
    double cost = 0;     ///< sum of squared residuals, all pixels
    double rimCost = 0;  ///< of the pixels about the rim
    double told = 0;     ///< cost that a right model leaves: number of pixels, less what the image cuts off of noise
    double rimTold = 0;  ///< of the pixels about the rim
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
        cv::Vec2d limits;           ///< least and largest level of the image, which cut its light off
        std::vector<float> others;  ///< light of other markers at the window's rim pixels, grey levels; empty for none
    };

    /// @param window  about the start
    /// @param record  the ellipse of the marker's record
    Outcome fit(const MarkerWindow& window, const geometry::SmoothEllipse& record, const DiscModel& start,
                const Knowledge& known);

    /// Fills residuals and levels of a model as it is. @returns false where it leaves the window.
    bool look(const MarkerWindow& window, const DiscModel& model, const Knowledge& known);

    /// The rim's pixels as they were looked at last.
    const RimPixels& rim() const { return rim_; }

  private:
    bool draw(const MarkerWindow& window, const DiscModel& model);
    void evaluate(const MarkerWindow& window, const DiscModel& model, int unknowns, NormalEquations& equations);
    /// With all that is known beside the pixels. @returns false where a number is beyond all bounds.
    bool evaluateAll(const MarkerWindow& window, const geometry::SmoothEllipse& record, const Knowledge& known,
                     const DiscModel& model, NormalEquations& equations);
    NormalEquations allEquations(const MarkerWindow& window, const DiscModel& model);
    void addFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                 NormalEquations& equations) const;
    void addClippedFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                        NormalEquations& equations) const;
    void weigh(const DiscModel& model, const NoiseModel& noise);

    DiscImage image_;
    RimPixels rim_;
    cv::Vec2d limits_;
    double insideWeight_ = 1, outsideWeight_ = 1;
};

}  // namespace kestrune::refinement
