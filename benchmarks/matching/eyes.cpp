// SPDX-License-Identifier: Apache-2.0
#include "eyes.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <complex>
#include <limits>
#include <optional>

#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune::bench {
namespace {

using geometry::SmoothEllipse;
using Matrix5 = Eigen::Matrix<double, 5, 5>;
using Vector5 = Eigen::Matrix<double, 5, 1>;

constexpr double kGrazing = 0.17;       ///< cosine between normal and view below which nothing is found
constexpr double kLeastHalfAxis = 1.5;  ///< px
constexpr double kGap = 1.5;            ///< px between the rims of two markers that are found as two
constexpr int kRimSteps = 64;           ///< of the sum over a rim
constexpr double kOutlierShare = 0.02;
constexpr int kFalseTries = 50;  ///< to place one beside the others

// Grey levels of refined markers. Eyes differ in exposure, and paper shines differently into each.
constexpr double kBright = 200, kDark = 40, kLevelSigma = 1, kBlur = 0.8, kBlurSigma = 0.05;
constexpr double kEyeGain = 0.1, kMarkerGain = 0.03;
constexpr double kFalseDiffers = 0.5;  ///< of the false ones: levels of any kind

std::optional<SmoothEllipse> imageOf(const scene::PinholeCamera& camera, const scene::Disc& disc) {
    const scene::EllipseTruth truth = scene::projectDisc(camera, disc);
    const cv::Vec3d centre = camera.rotation * disc.centre + camera.translation;
    const double facing = -(camera.rotation * disc.normal).dot(cv::normalize(centre));
    if (!truth.visible || facing < kGrazing || truth.minorHalfAxis < kLeastHalfAxis) return {};
    return SmoothEllipse::of(truth.centre, truth.majorHalfAxis, truth.minorHalfAxis, truth.angle);
}

double gapOf(const SmoothEllipse& a, const SmoothEllipse& b) {
    return std::hypot(a.x - b.x, a.y - b.y) - a.majorHalfAxis() - b.majorHalfAxis();
}

/// Covariance of the five numbers where each piece of the rim is known across itself with the same density, scaled to
/// `sigma` for a coordinate of the centre.
Matrix5 covarianceOf(const SmoothEllipse& ellipse, double sigma) {
    const std::complex<double> e(ellipse.e1, ellipse.e2);
    Matrix5 information = Matrix5::Zero();
    for (int k = 0; k < kRimSteps; ++k) {
        const std::complex<double> turn = std::polar(1., 2 * CV_PI * k / kRimSteps), back = std::conj(turn);
        const std::complex<double> outwards = ellipse.s * turn - e * back;
        const double length = std::abs(outwards);
        const std::complex<double> across = std::conj(outwards) / length;
        Vector5 g;
        g << across.real(), -across.imag(), (across * turn).real(), (across * back).real(), -(across * back).imag();
        information += length * g * g.transpose();
    }
    const Matrix5 shape = information.inverse();
    return shape * (2 * sigma * sigma / (shape(0, 0) + shape(1, 1)));
}

double sigmaOf(const SceneKind& kind, Draws& draws) {
    const double spread = std::sqrt(kind.noiseSpread);
    return kind.noise * (spread > 1 ? draws.logUniform(1 / spread, spread) : 1);
}

void setLevels(MarkerEstimate& estimate, double inside, double outside, Draws& draws) {
    estimate.status = RefinementStatus::refined;
    estimate.inside = inside * (1 + draws.normal(kMarkerGain)) + draws.normal(kLevelSigma);
    estimate.outside = outside * (1 + draws.normal(kMarkerGain)) + draws.normal(kLevelSigma);
    estimate.blur = kBlur + draws.normal(kBlurSigma);
    estimate.noise = 2;
    estimate.residual = 1;
    estimate.pixels = static_cast<int>(40 * estimate.majorHalfAxis);
    estimate.covariance(5, 5) = estimate.covariance(6, 6) = kLevelSigma * kLevelSigma;
    estimate.covariance(7, 7) = kBlurSigma * kBlurSigma;
}

void setNoLevels(MarkerEstimate& estimate) {
    estimate.status = RefinementStatus::notConverged;
    estimate.inside = estimate.outside = estimate.blur = estimate.noise = estimate.residual =
        std::numeric_limits<double>::quiet_NaN();
}

/// Nothing where the noise leaves no ellipse.
std::optional<MarkerEstimate> measured(const SmoothEllipse& ellipse, const SceneKind& kind, Draws& draws) {
    const Matrix5 covariance = covarianceOf(ellipse, sigmaOf(kind, draws));
    const Eigen::LLT<Matrix5> root(covariance);
    Vector5 whitened, off = Vector5::Zero();
    for (double& value : whitened) value = draws.normal();
    if (kind.trouble == Trouble::outliers && draws.chance(kOutlierShare)) {
        for (double& value : off) value = draws.normal();
        whitened += kind.factor * off.normalized();
    }
    const Vector5 error = root.matrixL() * whitened;
    const SmoothEllipse noisy{ellipse.x + error[0], ellipse.y + error[1], ellipse.s + error[2], ellipse.e1 + error[3],
                              ellipse.e2 + error[4]};
    if (noisy.minorHalfAxis() < 0.5 * kLeastHalfAxis) return {};
    MarkerEstimate estimate;
    estimate.centre = {noisy.x, noisy.y};
    estimate.majorHalfAxis = noisy.majorHalfAxis();
    estimate.minorHalfAxis = noisy.minorHalfAxis();
    estimate.angle = noisy.angle();
    const double told = kind.trouble == Trouble::sigmas ? kind.factor : 1;
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 5; ++c) estimate.covariance(r, c) = told * told * covariance(r, c);
    return estimate;
}

