// SPDX-License-Identifier: Apache-2.0
//
// Images of discs whose every pixel is known to far below a grey level, before noise. Nothing of the library, nor of
// the renderer of the tests, takes part: what they assume about the image of a disc is to be judged by this.
//
// A flat area of any outline, blurred by a Gaussian and integrated over square pixels, is an integral along its outline
// (Green's theorem): both kernels are products of one in x and one in y, and the one in x has an integral in closed
// form. On a smooth closed curve the sum over equal steps of the parameter converges faster than any power of the step.
#pragma once

#include <array>
#include <cmath>
#include <opencv2/core.hpp>
#include <optional>
#include <random>
#include <vector>

namespace kestrune::bench {

/// z(u) = centre + s exp(iu) + e exp(-iu) as complex numbers: half axes s +- |e|, the major one at half the angle of e.
struct Ellipse {
    double x = 0, y = 0, s = 0, e1 = 0, e2 = 0;  ///< px

    static Ellipse of(const cv::Point2d& centre, double major, double minor, double angle) {
        const double d = 0.5 * (major - minor);
        return {centre.x, centre.y, 0.5 * (major + minor), d * std::cos(2 * angle), d * std::sin(2 * angle)};
    }
    cv::Point2d centre() const { return {x, y}; }
    double major() const { return s + std::hypot(e1, e2); }
    double minor() const { return s - std::hypot(e1, e2); }
    double angle() const { return 0.5 * std::atan2(e2, e1); }  ///< radians
    cv::Point2d at(double u) const {
        const double c = std::cos(u), d = std::sin(u);
        return {x + (s + e1) * c + e2 * d, y + e2 * c + (s - e1) * d};
    }
    cv::Point2d derivativeAt(double u) const {
        const double c = std::cos(u), d = std::sin(u);
        return {-(s + e1) * d + e2 * c, -e2 * d + (s - e1) * c};
    }
};

/// The half plane normal . p > distance.
struct HalfPlane {
    cv::Point2d normal;
    double distance = 0;
};

/// Barrel or pincushion distortion of the first order: what stands at p is seen at lens(p). Pixels both.
struct Lens {
    double k1 = 0, focal = 1;
    cv::Point2d middle;

    cv::Point2d operator()(const cv::Point2d& p) const;
    cv::Matx22d jacobian(const cv::Point2d& p) const;
    cv::Point2d inverse(const cv::Point2d& q) const;
};

/// An outline as terms of the sum along it.
struct OutlineStep {
    double x, y, dy;
};
using Outline = std::vector<OutlineStep>;

/// Of an ellipse without the part in `covered`, seen through `lens`, in steps that a Gaussian of `blur` px allows.
Outline outlineOf(const Ellipse& ellipse, const std::optional<HalfPlane>& covered, const std::optional<Lens>& lens,
                  double blur);

/// Of a polygon, counterclockwise if y were up.
Outline outlineOf(const std::vector<cv::Point2d>& polygon, double blur);

/// How far from an outline pixels know of it, px.
double reachOf(double blur);

/// Adds `amount` times the share of each pixel of `image` that the area covers once it is blurred. The first pixel of
/// `image` is pixel `origin`; pixel (0, 0) has its centre at the origin of coordinates.
void addArea(cv::Mat1d& image, const cv::Point& origin, const Outline& outline, double blur, double amount);

/// The lens's point spread: a Gaussian and a share of light that is spread three times as wide.
struct Blur {
    double sigma = 1;  ///< px
    double halo = 0;

    double widest() const { return halo > 0 ? 3 * sigma : sigma; }
};
void addArea(cv::Mat1d& image, const cv::Point& origin, const Outline& outline, const Blur& blur, double amount);

/// Factor by which the light at a pixel differs from that at the middle of the image.
struct Light {
    cv::Point2d middle, slope;  ///< px; 1/px
    double bowl = 0;            ///< 1/px^2, falls off to all sides

    double operator()(double x, double y) const {
        const cv::Point2d d = cv::Point2d(x, y) - middle;
        return 1 + slope.dot(d) - bowl * d.dot(d);
    }
};

/// Noise of a pixel: its variance grows with the signal.
struct Noise {
    double sigma = 0;  ///< in the dark, grey levels
    double shot = 0;   ///< variance for each grey level, grey levels

    double variance(double level) const { return sigma * sigma + shot * level; }
};

/// The mean image with noise, in whole grey levels (8 bits) or in 256ths of them (16 bits).
cv::Mat exposed(const cv::Mat1d& mean, const Noise& noise, int bits, std::mt19937_64& random);

}  // namespace kestrune::bench
