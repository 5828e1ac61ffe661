// SPDX-License-Identifier: Apache-2.0
#include "checks/settings_check.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>

#include "checks/fixed_text.h"

namespace kestrune {

namespace {

/// A kernel wider than this takes minutes on one image and is a unit error in the settings.
constexpr int kLargestAperture = 4095;

/// From about 216 on every tap of the derivative kernel rounds to zero, and nothing is found; beyond this the kernel
/// has more than 2000 of them, and an image takes minutes to say so.
constexpr double kLargestEdgeSigma = 341.0;

/// Up to here 3 sigma rounds to a kernel radius of 0, ties to even.
constexpr double kOneTapSigma = 1.0 / 6.0;

constexpr double kLargestBlurSigma = 4095.0;  ///< same bound as for the aperture

constexpr int kLargestThresholdC = 256;  ///< grey levels; OpenCV negates the number in an `int`

constexpr double kLargestDirection = 1.000001;  ///< a cosine and a sine, each rounded to single precision

template <typename T>
std::string withValue(const T& value, const std::string& complaint) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << value << ' ' << complaint;
    return text.str();
}

}  // namespace

void refuseSetting(const std::string& setting, const std::string& complaint) {
    cv::error(cv::Exception(cv::Error::StsBadArg, setting + ": " + complaint, "kestrune::refuseSetting",
                            "settings_check.cpp", __LINE__));
}

void requirePlane(const cv::Mat& image) {
    if (image.dims > 2) refuseSetting("image", withValue(image.dims, "dimensions; two are needed"));
}

void requireGreyImage(const cv::Mat& image) {
    requirePlane(image);
    if (image.type() != CV_8UC1) {
        refuseSetting("image", "type " + cv::typeToString(image.type()) + "; CV_8UC1 is needed");
    }
}

void requireGreyOrColourImage(const cv::Mat& image) {
    requirePlane(image);
    if (image.type() != CV_8UC1 && image.type() != CV_8UC3) {
        refuseSetting("image", "type " + cv::typeToString(image.type()) + "; CV_8UC1 or CV_8UC3 is needed");
    }
}

void requireEmptyList(const std::vector<Corner>& corners) {
    if (corners.empty()) return;
    refuseSetting("corners", "holds " + std::to_string(corners.size()) + " records; it must be empty on entry");
}

void requireByteImage(const cv::Mat& image) {
    requirePlane(image);
    if (image.type() != CV_8UC1 && image.type() != CV_8UC3 && image.type() != CV_8UC4) {
        refuseSetting("image", "type " + cv::typeToString(image.type()) + "; CV_8UC1, CV_8UC3 or CV_8UC4 is needed");
    }
}

void requireScale(int scale, const cv::Size& imageSize) {
    if (scale < 1) refuseSetting("scale", withValue(scale, "is below 1"));
    if (imageSize.width / scale < 1 || imageSize.height / scale < 1) {
        std::ostringstream text;
        text.imbue(std::locale::classic());
        text << "leaves nothing of an image of " << imageSize.width << " x " << imageSize.height << " pixels";
        refuseSetting("scale", withValue(scale, text.str()));
    }
}

void requireAperture(long long aperture, int least) {
    if (aperture < least) refuseSetting("aperture", withValue(aperture, "is below " + std::to_string(least)));
    if (aperture % 2 == 0) refuseSetting("aperture", withValue(aperture, "is even"));
    if (aperture > kLargestAperture) {
        refuseSetting("aperture", withValue(aperture, "is above " + std::to_string(kLargestAperture)));
    }
}

void requireEdgeSigma(double sigma) {
    if (!std::isfinite(sigma)) refuseSetting("sigma", withValue(sigma, "is not finite"));
    if (std::nearbyint(3.0 * sigma) < 1.0) {
        refuseSetting("sigma", withValue(sigma, "leaves one tap of the derivative kernel; it must be above " +
                                                    fixedText(kOneTapSigma, 6)));
    }
    if (sigma > kLargestEdgeSigma)
        refuseSetting("sigma", withValue(sigma, "gives a derivative kernel of more than 2000 taps, all zero"));
}

void requireBlurSigma(double sigma) {
    if (!std::isfinite(sigma)) refuseSetting("sigma", withValue(sigma, "is not finite"));
    if (sigma < 0.0) refuseSetting("sigma", withValue(sigma, "is below 0"));
    if (sigma > kLargestBlurSigma) refuseSetting("sigma", withValue(sigma, "is above 4095"));
}

void requireUnitVectors(const std::vector<cv::Point2f>& directions, const char* name) {
    for (const cv::Point2f& direction : directions) {
        const double length = cv::norm(direction);
        if (!(length <= kLargestDirection)) refuseSetting(name, withValue(length, "is the length of one; 1 is needed"));
    }
}

double usableThresholdC(int thresholdC) {
    return std::clamp(thresholdC, -kLargestThresholdC, kLargestThresholdC);
}

}  // namespace kestrune
