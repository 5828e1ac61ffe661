// SPDX-License-Identifier: Apache-2.0
#include "refinement/marker_window.h"

#include <algorithm>
#include <cmath>

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

enum Kind { kInside, kRim, kOutside };

// A rim may move by this, or its blur grow, and still be drawn in its box, px.
constexpr double kRoom = 3;
// Columns of a row end here, px: records may have any numbers.
constexpr double kFarthest = 1e9;

cv::Rect boxAbout(const SmoothEllipse& ellipse, double margin) {
    const cv::Point2d half = dilated(ellipse, margin).halfSize();
    const cv::Point from(static_cast<int>(std::floor(ellipse.x - half.x)),
                         static_cast<int>(std::floor(ellipse.y - half.y)));
    const cv::Point to(static_cast<int>(std::ceil(ellipse.x + half.x)) + 1,
                       static_cast<int>(std::ceil(ellipse.y + half.y)) + 1);
    return {from, to};
}

}  // namespace

SmoothEllipse dilated(const SmoothEllipse& ellipse, double by) {
    SmoothEllipse result = ellipse;
    result.s += by;
    if (result.minorHalfAxis() <= 0) result.s = result.e1 = result.e2 = 0;
    return result;
}

SmoothEllipse shrunk(const SmoothEllipse& ellipse, double by) {
    SmoothEllipse result = ellipse;
    const double scale = std::max(0.0, 1 - by / ellipse.minorHalfAxis());
    result.s *= scale, result.e1 *= scale, result.e2 *= scale;
    return result;
}

bool surrounds(const SmoothEllipse& ellipse, const SmoothEllipse& other) {
    return ellipse.s > other.s && std::hypot(ellipse.x - other.x, ellipse.y - other.y) < ellipse.minorHalfAxis();
}

RowInterval rowOf(const SmoothEllipse& ellipse, int y) {
    if (!(ellipse.s > 0)) return {};
    // With Q^-1 = [p q; q r]: the middle of the row is x + dy q / r, half of it sqrt((p - q^2 / r) (1 - dy^2 / r)).
    const double round = ellipse.s * ellipse.s + ellipse.e1 * ellipse.e1 + ellipse.e2 * ellipse.e2;
    const double p = round + 2 * ellipse.s * ellipse.e1, r = round - 2 * ellipse.s * ellipse.e1;
    const double q = 2 * ellipse.s * ellipse.e2, dy = y - ellipse.y;
    const double left = 1 - dy * dy / r;
    if (!(left >= 0)) return {};
    const auto column = [](double x) { return static_cast<int>(std::clamp(x, -kFarthest, kFarthest)); };
    const double middle = ellipse.x + dy * q / r, half = std::sqrt(std::max(0.0, (p - q * q / r) * left));
    if (!std::isfinite(middle)) return {};
    return {column(std::ceil(middle - half)), column(std::floor(middle + half))};
}

void MarkerWindow::copyPatch(const cv::Mat& image) {
    const auto size = static_cast<std::size_t>(box_.area()) + kPadding;
    for (std::vector<float>* list : {&patch_, &grey_, &u_, &v_})
        if (list->size() < size) list->resize(size);
    if (visible_ != box_) std::fill(patch_.begin(), patch_.end(), 0.0F);
    for (int y = visible_.y; y < visible_.br().y; ++y) {
        float* to = &patch_[placeOf(visible_.x, y)];
        if (image.depth() == CV_8U) {
            std::copy_n(image.ptr<unsigned char>(y) + visible_.x, visible_.width, to);
        } else {
            std::copy_n(image.ptr<unsigned short>(y) + visible_.x, visible_.width, to);
        }
    }
}

void MarkerWindow::take(const cv::Mat& image, const SmoothEllipse& ellipse, double reach, double ground,
                        const std::vector<Neighbour>& neighbours, const Sectors& hidden) {
    reach_ = reach, ground_ = ground;
    ellipse_ = ellipse, isWhole_ = hidden.none();
    box_ = boxAbout(ellipse, ground + 2);
    rimBox_ = boxAbout(ellipse, reach + kRoom);
    visible_ = box_ & cv::Rect({}, image.size());
    copyPatch(image);
    frame_ = {static_cast<int>(std::lround(ellipse.x)), static_cast<int>(std::lround(ellipse.y)),
              1 / (ellipse.s + ground)};
    rimPixels_ = 0;
    runs_.clear();
    rimCount_ = 0;
    insideRuns_.clear(), outsideRuns_.clear();
    const double reference = visible_.contains({frame_.x, frame_.y}) ? at(frame_.x, frame_.y) : 0;
    insideMoments_.reset(frame_, reference);
    outsideMoments_.reset(frame_, reference);
    for (int y = box_.y; y < box_.br().y; ++y) sortRow(y, ellipse, neighbours, hidden);
    inside_ = insideMoments_.sums();
    outside_ = outsideMoments_.sums();
}

bool MarkerWindow::serves(const SmoothEllipse& ellipse, double leastReach, double mostReach) const {
    return isWhole_ && ellipse.x == ellipse_.x && ellipse.y == ellipse_.y && ellipse.s == ellipse_.s &&
           ellipse.e1 == ellipse_.e1 && ellipse.e2 == ellipse_.e2 && reach_ >= leastReach && reach_ <= mostReach;
}

