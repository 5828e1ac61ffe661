// SPDX-License-Identifier: Apache-2.0
#include "canny/edge_map.h"

#include <array>

namespace kestrune {

namespace {

constexpr EdgeMap::Cell kNothing = 0;
constexpr EdgeMap::Cell kEdge = 1;
constexpr EdgeMap::Cell kCandidate = 2;

}  // namespace

void EdgeMap::begin(const cv::Size& size) {
    if (!isClean_ || size != size_) {
        size_ = size;
        cells_.assign(static_cast<std::size_t>(step()) * (static_cast<std::size_t>(size.height) + 2), kNothing);
    }
    isClean_ = false;
}

void EdgeMap::mark(const std::vector<cv::Point>& candidates) {
    for (const cv::Point& pixel : candidates) *at(pixel) = kCandidate;
}

void EdgeMap::link(const std::vector<cv::Point>& seeds, int first, int end) {
    // Right to left: at the ends of the columns the neighbours beyond are left out.
    const std::ptrdiff_t down = step();
    const std::array<cv::Point, 8> steps = {{{1, -1}, {1, 0}, {1, 1}, {0, -1}, {0, 1}, {-1, -1}, {-1, 0}, {-1, 1}}};
    std::array<std::ptrdiff_t, 8> offsets;
    for (std::size_t i = 0; i < 8; ++i) offsets[i] = steps[i].y * down + steps[i].x;
    for (const cv::Point& seed : seeds) {
        if (*at(seed) != kCandidate) continue;
        *at(seed) = kEdge;
        open_.push_back(seed);
        while (!open_.empty()) {
            const cv::Point pixel = open_.back();
            open_.pop_back();
            Cell* const cell = at(pixel);
            const std::size_t to = pixel.x > first ? 8 : 5;
            for (std::size_t i = pixel.x + 1 < end ? 0 : 3; i < to; ++i) {
                if (cell[offsets[i]] != kCandidate) continue;
                cell[offsets[i]] = kEdge;
                open_.push_back(pixel + steps[i]);
            }
        }
    }
}

void EdgeMap::settle(const std::vector<EdgePixels>& found) {
    rowEnds_.assign(static_cast<std::size_t>(size_.height) + 1, 0);
    for (const EdgePixels& part : found) {
        for (const cv::Point& pixel : part.candidates) {
            Cell& cell = *at(pixel);
            if (cell == kEdge) ++rowEnds_[static_cast<std::size_t>(pixel.y) + 1];
            if (cell == kCandidate) cell = kNothing;
        }
    }
    for (std::size_t y = 1; y < rowEnds_.size(); ++y) rowEnds_[y] += rowEnds_[y - 1];
    edges_.resize(rowEnds_.back());
    for (const EdgePixels& part : found) {
        for (const cv::Point& pixel : part.candidates) {
            if (*at(pixel) == kEdge) edges_[rowEnds_[static_cast<std::size_t>(pixel.y)]++] = pixel;
        }
    }
}

void EdgeMap::end() {
    for (const cv::Point& pixel : edges_) *at(pixel) = kNothing;
    isClean_ = true;
}

}  // namespace kestrune
