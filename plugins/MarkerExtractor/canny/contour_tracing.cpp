// SPDX-License-Identifier: Apache-2.0
#include "canny/contour_tracing.h"

#include <algorithm>

namespace kestrune {

namespace {

using Cell = EdgeMap::Cell;

constexpr int kFirstLabel = 2;
constexpr int kFirstLabelAgain = 3;
constexpr int kLabelMask = 127;
constexpr int kRightSide = -128;  ///< bit of a label on a pixel to the right of which there is nothing

/// The eight neighbours, counter-clockwise from the right one, twice, so that a turn need not wrap.
struct Neighbours {
    explicit Neighbours(std::ptrdiff_t step) {
        const std::ptrdiff_t once[8] = {1, 1 - step, -step, -step - 1, -1, step - 1, step, step + 1};
        for (std::size_t i = 0; i < 16; ++i) offsets[i] = once[i % 8];
    }
    std::array<std::ptrdiff_t, 16> offsets;
};
constexpr int kStepX[8] = {1, 1, 0, -1, -1, -1, 0, 1};
constexpr int kStepY[8] = {0, -1, -1, -1, 0, 1, 1, 1};

/// Goes along a border, once around.
class BorderWalk {
  public:
    BorderWalk(Cell* start, const Neighbours& neighbours, bool isHole) : neighbours_(neighbours), start_(start) {
        const int from = isHole ? 0 : 4;
        int s = from;
        do {
            s = (s - 1) & 7;
            last_ = start_ + neighbours_.offsets[static_cast<std::size_t>(s)];
        } while (*last_ == 0 && s != from);
        isSingle_ = s == from;
        direction_ = s;
    }

    bool isSingle() const { return isSingle_; }  ///< a pixel without neighbours on this side

    /// Finds where the border goes on from `cell`.
    ///
    /// @return whether the right neighbour was among those that were passed over: it is empty.
    bool turn(const Cell* cell) {
        const int from = direction_;
        int s = from;
        do {
            ++s;
            next_ = neighbours_.offsets[static_cast<std::size_t>(s)];
        } while (cell[next_] == 0 && s < 15);
        direction_ = s & 7;
        return static_cast<unsigned>(direction_ - 1) < static_cast<unsigned>(from);
    }
    int direction() const { return direction_; }
    std::ptrdiff_t next() const { return next_; }
    /// Whether the step from `cell` is the one that closes the border.
    bool closes(const Cell* cell) const { return cell + next_ == start_ && cell == last_; }
    /// Whether there is nothing between the direction of the next step and the right, clockwise.
    bool hasRightSide(const Cell* cell) const {
        int t = direction_;
        do {
            t = (t - 1) & 7;
            if (cell[neighbours_.offsets[static_cast<std::size_t>(t)]] != 0) return false;
        } while (t != 0);
        return true;
    }
    void advance() { direction_ = (direction_ + 4) & 7; }

