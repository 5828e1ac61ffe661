// SPDX-License-Identifier: Apache-2.0
//
// Turns a fuzzer's bytes into what a host may hand to the library: settings, images, matrices and corner lists, mostly
// plausible ones with a few that are not.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <vector>

#include "kestrune/MarkerExtractor.h"

namespace kestrune::fuzz {

/// Ends the run with a report where a promise of the library does not hold.
inline void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

/// The exceptions that a host has to expect. Whatever else comes out of a call ends the run.
template <typename Call>
bool survives(const Call& call) {
    try {
        call();
        return true;
    } catch (const cv::Exception&) {
    } catch (const std::out_of_range&) {   // calibration intake with too few entries
    } catch (const std::runtime_error&) {  // conic match: no eigenvalues
    }
    return false;
}

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data, size) {}

    bool flag() { return data_.ConsumeBool(); }
    int whole(int least, int largest) { return data_.ConsumeIntegralInRange(least, largest); }

    /// Within the range, but one time in sixteen any number of the type, infinities and NaN included.
    int integer(int least, int largest) { return isOdd() ? data_.ConsumeIntegral<int>() : whole(least, largest); }
    double real(double least, double largest) {
        if (!isOdd()) return data_.ConsumeFloatingPointInRange(least, largest);
        constexpr double kOdd[] = {0,     -1,   std::numeric_limits<double>::infinity(),  1e300,
                                   -1e30, 1e-9, -std::numeric_limits<double>::infinity(), 1e18};
        const std::size_t which = data_.ConsumeIntegralInRange<std::size_t>(0, std::size(kOdd));
        return which < std::size(kOdd) ? kOdd[which] : std::numeric_limits<double>::quiet_NaN();
    }
    float single(double least, double largest) { return static_cast<float>(real(least, largest)); }

    CicrleConfigs configs() {
        CicrleConfigs c{};
        c.markerName = "m";
        c.useRadialContours = flag(), c.useComplexExtract = flag(), c.skipUndistort = flag(), c.useThreads = flag();
        c.refineAtFullSize = flag(), c.enableAreaFilter = flag(), c.enableCircularityFilter = flag();
        c.enableConvexityFilter = flag(), c.enableEccentricityFilter = flag(), c.cornersRectified = flag();
        c.outputRectified = flag(), c.plainRowGate = flag(), c.radiusScoreGate = flag(), c.looseSizeGate = flag();
        c.scale = integer(1, 3), c.aperture = integer(1, 10) | 1, c.sigma = real(0.2, 3);
        c.cannyLow = integer(0, 60), c.cannyHigh = integer(0, 120), c.minContourSize = integer(0, 40);
        c.thresholdC = integer(-20, 5), c.contrast = integer(-10, 60), c.minRayRatio = single(-0.1, 1.1);
        c.minArea = real(0, 60), c.maxArea = real(100, 5000), c.maxEccentricity = real(0.3, 1);
        c.minCircularity = real(0, 1), c.maxCircularity = real(0.9, 2), c.minConvexRatio = real(0, 1);
        c.maxConvexRatio = real(0.9, 2), c.maxFitError = real(0, 3), c.maxPointError = real(0, 3);
        c.maxFitResidual = single(0, 0.5), c.minDiameter = single(-1, 10), c.maxDiameter = single(5, 200);
        c.minAxisRatio = single(0, 1), c.nmsFactor = single(0, 1.2), c.edgePercentile = single(-0.1, 1.1);
        c.maxRowDifference = real(0, 4), c.minDepth = real(0, 500), c.maxDepth = real(500, 5000);
        c.sizeTolerance = real(0, 1), c.minRadiusRatio = real(0, 1), c.deviationFactor = integer(0, 4);
        c.edgeLengthTolerance = real(0, 1), c.edgeAngleTolerance = real(0, 1);
        for (int k = whole(0, 3); k > 0; --k) c.markerRadii.push_back(real(0, 6));
        return c;
    }

    /// Discs and bars on a plain ground, under noise; seldom of another type.
    cv::Mat image(cv::Size size) {
        if (isOdd()) return cv::Mat(size, CV_MAKETYPE(whole(0, 6), whole(1, 4)), cv::Scalar::all(whole(0, 255)));
        cv::Mat image(size, flag() ? CV_8UC1 : CV_8UC3, cv::Scalar::all(whole(0, 255)));
        for (int k = whole(0, 6); k > 0; --k) {
            const cv::Point at(whole(-5, size.width + 5), whole(-5, size.height + 5));
            const cv::Size axes(whole(0, 30), whole(0, 30));
            const cv::Scalar grey = cv::Scalar::all(whole(0, 255));
            if (flag())
                cv::ellipse(image, at, axes, whole(0, 180), 0, 360, grey, whole(-1, 4), cv::LINE_AA);
            else
                cv::rectangle(image, cv::Rect(at, axes), grey, cv::FILLED);
        }
        cv::RNG rng(static_cast<std::uint64_t>(whole(1, 1000)));
        cv::Mat noise(size, CV_16SC(image.channels()));
        rng.fill(noise, cv::RNG::NORMAL, 0, whole(0, 20));
        cv::add(image, noise, image, cv::noArray(), image.type());
        return image;
    }
    cv::Size imageSize() { return {whole(1, 120), whole(1, 120)}; }

    /// Of the size and type asked for, but one time in sixteen; elements as by `real`.
    cv::Mat matrix(int rows, int cols, double least, double largest) {
        if (isOdd()) rows = whole(0, 4), cols = whole(0, 5);
        cv::Mat result(rows, cols, CV_64F);
        for (double& value : cv::Mat_<double>(result)) value = real(least, largest);
        if (isOdd()) result.convertTo(result, whole(0, 5));
        return result;
    }
    cv::Mat camera() {
        if (isOdd()) return matrix(3, 3, -1, 1000);
        return (cv::Mat_<double>(3, 3) << real(50, 2000), 0, real(0, 100), 0, real(50, 2000), real(0, 100), 0, 0, 1);
    }

    std::vector<Corner> corners(int most) {
        std::vector<Corner> list(static_cast<std::size_t>(whole(0, most)));
        for (Corner& c : list) {
            c.x = real(0, 100), c.y = flag() ? whole(0, 10) : real(0, 100), c.area = real(0, 900);
            c.conicValid = flag(), c.markerRadius = real(0, 6);
            for (double& coefficient : c.conic) coefficient = real(-1, 1);
            c.ellipse = {{single(0, 100), single(0, 100)}, {single(0, 40), single(0, 40)}, single(0, 180)};
            for (int k = whole(0, 8); k > 0; --k) c.contour.emplace_back(single(0, 100), single(0, 100));
        }
        return list;
    }

  private:
    bool isOdd() { return data_.ConsumeIntegralInRange(0, 15) == 15; }

    FuzzedDataProvider data_;
};

}  // namespace kestrune::fuzz
