// SPDX-License-Identifier: Apache-2.0
#include "canny/edge_map.h"

namespace kestrune {

namespace {

constexpr EdgeMap::Cell kNothing = 0;
constexpr EdgeMap::Cell kEdgeCell = 1;  ///< a bit, beside that of the candidate until the map is settled
constexpr EdgeMap::Cell kCandidateCell = 2;

}  // namespace

void EdgeMap::begin(const cv::Size& size) {
    if (!isClean_ || size != size_) {
        size_ = size;
        cells_.assign(static_cast<std::size_t>(step()) * (static_cast<std::size_t>(size.height) + 2), kNothing);
    }
    isClean_ = false;
}

void EdgeMap::mark(const std::vector<cv::Point>& candidates) {
    for (const cv::Point& pixel : candidates) *at(pixel) = kCandidateCell;
}

/// Most candidates get their edge from a neighbour that lies before them, and most of the others from one that lies
/// behind. Both passes take what their neighbours have without a branch; only what winds more is followed by a flood.
template <bool kSeams>
void EdgeMap::linkWithin(std::span<const EdgePixels> parts, int first, int end) {
    const std::ptrdiff_t down = step();
    // What the neighbours in the row above or below have, and the one beside.
    const auto take = [&](const cv::Point& pixel, std::ptrdiff_t row, std::ptrdiff_t beside) {
        Cell* const cell = at(pixel);
        int all = static_cast<uchar>(cell[row]);
        if (!kSeams || pixel.x > first) all |= cell[row - 1];
        if (!kSeams || pixel.x + 1 < end) all |= cell[row + 1];
        if (!kSeams || (beside < 0 ? pixel.x > first : pixel.x + 1 < end)) all |= cell[beside];
        *cell = static_cast<Cell>(*cell | (all & kEdgeCell));
    };
    for (const EdgePixels& part : parts) {
        for (const cv::Point& seed : part.seeds) *at(seed) = kCandidateCell | kEdgeCell;
    }
    for (const EdgePixels& part : parts) {
        for (const cv::Point& pixel : part.candidates) take(pixel, -down, -1);
    }
    for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
        for (auto pixel = part->candidates.rbegin(); pixel != part->candidates.rend(); ++pixel) take(*pixel, down, 1);
    }
    for (const EdgePixels& part : parts) {
        for (const cv::Point& pixel : part.candidates) {
            if (*at(pixel) != kCandidateCell) continue;
            take(pixel, -down, -1);
            take(pixel, down, 1);
            if (*at(pixel) != kCandidateCell) flood(pixel, first, end);
        }
    }
}

void EdgeMap::flood(const cv::Point& edge, int first, int end) {
    open_.push_back(edge);
    while (!open_.empty()) {
        const cv::Point pixel = open_.back();
        open_.pop_back();
        for (int dx = pixel.x > first ? -1 : 0; dx <= (pixel.x + 1 < end ? 1 : 0); ++dx) {
            for (int dy = -1; dy <= 1; ++dy) {
                const cv::Point neighbour(pixel.x + dx, pixel.y + dy);
                if (*at(neighbour) != kCandidateCell) continue;
                *at(neighbour) = kCandidateCell | kEdgeCell;
                open_.push_back(neighbour);
            }
        }
    }
}

void EdgeMap::link(std::span<const EdgePixels> parts, int first, int end) {
    if (first == 0 && end == size_.width) {
        linkWithin<false>(parts, first, end);
    } else {
        linkWithin<true>(parts, first, end);
    }
}

void EdgeMap::settle(std::span<const EdgePixels> parts, bool areBelowEachOther) {
    std::size_t most = 1;
    for (const EdgePixels& part : parts) most += part.candidates.size();
    edges_.resize(most);
    std::size_t count = 0;
    for (const EdgePixels& part : parts) {
        for (const cv::Point& pixel : part.candidates) {
            Cell& cell = *at(pixel);
            cell = static_cast<Cell>(cell & kEdgeCell);
            edges_[count] = pixel;
            count += static_cast<std::size_t>(cell);
        }
    }
    edges_.resize(count);
    if (!areBelowEachOther) sortByRow();
}

/// Pixels of one row keep their order.
void EdgeMap::sortByRow() {
    rowEnds_.assign(static_cast<std::size_t>(size_.height) + 1, 0);
    for (const cv::Point& pixel : edges_) ++rowEnds_[static_cast<std::size_t>(pixel.y) + 1];
    for (std::size_t y = 1; y < rowEnds_.size(); ++y) rowEnds_[y] += rowEnds_[y - 1];
    sorted_.resize(edges_.size());
    for (const cv::Point& pixel : edges_) sorted_[rowEnds_[static_cast<std::size_t>(pixel.y)]++] = pixel;
    edges_.swap(sorted_);
}

void EdgeMap::end() {
    for (const cv::Point& pixel : edges_) *at(pixel) = kNothing;
    isClean_ = true;
}

}  // namespace kestrune
