// SPDX-License-Identifier: Apache-2.0
//
// Exact area sampling of polygons, and the exposure made of it.
#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <utility>
#include <vector>

#include "geometry.h"
#include "kestrune_scene/scene.h"

namespace kestrune::scene {

namespace {

/// Vertices of a rendered rim. The polygon has the disc's area; it strays from the rim by at most 6.4e-6 radii outwards
/// and 3.2e-6 inwards, that is 3e-4 px for a marker as large as 40 px.
constexpr int kRimVertices = 720;

/// The point spread is cut where it has fallen to 3e-4 of its peak.
constexpr double kKernelSigmas = 4;

/// Rows of noise drawn at a time: enough to fill quickly, few enough to stay in the cache.
constexpr int kNoiseRows = 16;

/// A piece of an edge narrower than this, px, counts as vertical; the area this misplaces is below rounding.
constexpr double kVertical = 1e-12;

/// Area of each pixel that a polygon covers, over the polygon's box on the image.
///
/// An edge hides the half plane to its right, row by row: each cell collects the change of covered area against its
/// left neighbour, and a running sum along the row makes areas of it. The contributions are exact, and their sign is
/// that of the edge's direction, so the part outside the polygon cancels.
class Coverage {
  public:
    /// False if no pixel of the image can be covered.
    bool cover(const std::vector<cv::Point2d>& outline, cv::Size image);

    const cv::Rect& box() const { return box_; }
    const double* row(int y) const { return &cells_[static_cast<std::size_t>(y) * stride_]; }
    double* row(int y) { return &cells_[static_cast<std::size_t>(y) * stride_]; }

  private:
    bool placeBox(const std::vector<cv::Point2d>& outline, cv::Size image);
    void addEdge(cv::Point2d from, cv::Point2d to);
    void addRowPiece(double* cells, double x1, double x2, double height) const;

