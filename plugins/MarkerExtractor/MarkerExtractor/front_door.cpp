// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/front_ends.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "kestrune/MarkerExtractor.h"
#include "logging/report_sites.h"

namespace kestrune {

void checkExtraction(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                     const CicrleConfigs& configs) {
    if (configs.useComplexExtract) {
        checkRimCall(image, configs);
    } else {
        checkSimpleCall(image, extractor, configs);
    }
    lensOf(extractor, cameraIndex, configs);
}

bool ExtractCircleMarker(const cv::Mat& image, CircleMarkerExtractor& extractor, std::vector<Corner>& corners,
                         int cameraIndex, const CicrleConfigs& configs) {
    const bool found = configs.useComplexExtract ? extractor.CircleExtractComplex(image, corners, cameraIndex, configs)
                                                 : extractor.CircleExtractSimple(image, corners, cameraIndex, configs);
    if (found) return true;
    reportWarning(cameraIndex == 0 ? report_sites::kLeftEyeFailed : report_sites::kRightEyeFailed);
    return false;
}

}  // namespace kestrune
