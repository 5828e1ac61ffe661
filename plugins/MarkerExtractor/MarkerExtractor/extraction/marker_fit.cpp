// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/marker_fit.h"

#include "ellipsedetection/conic_record.h"

namespace kestrune {

void fillConic(Corner& marker, const cv::RotatedRect& rect) {
    EllipseRecord record;
    fitConicFromEllipse(record, rect, 0, marker.contour);
    marker.ellipse = record.ellipse;
    marker.fitResidual = record.fitResidual;
    marker.conicValid = record.conicValid;
    marker.conic = record.conic;
    marker.scatter.swap(record.scatter);
}

}  // namespace kestrune
