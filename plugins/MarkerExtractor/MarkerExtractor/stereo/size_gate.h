// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/sample_points.h"

namespace kestrune {

/// A marker's size in space: the mean distance of its rim from its centre and the scatter of that distance.
struct MarkerSize {
    double radius, spread;
};

using SamplesInSpace = std::array<cv::Vec3d, kSampleCount>;

/// Size of the marker whose sample points in space are given. The nearest and the farthest of the six rim points are
/// left out.
MarkerSize markerSize(const SamplesInSpace& samples);

/// Compares sizes with the nominal radii by the test that the settings choose.
class SizeGate {
  public:
    explicit SizeGate(const RectifiedMatchSettings& settings);

    /// Whether the size fits one of the nominal radii.
    bool passes(const MarkerSize& size) const;
    /// Why it fits none: the window or the score of the one that it comes nearest to. Without the markers.
    PairVerdict refusal(const MarkerSize& size) const;

    /// Nominal ones, ascending, NaN last.
    const std::vector<double>& radii() const { return radii_; }

  private:
    enum class Window { none, open, closed, symmetric };
    /// One way to judge a size against a nominal radius.
    struct Test {
        Window window;
        double ratioAbove;    ///< of the windows `open` and `closed`
        bool limitsSpread;    ///< the spread alone is bounded
        bool scoresDeviance;  ///< the sum of relative deviation and spread is bounded
    };
    struct Range {
        double least, largest;
    };
    static const Test& chooseTest(const RectifiedMatchSettings& settings);
    Range windowOf(double nominal) const;
    bool isInWindow(double radius, double nominal) const;
    double devianceOf(const MarkerSize& size, double nominal) const;

    const Test& test_;
    std::vector<double> radii_;
    double tolerance_, deviationFactor_;
};

}  // namespace kestrune
