// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/front_door.h"

#include "logging/report_sites.h"

namespace kestrune {

namespace {

std::variant<SimpleCall, RimCall> callOf(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                                         const CicrleConfigs& configs) {
    if (configs.useComplexExtract) return RimCall(image, extractor, cameraIndex, configs);
    return SimpleCall(image, extractor, cameraIndex, configs);
}

bool nothingFound(int cameraIndex) {
    reportWarning(cameraIndex == 0 ? report_sites::kLeftEyeFailed : report_sites::kRightEyeFailed);
    return false;
}

}  // namespace

ExtractionCall::ExtractionCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                               const CicrleConfigs& configs)
    : call_(callOf(image, extractor, cameraIndex, configs)), cameraIndex_(cameraIndex) {}

bool ExtractionCall::extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const {
    const bool found = std::visit([&](const auto& call) { return call.extract(extractor, corners); }, call_);
    return found || nothingFound(cameraIndex_);
}

bool ExtractCircleMarker(const cv::Mat& image, CircleMarkerExtractor& extractor, std::vector<Corner>& corners,
                         int cameraIndex, const CicrleConfigs& configs) {
    if (!image.empty()) return ExtractionCall(image, extractor, cameraIndex, configs).extract(extractor, corners);
    extractor.markerRects.clear();
    return nothingFound(cameraIndex);
}

}  // namespace kestrune
