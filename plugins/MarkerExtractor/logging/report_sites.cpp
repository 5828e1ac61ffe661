// SPDX-License-Identifier: Apache-2.0
#include "logging/report_sites.h"

#include <opencv2/core.hpp>

#include "logging/logging.h"

namespace kestrune {

namespace {

const char* const kExtractorSource = "plugins/MarkerExtractor/MarkerExtractor.cpp";
const char* const kCannySource = "plugins/MarkerExtractor/canny.cpp";
const char* const kEllipseDetectionSource = "plugins/MarkerExtractor/ellipsedetection.cpp";
const char* const kExtractorHeader = "plugins/MarkerExtractor/include/kestrune/MarkerExtractor.h";

/// Two of the stereo entries say the same, each from its own place.
const char* const kNoStereoMarkers =
    "StereoCircleMarkerExtractor: Please check the left eye camera or right eye camera, failed to extract Marker "
    "Points.";

}  // namespace

namespace report_sites {

const ReportSite kLeftEyeFailed = {
    kExtractorSource, 2411,
    "CircleMarkerExtractor: Please check the left eye camera, failed to extract Marker Points."};
const ReportSite kRightEyeFailed = {
    kExtractorSource, 2418,
    "CircleMarkerExtractor: Please check the right eye camera, failed to extract Marker Points."};
const ReportSite kCornerListEmpty = {kExtractorSource, 2813, kNoStereoMarkers};
const ReportSite kRectifiedListEmpty = {kExtractorSource, 3168, kNoStereoMarkers};
const ReportSite kNoPositiveRadius = {kExtractorSource, 3184,
                                      "Wrong Parameter: Please check the radius of circular marker."};
const ReportSite kNoStereoMatch = {
    kExtractorSource, 4520,
    "StereoMarkerMatcher: Please check the left eye camera or right eye camera, failed to match Marker Points."};
const ReportSite kNoMarkersInOneFrame = {kExtractorSource, 4525,
                                         "StereoMarkerMatcher: Please check the left eye camera or right eye camera, "
                                         "there are not any Marker Points in one of the frames."};
const ReportSite kTooFewMatrices = {kExtractorHeader, 211, "Warning: input matrixes num error!"};
const ReportSite kFirstMatrixSize = {kExtractorHeader, 217, "Warning: the first matrix size error!"};
const ReportSite kSecondMatrixSize = {kExtractorHeader, 226, "Warning: the second matrix size error!"};
const ReportSite kThirdMatrixSize = {kExtractorHeader, 235, "Warning: the third matrix size error!"};

}  // namespace report_sites

namespace assertion_sites {

const AssertionSite kGaussianSource = {"src.type() == CV_8UC1 || src.type() == CV_16UC1",
                                       "kestrune::fastGaussianApprox", kCannySource, 397};
const AssertionSite kGradientSource = {"blur16U.type() == CV_16UC1", "kestrune::calc_gradient", kEllipseDetectionSource,
                                       562};
const AssertionSite kThresholdSource = {"img_grad.type() == CV_32FC1", "kestrune::calc_stable_edge_threshold",
                                        kEllipseDetectionSource, 640};
const AssertionSite kMaskSources = {
    "img_grad.type() == CV_32FC1 && img_dx.type() == CV_32FC1 && img_dy.type() == CV_32FC1 && "
    "img_grad.size() == img_dx.size() && img_dx.size() == img_dy.size()",
    "kestrune::find_edge_mask_nms", kEllipseDetectionSource, 755};

}  // namespace assertion_sites

void raiseAssertion(const AssertionSite& site) {
    cv::error(cv::Error::StsAssert, site.condition, site.function, site.file, site.line);
}

void reportWarning(const ReportSite& site) {
    Message message(site.file, site.line, "native", kLogWarn);
    message.text << site.text;
}

}  // namespace kestrune
