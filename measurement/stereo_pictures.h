// SPDX-License-Identifier: Apache-2.0
//
// Pictures of a stereo measurement for a person: both eyes side by side, and the markers in space.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "overlay.h"
#include "stereo_exposure.h"

namespace kestrune::measure {

/// The images of both eyes in one.
struct SideBySide {
    explicit SideBySide(const std::array<cv::Mat, 2>& images);

    Mark mark(std::size_t eye, MarkKind kind, const std::string& label, const cv::RotatedRect& rim) const;

    cv::Mat image;
    cv::Point2d shift;  ///< of the right eye's pixels
};

/// Joins the markers of each pair in doubt, and thinner those of its rivals, as long as these are few enough to be told
/// apart.
void drawRivals(const SideBySide& both, const StereoResult& result);

/// Both eyes side by side; the two ellipses of a pair have the same number and colour. Markers of pairs in doubt have
/// ? and the numbers of all such pairs that they may be in.
///
/// @param images  those in whose pixels the markers are.
/// @param labels  of the pairs, in their order; empty: their numbers.
/// @param wrong   indices of pairs to show as false, joined by a line.
/// @param missed  marks to add to each eye.
cv::Mat drawPairs(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title,
                  const std::vector<std::string>& labels = {}, const std::vector<int>& wrong = {},
                  const std::array<std::vector<Mark>, 2>& missed = {}, bool againstTruth = false);

/// A disc of the view in space.
struct ViewDisc {
    std::string label;
    cv::Vec3d centre;
    cv::Vec3d normal;                         ///< NaN: drawn facing the viewer, without a needle
    double radius;                            ///< NaN: a small one
    double value;                             ///< what the colour shows
    std::optional<cv::Matx33d> covariance{};  ///< of the centre, drawn as an ellipsoid
    bool doubtful = false;                    ///< dashed and without a colour, joined with its rivals
    std::vector<cv::Vec3d> rivals{};          ///< where its markers may be instead
};

/// Of a marker's point, where its disc was measured from two refined ellipses.
std::optional<cv::Matx33d> spreadOf(const StereoMarker& marker);

struct ViewText {
    std::string title;
    std::string valueName;  ///< heading of the colour bar
    std::string unit;       ///< of the axes
};

/// The discs seen obliquely from the cameras' side, above and to the right, in a box with ticks: x to the right, y down
/// and z away from the left camera. Needles are the normals, grey spots the discs' shadows on the floor. Where some
/// have covariances, their ellipsoids are drawn enlarged by a number that is told, and the rims of the others in a
/// colour.
cv::Mat drawView(const std::vector<ViewDisc>& discs, const ViewText& text);

/// The discs of an exposure in space, coloured by how far behind the nearest they are, and those in doubt; empty where
/// it gives no points.
cv::Mat drawPoints(const StereoResult& result, const std::string& title);

}  // namespace kestrune::measure
