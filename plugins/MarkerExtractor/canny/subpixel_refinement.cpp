// SPDX-License-Identifier: Apache-2.0
#include "canny/subpixel_refinement.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "ellipsedetection/vector_lanes.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr double kPerGain = 0.0078125;  ///< 1 / 128: the response in grey levels
/// Points of one contour that make one item of the loop over all contours, and a bound of the time for one, ns.
constexpr std::size_t kChunk = 512;
constexpr std::int64_t kRefinementTime = 500;
constexpr double kLargestOffset = 0.5;  ///< px; beyond it another pixel is the nearest one to the line

// The formulas below hold for a number or for two at once, bit for bit.
double rootOf(double value) {
    return std::sqrt(value);
}
double sizeOf(double value) {
    return std::abs(value);
}
bool both(bool a, bool b) {
    return a && b;
}
bool either(bool a, bool b) {
    return a || b;
}
double choose(bool isFirst, double first, double second) {
    return isFirst ? first : second;
}

#if KESTRUNE_EXACT_LANES
struct Pair {
    cv::v_float64x2 values;
    Pair(const cv::v_float64x2& v) : values(v) {}            // NOLINT(google-explicit-constructor): a number
    Pair(double value) : values(cv::v_setall_f64(value)) {}  // NOLINT(google-explicit-constructor): a number
    Pair(double first, double second) : values(first, second) {}
};
Pair operator+(const Pair& a, const Pair& b) {
    return a.values + b.values;
}
Pair operator-(const Pair& a, const Pair& b) {
    return a.values - b.values;
}
Pair operator*(const Pair& a, const Pair& b) {
    return a.values * b.values;
}
Pair operator/(const Pair& a, const Pair& b) {
    return a.values / b.values;
}
Pair operator-(const Pair& a) {
    return a.values * cv::v_setall_f64(-1);
}
Pair operator<(const Pair& a, const Pair& b) {
    return a.values < b.values;
}
Pair operator==(const Pair& a, const Pair& b) {
    return a.values == b.values;
}
Pair both(const Pair& a, const Pair& b) {
    return a.values & b.values;
}
Pair either(const Pair& a, const Pair& b) {
    return a.values | b.values;
}
Pair rootOf(const Pair& value) {
    return cv::v_sqrt(value.values);
}
Pair sizeOf(const Pair& value) {
    return cv::v_abs(value.values);
}
Pair choose(const Pair& isFirst, const Pair& first, const Pair& second) {
    return cv::v_select(isFirst.values, first.values, second.values);
}
#endif

/// Second-order surface a0 + a1 x + a2 y + a3 x^2 + a4 x y + a5 y^2 through nine magnitudes.
template <typename Number>
struct Facet {
    Number a0, a1, a2, a3, a4, a5;
};

template <typename Number>
Facet<Number> fitFacet(const Number (&m)[9]) {
    return {(-m[0] + 2 * m[1] - m[2] + 2 * m[3] + 5 * m[4] + 2 * m[5] - m[6] + 2 * m[7] - m[8]) / 9,
            (-m[0] + m[2] - m[3] + m[5] - m[6] + m[8]) / 6, (m[6] + m[7] + m[8] - m[0] - m[1] - m[2]) / 6,
            (m[0] - 2 * m[1] + m[2] + m[3] - 2 * m[4] + m[5] + m[6] - 2 * m[7] + m[8]) / 6,
            // With the opposite sign this would be the mixed derivative: the facet is mirrored about the y axis in this
            // term, and directions and offsets of edges that are not along an axis follow from it.
            (-m[0] + m[2] + m[6] - m[8]) / 4, (m[0] + m[1] + m[2] - 2 * (m[3] + m[4] + m[5]) + m[6] + m[7] + m[8]) / 6};
}

/// Eigenvector of the facet's Hessian with the eigenvalue of larger magnitude: the direction across the edge.
template <typename Number>
struct PrincipalDirection {
    Number eigenvalue, nx, ny;
};

template <typename Number>
PrincipalDirection<Number> principalDirection(const Number& dxx, const Number& dxy, const Number& dyy) {
    const Number theta = (dxx - dyy) / 2 / dxy;
    const Number size = 1 / (sizeOf(theta) + rootOf(theta * theta + 1));
    const Number t = choose(theta < 0, -size, size);
    const Number cosine = 1 / rootOf(t * t + 1);
    const auto isAlongAxis = dxy == 0;  // what was made of theta means nothing then
    const Number c = choose(isAlongAxis, 1, cosine);
    const Number s = choose(isAlongAxis, 0, t * cosine);
    const Number e1 = choose(isAlongAxis, dyy, dyy - t * dxy);
    const Number e2 = choose(isAlongAxis, dxx, dxx + t * dxy);
    const auto first = either(sizeOf(e2) < sizeOf(e1), both(sizeOf(e1) == sizeOf(e2), e1 < e2));
    return {choose(first, e1, e2), choose(first, -s, c), choose(first, c, s)};
}

/// The line of the edge near a pixel.
template <typename Number>
struct EdgeLine {
    Number height;  ///< of the facet at the pixel
    Number nx, ny;  ///< across the line
    Number ox, oy;  ///< from the pixel to the line
};

