// SPDX-License-Identifier: Apache-2.0
#include "fuzz_input.h"

#include <algorithm>
#include <limits>
#include <opencv2/imgproc.hpp>

namespace kestrune::fuzz {

namespace {

using C = CicrleConfigs;
using E = CircleMarkerExtractor;

constexpr double kInf = std::numeric_limits<double>::infinity(), kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kOddNumbers[] = {kNaN, 0, -1, kInf, 1e300, -1e30, 1e-9, -kInf, 1e18, 1e-300};

unsigned char kNowhere[1];  ///< for headers whose data is then taken away

constexpr bool C::*kSwitches[] = {
    &C::enableAreaFilter,  &C::enableCircularityFilter, &C::enableConvexityFilter, &C::enableEccentricityFilter,
    &C::skipUndistort,     &C::cornersRectified,        &C::outputRectified,       &C::useThreads,
    &C::radiusScoreGate,   &C::looseSizeGate,           &C::plainRowGate,          &C::refineAtFullSize,
    &C::useRadialContours, &C::useComplexExtract};

template <typename Number>
struct Field {
    Number C::*member;
    double least, largest;
};
constexpr Field<std::int32_t> kWholes[] = {
    {&C::scale, 1, 3},        {&C::aperture, 1, 31},       {&C::cannyLow, 0, 60},   {&C::cannyHigh, 0, 120},
    {&C::thresholdC, -20, 5}, {&C::minContourSize, 0, 60}, {&C::contrast, -10, 90}, {&C::deviationFactor, 0, 4}};
constexpr Field<double> kReals[] = {{&C::minArea, 0, 200},
                                    {&C::maxArea, 50, 500},
                                    {&C::minCircularity, 0, 1},
                                    {&C::maxCircularity, 0.5, 1.5},
                                    {&C::minConvexRatio, 0, 1},
                                    {&C::maxConvexRatio, 0.5, 1.5},
                                    {&C::maxEccentricity, 0, 1},
                                    {&C::maxFitError, 0, 2},
                                    {&C::maxPointError, 0, 2},
                                    {&C::sigma, 0, 4},
                                    {&C::maxRowDifference, 0, 300},
                                    {&C::minDepth, 0, 1000},
                                    {&C::maxDepth, 500, 5000},
                                    {&C::sizeTolerance, 0, 1.2},
                                    {&C::edgeLengthTolerance, -0.2, 1},
                                    {&C::edgeAngleTolerance, 0, 1}};
constexpr Field<float> kSingles[] = {{&C::minRadiusRatio, 0, 1},   {&C::minRayRatio, -0.1, 1.1},
                                     {&C::maxFitResidual, 0, 0.5}, {&C::minDiameter, -1, 10},
                                     {&C::maxDiameter, 5, 100},    {&C::minAxisRatio, 0, 1},
                                     {&C::nmsFactor, 0, 1.3},      {&C::edgePercentile, -0.1, 1.1}};

constexpr cv::Mat E::*kMatrices[] = {
    &E::leftIntrinsic,      &E::rightIntrinsic,    &E::leftDistortion,     &E::rightDistortion,  &E::leftProjection,
    &E::rightProjection,    &E::leftRectification, &E::rightRectification, &E::disparityToDepth, &E::leftTriangulation,
    &E::rightTriangulation, &E::leftHomography,    &E::rightHomography,    &E::fundamental};
constexpr Eigen::MatrixXd E::*kTriangulation[] = {&E::triangulationA, &E::triangulationB, &E::triangulationC,
                                                  &E::triangulationD};

}  // namespace

double Input::real(double least, double largest) {
    return isOdd() ? oneOf(kOddNumbers) : data_.ConsumeFloatingPointInRange(least, largest);
}

C Input::spoiled(C configs, int most) {
    for (int k = whole(0, most); k > 0; --k) spoilOne(configs);
    return configs;
}

void Input::spoilOne(C& c) {
    const auto inRange = [](const auto& field) { return std::pair(field.least, field.largest); };
    switch (whole(0, 4)) {
        case 0: {
            bool& value = c.*oneOf(kSwitches);
            value = !value;
            break;
        }
        case 1: {
            const auto& field = oneOf(kWholes);
            c.*field.member = integer(static_cast<int>(field.least), static_cast<int>(field.largest));
            break;
        }
        case 2: {
            const auto& field = oneOf(kReals);
            const auto [least, largest] = inRange(field);
            c.*field.member = real(least, largest);
            break;
        }
        case 3: {
            const auto& field = oneOf(kSingles);
            const auto [least, largest] = inRange(field);
            c.*field.member = single(least, largest);
            break;
        }
        default:
            c.markerRadii.clear();
            for (int k = whole(0, 4); k > 0; --k) c.markerRadii.push_back(real(-1, 20));
    }
}

cv::Mat Input::spoiled(const cv::Mat& image, int most) {
    cv::Mat result = image.clone();
    for (int k = whole(0, most); k > 0 && !result.empty() && result.dims == 2 && result.depth() == CV_8U; --k) {
        spoilOne(result);
    }
    return result;
}

void Input::spoilOne(cv::Mat& image) {
    const cv::Scalar grey = cv::Scalar::all(whole(0, 255));
    const cv::Point at(whole(-5, image.cols + 5), whole(-5, image.rows + 5));
    const cv::Size axes(whole(0, 30), whole(0, 30));
    switch (whole(0, 10)) {
        case 0:
            cv::ellipse(image, at, axes, whole(0, 180), 0, 360, grey, whole(-1, 4), cv::LINE_8);
            break;
        case 1:
            cv::rectangle(image, cv::Rect(at, axes), grey, cv::FILLED);
            break;
        case 2:
            cv::line(image, at, {whole(0, image.cols), whole(0, image.rows)}, grey, whole(1, 3));
            break;
        case 3: {
            cv::Mat noise(image.size(), CV_16SC(image.channels()));
            cv::RNG(static_cast<std::uint64_t>(at.x + 10)).fill(noise, cv::RNG::NORMAL, 0, whole(0, 40));
            cv::add(image, noise, image, cv::noArray(), image.type());
            break;
        }
        case 4:
            cv::bitwise_not(image, image);
            break;
        case 5:
            image.convertTo(image, -1, real(0.1, 3), whole(-100, 100));
            break;
        case 6:
            cv::blur(image, image, {1 + axes.width / 4, 1 + axes.height / 4});
            break;
        case 7:
            image = image(cv::Rect(at, axes * 4) & cv::Rect({}, image.size())).clone();
            break;
        case 8:
            if (image.type() == CV_8UC1) cv::cvtColor(image, image, flag() ? cv::COLOR_GRAY2BGRA : cv::COLOR_GRAY2BGR);
            break;
        case 9:
            cv::circle(image, at, axes.width / 3, grey, cv::FILLED, cv::LINE_8);
            cv::circle(image, at, axes.width / 6, cv::Scalar::all(40), whole(-1, 2), cv::LINE_8);
            break;
        default: {
            if (!flag()) break;
            const int sizes[] = {4, 5, 6};
            image = flag() ? cv::Mat(3, sizes, CV_8UC1, grey)
                           : cv::Mat(image.size(), CV_MAKETYPE(whole(0, 6), whole(1, 4)), grey);
        }
    }
}

cv::Mat Input::spoiled(const cv::Mat& matrix) {
    cv::Mat result = matrix.clone();
    switch (whole(0, 6)) {
        case 0:
            if (!result.empty()) result = cv::Mat(result.rows, result.cols, result.type(), kNowhere);
            if (!result.empty()) result.data = nullptr;
            return result;
        case 1:
            if (!result.empty()) result.convertTo(result, whole(0, 6));
            return result;
        case 2:
            return cv::Mat(whole(0, 5), whole(0, 5), CV_MAKETYPE(CV_64F, whole(1, 4)), cv::Scalar::all(real(-1, 1)));
        case 3:
            return cv::Mat(result.size(), result.type(), cv::Scalar::all(real(-1, 1)));
        default:
            break;
    }
    if (result.empty() || result.type() != CV_64FC1 || !result.isContinuous()) return result;
    cv::Mat_<double> elements(result.reshape(1, 1));
    double& element = elements(0, whole(0, elements.cols - 1));
    element = flag() ? element * real(0.5, 2) : real(-500, 500);
    return result;
}

cv::Mat Input::distortion() {
    constexpr int kCounts[] = {5, 4, 8, 12, 14, 0, 1, 15};
    const int count = oneOf(kCounts), channels = isOdd() ? whole(1, 4) : 1;
    cv::Mat result = flag() ? cv::Mat(count, 1, CV_64FC(channels)) : cv::Mat(1, count, CV_64FC(channels));
    result.setTo(cv::Scalar::all(real(-0.1, 0.1)));
    if (isOdd()) result.convertTo(result, CV_32F);
    return result;
}

std::vector<Corner> Input::spoiled(std::vector<Corner> corners, int most) {
    for (int k = whole(0, most); k > 0 && !corners.empty(); --k) spoilOne(corners);
    return corners;
}

void Input::spoilOne(std::vector<Corner>& corners) {
    const auto place = [&] { return corners.begin() + whole(0, static_cast<int>(corners.size()) - 1); };
    switch (whole(0, 5)) {
        case 0:
            corners.erase(place());
            break;
        case 1: {
            const Corner copy = *place();
            corners.push_back(copy);
            break;
        }
        case 2:
            std::iter_swap(place(), place());
            break;
        case 3: {
            const double dx = real(-40, 40), dy = real(-3, 3);
            for (Corner& c : corners) {
                c.x += dx, c.y += dy;
                for (cv::Point2f& p : c.contour) p += cv::Point2f(static_cast<float>(dx), static_cast<float>(dy));
            }
            break;
        }
        default:
            spoilOne(*place());
    }
}

void Input::spoilOne(Corner& c) {
    constexpr double Corner::*kNumbers[] = {&Corner::x, &Corner::y, &Corner::area};
    switch (whole(0, 6)) {
        case 0:
            c.*oneOf(kNumbers) = real(0, 200);
            break;
        case 1:
            oneOf(c.conic) *= real(0.9, 1.1);
            break;
        case 2:  // lines, points and nothing at all among them
            for (double& coefficient : c.conic) coefficient = whole(-1, 1);
            break;
        case 3:
            oneOf(c.conic) = real(-1, 1);
            break;
        case 4:
            c.conicValid = !c.conicValid;
            break;
        case 5:
            c.contour.resize(static_cast<std::size_t>(whole(0, static_cast<int>(c.contour.size()))));
            break;
        default:
            if (c.contour.empty()) break;
            if (flag()) {
                oneOf(c.contour).x = single(0, 200);
            } else {
                oneOf(c.contour).y = single(0, 200);
            }
    }
}

E Input::spoiled(E extractor, int most) {
    for (int k = whole(0, most); k > 0; --k) {
        if (isOdd()) {
            const int rows = whole(0, 4);
            extractor.*oneOf(kTriangulation) = Eigen::MatrixXd::Constant(rows, rows == 0 ? 0 : 3, real(-1, 1));
        } else if (isOdd()) {
            (flag() ? extractor.rayDirections : extractor.probeDirections)
                .emplace_back(single(-1, 1), single(-0.1, 0.1));
        } else {
            cv::Mat& member = extractor.*oneOf(kMatrices);
            const bool isDistortion = &member == &extractor.leftDistortion || &member == &extractor.rightDistortion;
            member = isDistortion && flag() ? distortion() : spoiled(member);
        }
    }
    return extractor;
}

}  // namespace kestrune::fuzz
