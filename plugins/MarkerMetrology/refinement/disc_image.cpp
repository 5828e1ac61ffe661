// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_image.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "refinement/lanes.h"

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

// A step of the rim in blurs, and of the pixel's square where there is hardly any blur: the error of the trapezoidal
// rule is exp(-2 pi^2 / 1.2^2), 1e-6.
constexpr double kRimStep = 1.2;
constexpr double kPixelBlur = 0.5;
constexpr int kFewestSteps = 24;  // the rim itself must be followed, too

/// Phi, phi and the integral of Phi of u_i = u + i du.
struct NormalIntegrals {
    float density[kLongestKernel], phi[kLongestKernel], integral[kLongestKernel];
};

KESTRUNE_BOTH void fillIntegralsBoth(NormalIntegrals& n, float u, float du, int count) {
    const Lanes offsets = {0, 1, 2, 3, 4, 5, 6, 7};
    for (int i = 0; i < count; i += kLanes) {
        const Lanes at = u + (static_cast<float>(i) + offsets) * du;
        Lanes e;
        exponential(-0.5F * at * at, e);
        const IntLanes negative = at < 0;
        const Lanes z = negative ? -at : at;
        // Abramowitz and Stegun 7.1.26 (1.5e-7), with z for sqrt(2) times theirs.
        const Lanes t = 1 / (1 + 0.3275911F * 0.70710678F * z);
        const Lanes poly =
            ((((1.061405429F * t - 1.453152027F) * t + 1.421413741F) * t - 0.284496736F) * t + 0.254829592F) * t;
        const Lanes tail = 0.5F * poly * e;
        const Lanes f = negative ? tail : 1 - tail;
        const Lanes d = e * 0.39894228F;
        store(n.density + i, d);
        store(n.phi + i, f);
        store(n.integral + i, at * f + d);
    }
}
void fillIntegralsAny(NormalIntegrals& n, float u, float du, int count) {
    fillIntegralsBoth(n, u, du, count);
}
KESTRUNE_WIDE void fillIntegralsWide(NormalIntegrals& n, float u, float du, int count) {
    fillIntegralsBoth(n, u, du, count);
}