template <typename Number>
EdgeLine<Number> edgeLine(const Number (&m)[9]) {
    const Facet<Number> f = fitFacet(m);
    const Number dxx = 2 * f.a3;
    const Number dxy = f.a4;
    const Number dyy = 2 * f.a5;
    const PrincipalDirection<Number> p = principalDirection(dxx, dxy, dyy);
    const Number toRidge =
        -(p.nx * f.a1 + p.ny * f.a2) / (dxx * p.nx * p.nx + 2 * dxy * p.nx * p.ny + dyy * p.ny * p.ny);
    const Number offset =
        choose(p.eigenvalue < 0, toRidge, 0);  // a ridge of the magnitude; in a valley the pixel stays
    return {f.a0, p.nx, p.ny, p.nx * offset, p.ny * offset};
}

cv::Point2f movedBy(double ox, double oy, const cv::Point& pixel) {
    cv::Point2f point(static_cast<float>(pixel.x), static_cast<float>(pixel.y));
    if (std::abs(ox) <= kLargestOffset && std::abs(oy) <= kLargestOffset) {
        point.x += static_cast<float>(ox);
        point.y += static_cast<float>(oy);
    }
    return point;
}

/// Gradient magnitudes of the 3 by 3 neighbourhood in row order. Beyond the border the centre row or column stands in.
void readMagnitudes(const cv::Mat& dx, const cv::Mat& dy, const cv::Point& pixel, double m[9]) {
    const int rows[3] = {pixel.y >= 1 ? pixel.y - 1 : pixel.y, pixel.y, pixel.y + 1 < dx.rows ? pixel.y + 1 : pixel.y};
    const int columns[3] = {pixel.x >= 1 ? pixel.x - 1 : pixel.x, pixel.x,
                            pixel.x + 1 < dx.cols ? pixel.x + 1 : pixel.x};
    for (int i = 0; i < 3; ++i) {
        const short* const xRow = dx.ptr<short>(rows[i]);
        const short* const yRow = dy.ptr<short>(rows[i]);
        for (int j = 0; j < 3; ++j) {
            const double x = xRow[columns[j]];
            const double y = yRow[columns[j]];
            m[3 * i + j] = std::sqrt(x * x + y * y);
        }
    }
}

void refinePoint(const cv::Mat& dx, const cv::Mat& dy, const cv::Point& pixel, cv::Point2f& point, float& response,
                 float& direction) {
    double m[9];
    readMagnitudes(dx, dy, pixel, m);
    const EdgeLine<double> line = edgeLine(m);
    point = movedBy(line.ox, line.oy, pixel);
    response = static_cast<float>(line.height * kPerGain);
    double angle = std::atan2(line.nx, line.ny);  // in this order: the angle is counted from the y axis
    if (angle < 0) angle += 2 * std::numbers::pi;
    direction = static_cast<float>(angle);
}

}  // namespace

void refinePair(const cv::Point* const (&pixels)[2], const double (&magnitudes)[2][9],
                cv::Point2f* const (&points)[2]) {
#if KESTRUNE_EXACT_LANES
    const auto& [a, b] = magnitudes;
    const EdgeLine<Pair> line = edgeLine<Pair>({{a[0], b[0]},
                                                {a[1], b[1]},
                                                {a[2], b[2]},
                                                {a[3], b[3]},
                                                {a[4], b[4]},
                                                {a[5], b[5]},
                                                {a[6], b[6]},
                                                {a[7], b[7]},
                                                {a[8], b[8]}});
    double ox[2], oy[2];
    cv::v_store(ox, line.ox.values);
    cv::v_store(oy, line.oy.values);
    for (int k = 0; k < 2; ++k) *points[k] = movedBy(ox[k], oy[k], *pixels[k]);
#else
    for (int k = 0; k < 2; ++k) {
        const EdgeLine<double> line = edgeLine(magnitudes[k]);
        *points[k] = movedBy(line.ox, line.oy, *pixels[k]);
    }
#endif
}

void refineContours(const cv::Mat& dx, const cv::Mat& dy, const std::vector<std::vector<cv::Point>>& pixelContours,
                    std::vector<SubpixelContour>& contours) {
    struct Block {
        std::size_t contour, first;
    };
    std::vector<Block> blocks;
    contours.resize(pixelContours.size());
    for (std::size_t c = 0; c < pixelContours.size(); ++c) {
        const std::size_t count = pixelContours[c].size();
        contours[c].points.resize(count);
        contours[c].response.resize(count);
        contours[c].direction.resize(count);
        for (std::size_t first = 0; first < count; first += kChunk) blocks.push_back({c, first});
    }
    // One loop over all contours: most of them are too short to be worth one each.
    forEachInParallel(static_cast<int>(blocks.size()), kRefinementTime * static_cast<std::int64_t>(kChunk), [&](int b) {
        const auto [c, first] = blocks[static_cast<std::size_t>(b)];
        const std::vector<cv::Point>& pixels = pixelContours[c];
        SubpixelContour& contour = contours[c];
        for (std::size_t k = first; k < std::min(pixels.size(), first + kChunk); ++k) {
            refinePoint(dx, dy, pixels[k], contour.points[k], contour.response[k], contour.direction[k]);
        }
    });
}

}  // namespace kestrune
