// SPDX-License-Identifier: Apache-2.0
//
// What a front end met and did not deliver as a candidate, as data: nobody but who asks pays for it, and no result
// depends on it.
#pragma once

#include <limits>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// What was met.
enum class Met {
    kBlob,     ///< pixels that passed a threshold and hang together
    kContour,  ///< the outline of an edge
    kEdge,     ///< a line of weak pixels
};

/// What it was dropped for, with the front ends that ask.
enum class DropCause {
    kNone,
    // Radial, of a blob in pixels of the reduced image.
    kArea,           ///< number of pixels
    kSide,           ///< shorter side of the box, px
    kElongation,     ///< longer over shorter side
    kRingContrast,   ///< mean less that of the ring around, grey levels
    kProbeContrast,  ///< share of the directions that show the contrast
    kWindow,         ///< surroundings at full size that leave the image, px beyond it
    kNotFoundAgain,  ///< nothing but background at full size
    kBorder,         ///< rays that would leave the full image, px beyond it
    kRays,           ///< share of the rays with an edge
    kUnevenRays,     ///< the same after outliers are out
    // Edge-based, of a blob in the reduced and of a contour in the full image.
    kPixels,          ///< number of pixels
    kLongerSide,      ///< of the box, px
    kShorterSide,     ///< of the box, px
    kBoxRatio,        ///< shorter over longer side
    kPerimeterShare,  ///< pixels over the box's perimeter
    kFill,            ///< pixels over the area of the ellipse in the box
    kNoRim,           ///< a blob whose window holds no candidate: pixels of its longest line
    kOpenLine,        ///< a line without a hole, pixels out and back
    kNesting,         ///< inner over outer area
    // Sub-pixel.
    kLength,       ///< pixels
    kOpenContour,  ///< no loop, pixels out and back
    kFrame,        ///< a loop around another contour, whose pixels are told
    kWeakEdge,     ///< strongest pixel, grey levels
    // By hand.
    kWeakStep,  ///< strongest pixel, grey levels
    // Fast.
    kInside,     ///< inside another shape, area in px^2
    kGreyLevel,  ///< round, but at another threshold, which is told
};

struct Drop {
    Met met{};
    DropCause cause = DropCause::kNone;
    double measured = std::numeric_limits<double>::quiet_NaN();  ///< NaN where there is nothing to measure
    double least = -std::numeric_limits<double>::infinity();     ///< bounds of what passes
    double largest = std::numeric_limits<double>::infinity();
    cv::Rect2d box;  ///< px of the image in whose pixels the front end delivers candidates

    explicit operator bool() const { return cause != DropCause::kNone; }
};

using Drops = std::vector<Drop>;

template <typename Number>
Drop below(DropCause cause, Number measured, Number least) {
    Drop drop;
    drop.cause = cause;
    drop.measured = static_cast<double>(measured);
    drop.least = static_cast<double>(least);
    return drop;
}

template <typename Number>
Drop above(DropCause cause, Number measured, Number largest) {
    Drop drop;
    drop.cause = cause;
    drop.measured = static_cast<double>(measured);
    drop.largest = static_cast<double>(largest);
    return drop;
}

/// Adds a drop to the list, where there is one.
inline void note(Drops* drops, Met met, Drop drop, const cv::Rect2d& box) {
    if (drops == nullptr) return;
    drop.met = met;
    drop.box = box;
    drops->push_back(drop);
}

}  // namespace kestrune
