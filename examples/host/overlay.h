// SPDX-License-Identifier: Apache-2.0
//
// A picture for a person: the image, enlarged until its smallest markers can be judged by eye, with what was found on
// it.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "markers.h"

namespace kestrune::host {

enum class MarkKind {
    found,
    missed,  ///< a marker that is there and was not found
    wrong,   ///< a detection where no marker is
};

/// An ellipse to draw, in pixels of the image.
struct Mark {
    MarkKind kind;
    std::string label;
    cv::Point2d centre;
    double majorHalfAxis;
    double minorHalfAxis;
    double angle;  ///< of the major axis to the x axis, degrees
};

/// The mark of a detection. The fast path tells no ellipse: its marks are circles of the same area.
Mark markOf(const Marker& marker, MarkKind kind);

/// Draws the marks on an enlarged copy of `image` under a banner with `title` and the count of each kind.
///
/// @param image         `CV_8UC1` or `CV_8UC3`.
/// @param againstTruth  count missed and false ones too, also where there are none.
cv::Mat drawOverlay(const cv::Mat& image, const std::vector<Mark>& marks, const std::string& title, bool againstTruth);

/// Writes a picture in the format of the file's extension. @throws InputError
void writePicture(const std::string& file, const cv::Mat& picture);

}  // namespace kestrune::host