/// @param first  of the pixels, from the kernel's middle
void fillKernel(DiscKernel& kernel, double first, float blur, int count) {
    NormalIntegrals n;
    const float perBlur = 1 / blur;
    // Edges of the pixels, from the left edge of the one before the first.
    (hasWideLanes() ? fillIntegralsWide : fillIntegralsAny)(n, static_cast<float>(first - 1.5) * perBlur, perBlur,
                                                            count + 2);
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

KESTRUNE_BOTH void between(const float* a, const float* b, float share, int count, float* result) {
    for (int i = 0; i < count; i += kLanes) {
        Lanes from, to;
        load(a + i, from);
        load(b + i, to);
        store(result + i, from + (to - from) * share);
    }
}

/// @returns the first pixel of the kernel about `centre`, px.
KESTRUNE_BOTH int kernelAt(const DiscKernels& kernels, double centre, DiscKernel& kernel) {
    const double first = std::ceil(centre - kernels.reach);
    const double place = (first - (centre - kernels.reach)) * DiscKernels::kRows;
    const int row = std::min(static_cast<int>(place), DiscKernels::kRows - 1);
    const auto share = static_cast<float>(place - row);
    const DiscKernel &a = kernels.rows[static_cast<std::size_t>(row)],
                     &b = kernels.rows[static_cast<std::size_t>(row) + 1];
    between(a.k, b.k, share, kernels.count, kernel.k);
    between(a.slope, b.slope, share, kernels.count, kernel.slope);
    between(a.step, b.step, share, kernels.count, kernel.step);
    return static_cast<int>(first);
}

/// A piece of the rim: its normal n, times its length, where exp(i u) = (c, d) of the rim's parameter.
struct RimPiece {
    float nx, ny, c, d;
};

/// Adds a piece between the pixels of its kernels, of which the first is `to`.
KESTRUNE_BOTH void addPiece(const DiscKernel& kx, const DiscKernel& ky, const DiscKernels& kernels,
                            const RimPiece& piece, DiscPixel* to, int stride) {
    const auto [nx, ny, c, d] = piece;
    const auto blur = static_cast<float>(kernels.blur);
    Lanes spread[kLongestKernel], other[kLongestKernel];
    for (int i = 0; i < kernels.count; ++i) {
        const float k = kx.k[i];
        spread[i] = Lanes{k, k, k, k, k, k, k, k};
        other[i] = Lanes{0, 0, 0, 0, 0, kx.slope[i], kx.step[i], 0};
    }
    const Lanes moves = {nx, ny, c * nx + d * ny, c * nx - d * ny, d * nx + c * ny, 0, 0, 0};
    const Lanes along = {0, 0, 0, 0, 0, -blur * ny, 0, 0}, across = {0, 0, 0, 0, 0, -blur * nx, -nx, 0};
    for (int j = 0; j < kernels.count; ++j, to += stride) {
        const Lanes near = ky.k[j] * moves + ky.slope[j] * along, far = ky.k[j] * across;
        float* pixel = &to->x;
        for (int i = 0; i < kernels.count; ++i, pixel += kLanes) {
            Lanes p;
            load(pixel, p);
            store(pixel, p + (spread[i] * near + other[i] * far));
        }
    }
}

KESTRUNE_BOTH void addRimBoth(const DiscKernels& kernels, const SmoothEllipse& e, const cv::Rect& box,
                              DiscPixel* pixels) {
    const double longest = kRimStep * std::max(kernels.blur, kPixelBlur);
    const int steps =
        std::max(kFewestSteps, static_cast<int>(std::ceil(2 * std::numbers::pi * e.majorHalfAxis() / longest)));
    const double dt = 2 * std::numbers::pi / steps, turnC = std::cos(dt), turnD = std::sin(dt);
    DiscKernel kx, ky;
    double c = 1, d = 0;
    for (int i = 0; i < steps; ++i) {
        const double x = e.x + (e.s + e.e1) * c + e.e2 * d, y = e.y + (e.s - e.e1) * d + e.e2 * c;
        const double nx = ((e.s - e.e1) * c - e.e2 * d) * dt, ny = ((e.s + e.e1) * d - e.e2 * c) * dt;
        const int left = kernelAt(kernels, x, kx) - box.x, top = kernelAt(kernels, y, ky) - box.y;
        const RimPiece piece = {static_cast<float>(nx), static_cast<float>(ny), static_cast<float>(c),
                                static_cast<float>(d)};
        addPiece(kx, ky, kernels, piece, pixels + static_cast<std::ptrdiff_t>(top) * box.width + left, box.width);
        const double next = c * turnC - d * turnD;
        d = c * turnD + d * turnC;
        c = next;
    }
}
void addRimAny(const DiscKernels& kernels, const SmoothEllipse& e, const cv::Rect& box, DiscPixel* pixels) {
    addRimBoth(kernels, e, box, pixels);
}
KESTRUNE_WIDE void addRimWide(const DiscKernels& kernels, const SmoothEllipse& e, const cv::Rect& box,
                              DiscPixel* pixels) {
    addRimBoth(kernels, e, box, pixels);
}

}  // namespace

void DiscKernels::fill(double newBlur, double newReach) {
    blur = newBlur, reach = newReach;
    count = static_cast<int>(2 * reach) + 1;
    for (int row = 0; row <= kRows; ++row)
        fillKernel(rows[static_cast<std::size_t>(row)], static_cast<double>(row) / kRows - reach,
                   static_cast<float>(blur), count);
}

void DiscImage::reset(const cv::Rect& box) {
    box_ = box;
    const auto size = static_cast<std::size_t>(box.area());
    if (pixels_.size() < size) pixels_.resize(size);
    std::memset(static_cast<void*>(pixels_.data()), 0, size * sizeof(DiscPixel));
}

bool DiscImage::add(const SmoothEllipse& ellipse, double blur) {
    const double reach = kReach * totalBlur(blur);
    const cv::Point2d half = ellipse.halfSize();
    if (!(ellipse.x - half.x - reach - 1 >= box_.x && ellipse.x + half.x + reach + 1 <= box_.br().x - 1 &&
          ellipse.y - half.y - reach - 1 >= box_.y && ellipse.y + half.y + reach + 1 <= box_.br().y - 1))
        return false;
    if (kernels_.blur != blur) kernels_.fill(blur, reach);
    (hasWideLanes() ? addRimWide : addRimAny)(kernels_, ellipse, box_, pixels_.data());
    return true;
}

}  // namespace kestrune::refinement
