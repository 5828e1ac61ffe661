// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_image.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include "refinement/lanes.h"

namespace kestrune::refinement {
namespace {

// A step of the rim in blurs, and of the pixel's square where there is hardly any blur: the error of the trapezoidal
// rule is exp(-2 pi^2 / 1.2^2), 1e-6.
constexpr double kStep = 1.2;
constexpr int kFewestSteps = 24;  // the rim itself must be followed, too

// Pixels that the largest blur reaches, with what vectors read beyond.
constexpr int kLongest = 2 * 31 + 2 * kLanes;

/// k, k' and the steps of S along one axis, for the pixels from `first` on.
struct Kernel {
    int first = 0;
    float k[kLongest], slope[kLongest], step[kLongest];
};

/// Phi, phi and the integral of Phi of u_i = u + i du.
struct NormalIntegrals {
    float density[kLongest], phi[kLongest], integral[kLongest];

    void fill(float u, float du, int count) {
        const Lanes offsets = {0, 1, 2, 3};
        for (int i = 0; i < count; i += kLanes) {
            const Lanes at = all(u) + (all(static_cast<float>(i)) + offsets) * all(du);
            const Lanes e = exponential(all(-0.5F) * at * at);
            const IntLanes negative = at < all(0);
            const Lanes z = negative ? -at : at;
            // Abramowitz and Stegun 7.1.26 (1.5e-7), with z for sqrt(2) times theirs.
            const Lanes t = all(1) / (all(1) + all(0.3275911F * 0.70710678F) * z);
            const Lanes poly =
                ((((all(1.061405429F) * t - all(1.453152027F)) * t + all(1.421413741F)) * t - all(0.284496736F)) * t +
                 all(0.254829592F)) *
                t;
            const Lanes tail = all(0.5F) * poly * e;
            const Lanes f = negative ? tail : all(1) - tail;
            const Lanes d = e * all(0.39894228F);
            store(density + i, d);
            store(phi + i, f);
            store(integral + i, at * f + d);
        }
    }
};

/// @param centre  of the kernel, px
/// @param count   pixels
void fillKernel(Kernel& kernel, double centre, double reach, int count, float blur) {
    NormalIntegrals n;
    kernel.first = static_cast<int>(std::ceil(centre - reach));
    const float perBlur = 1 / blur;
    // Edges of the pixels, from the left edge of the one before the first.
    n.fill(static_cast<float>(kernel.first - 1.5 - centre) * perBlur, perBlur, count + 2);
    // What is cut off is shared among the rest, so that a marker's middle is 1.
    const float whole = 1 / (n.phi[count + 1] - n.phi[1]);
    float before = 0;
    for (int i = 0; i < count; ++i) {
        kernel.k[i] = (n.phi[i + 2] - n.phi[i + 1]) * whole;
        kernel.slope[i] = (n.density[i + 2] - n.density[i + 1]) * perBlur;
        const float s = i + 1 < count ? (n.integral[i + 2] - n.integral[i + 1]) * blur : 1;
        kernel.step[i] = s - before;
        before = s;
    }
}

}  // namespace

void DiscImage::reset(const cv::Rect& box) {
    box_ = box;
    pixels_.assign(static_cast<std::size_t>(box.area()), DiscPixel{});
}

bool DiscImage::add(const geometry::SmoothEllipse& ellipse, double blur) {
    const double reach = kReach * totalBlur(blur);
    const int count = static_cast<int>(2 * reach) + 1;
    const double halfWidth = std::hypot(ellipse.s + ellipse.e1, ellipse.e2);
    const double halfHeight = std::hypot(ellipse.s - ellipse.e1, ellipse.e2);
    if (!(ellipse.x - halfWidth - reach - 1 >= box_.x && ellipse.x + halfWidth + reach + 1 <= box_.br().x - 1 &&
          ellipse.y - halfHeight - reach - 1 >= box_.y && ellipse.y + halfHeight + reach + 1 <= box_.br().y - 1))
        return false;

    const double longest = kStep * std::max(blur, 0.5);
    const int steps =
        std::max(kFewestSteps, static_cast<int>(std::ceil(2 * std::numbers::pi * ellipse.majorHalfAxis() / longest)));
    const double dt = 2 * std::numbers::pi / steps;
    Kernel kx, ky;
    const std::complex<double> turn(std::cos(dt), std::sin(dt));
    std::complex<double> at(1, 0);
    const auto b = static_cast<float>(blur);
    for (int i = 0; i < steps; ++i, at *= turn) {
        const double c = at.real(), d = at.imag();
        const double x = ellipse.x + (ellipse.s + ellipse.e1) * c + ellipse.e2 * d;
        const double y = ellipse.y + (ellipse.s - ellipse.e1) * d + ellipse.e2 * c;
        const double nx = ((ellipse.s - ellipse.e1) * c - ellipse.e2 * d) * dt;  // of the normal, times the step
        const double ny = ((ellipse.s + ellipse.e1) * d - ellipse.e2 * c) * dt;
        fillKernel(kx, x, reach, count, b);
        fillKernel(ky, y, reach, count, b);
        const Lanes move = {static_cast<float>(nx), static_cast<float>(ny), static_cast<float>(c * nx + d * ny),
                            static_cast<float>(c * nx - d * ny)};
        const auto turned = static_cast<float>(d * nx + c * ny);
        const auto nxf = static_cast<float>(nx), nyf = static_cast<float>(ny);
        for (int j = 0; j < count; ++j) {
            float* to = &row(ky.first + j)[kx.first - box_.x].x;
            const Lanes first = all(ky.k[j]) * move;
            const Lanes second = {ky.k[j] * turned, -b * ky.slope[j] * nyf, 0, 0};
            const Lanes third = {0, -b * ky.k[j] * nxf, -ky.k[j] * nxf, 0};
            for (int k = 0; k < count; ++k, to += 8) {
                const Lanes kk = all(kx.k[k]);
                const Lanes other = {0, kx.slope[k], kx.step[k], 0};
                store(to, load(to) + kk * first);
                store(to + 4, load(to + 4) + (kk * second + other * third));
            }
        }
    }
    return true;
}

}  // namespace kestrune::refinement
