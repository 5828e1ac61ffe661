// SPDX-License-Identifier: Apache-2.0
//
// The pixels about one rim, sorted: those that the rim's blur reaches, one by one; those of the marker's middle and of
// its ground, as sums.
#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/flat_moments.h"
#include "refinement/hidden_sectors.h"

namespace kestrune::refinement {

/// What another marker of the image takes away from the window: pixels about and behind its rim.
struct Neighbour {
    geometry::SmoothEllipse ellipse;
    double clearance = 0;  ///< px on this side of its rim that are lost to it where this marker's rim is looked at
    double blurred = 0;    ///< px on this side of its rim that are no ground
};

/// Neighbouring pixels of a row.
struct FlatRun {
    const float* grey;
    int count;
};

/// Grey levels as numbers; pixels outside of the image are taken by no run.
class MarkerWindow {
  public:
    /// @param image       `CV_8UC1` or `CV_16UC1`
    /// @param ellipse     the rim, px
    /// @param reach       distance from the rim to which its blur is looked at, px
    /// @param ground      distance from the rim to which its ground is looked at, px; above `reach`
    /// @param neighbours  other rims nearby
    /// @param hidden      sectors that are left out
    void take(const cv::Mat& image, const geometry::SmoothEllipse& ellipse, double reach, double ground,
              const std::vector<Neighbour>& neighbours, const Sectors& hidden = {});

    /// Whether it was taken about this ellipse, with nothing hidden, and so far that a reach between the two is served.
    bool serves(const geometry::SmoothEllipse& ellipse, double leastReach, double mostReach) const;
    double reach() const { return reach_; }  ///< px

    const cv::Rect& rimBox() const { return rimBox_; }  ///< of the pixels about the rim, with room for it to move
    const LightFrame& frame() const { return frame_; }

    // The pixels of the rim, row by row.
    int rimCount() const { return rimCount_; }
    const float* grey() const { return grey_.data(); }
    const float* u() const { return u_.data(); }
    const float* v() const { return v_.data(); }
    /// Runs of them: where the blur comes to M by steps.
    struct Run {
        int y, x, count;  ///< px of the image
        int first;        ///< of the list of pixels, or -1 for pixels that are stepped over
    };
    const std::vector<Run>& runs() const { return runs_; }

    const FlatSums& inside() const { return inside_; }
    const FlatSums& outside() const { return outside_; }
    /// Pixels of the middle and of the ground, run by run.
    const std::vector<FlatRun>& insideRuns() const { return insideRuns_; }
    const std::vector<FlatRun>& outsideRuns() const { return outsideRuns_; }
    /// Whether any pixel of the window is at one of the limits.
    bool reaches(const cv::Vec2d& limits) const;
    /// Share of the pixels about the rim, 0 to 1, that are in the image and nobody else's.
    double rimShare() const { return static_cast<double>(rimCount()) / std::max(1, rimPixels_); }

    /// Grey level of a pixel of the box; 0 outside of the image.
    float at(int x, int y) const { return patch_[placeOf(x, y)]; }

    static constexpr int kPadding = 16;  ///< numbers behind the lists' last pixel that may be read, too

  private:
    std::size_t placeOf(int x, int y) const {
        return static_cast<std::size_t>(y - box_.y) * static_cast<std::size_t>(box_.width) +
               static_cast<std::size_t>(x - box_.x);
    }
    void copyPatch(const cv::Mat& image);
    void sortRow(int y, const geometry::SmoothEllipse& ellipse, const std::vector<Neighbour>& neighbours,
                 const Sectors& hidden);
    void markTaken(int y, const geometry::SmoothEllipse& ellipse, const Neighbour& other);
    void takeRow(int y, int from, int to, int kind);
    void takeRun(int y, int from, int to, int kind);

    cv::Rect box_, rimBox_, visible_;
    LightFrame frame_;
    std::vector<float> patch_;
    std::vector<float> grey_, u_, v_;
    std::vector<FlatRun> insideRuns_, outsideRuns_;
    std::vector<Run> runs_;
    std::vector<unsigned char> taken_;  // of a row: 1 where a neighbour's blur is, 2 where its rim has it
    FlatMoments insideMoments_, outsideMoments_;
    FlatSums inside_, outside_;
    geometry::SmoothEllipse ellipse_;
    bool isWhole_ = false;
    double reach_ = 0, ground_ = 0;
    int rimCount_ = 0;
    int rimPixels_ = 0;  // taken or not
};

/// Distance from the rim, px, to which its ground is looked at: some pixels beyond the blur, and as many as tell the
/// light across the marker.
inline double groundOf(const geometry::SmoothEllipse& ellipse, double reach) {
    constexpr double kLeast = 4, kShare = 0.5;
    return reach + std::max(kLeast, kShare * ellipse.s);
}

/// How many pixels of the runs are at one of the limits.
int countAtLimits(const std::vector<FlatRun>& runs, const cv::Vec2d& limits);

/// Columns of a row inside of an ellipse: from <= x <= to; none if from > to.
struct RowInterval {
    int from = 0, to = -1;
};

/// The ellipse with both half axes `by` px longer; `s` is 0 where nothing is left.
geometry::SmoothEllipse dilated(const geometry::SmoothEllipse& ellipse, double by);

/// The same shape shrunk until it is `by` px from the rim everywhere; `s` is 0 where nothing is left.
geometry::SmoothEllipse shrunk(const geometry::SmoothEllipse& ellipse, double by);

/// Whether the other lies within this one.
bool surrounds(const geometry::SmoothEllipse& ellipse, const geometry::SmoothEllipse& other);

RowInterval rowOf(const geometry::SmoothEllipse& ellipse, int y);

}  // namespace kestrune::refinement
