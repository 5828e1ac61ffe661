// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <limits>
#include <opencv2/core.hpp>
#include <regex>
#include <string>

namespace kestrune::test {

using Pairs = std::vector<std::pair<int, int>>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN(), kInf = std::numeric_limits<double>::infinity();

/// What a call is refused for: the setting that the exception names, "OpenCV" for an exception of OpenCV's own, the
/// text of one of another kind, or nothing.
template <typename Call>
std::string refused(const Call& call) {
    try {
        call();
    } catch (const cv::Exception& e) {
        return e.code == cv::Error::StsBadArg ? e.err.substr(0, e.err.find(": ")) : "OpenCV";
    } catch (const std::exception& e) {
        return e.what();
    }
    return {};
}

/// Rows and columns, but no elements.
inline cv::Mat hollow(int rows, int columns, int type = CV_64FC1) {
    cv::Mat matrix(rows, columns, type);
    matrix.data = nullptr;
    return matrix;
}

/// The warnings that a call writes on standard output, one a line, from the place that they come from on.
template <typename Call>
std::string warningsOf(const Call& call) {
    testing::internal::CaptureStdout();
    call();
    return std::regex_replace(testing::internal::GetCapturedStdout(), std::regex(".* WARN  "), "");
}

}  // namespace kestrune::test