    cv::Rect box_;
    std::size_t stride_ = 0;  // one cell more than the box is wide takes what an edge passes on to the right
    std::vector<double> cells_;
};

bool Coverage::placeBox(const std::vector<cv::Point2d>& outline, cv::Size image) {
    double left = image.width, right = 0, top = image.height, bottom = 0;
    for (const cv::Point2d& p : outline) {
        if (!std::isfinite(p.x) || !std::isfinite(p.y)) return false;
        left = std::min(left, p.x + 0.5);
        right = std::max(right, p.x + 0.5);
        top = std::min(top, p.y + 0.5);
        bottom = std::max(bottom, p.y + 0.5);
    }
    const cv::Point first(static_cast<int>(std::floor(std::max(left, 0.0))),
                          static_cast<int>(std::floor(std::max(top, 0.0))));
    const cv::Point end(static_cast<int>(std::ceil(std::min<double>(right, image.width))),
                        static_cast<int>(std::ceil(std::min<double>(bottom, image.height))));
    if (end.x <= first.x || end.y <= first.y) return false;
    box_ = cv::Rect(first, end);
    stride_ = static_cast<std::size_t>(box_.width) + 1;
    return true;
}

bool Coverage::cover(const std::vector<cv::Point2d>& outline, cv::Size image) {
    if (outline.size() < 3 || !placeBox(outline, image)) return false;
    cells_.assign(stride_ * static_cast<std::size_t>(box_.height), 0.0);

    const cv::Point2d origin(box_.x - 0.5, box_.y - 0.5);
    double twiceArea = 0;
    cv::Point2d from = outline.back() - origin;
    for (const cv::Point2d& vertex : outline) {
        const cv::Point2d to = vertex - origin;
        twiceArea += from.cross(to);
        addEdge(from, to);
        from = to;
    }
    const double orientation = twiceArea > 0 ? -1 : 1;
    for (int y = 0; y < box_.height; ++y) {
        double* cells = row(y);
        double sum = 0;
        for (int x = 0; x < box_.width; ++x) {
            sum += cells[x];
            cells[x] = orientation * sum;
        }
    }
    return true;
}

void Coverage::addEdge(cv::Point2d from, cv::Point2d to) {
    double direction = 1;
    if (from.y > to.y) {
        std::swap(from, to);
        direction = -1;
    }
    const double top = std::max(from.y, 0.0), bottom = std::min<double>(to.y, box_.height);
    if (!(top < bottom)) return;
    const double slope = (to.x - from.x) / (to.y - from.y);
    const auto xAt = [&](double y) { return y < to.y ? from.x + (y - from.y) * slope : to.x; };
    double y1 = top, x1 = xAt(top);
    for (int y = static_cast<int>(top); y1 < bottom; ++y) {
        const double y2 = std::min(bottom, y + 1.0), x2 = xAt(y2);
        addRowPiece(row(y), x1, x2, direction * (y2 - y1));
        y1 = y2;
        x1 = x2;
    }
}

void Coverage::addRowPiece(double* cells, double x1, double x2, double height) const {
    double left = std::min(x1, x2), right = std::max(x1, x2);
    if (left >= box_.width) return;  // hides nothing of the image
    if (right <= 0) {                // hides the whole row
        cells[0] += height;
        return;
    }
    const bool vertical = right - left < kVertical;
    if (vertical) left = right = std::max(left, 0.0);
    const double perPixel = vertical ? 0 : height / (right - left);
    if (left < 0) {
        cells[0] -= perPixel * left;
        left = 0;
    }
    right = std::min<double>(right, box_.width);
    int x = static_cast<int>(left);
    do {
        const double l = std::max<double>(left, x), r = std::min(right, x + 1.0);
        const double piece = vertical ? height : perPixel * (r - l);
        const double passedOn = (l + r) / 2 - x;
        cells[x] += piece * (1 - passedOn);
        cells[x + 1] += piece * passedOn;
        ++x;
    } while (x < right);
}

void paint(cv::Mat& image, Coverage& coverage, const std::vector<cv::Point2d>& outline, double grey) {
    if (!coverage.cover(outline, image.size())) return;
    const cv::Rect& box = coverage.box();
    for (int y = 0; y < box.height; ++y) {
        const double* area = coverage.row(y);
        float* pixels = image.ptr<float>(box.y + y) + box.x;
        for (int x = 0; x < box.width; ++x) pixels[x] = static_cast<float>(pixels[x] + area[x] * (grey - pixels[x]));
    }
}

void spread(cv::Mat& image, double sigma) {
    if (!(sigma > 0)) return;
    const int size = 2 * static_cast<int>(std::ceil(kKernelSigmas * sigma)) + 1;
    const cv::Mat kernel = cv::getGaussianKernel(size, sigma, CV_32F);
    cv::Mat blurred;
    cv::sepFilter2D(image, blurred, CV_32F, kernel, kernel, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
    image = blurred;
}

/// Light that changes evenly over the image and is as it was in its middle.
void shade(cv::Mat& image, const cv::Vec2d& change) {
    if (change == cv::Vec2d()) return;
    for (int y = 0; y < image.rows; ++y) {
        float* pixels = image.ptr<float>(y);
        const double row = 1 + change[1] * ((y + 0.5) / image.rows - 0.5);
        for (int x = 0; x < image.cols; ++x)
            pixels[x] *= static_cast<float>(row + change[0] * ((x + 0.5) / image.cols - 0.5));
    }
}

void addNoise(cv::Mat& image, double sigma, cv::RNG rng) {
    if (!(sigma > 0)) return;
    cv::Mat noise;
    for (int y = 0; y < image.rows; y += kNoiseRows) {
        cv::Mat rows = image.rowRange(y, std::min(y + kNoiseRows, image.rows));
        noise.create(rows.size(), CV_32F);
        rng.fill(noise, cv::RNG::NORMAL, 0, sigma);
        rows += noise;
    }
}

cv::Mat renderEye(const PinholeCamera& camera, int eye, const std::vector<Disc>& discs,
                  const std::vector<Patch>& patches, const RenderOptions& options) {
    cv::Mat image(camera.size, CV_32F, cv::Scalar(options.background));
    Coverage coverage;
    for (const Patch& patch : patches)
        if (patch.eye == eye) paint(image, coverage, patch.outline, patch.grey);
    for (const Disc& disc : discs)
        if (facesCamera(camera, disc)) paint(image, coverage, rimPolygon(camera, disc, kRimVertices), disc.grey);
    spread(image, options.blurSigma);
    shade(image, options.shade);
    addNoise(image, options.noiseSigma, randomStream(options.seed, static_cast<std::uint64_t>(eye)));
    cv::Mat rounded;
    image.convertTo(rounded, CV_8U);
    return rounded;
}

}  // namespace

cv::RNG randomStream(std::uint64_t seed, std::uint64_t stream) {
    // The generator itself maps neighbouring states to proportional numbers, so the bits are mixed first.
    std::uint64_t state = seed + (stream + 1) * 0x9E3779B97F4A7C15U;
    state = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9U;
    state = (state ^ (state >> 27)) * 0x94D049BB133111EBU;
    return cv::RNG(state ^ (state >> 31));
}

void addPolygonCoverage(cv::Mat& accumulator, const std::vector<cv::Point2d>& outline, float weight) {
    CV_Assert(accumulator.type() == CV_32FC1);
    Coverage coverage;
    if (!coverage.cover(outline, accumulator.size())) return;
    const cv::Rect& box = coverage.box();
    for (int y = 0; y < box.height; ++y) {
        const double* area = coverage.row(y);
        float* pixels = accumulator.ptr<float>(box.y + y) + box.x;
        for (int x = 0; x < box.width; ++x) pixels[x] = static_cast<float>(pixels[x] + weight * area[x]);
    }
}

Exposure render(const Rig& rig, const std::vector<Disc>& discs, const std::vector<Patch>& patches,
                const RenderOptions& options) {
    Exposure exposure;
    exposure.rig = rig;
    exposure.image = {renderEye(rig.left, 0, discs, patches, options),
                      renderEye(rig.right, 1, discs, patches, options)};
    exposure.markers.reserve(discs.size());
    for (const Disc& disc : discs)
        exposure.markers.push_back({static_cast<int>(exposure.markers.size()),
                                    disc,
                                    {projectDisc(rig.left, disc), projectDisc(rig.right, disc)}});
    return exposure;
}

}  // namespace kestrune::scene
