// SPDX-License-Identifier: Apache-2.0
#include "markers.h"

#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <ostream>

#include "csv.h"
#include "refined_markers.h"

namespace kestrune::measure {
namespace {

constexpr double kNotMeasured = std::numeric_limits<double>::quiet_NaN();

/// The matrix of the camera that takes the reduced image.
cv::Mat reduced(const cv::Mat& matrix, const Enlargement& enlarge) {
    cv::Mat small = matrix.clone();
    small.row(0) /= enlarge.x;
    small.row(1) /= enlarge.y;
    small.at<double>(0, 2) = (matrix.at<double>(0, 2) + 0.5) / enlarge.x - 0.5;
    small.at<double>(1, 2) = (matrix.at<double>(1, 2) + 0.5) / enlarge.y - 0.5;
    return small;
}

Marker makeMarker(int id, const Corner& corner) {
    return {id,           {corner.x, corner.y}, kNotMeasured,        kNotMeasured,
            kNotMeasured, corner.area,          corner.eccentricity, kNotMeasured,
            kNotMeasured, kNotMeasured,         Polarity::unknown};
}

void setRim(Marker& marker, const Rim& rim) {
    marker.majorHalfAxis = rim.majorHalfAxis;
    marker.minorHalfAxis = rim.minorHalfAxis;
    marker.angle = rim.angle;
}

/// What the edge-based path leaves to be read off the ellipse and the image.
void addFromEllipse(Marker& marker, const cv::Mat& image, const cv::RotatedRect& rim, const Camera& camera) {
    const double ratio = marker.minorHalfAxis / marker.majorHalfAxis;
    marker.area = 4 * marker.majorHalfAxis * marker.minorHalfAxis;
    marker.eccentricity = std::sqrt(1 - ratio * ratio);
    marker.polarity = polarityOf(image, rim, camera);
}

std::vector<Marker> findFast(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                             const CicrleConfigs& configs, std::vector<Corner>& corners) {
    extractor.extractMarkPointsFast(asTaken(image, Path::fast), corners, eye, configs);
    std::vector<Marker> markers;
    for (const Corner& corner : corners) {
        markers.push_back(makeMarker(static_cast<int>(markers.size()), corner));
        if (!configs.enableEccentricityFilter) markers.back().eccentricity = kNotMeasured;
    }
    return markers;
}

std::vector<Marker> findByHand(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                               const CicrleConfigs& configs, std::vector<Corner>& corners) {
    cv::Mat colour = asTaken(image, Path::hand);
    extractor.CircleExtractSimpleForHand(colour, corners, eye, configs);
    std::vector<Marker> markers;
    for (const Corner& corner : corners) {
        markers.push_back(makeMarker(static_cast<int>(markers.size()), corner));
        // The record tells no axes, but the contour that they were fitted to.
        setRim(markers.back(), rimOf(cv::fitEllipse(corner.contour), {}));
        markers.back().fitError = corner.fitError;
    }
    return markers;
}

std::vector<Marker> findByContours(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                   const Camera& camera, const Settings& settings, std::vector<Corner>& corners) {
    const Enlargement enlarge = enlargementOf(image, settings);
    setCamera(extractor, eye, camera, enlarge, settings);
    const bool complex = settings.path == Path::complex;
    if (complex)
        extractor.CircleExtractComplex(image, corners, eye, settings.configs);
    else
        extractor.CircleExtractSimple(image, corners, eye, settings.configs);

    std::vector<Marker> markers;
    for (std::size_t i = 0; i < corners.size(); ++i) {
        const Corner& corner = corners[i];
        const cv::RotatedRect& rect = extractor.markerRects[i];
        Marker marker = makeMarker(corner.id, corner);
        setRim(marker, rimOf(rect, enlarge));
        marker.centre = enlarge.point({corner.x, corner.y});
        marker.area *= enlarge.x * enlarge.y;
        if (!complex) marker.circularity = corner.circularity;
        if (settings.path == Path::simple) marker.fitError = enlarge.length(corner.fitError);
        if (settings.path != Path::simple) marker.fitResidual = corner.fitResidual;
        if (complex) addFromEllipse(marker, image, rect, deliversUndistorted(settings) ? camera : Camera{});
        markers.push_back(marker);
    }
    return markers;
}

}  // namespace

cv::Mat asTaken(const cv::Mat& image, Path path) {
    cv::Mat converted = image;
    if (path == Path::fast && image.channels() == 3) cv::cvtColor(image, converted, cv::COLOR_BGR2GRAY);
    if (path == Path::hand && image.channels() == 1) cv::cvtColor(image, converted, cv::COLOR_GRAY2BGR);
    return converted;
}

double Enlargement::length(double l) const {
    return l * std::sqrt(x * y);
}

Enlargement enlargementOf(const cv::Mat& image, const Settings& settings) {
    if (settings.path != Path::simple) return {};
    const int columns = image.cols / settings.configs.scale, rows = image.rows / settings.configs.scale;
    if (columns == 0 || rows == 0) return {};
    return {static_cast<double>(image.cols) / columns, static_cast<double>(image.rows) / rows};
}

void setCamera(CircleMarkerExtractor& extractor, int eye, const Camera& camera, const Enlargement& enlarge,
               const Settings& settings) {
    if (!deliversUndistorted(settings)) return;
    (eye == 0 ? extractor.leftIntrinsic : extractor.rightIntrinsic) = reduced(camera.matrix, enlarge);
    (eye == 0 ? extractor.leftDistortion : extractor.rightDistortion) = camera.distortion;
}

Rim rimOf(const cv::RotatedRect& ellipse, const Enlargement& enlarge) {
    const bool wide = ellipse.size.width >= ellipse.size.height;
    return {enlarge.point(ellipse.center), enlarge.length(0.5 * std::max(ellipse.size.width, ellipse.size.height)),
            enlarge.length(0.5 * std::min(ellipse.size.width, ellipse.size.height)),
            std::fmod(ellipse.angle + (wide ? 360.0 : 450.0), 180.0)};
}

std::vector<Marker> findMarkers(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                                const Settings& settings, std::vector<Corner>* records) {
    std::vector<Corner> own;
    std::vector<Corner>& corners = records == nullptr ? own : *records;
    if (settings.path == Path::fast) return findFast(extractor, image, eye, settings.configs, corners);
    if (settings.path == Path::hand) return findByHand(extractor, image, eye, settings.configs, corners);
    return findByContours(extractor, image, eye, camera, settings, corners);
}

cv::Mat imageBehind(const cv::Mat& image, const Camera& camera, const Settings& settings) {
    if (!deliversUndistorted(settings)) return image;
    cv::Mat undistorted;
    cv::undistort(image, undistorted, camera.matrix, camera.distortion);
    return undistorted;
}

void writeCsvHeader(std::ostream& stream, bool refined) {
    stream << "image,id,x,y,major,minor,angle,area,eccentricity,circularity,fitError,fitResidual,polarity,pixels";
    if (refined) {
        stream << ",status";
        for (const EstimateColumn& column : estimateColumns()) stream << ',' << column.name;
    }
    stream << '\n';
}

void writeCsvRows(std::ostream& stream, const std::string& image, const std::vector<Marker>& markers, Pixels pixels,
                  const std::vector<MarkerEstimate>* estimates) {
    for (std::size_t i = 0; i < markers.size(); ++i) {
        const Marker& m = markers[i];
        stream << csvField(image) << ',' << m.id;
        for (const double value : {m.centre.x, m.centre.y, m.majorHalfAxis, m.minorHalfAxis, m.angle, m.area,
                                   m.eccentricity, m.circularity, m.fitError, m.fitResidual}) {
            stream << ',' << csvField(value);
        }
        stream << ',' << nameOf(m.polarity) << ',' << nameOf(pixels);
        if (estimates != nullptr) {
            stream << ',' << nameOf((*estimates)[i].status);
            for (const EstimateColumn& column : estimateColumns())
                stream << ',' << csvField(column.valueOf((*estimates)[i]));
        }
        stream << '\n';
    }
}

}  // namespace kestrune::measure
