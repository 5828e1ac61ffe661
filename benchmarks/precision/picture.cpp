// SPDX-License-Identifier: Apache-2.0
#include "picture.h"

#include <algorithm>
#include <numbers>

namespace kestrune::bench {
namespace {

// Gaussians end here, in units of their standard deviation: 2e-8 of the light is farther out.
constexpr double kTail = 5.5;

// Steps along an outline in units of the blur. The sum along a closed curve is wrong by exp(-2 pi^2 / step^2), 1e-14.
constexpr double kStep = 0.78;
constexpr int kLeastSteps = 48;

// Nodes and weights of Gauss and Legendre on [-1, 1], for pieces of an outline that do not close.
constexpr std::array<double, 5> kNodes{0, -0.5384693101056831, 0.5384693101056831, -0.9061798459386640,
                                       0.9061798459386640};
constexpr std::array<double, 5> kWeights{0.5688888888888889, 0.4786286704993665, 0.4786286704993665, 0.2369268850561891,
                                         0.2369268850561891};

constexpr int kLensSteps = 30;
constexpr double kLensExact = 1e-12;  ///< px

/// Integral from minus infinity of the normal distribution.
double normalIntegral(double z) {
    return 0.5 * std::erfc(-z * std::numbers::sqrt2 / 2);
}

/// Integral of `normalIntegral`.
double secondIntegral(double z) {
    return z * normalIntegral(z) + std::exp(-0.5 * z * z) / std::sqrt(2 * std::numbers::pi);
}

/// Calls `add(point, tangent times weight)` for the stretch of the ellipse between two parameters.
template <typename Add>
void alongArc(const Ellipse& ellipse, double from, double to, double step, const Add& add) {
    const int panels = std::max(8, static_cast<int>(std::ceil((to - from) * ellipse.major() / step)));
    const double half = 0.5 * (to - from) / panels;
    for (int k = 0; k < panels; ++k)
        for (std::size_t i = 0; i < kNodes.size(); ++i) {
            const double u = from + half * (2 * k + 1 + kNodes[i]);
            add(ellipse.at(u), ellipse.derivativeAt(u) * (half * kWeights[i]));
        }
}

template <typename Add>
void alongLine(const cv::Point2d& from, const cv::Point2d& to, double step, const Add& add) {
    const cv::Point2d whole = to - from;
    const int panels = std::max(2, static_cast<int>(std::ceil(std::hypot(whole.x, whole.y) / step)));
    for (int k = 0; k < panels; ++k)
        for (std::size_t i = 0; i < kNodes.size(); ++i)
            add(from + whole * ((2 * k + 1 + kNodes[i]) / (2.0 * panels)), whole * (kWeights[i] / (2.0 * panels)));
}

/// One blurred pixel row or column about a node: shares of the pixels and their sums up to each.
class Stencil {
  public:
    void place(double at, double blur, bool summed) {
        const double reach = reachOf(blur);
        first_ = static_cast<int>(std::ceil(at - reach));
        const int count = static_cast<int>(std::floor(at + reach)) - first_ + 1;
        values_.resize(static_cast<std::size_t>(count));
        const auto integral = summed ? secondIntegral : normalIntegral;
        double before = integral((at - first_ + 0.5) / blur);
        for (int k = 0; k < count; ++k) {
            const double after = integral((at - first_ - k - 0.5) / blur);
            values_[static_cast<std::size_t>(k)] = (before - after) * (summed ? blur : 1);
            before = after;
        }
    }
    int first() const { return first_; }
    int end() const { return first_ + static_cast<int>(values_.size()); }
    double operator[](int pixel) const { return values_[static_cast<std::size_t>(pixel - first_)]; }

