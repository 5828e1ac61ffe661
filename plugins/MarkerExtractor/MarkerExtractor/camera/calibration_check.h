// SPDX-License-Identifier: Apache-2.0
//
// Matrices of a calibration are looked at before they are read: reading one by the wrong size or type would leave its
// memory. Every refusal is a `cv::Exception` (`cv::Error::StsBadArg`) that names the matrix.
#pragma once

#include <opencv2/core.hpp>
#include <string>

namespace kestrune {

/// Rows, columns and type of a matrix, for the text of a refusal: "is 3 x 4 of type CV_64FC1".
std::string shapeText(const cv::Mat& matrix);

/// A matrix with rows and columns must have elements, which a header over a null pointer has not.
void requireData(const cv::Mat& matrix, const std::string& name);

/// Lens distortion goes to OpenCV, which looks at the number of coefficients, but overruns a buffer of its own where
/// one has several channels. None at all is good.
void requireDistortion(const cv::Mat& coefficients, const std::string& name);

/// The matrix must be two-dimensional, `CV_64FC1`, and of the size given.
void requireMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name);

/// The same for a matrix of which only the upper left block of that size is read.
void requireLeastMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name);

/// The same for a matrix that is read by its type, or by OpenCV: `CV_32FC1` will do as well.
void requireMatrixOfEitherPrecision(const cv::Mat& matrix, int rows, int columns, const std::string& name);

}  // namespace kestrune
