// SPDX-License-Identifier: Apache-2.0
#include "refinement/lens.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <optional>

#include "kestrune/MarkerMetrology/refinement.h"
#include "refinement/lens_model.h"
#include "refinement/rig_check.h"

namespace kestrune {
namespace {

using geometry::SmoothEllipse;
using RimNumbers = Eigen::Matrix<double, 5, 1>;
using RimMatrix = Eigen::Matrix<double, 5, 5>;

constexpr double kNoEllipse = std::numeric_limits<double>::quiet_NaN();
// Points of a rim. The bent rim has hardly more than the third harmonic; the weight of a rim's parts by their length
// has more for a thin ellipse, but weighs only what no ellipse follows, hundredths of a pixel.
constexpr std::size_t kRimPoints = 24;
// Of these, one in so many is enough for derivatives.
constexpr std::size_t kDerivativeStride = 2;
// A step divides what is left by ten at least where a marker takes a tenth of the field.
constexpr int kMostRimSteps = 12;
constexpr double kLeastRimStep = 1e-4;  // px; what it leaves is a hundredth of it
// After a step of more than this share of the shorter half axis derivatives are taken anew: they are to be those of the
// end, to a quarter of a percent, for the covariance.
constexpr double kRoughStep = 1e-2;

struct Angle {
    double cosine, sine;
};

const std::array<Angle, kRimPoints>& rimAngles() {
    static const auto angles = [] {
        std::array<Angle, kRimPoints> result;
        for (std::size_t k = 0; k < kRimPoints; ++k) {
            const double u = 2 * std::numbers::pi * static_cast<double>(k) / kRimPoints;
            result[k] = {std::cos(u), std::sin(u)};
        }
        return result;
    }();
    return angles;
}

cv::Point2d pointOf(const SmoothEllipse& e, const Angle& u) {
    return {e.x + (e.s + e.e1) * u.cosine + e.e2 * u.sine, e.y + (e.s - e.e1) * u.sine + e.e2 * u.cosine};
}

/// How far a point moves along (x, y) with each of the five numbers of its ellipse.
RimNumbers along(double x, double y, const Angle& u) {
    return {x, y, x * u.cosine + y * u.sine, x * u.cosine - y * u.sine, x * u.sine + y * u.cosine};
}

RimNumbers numbersOf(const SmoothEllipse& e) {
    return {e.x, e.y, e.s, e.e1, e.e2};
}
SmoothEllipse ellipseOf(const RimNumbers& v) {
    return {v[0], v[1], v[2], v[3], v[4]};
}

/// The point of an ellipse next to a point close by: the normal there, times the speed of the rim, and the distance
/// times the same speed.
struct Foot {
    Angle at;
    double normalX, normalY, inverseSpeed, offset;
};

struct Rim {
    explicit Rim(const SmoothEllipse& ellipse)
        : e(ellipse), area(e.s * e.s - e.e1 * e.e1 - e.e2 * e.e2), inverse(1 / area) {}

    Foot footOf(double px, double py) const {
        const double dx = px - e.x, dy = py - e.y;
        const double c = inverse * ((e.s - e.e1) * dx - e.e2 * dy), d = inverse * ((e.s + e.e1) * dy - e.e2 * dx);
        const double length = std::sqrt(c * c + d * d);
        const Angle at{c / length, d / length};
        const double nx = (e.s - e.e1) * at.cosine - e.e2 * at.sine, ny = (e.s + e.e1) * at.sine - e.e2 * at.cosine;
        return {at, nx, ny, 1 / std::sqrt(nx * nx + ny * ny), (length - 1) * area};
    }