  private:
    int first_ = 0;
    std::vector<double> values_;
};

}  // namespace

cv::Point2d Lens::operator()(const cv::Point2d& p) const {
    const cv::Point2d d = p - middle;
    return middle + d * (1 + k1 * d.dot(d) / (focal * focal));
}

cv::Matx22d Lens::jacobian(const cv::Point2d& p) const {
    const cv::Point2d d = p - middle;
    const double k = k1 / (focal * focal), scale = 1 + k * d.dot(d);
    return {scale + 2 * k * d.x * d.x, 2 * k * d.x * d.y, 2 * k * d.x * d.y, scale + 2 * k * d.y * d.y};
}

cv::Point2d Lens::inverse(const cv::Point2d& q) const {
    cv::Point2d p = q;
    for (int k = 0; k < kLensSteps; ++k) {
        const cv::Point2d off = (*this)(p)-q;
        const cv::Vec2d step = jacobian(p).inv() * cv::Vec2d(off.x, off.y);
        p -= cv::Point2d(step[0], step[1]);
        if (std::abs(step[0]) + std::abs(step[1]) < kLensExact) break;
    }
    return p;
}

double reachOf(double blur) {
    return 0.5 + kTail * blur;
}

Outline outlineOf(const Ellipse& ellipse, const std::optional<HalfPlane>& covered, const std::optional<Lens>& lens,
                  double blur) {
    Outline outline;
    const auto add = [&](const cv::Point2d& p, const cv::Point2d& tangent) {
        if (!lens) {
            outline.push_back({p.x, p.y, tangent.y});
            return;
        }
        const cv::Matx22d jacobian = lens->jacobian(p);
        const cv::Point2d q = (*lens)(p);
        outline.push_back({q.x, q.y, jacobian(1, 0) * tangent.x + jacobian(1, 1) * tangent.y});
    };
    const double step = kStep * blur;
    if (covered) {
        // normal . z(u) = normal . centre + p cos u + q sin u, which passes `distance` twice or never.
        const auto& [normal, distance] = *covered;
        const double p = normal.x * (ellipse.s + ellipse.e1) + normal.y * ellipse.e2;
        const double q = normal.x * ellipse.e2 + normal.y * (ellipse.s - ellipse.e1);
        const double cosine = (distance - normal.dot(ellipse.centre())) / std::hypot(p, q);
        if (cosine <= -1) return outline;
        if (cosine < 1) {
            const double toward = std::atan2(q, p), half = std::acos(cosine);
            const double from = toward + half, to = toward - half + 2 * std::numbers::pi;
            alongArc(ellipse, from, to, 2 * step, add);
            alongLine(ellipse.at(to), ellipse.at(from), 2 * step, add);
            return outline;
        }
    }
    const double length = 2 * std::numbers::pi * ellipse.major();
    const int count = std::max(kLeastSteps, static_cast<int>(std::ceil(length / step)));
    const double width = 2 * std::numbers::pi / count;
    for (int k = 0; k < count; ++k) add(ellipse.at(k * width), ellipse.derivativeAt(k * width) * width);
    return outline;
}

Outline outlineOf(const std::vector<cv::Point2d>& polygon, double blur) {
    Outline outline;
    for (std::size_t k = 0; k < polygon.size(); ++k)
        alongLine(polygon[k], polygon[(k + 1) % polygon.size()], 2 * kStep * blur,
                  [&](const cv::Point2d& p, const cv::Point2d& tangent) {
                      outline.push_back({p.x, p.y, tangent.y});
                  });
    return outline;
}

void addArea(cv::Mat1d& image, const cv::Point& origin, const Outline& outline, double blur, double amount) {
    // What lies wholly to the left of a step counts in full; it is kept as one number for each row and column.
    cv::Mat1d full(image.rows, image.cols + 1, 0.0);
    Stencil columns, rows;
    for (const OutlineStep& node : outline) {
        columns.place(node.x - origin.x, blur, true);
        rows.place(node.y - origin.y, blur, false);
        const int firstColumn = std::clamp(columns.first(), 0, image.cols);
        const int endColumn = std::clamp(columns.end(), 0, image.cols);
        for (int y = std::max(0, rows.first()); y < std::min(image.rows, rows.end()); ++y) {
            const double weight = amount * node.dy * rows[y];
            double* const row = image[y];
            for (int x = firstColumn; x < endColumn; ++x) row[x] += weight * columns[x];
            full(y, firstColumn) += weight;
        }
    }
    for (int y = 0; y < image.rows; ++y) {
        double sum = 0;
        for (int x = image.cols - 1; x >= 0; --x) image(y, x) += sum += full(y, x + 1);
    }
}

void addArea(cv::Mat1d& image, const cv::Point& origin, const Outline& outline, const Blur& blur, double amount) {
    addArea(image, origin, outline, blur.sigma, amount * (1 - blur.halo));
    if (blur.halo > 0) addArea(image, origin, outline, blur.widest(), amount * blur.halo);
}

cv::Mat exposed(const cv::Mat1d& mean, const Noise& noise, int bits, std::mt19937_64& random) {
    std::normal_distribution<double> normal;
    cv::Mat image(mean.size(), bits == 8 ? CV_8U : CV_16U);
    for (int y = 0; y < mean.rows; ++y)
        for (int x = 0; x < mean.cols; ++x) {
            const double level = mean(y, x);
            const double noisy = level + std::sqrt(noise.variance(level)) * normal(random);
            if (bits == 8)
                image.at<uchar>(y, x) = cv::saturate_cast<uchar>(noisy);
            else
                image.at<ushort>(y, x) = cv::saturate_cast<ushort>(256 * noisy);
        }
    return image;
}

}  // namespace kestrune::bench
