// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/working_images.h"

#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/camera/calibration_check.h"

namespace kestrune {

cv::Mat greyOf(const cv::Mat& image, CircleMarkerExtractor& extractor) {
    if (image.channels() != 3) return {image.size(), image.type(), image.data, image.step};
    cv::Mat grey = wrapScratch(extractor.scratchGray, image.size(), CV_8UC1);
    cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY, 0);
    return grey;
}

cv::Mat reducedImage(const cv::Mat& grey, int scale, CircleMarkerExtractor& extractor) {
    if (scale == 1) return grey;
    const cv::Size size(grey.cols / scale, grey.rows / scale);
    cv::Mat reduced = wrapScratch(extractor.scratchWorking, size, CV_8UC1);
    cv::resize(grey, reduced, size, 0, 0, cv::INTER_LINEAR);
    return reduced;
}

std::optional<LensModel> lensOf(const CircleMarkerExtractor& extractor, int cameraIndex, const CicrleConfigs& configs) {
    if (configs.skipUndistort) return std::nullopt;
    const bool isLeft = cameraIndex == 0;
    LensModel lens = isLeft ? LensModel{extractor.leftIntrinsic, extractor.leftDistortion}
                            : LensModel{extractor.rightIntrinsic, extractor.rightDistortion};
    requireData(lens.intrinsic, isLeft ? "leftIntrinsic" : "rightIntrinsic");
    requireDistortion(lens.distortion, isLeft ? "leftDistortion" : "rightDistortion");
    return lens;
}

}  // namespace kestrune
