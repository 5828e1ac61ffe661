// SPDX-License-Identifier: Apache-2.0
//
// A picture for a person: the image, at most twice as large, with what was found on it. Lines and letters grow with the
// picture, so that both show where the whole of it is shrunk to a screen.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "error_ellipse.h"
#include "markers.h"

namespace kestrune::measure {

enum class MarkKind {
    found,
    missed,     ///< a marker that is there and was not found
    wrong,      ///< a detection where no marker is, or a pair of two different markers
    paired,     ///< a marker found in both eyes
    unmatched,  ///< a detection without a partner in the other eye
    bright,     ///< found, and brighter than its ground
    dark,       ///< found, and darker than its ground: drawn dashed
    refused,    ///< a candidate that is no marker: drawn below the others
    unrefined,  ///< found, and kept as the path measured it where others were refined
    ambiguous,  ///< found in both eyes, with more than one that may be its partner: drawn dashed
};

/// An ellipse to draw, in pixels of the image.
struct Mark {
    MarkKind kind;
    std::string label;
    cv::Point2d centre;
    double majorHalfAxis;
    double minorHalfAxis;
    double angle;                        ///< of the major axis to the x axis, degrees
    std::optional<cv::Scalar> colour{};  ///< BGR, in place of that of the kind
    bool dashed = false;                 ///< whatever the kind
    /// Drawn in place of the ellipse, which still says how large the mark is: lines between points that are near.
    std::vector<cv::Point2f> outline{};
    std::optional<ErrorEllipse> error{};  ///< of the centre, px; drawn enlarged by `MarkStyle::errorScale`
};

/// What the banner tells of each kind.
struct LegendEntry {
    MarkKind kind;
    std::size_t count;
    std::string name{};                  ///< in place of that of the kind
    std::optional<cv::Scalar> colour{};  ///< BGR, in place of that of the kind
};
using Legend = std::vector<LegendEntry>;

/// How many of the marks are found, by polarity where that is known.
Legend foundLegend(const std::vector<Mark>& marks);

/// The mark of a detection. The fast path tells no ellipse: its marks are circles of the same area.
Mark markOf(const Marker& marker, MarkKind kind);

/// `found`, or what is known better where the path takes both kinds.
MarkKind foundKind(Polarity polarity);

/// How marks are drawn on a picture that is no wider than a screen.
struct MarkStyle {
    int rim = 2;             ///< width of an ellipse, px
    double leastText = 0.5;  ///< scale of the smallest label
    double errorScale = 0;   ///< of the marks' error ellipses; 0: none are drawn
};

/// The image (`CV_8UC1` or `CV_8UC3`) `zoom` times as large, a little darker, with the marks on it.
cv::Mat drawMarks(const cv::Mat& image, const std::vector<Mark>& marks, int zoom, const MarkStyle& style = {});

/// The same, enlarged at most twice so that the marks can be judged by eye, under a banner with `title` and `legend`.
cv::Mat drawOverlay(const cv::Mat& image, const std::vector<Mark>& marks, const std::string& title,
                    const Legend& legend, const MarkStyle& style = {});

/// The markers of one image with their ids, each in the colour of its polarity.
///
/// @param estimates  of the markers, in the same pixels; null: they were not refined.
cv::Mat drawFound(const cv::Mat& image, const std::vector<Marker>& markers, const std::string& title,
                  const std::vector<MarkerEstimate>* estimates = nullptr);

/// Writes a picture in the format of the file's extension. @throws InputError, OutputError
void writePicture(const std::string& file, const cv::Mat& picture);

}  // namespace kestrune::measure