  private:
    const Neighbours& neighbours_;
    Cell* const start_;
    Cell* last_ = nullptr;
    std::ptrdiff_t next_ = 0;
    int direction_ = 0;
    bool isSingle_ = false;
};

/// Whether a contour goes through a cell; one with nothing on its right, so that this is on the contour's side.
bool passesThrough(Cell* start, const Neighbours& neighbours, bool isHole, const Cell* wanted) {
    BorderWalk walk(start, neighbours, isHole);
    const Cell* cell = start;
    if (walk.isSingle()) return cell == wanted;
    for (;;) {
        walk.turn(cell);
        if (cell == wanted && (*cell >= 0 || walk.hasRightSide(cell))) return true;
        if (walk.closes(cell)) return false;
        cell += walk.next();
        walk.advance();
    }
}

}  // namespace

void ContourTracer::trace(EdgeMap& map) {
    points_.clear();
    contours_.clear();
    latest_.fill(-1);
    label_ = kFirstLabel;
    firstRoot_ = -1;
    const cv::Point* pixel = map.edges().data();
    const cv::Point* const end = pixel + map.edges().size();
    while (pixel != end) {
        const int y = pixel->y;
        const cv::Point* const rowEnd = std::find_if(pixel, end, [y](const cv::Point& p) { return p.y != y; });
        traceRow(map, pixel, rowEnd);
        pixel = rowEnd;
    }
    putInOrder();
}

/// Looks at each pixel that differs from the one before it, as seen from the left. The last labelled pixel tells what
/// surrounds the place.
void ContourTracer::traceRow(EdgeMap& map, const cv::Point* pixel, const cv::Point* end) {
    cv::Point labelled(-1, pixel->y);  // column -1: none in this row
    Cell before = 0;
    for (; pixel != end; ++pixel) {
        Cell* const cell = map.at(*pixel);
        if (*cell != before) {
            if (before == 0 && *cell == 1) {
                const int parent = parentOf(map, labelled, false);
                labelled.x = pixel->x;
                follow(map, *pixel, false, parent);
            } else if ((*cell & -2) != 0) {
                labelled.x = pixel->x;
            }
            before = *cell;
        }
        const bool isLastOfRun = pixel + 1 == end || pixel[1].x != pixel->x + 1;
        if (!isLastOfRun) continue;
        if (before > 0 && pixel->x + 1 < map.size().width) {  // beyond it an inner side begins
            if (before != 1) labelled.x = pixel->x;
            const int parent = parentOf(map, labelled, true);
            labelled.x = pixel->x;
            follow(map, *pixel, true, parent);
        }
        before = 0;
    }
}

int ContourTracer::parentOf(EdgeMap& map, const cv::Point& labelled, bool isHole) const {
    if (labelled.x < 0) return -1;
    const Neighbours neighbours(map.step());
    int bearer = -1;
    for (int c = latest_[static_cast<std::size_t>(*map.at(labelled) & kLabelMask)]; c != -1;) {
        const Contour& contour = contours_[static_cast<std::size_t>(c)];
        if (contour.box.contains(labelled)) {
            if (bearer != -1) {
                const Contour& other = contours_[static_cast<std::size_t>(bearer)];
                if (passesThrough(map.at(points_[other.first]), neighbours, other.isHole, map.at(labelled))) break;
            }
            bearer = c;
        }
        c = contour.sameLabel;
    }
    const Contour& contour = contours_[static_cast<std::size_t>(bearer)];
    return contour.isHole == isHole ? contour.parent : bearer;
}

void ContourTracer::follow(EdgeMap& map, const cv::Point& start, bool isHole, int parent) {
    const int index = static_cast<int>(contours_.size());
    int& latest = latest_[static_cast<std::size_t>(label_)];
    int& sibling = parent == -1 ? firstRoot_ : contours_[static_cast<std::size_t>(parent)].firstChild;
    const std::size_t first = points_.size();
    const auto label = static_cast<Cell>(label_);
    const auto rightLabel = static_cast<Cell>(label_ | kRightSide);

    const Neighbours neighbours(map.step());
    Cell* cell = map.at(start);
    BorderWalk walk(cell, neighbours, isHole);
    cv::Point pixel = start, low = start, high = start;
    if (walk.isSingle()) {
        *cell = rightLabel;
        points_.push_back(pixel);
    }
    for (bool isOpen = !walk.isSingle(); isOpen;) {
        if (walk.turn(cell)) {
            *cell = rightLabel;
        } else if (*cell == 1) {
            *cell = label;
        }
        points_.push_back(pixel);
        low = {std::min(low.x, pixel.x), std::min(low.y, pixel.y)};
        high = {std::max(high.x, pixel.x), std::max(high.y, pixel.y)};
        pixel.x += kStepX[walk.direction()];
        pixel.y += kStepY[walk.direction()];
        isOpen = !walk.closes(cell);
        cell += walk.next();
        walk.advance();
    }
    const cv::Rect box(low, high + cv::Point(1, 1));
    const Contour contour = {first, static_cast<int>(points_.size() - first), parent, isHole, box, latest, -1, sibling};
    latest = sibling = index;
    contours_.push_back(contour);
    label_ = label_ == kLabelMask ? kFirstLabelAgain : label_ + 1;
}

void ContourTracer::putInOrder() {
    order_.clear();
    for (int c = firstRoot_; c != -1;) {
        order_.push_back(c);
        const Contour* contour = &contours_[static_cast<std::size_t>(c)];
        if (contour->firstChild != -1) {
            c = contour->firstChild;
            continue;
        }
        while (contour->nextSibling == -1 && contour->parent != -1) {
            contour = &contours_[static_cast<std::size_t>(contour->parent)];
        }
        c = contour->nextSibling;
    }
}

}  // namespace kestrune
