// SPDX-License-Identifier: Apache-2.0
#include "canny/fast_contours.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "canny/wide_lanes.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr int kStripRows = 64;             ///< with what is made of them, they fit the cache of a core
constexpr std::int64_t kPointTime = 1000;  ///< a bound of the time for one point, ns

/// The smoothed image, whose rows have margins on both sides that the border reflects.
class SmoothedImage {
  public:
    SmoothedImage(const cv::Size& size, std::vector<uchar>& storage) : size_(size) {
        // Groups of lanes may begin at any column, and are read to their end with what derivatives reach beyond.
        step_ = static_cast<std::size_t>(RowGaussian::writtenColumns(size.width)) + 2 * SmoothedRows::kMargin + kLanes;
        const std::size_t bytes = step_ * static_cast<std::size_t>(size.height);
        if (storage.size() < bytes) storage.resize(bytes);
        data_ = storage.data();
    }
    std::size_t step() const { return step_; }
    uchar* row(int y) const { return data_ + static_cast<std::size_t>(y) * step_ + SmoothedRows::kMargin; }
    /// All rows, and as many above and below.
    void listRows(int beyond, SmoothedRows& rows) const {
        rows.begin(-beyond);
        for (int y = -beyond; y < size_.height + beyond; ++y) {
            rows.add(row(cv::borderInterpolate(y, size_.height, cv::BORDER_REFLECT_101)));
        }
    }

  private:
    cv::Size size_;
    std::size_t step_;
    uchar* data_;
};

struct Job {
    const cv::Mat& image;
    const EdgeSettings& settings;
    const EdgeRows& edgeRows;
    const SmoothedImage& smoothed;
    EdgeScratch& scratch;
    bool wide;
};

/// Smooths the rows of a strip into the image, and those that its derivatives reach beyond it for itself.
void smoothStrip(const Job& job, const RowGaussian& gaussian, const cv::Rect& strip, EdgeScratch::Strip& own) {
    const int reach = job.edgeRows.radius() + 1;
    const int height = job.image.rows;
    const int first = std::max(strip.y - reach, 0), end = std::min(strip.br().y + reach, height);
    const std::size_t step = job.smoothed.step();
    if (own.beyond.size() < 2 * static_cast<std::size_t>(reach) * step) {
        own.beyond.resize(2 * static_cast<std::size_t>(reach) * step);
    }
    const auto rowOf = [&](int y) {
        if (y >= strip.y && y < strip.br().y) return job.smoothed.row(y);
        const int place = y < strip.y ? y - first : reach + y - strip.br().y;
        return own.beyond.data() + static_cast<std::size_t>(place) * step + SmoothedRows::kMargin;
    };
    for (int y = first; y < end; ++y) {
        gaussian.smoothRow(job.image, y, own.sums, rowOf(y), job.wide);
        reflectMargins(rowOf(y), job.image.cols);
    }
    own.rows.begin(strip.y - reach);
    for (int y = strip.y - reach; y < strip.br().y + reach; ++y) {
        own.rows.add(rowOf(std::clamp(cv::borderInterpolate(y, height, cv::BORDER_REFLECT_101), first, end - 1)));
    }
}

/// Strips of rows, which end at no seam: each smooths what it needs of its neighbours.
void findInRows(const Job& job, const RowGaussian& gaussian) {
    const cv::Rect whole({}, job.image.size());
    const int count = (whole.height + kStripRows - 1) / kStripRows;
    EdgeScratch& scratch = job.scratch;
    scratch.pixels.resize(static_cast<std::size_t>(count));
    scratch.strips.resize(std::max(scratch.strips.size(), static_cast<std::size_t>(largestTeam())));
    forEachLongItem(count, [&](int item, int thread) {
        EdgeScratch::Strip& own = scratch.strips[static_cast<std::size_t>(thread)];
        EdgePixels& pixels = scratch.pixels[static_cast<std::size_t>(item)];
        const cv::Rect strip = cv::Rect(0, item * kStripRows, whole.width, kStripRows) & whole;
        smoothStrip(job, gaussian, strip, own);
        job.edgeRows.suppress(own.rows, strip, whole, job.wide, own.gradients, pixels);
        scratch.map.mark(pixels.candidates);
    });
    scratch.map.link(scratch.pixels, 0, whole.width);
}

/// Strips of columns with a thread each. Edges end at their seams, and OpenCV smooths windows of an image, as the
/// strips are, in another way than an image.
void findInColumns(const Job& job) {
    const std::vector<EdgeStrip> strips = cutIntoStrips(job.image.cols, std::thread::hardware_concurrency());
    const int height = job.image.rows;
    EdgeScratch& scratch = job.scratch;
    scratch.pixels.resize(strips.size());
    scratch.strips.resize(std::max(scratch.strips.size(), strips.size()));
    const cv::Mat all(job.image.size(), CV_8UC1, job.smoothed.row(0), job.smoothed.step());
    runOnStrips(strips, [&](const EdgeStrip& strip, std::size_t /*number*/) {
        const cv::Rect rect(strip.firstColumn, 0, strip.width, height);
        cv::Mat part = all(rect);
        const cv::Size kernel(job.settings.aperture, job.settings.aperture);
        cv::GaussianBlur(job.image(rect), part, kernel, job.settings.sigma, job.settings.sigma, cv::BORDER_REFLECT_101);
    });
    for (int y = 0; y < height; ++y) reflectMargins(job.smoothed.row(y), job.image.cols);
    job.smoothed.listRows(job.edgeRows.radius() + 1, scratch.rows);
    runOnStrips(strips, [&](const EdgeStrip& strip, std::size_t number) {
        EdgeScratch::Strip& own = scratch.strips[number];
        const cv::Rect rect(strip.firstColumn, 0, strip.width, height);
        job.edgeRows.suppress(job.scratch.rows, rect, rect, job.wide, own.gradients, scratch.pixels[number]);
        scratch.map.mark(scratch.pixels[number].candidates);
    });
    for (std::size_t k = 0; k < strips.size(); ++k) {
        scratch.map.link({&scratch.pixels[k], 1}, strips[k].firstColumn, strips[k].firstColumn + strips[k].width);
    }
}

