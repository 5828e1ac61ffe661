// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/conic_record.h"

#include "kestrune_geometry/conic.h"

namespace kestrune {

void fitConicFromEllipse(EllipseRecord& record, const cv::RotatedRect& rect, double residual,
                         const std::vector<cv::Point2f>& points) {
    record.ellipse = rect;
    record.fitResidual = residual;
    record.conic = geometry::conicOf(rect);
    record.conicValid = true;
    record.scatter.resize(0, 0);
    if (points.empty()) return;

    record.fitResidual = geometry::rmsValue(record.conic, points);
    Eigen::MatrixXd design(static_cast<Eigen::Index>(points.size()), 6);
    Eigen::Index row = 0;
    for (const cv::Point2f& point : points) {
        // The products of the first three columns are rounded to single precision first.
        design.row(row++) << point.x * point.x, point.y * point.x, point.y * point.y, point.x, point.y, 1.0;
    }
    record.scatter.noalias() = design.transpose() * design;
}

void fitConicToPixels(EllipseRecord& record, const cv::RotatedRect& rect, const std::vector<cv::Point>& pixels) {
    fitConicFromEllipse(record, rect, 0, {});
    record.fitResidual = geometry::rmsValue(record.conic, pixels);
}

}  // namespace kestrune
