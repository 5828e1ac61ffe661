// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/pixel_set.h"

#include <algorithm>
#include <cstdint>

namespace kestrune {

void PixelSet::assign(const std::vector<cv::Point>& points) {
    const auto [highest, lowest] = std::ranges::minmax(points, {}, &cv::Point::y);
    top_ = highest.y;
    const auto rowOf = [this](const cv::Point& point) { return static_cast<std::size_t>(point.y - top_); };
    const std::size_t rows = rowOf(lowest) + 1;
    ends_.assign(rows + 1, 0);
    for (const cv::Point& point : points) ++ends_[rowOf(point) + 1];
    for (std::size_t row = 0; row < rows; ++row) ends_[row + 1] += ends_[row];
    // From here on the end of the row before: each column that is put there moves it to the row's own.
    columns_.resize(points.size());
    for (const cv::Point& point : points) columns_[static_cast<std::size_t>(ends_[rowOf(point)]++)] = point.x;
    ends_.resize(rows);

    auto kept = columns_.begin();
    auto begin = columns_.begin();
    for (int& end : ends_) {
        const auto next = columns_.begin() + end;
        std::sort(begin, next);
        kept = std::unique_copy(begin, next, kept);
        end = static_cast<int>(kept - columns_.begin());
        begin = next;
    }
    columns_.erase(kept, columns_.end());
}

std::vector<cv::Point> PixelSet::pixels() const {
    std::vector<cv::Point> all;
    all.reserve(columns_.size());
    for (std::size_t row = 0; row < ends_.size(); ++row) {
        while (static_cast<int>(all.size()) < ends_[row]) {
            all.emplace_back(columns_[all.size()], top_ + static_cast<int>(row));
        }
    }
    return all;
}

template <bool kIsLeft>
std::int64_t PixelSet::twiceAreaBeside() {
    chain_.clear();
    int begin = 0;
    for (int row = 0; row < static_cast<int>(ends_.size()); ++row) {
        const int end = ends_[static_cast<std::size_t>(row)];
        if (begin == end) continue;
        const cv::Point corner(columns_[static_cast<std::size_t>(kIsLeft ? begin : end - 1)], row);
        begin = end;
        while (chain_.size() >= 2) {
            const cv::Point along = corner - chain_[chain_.size() - 2];
            const cv::Point side = chain_.back() - chain_[chain_.size() - 2];
            const std::int64_t turn = std::int64_t{side.x} * along.y - std::int64_t{along.x} * side.y;
            if (kIsLeft ? turn < 0 : turn > 0) break;  // the last one is a corner of the hull
            chain_.pop_back();
        }
        chain_.push_back(corner);
    }
    std::int64_t area = 0;
    for (std::size_t k = 1; k < chain_.size(); ++k) {
        area += std::int64_t{chain_[k].x + chain_[k - 1].x} * (chain_[k].y - chain_[k - 1].y);
    }
    return area;
}

double PixelSet::hullArea() {
    const std::int64_t right = twiceAreaBeside<false>();
    return static_cast<double>(right - twiceAreaBeside<true>()) * 0.5;
}

}  // namespace kestrune