/// As `selectInnerContours`.
std::vector<int> innerContours(const ContourTracer& tracer, int minLength) {
    const std::vector<ContourTracer::Contour>& contours = tracer.contours();
    std::vector<char> hasLongChild(contours.size(), 0);
    for (const ContourTracer::Contour& contour : contours) {
        if (contour.parent != -1 && contour.length >= minLength) {
            hasLongChild[static_cast<std::size_t>(contour.parent)] = 1;
        }
    }
    std::vector<int> inner;
    for (const int c : tracer.inTreeOrder()) {
        const auto index = static_cast<std::size_t>(c);
        const bool isInner = contours[index].parent != -1 && hasLongChild[index] == 0;
        if (isInner && contours[index].length >= minLength) inner.push_back(c);
    }
    return inner;
}

/// @param rows  all of the image.
void magnitudesOf(const SmoothedRows& rows, const cv::Size& size, const EdgeRows& edgeRows, const cv::Point& pixel,
                  double (&inOrder)[9]) {
    Magnitudes m;
    edgeRows.magnitudesAround(rows.at(pixel.y), pixel.x, m);
    // Beyond the border the centre row or column stands in.
    if (pixel.y == 0) m[0] = m[1];
    if (pixel.y + 1 == size.height) m[2] = m[1];
    const std::size_t left = pixel.x == 0 ? 1 : 0, right = pixel.x + 1 == size.width ? 1 : 2;
    for (std::size_t i = 0; i < 3; ++i) {
        inOrder[3 * i] = m[i][left];
        inOrder[3 * i + 1] = m[i][1];
        inOrder[3 * i + 2] = m[i][right];
    }
}

/// Two at a time; of an odd number the last one is done with itself.
void refine(const SmoothedRows& rows, const cv::Size& size, const EdgeRows& edgeRows, const cv::Point* pixels,
            std::vector<cv::Point2f>& points) {
    double magnitudes[2][9];
    for (std::size_t k = 0; k < points.size(); k += 2) {
        const std::size_t next = std::min(k + 1, points.size() - 1);
        magnitudesOf(rows, size, edgeRows, pixels[k], magnitudes[0]);
        magnitudesOf(rows, size, edgeRows, pixels[next], magnitudes[1]);
        refinePair({&pixels[k], &pixels[next]}, magnitudes, {&points[k], &points[next]});
    }
}

}  // namespace

bool detectContourPoints(const cv::Mat& image, const EdgeSettings& settings, EdgeScratch& scratch,
                         std::vector<SubpixelContour>& contours) {
    const std::optional<EdgeRows> edgeRows = EdgeRows::of(settings.kernel, settings.lowScaled, settings.highScaled);
    const std::optional<RowGaussian> gaussian = RowGaussian::of(settings.aperture, settings.sigma);
    if (!edgeRows || !gaussian || settings.retrievalMode != cv::RETR_TREE || image.empty()) return false;

    const SmoothedImage smoothed(image.size(), scratch.smoothed);
    const Job job = {image, settings, *edgeRows, smoothed, scratch, hasWideLanes()};
    scratch.map.begin(image.size());
    if (settings.threaded) {
        findInColumns(job);
    } else {
        findInRows(job, *gaussian);
    }
    scratch.map.settle(scratch.pixels, !settings.threaded);
    scratch.tracer.trace(scratch.map);
    scratch.map.end();

    const std::vector<int> inner = innerContours(scratch.tracer, settings.minLength);
    contours.assign(inner.size(), {});
    std::size_t longest = 0;
    for (std::size_t k = 0; k < inner.size(); ++k) {
        const auto& contour = scratch.tracer.contours()[static_cast<std::size_t>(inner[k])];
        contours[k].points.resize(static_cast<std::size_t>(contour.length));
        longest = std::max(longest, contours[k].points.size());
    }
    smoothed.listRows(edgeRows->radius() + 1, scratch.rows);
    forEachInParallel(static_cast<int>(inner.size()), kPointTime * static_cast<std::int64_t>(longest), [&](int item) {
        const auto k = static_cast<std::size_t>(item);
        const auto& contour = scratch.tracer.contours()[static_cast<std::size_t>(inner[k])];
        refine(scratch.rows, image.size(), *edgeRows, scratch.tracer.pointsOf(contour), contours[k].points);
    });
    return true;
}

}  // namespace kestrune