/// Half of them of any size and shape, half of those of true markers.
SmoothEllipse falseShape(const std::vector<SmoothEllipse>& like, Draws& draws) {
    if (!like.empty() && draws.chance(0.5))
        return like[static_cast<std::size_t>(draws.whole(0, static_cast<int>(like.size()) - 1))];
    const double major = draws.logUniform(4, 25);
    return SmoothEllipse::of({}, major, std::max(kLeastHalfAxis, major * draws.uniform(0.4, 1)), draws.angle());
}

cv::Rect2d fieldOf(const SceneKind& kind, const scene::PinholeCamera& camera, const std::vector<SmoothEllipse>& seen) {
    const cv::Rect2d image(20, 20, camera.size.width - 40, camera.size.height - 40);
    if (!kind.falseNear || seen.size() < 3) return image;
    cv::Point2d low(seen[0].x, seen[0].y), high = low;
    for (const SmoothEllipse& one : seen) {
        low = {std::min(low.x, one.x), std::min(low.y, one.y)};
        high = {std::max(high.x, one.x), std::max(high.y, one.y)};
    }
    const cv::Point2d margin = 0.05 * (high - low) + cv::Point2d(20, 20);
    return cv::Rect2d(low - margin, high + margin) & image;
}

std::vector<SmoothEllipse> falseOnes(const SceneKind& kind, const scene::PinholeCamera& camera,
                                     const std::vector<SmoothEllipse>& seen, Draws& draws) {
    const cv::Rect2d field = fieldOf(kind, camera, seen);
    const auto count =
        static_cast<std::size_t>(kind.falseShare * static_cast<double>(seen.size()) + draws.uniform(0, 1));
    std::vector<SmoothEllipse> all = seen;
    for (std::size_t k = 0; k < count; ++k) {
        SmoothEllipse one = falseShape(seen, draws);
        for (int tries = kFalseTries; tries > 0; --tries) {
            one.x = draws.uniform(field.x, field.x + field.width);
            one.y = draws.uniform(field.y, field.y + field.height);
            if (std::any_of(all.begin(), all.end(),
                            [&](const SmoothEllipse& other) { return gapOf(one, other) < kGap; }))
                continue;
            all.push_back(one);
            break;
        }
    }
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(seen.size()));
    return all;
}

}  // namespace

std::vector<int> visibleDiscs(const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs) {
    std::vector<std::optional<SmoothEllipse>> images;
    for (const scene::Disc& disc : discs) images.push_back(imageOf(camera, disc));
    const auto distance = [&](std::size_t k) {
        return cv::norm(camera.rotation * discs[k].centre + camera.translation);
    };
    std::vector<int> visible;
    for (std::size_t k = 0; k < discs.size(); ++k) {
        if (!images[k]) continue;
        const auto isCovered = [&](std::size_t other) {
            return other != k && images[other] && gapOf(*images[k], *images[other]) < kGap &&
                   distance(other) < distance(k);
        };
        bool covered = false;
        for (std::size_t other = 0; other < discs.size() && !covered; ++other) covered = isCovered(other);
        if (!covered) visible.push_back(static_cast<int>(k));
    }
    return visible;
}

void hide(std::vector<int>& seen, const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs,
          double share, bool inOnePlace, Draws& draws) {
    if (!inOnePlace) {
        std::erase_if(seen, [&](int) { return draws.chance(share); });
        return;
    }
    // Something stands before it: what lies farthest to one side.
    const double angle = draws.angle();
    const auto along = [&](int k) {
        const cv::Point2d p = scene::projectPoint(camera, discs[static_cast<std::size_t>(k)].centre);
        return p.x * std::cos(angle) + p.y * std::sin(angle);
    };
    std::vector<int> ordered = seen;
    std::sort(ordered.begin(), ordered.end(), [&](int a, int b) { return along(a) < along(b); });
    ordered.resize(static_cast<std::size_t>(std::lround((1 - share) * static_cast<double>(seen.size()))));
    std::sort(ordered.begin(), ordered.end());
    seen = ordered;
}

Sight look(const SceneKind& kind, const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs,
           const std::vector<int>& seen, Draws& draws) {
    const double gain = 1 + draws.uniform(-kEyeGain, kEyeGain);
    const double inside = gain * (kind.dark ? kDark : kBright), outside = gain * (kind.dark ? kBright : kDark);
    std::vector<std::pair<SmoothEllipse, int>> shown;
    std::vector<SmoothEllipse> ellipses;
    for (const int k : seen)
        if (const auto image = imageOf(camera, discs[static_cast<std::size_t>(k)])) {
            ellipses.push_back(*image);
            shown.emplace_back(*image, k);
        }
    for (const SmoothEllipse& one : falseOnes(kind, camera, ellipses, draws)) shown.emplace_back(one, -1);
    std::shuffle(shown.begin(), shown.end(), draws.generator());
    Sight sight;
    for (const auto& [ellipse, number] : shown) {
        auto estimate = measured(ellipse, kind, draws);
        if (!estimate) continue;
        if (!kind.levels)
            setNoLevels(*estimate);
        else if (number < 0 && draws.chance(kFalseDiffers))
            setLevels(*estimate, draws.uniform(10, 240), draws.uniform(10, 240), draws);
        else
            setLevels(*estimate, inside, outside, draws);
        sight.markers.push_back(*estimate);
        sight.identity.push_back(number);
    }
    return sight;
}

}  // namespace kestrune::bench