int countAtLimits(const std::vector<FlatRun>& runs, const cv::Vec2d& limits) {
    const auto least = static_cast<float>(limits[0]), most = static_cast<float>(limits[1]);
    int count = 0;
    for (const FlatRun& run : runs)
        for (int i = 0; i < run.count; ++i) count += (run.grey[i] <= least) | (run.grey[i] >= most);
    return count;
}

bool MarkerWindow::reaches(const cv::Vec2d& limits) const {
    return countAtLimits({{grey_.data(), rimCount_}}, limits) > 0 || countAtLimits(insideRuns_, limits) > 0 ||
           countAtLimits(outsideRuns_, limits) > 0;
}

void MarkerWindow::sortRow(int y, const SmoothEllipse& ellipse, const std::vector<Neighbour>& neighbours,
                           const Sectors& hidden) {
    const RowInterval all = rowOf(dilated(ellipse, ground_), y);
    if (all.from > all.to) return;
    const RowInterval blurred = rowOf(dilated(ellipse, reach_), y), middle = rowOf(shrunk(ellipse, reach_), y);
    const auto length = [](const RowInterval& row) { return std::max(0, row.to - row.from + 1); };
    rimPixels_ += length(blurred) - length(middle);
    if (y < visible_.y || y >= visible_.br().y) return;
    taken_.assign(static_cast<std::size_t>(box_.width), 0);
    for (const Neighbour& other : neighbours) markTaken(y, ellipse, other);
    if (hidden.any()) {
        for (int x = box_.x; x < box_.br().x; ++x)
            if (hidden[static_cast<std::size_t>(sectorOf(ellipse, x, y))])
                taken_[static_cast<std::size_t>(x - box_.x)] = 2;
    }
    if (blurred.from > blurred.to) {
        takeRow(y, all.from, all.to, kOutside);
        return;
    }
    takeRow(y, all.from, blurred.from - 1, kOutside);
    if (middle.from > middle.to) {
        takeRow(y, blurred.from, blurred.to, kRim);
    } else {
        takeRow(y, blurred.from, middle.from - 1, kRim);
        takeRow(y, middle.from, middle.to, kInside);
        takeRow(y, middle.to + 1, blurred.to, kRim);
    }
    takeRow(y, blurred.to + 1, all.to, kOutside);
}

void MarkerWindow::markTaken(int y, const SmoothEllipse& ellipse, const Neighbour& other) {
    const auto mark = [&](int x0, int x1, unsigned char by) {
        for (int x = std::max(x0, box_.x); x <= std::min(x1, box_.br().x - 1); ++x) {
            unsigned char& cell = taken_[static_cast<std::size_t>(x - box_.x)];
            cell = std::max(cell, by);
        }
    };
    // This marker lies within the other: what is about and outside of that rim is not its ground.
    const bool around = surrounds(other.ellipse, ellipse);
    for (const unsigned char by : {1, 2}) {
        const double far = by == 1 ? other.blurred : other.clearance;
        const RowInterval row = rowOf(dilated(other.ellipse, around ? -far : far), y);
        if (!around) {
            mark(row.from, row.to, by);
        } else if (row.from > row.to) {
            mark(box_.x, box_.br().x, by);
        } else {
            mark(box_.x, row.from - 1, by);
            mark(row.to + 1, box_.br().x, by);
        }
    }
}

void MarkerWindow::takeRow(int y, int from, int to, int kind) {
    from = std::max(from, visible_.x), to = std::min(to, visible_.br().x - 1);
    const auto isLost = [&](int x) { return taken_[static_cast<std::size_t>(x - box_.x)] > (kind == kRim ? 1 : 0); };
    while (from <= to) {
        const bool lost = isLost(from);
        int stop = from + 1;
        while (stop <= to && isLost(stop) == lost) ++stop;
        if (!lost || kind == kRim) takeRun(y, from, stop, lost ? -1 : kind);
        from = stop;
    }
}

void MarkerWindow::takeRun(int y, int from, int to, int kind) {
    const float* pixels = &patch_[placeOf(from, y)];
    if (kind == kInside || kind == kOutside) {
        (kind == kInside ? insideMoments_ : outsideMoments_).add(from, y, to - from, pixels);
        (kind == kInside ? insideRuns_ : outsideRuns_).push_back({pixels, to - from});
        return;
    }
    const bool lost = kind != kRim;
    runs_.push_back({y, from, to - from, lost ? -1 : rimCount_});
    if (lost) return;
    const auto v = static_cast<float>((y - frame_.y) * frame_.perPixel);
    const auto perPixel = static_cast<float>(frame_.perPixel);
    const auto at = static_cast<std::size_t>(rimCount_);
    for (std::size_t i = 0; i < static_cast<std::size_t>(to - from); ++i) {
        grey_[at + i] = pixels[i];
        u_[at + i] = static_cast<float>(from - frame_.x + static_cast<int>(i)) * perPixel;
        v_[at + i] = v;
    }
    rimCount_ += to - from;
}

}  // namespace kestrune::refinement
