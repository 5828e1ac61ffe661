// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>

#include "checks/settings_check.h"

namespace kestrune {

/// A matrix with rows and columns but no elements, as a header over a null pointer is: no one may read it.
inline void requireData(const cv::Mat& matrix, const std::string& name) {
    if (matrix.data != nullptr || matrix.total() == 0) return;
    refuseSetting(name, "is " + std::to_string(matrix.rows) + " x " + std::to_string(matrix.cols) + " without data");
}

/// Lens distortion goes to OpenCV, which looks at the number of coefficients, but overruns a buffer of its own where
/// one has several channels. None at all is good.
inline void requireDistortion(const cv::Mat& coefficients, const std::string& name) {
    requireData(coefficients, name);
    if (coefficients.channels() == 1) return;
    refuseSetting(name, "has " + std::to_string(coefficients.channels()) + " channels; one is needed");
}

/// A calibration matrix must be two-dimensional, `CV_64FC1`, and of the size given: reading it as doubles would leave
/// its memory otherwise. Raises `cv::Exception` (`cv::Error::StsBadArg`) that names the matrix.
inline void requireMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (matrix.dims == 2 && matrix.type() == CV_64FC1 && matrix.rows == rows && matrix.cols == columns) return;
    refuseSetting(name, "is " + std::to_string(matrix.rows) + " x " + std::to_string(matrix.cols) + " of type " +
                            cv::typeToString(matrix.type()) + "; " + std::to_string(rows) + " x " +
                            std::to_string(columns) + " of CV_64FC1 is needed");
}

/// The same for a matrix of which only the upper left block of that size is read.
inline void requireLeastMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (matrix.dims == 2 && matrix.type() == CV_64FC1 && matrix.rows >= rows && matrix.cols >= columns) return;
    requireMatrix(matrix, rows, columns, name);
}

/// A matrix that goes to OpenCV, or is read by its type: `CV_32FC1` will do as well, as some hosts keep it.
inline void requireMatrixOfEitherPrecision(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (matrix.dims == 2 && matrix.type() == CV_32FC1 && matrix.rows == rows && matrix.cols == columns) return;
    requireMatrix(matrix, rows, columns, name);
}

}  // namespace kestrune