    SmoothEllipse e;
    double area, inverse;  ///< product of the half axes
};

/// Sums over the rim of an ellipse behind the lens, seen from another ellipse: least squares of normal distances.
struct Sums {
    RimNumbers offsets = RimNumbers::Zero();
    RimMatrix behind = RimMatrix::Zero();  ///< normal matrix of the ellipse behind the lens
    RimMatrix before = RimMatrix::Zero();  ///< how the offsets' sums change with the ellipse before it
};

bool addOffsets(const LensModel& lens, const SmoothEllipse& before, const Rim& behind, RimNumbers& offsets) {
    for (const Angle& u : rimAngles()) {
        const cv::Point2d p = lens.distortedPixel(pointOf(before, u));
        const Foot foot = behind.footOf(p.x, p.y);
        offsets += (foot.offset * foot.inverseSpeed) * along(foot.normalX, foot.normalY, foot.at);
    }
    return offsets.allFinite();
}

bool addAll(const LensModel& lens, const SmoothEllipse& before, const Rim& behind, Sums& sums) {
    const auto& angles = rimAngles();
    for (std::size_t k = 0; k < kRimPoints; k += kDerivativeStride) {
        const Angle& u = angles[k];
        const LensPoint p = lens.distortedWithDerivatives(pointOf(before, u));
        if (!p.keepsOrder()) return false;
        const Foot foot = behind.footOf(p.x, p.y);
        const RimNumbers mine = along(foot.normalX, foot.normalY, foot.at),
                         weighted = (kDerivativeStride * foot.inverseSpeed) * mine;
        const double x = foot.normalX * p.xx + foot.normalY * p.yx, y = foot.normalX * p.xy + foot.normalY * p.yy;
        sums.offsets += foot.offset * weighted;
        sums.behind += weighted * mine.transpose();
        sums.before += weighted * along(x, y, u).transpose();
    }
    return sums.offsets.allFinite() && sums.before.allFinite();
}

/// The ellipse after a linear map (xx, xy; yx, yy) about its centre, which goes to `centre`. With the map as
/// w -> p w + q conj(w) of complex numbers, s exp(iu) + e exp(-iu) becomes S exp(iu) + E exp(-iu) with S = p s + q
/// conj(e) and E = p e + q s; the phase of S shifts u.
SmoothEllipse mappedBy(const LensPoint& map, const SmoothEllipse& ellipse, const cv::Point2d& centre) {
    const std::complex<double> p(0.5 * (map.xx + map.yy), 0.5 * (map.yx - map.xy));
    const std::complex<double> q(0.5 * (map.xx - map.yy), 0.5 * (map.yx + map.xy));
    const std::complex<double> e(ellipse.e1, ellipse.e2);
    const std::complex<double> large = p * ellipse.s + q * std::conj(e), small = p * e + q * ellipse.s;
    const double s = std::abs(large);
    const std::complex<double> turned = small * large / s;
    return {centre.x, centre.y, s, turned.real(), turned.imag()};
}

bool isEllipse(const SmoothEllipse& e) {
    return e.isFinite() && e.minorHalfAxis() > 0;
}

/// An ellipse before the lens, and the derivative of its five numbers by those of the one behind it.
struct Before {
    SmoothEllipse ellipse;
    RimMatrix derivative;
};

std::optional<Before> before(const SmoothEllipse& behind, const LensModel& lens) {
    const cv::Point2d centre = lens.undistortedPixel({behind.x, behind.y});
    if (!isEllipse(behind) || !lens.isWithinFold(centre)) return std::nullopt;
    const LensPoint map = lens.distortedWithDerivatives(centre);
    const double inverse = 1 / map.determinant();
    const LensPoint back{0, 0, inverse * map.yy, -inverse * map.xy, -inverse * map.yx, inverse * map.xx};
    SmoothEllipse ellipse = mappedBy(back, behind, centre);
    if (!isEllipse(ellipse)) return std::nullopt;

    const Rim rim(behind);
    Eigen::PartialPivLU<RimMatrix> solver;
    Sums sums;
    double moved = ellipse.s;
    for (int step = 0; step < kMostRimSteps; ++step) {
        const bool isRough = moved > kRoughStep * ellipse.minorHalfAxis();
        sums = isRough ? Sums() : Sums{RimNumbers::Zero(), sums.behind, sums.before};
        if (!(isRough ? addAll(lens, ellipse, rim, sums) : addOffsets(lens, ellipse, rim, sums.offsets))) break;
        if (isRough) solver.compute(sums.before);
        const RimNumbers move = solver.solve(sums.offsets);
        ellipse = ellipseOf(numbersOf(ellipse) - move);
        moved = move.lpNorm<Eigen::Infinity>();
        if (!isEllipse(ellipse)) break;
        if (isRough || moved >= kLeastRimStep) continue;
        Before result{ellipse, {}};
        for (int column = 0; column < 5; ++column)
            result.derivative.col(column) = solver.solve(sums.behind.col(column));
        return result;
    }
    return std::nullopt;
}

void setEllipse(MarkerEstimate& estimate, const SmoothEllipse& e) {
    estimate.centre = {e.x, e.y};
    estimate.majorHalfAxis = e.majorHalfAxis();
    estimate.minorHalfAxis = e.minorHalfAxis();
    estimate.angle = e.angle();
}

/// The covariance after the first five numbers went through a linear map. Symmetric to the last bit.
void carry(const RimMatrix& map, cv::Matx<double, 8, 8>& covariance) {
    using Whole = Eigen::Matrix<double, 8, 8, Eigen::RowMajor>;
    Eigen::Map<Whole> matrix(covariance.val);
    const RimMatrix ellipse = matrix.topLeftCorner<5, 5>();
    const RimMatrix carried = map.lazyProduct(ellipse).eval().lazyProduct(map.transpose());
    const Eigen::Matrix<double, 5, 3> cross = map.lazyProduct(matrix.topRightCorner<5, 3>());
    matrix.topLeftCorner<5, 5>() = 0.5 * (carried + carried.transpose());
    matrix.topRightCorner<5, 3>() = cross;
    matrix.bottomLeftCorner<3, 5>() = cross.transpose();
}

}  // namespace

SmoothEllipse distortedEllipse(const SmoothEllipse& undistortedPx, const Camera& camera) {
    requireCamera(camera, "camera");
    const LensModel lens(camera);
    const SmoothEllipse none{kNoEllipse, kNoEllipse, kNoEllipse, kNoEllipse, kNoEllipse};
    if (lens.isIdeal()) return undistortedPx;
    const cv::Point2d centre(undistortedPx.x, undistortedPx.y);
    if (!lens.isWithinFold(centre)) return none;
    if (undistortedPx.s == 0) {
        const cv::Point2d image = lens.distortedPixel(centre);
        return {image.x, image.y, 0, 0, 0};
    }
    if (!isEllipse(undistortedPx)) return none;
    const LensPoint map = lens.distortedWithDerivatives(centre);
    SmoothEllipse behind = mappedBy(map, undistortedPx, {map.x, map.y});
    Sums sums;
    if (!isEllipse(behind) || !addAll(lens, undistortedPx, Rim(behind), sums)) return none;
    const Eigen::PartialPivLU<RimMatrix> solver(sums.behind);
    for (int step = 0; step < kMostRimSteps; ++step) {
        const RimNumbers move = solver.solve(sums.offsets);
        behind = ellipseOf(numbersOf(behind) + move);
        if (!isEllipse(behind)) break;
        if (move.lpNorm<Eigen::Infinity>() < kLeastRimStep) return behind;
        sums.offsets.setZero();
        if (!addOffsets(lens, undistortedPx, Rim(behind), sums.offsets)) break;
    }
    return none;
}

MarkerEstimate undistorted(const MarkerEstimate& estimate, const Camera& camera) {
    requireCamera(camera, "camera");
    const LensModel lens(camera);
    const auto given =
        SmoothEllipse::of(estimate.centre, estimate.majorHalfAxis, estimate.minorHalfAxis, estimate.angle);
    if (lens.isIdeal()) return estimate;
    MarkerEstimate result = estimate;
    if (!isEllipse(given)) {  // a centre is all that such a record has
        result.centre = lens.undistortedPixel(estimate.centre);
        return result;
    }
    const std::optional<Before> found = before(given, lens);
    if (!found) {
        if (estimate.isRefined()) result.status = RefinementStatus::notConverged;
        setEllipse(result, {kNoEllipse, kNoEllipse, kNoEllipse, kNoEllipse, kNoEllipse});
        result.covariance = cv::Matx<double, 8, 8>::all(kNoEllipse);
        return result;
    }
    setEllipse(result, found->ellipse);
    carry(found->derivative, result.covariance);
    return result;
}

}  // namespace kestrune
