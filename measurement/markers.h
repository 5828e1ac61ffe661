// SPDX-License-Identifier: Apache-2.0
//
// One image to a list of markers, in pixels of the full image whatever the path delivers, and that list as CSV.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <iosfwd>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "pixels.h"
#include "polarity.h"

namespace kestrune::measure {

/// A marker as this program shows it. What the path does not measure is NaN.
struct Marker {
    int id;                ///< place in the list
    cv::Point2d centre;    ///< px of the full image; undistorted unless `skipUndistort`
    double majorHalfAxis;  ///< px; not from the fast path
    double minorHalfAxis;  ///< px; not from the fast path
    double angle;          ///< of the major axis to the x axis, degrees in [0, 180); not from the fast path
    double area;           ///< px^2: product of the full axes, from the fast path the contour's area
    double eccentricity;   ///< from the fast path only with `enableEccentricityFilter`
    double circularity;    ///< simple and radial path only
    double fitError;       ///< px; simple and hand path only
    double fitResidual;    ///< radial and edge-based path only
    Polarity polarity;     ///< edge-based path only; the others take one kind of marker
};

/// The image as the path takes it: path fast in grey, path hand in colour, the others as it is.
cv::Mat asTaken(const cv::Mat& image, Path path);

/// Maps the pixels of an image reduced by `cv::resize` back to those of the full image. The two agree at the outer
/// edges of the image, not at the centres of the first pixels.
struct Enlargement {
    double x = 1, y = 1;

    cv::Point2d point(cv::Point2d p) const { return {(p.x + 0.5) * x - 0.5, (p.y + 0.5) * y - 0.5}; }

    /// Both factors differ only by the columns or rows that the division cut off.
    double length(double l) const;
};

/// From the pixels in which the path answers to those of the image: the sub-pixel path alone answers in pixels of the
/// reduced image.
Enlargement enlargementOf(const cv::Mat& image, const Settings& settings);

/// Gives the extractor what the path needs to take the lens's distortion out; nothing where it need not.
void setCamera(CircleMarkerExtractor& extractor, int eye, const Camera& camera, const Enlargement& enlarge,
               const Settings& settings);

/// A fitted ellipse as this program shows it.
struct Rim {
    cv::Point2d centre;                          ///< px of the full image
    double majorHalfAxis, minorHalfAxis, angle;  ///< px; degrees in [0, 180)
};
Rim rimOf(const cv::RotatedRect& ellipse, const Enlargement& enlarge);

/// Extracts the markers of one image and maps them to full-image pixels.
///
/// @param eye     0 left, 1 right.
/// @param camera  of that eye; may be empty unless `deliversUndistorted`.
/// @param records  if not null, the library's own records of the markers, in their order, as the path delivers them.
/// @throws cv::Exception  from the library.
std::vector<Marker> findMarkers(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                                const Settings& settings, std::vector<Corner>* records = nullptr);

/// The image in whose pixels the markers' coordinates are: `image` itself, or without the lens's distortion.
cv::Mat imageBehind(const cv::Mat& image, const Camera& camera, const Settings& settings);

/// Writes the header row of the CSV.
///
/// @param refined  with the columns of estimates as well.
void writeCsvHeader(std::ostream& stream, bool refined = false);

/// Writes one row for each marker: shortest decimals that give the same numbers again, nothing where nothing was
/// measured.
///
/// @param estimates  of the markers; null: they were not refined.
void writeCsvRows(std::ostream& stream, const std::string& image, const std::vector<Marker>& markers, Pixels pixels,
                  const std::vector<MarkerEstimate>* estimates = nullptr);

}  // namespace kestrune::measure
