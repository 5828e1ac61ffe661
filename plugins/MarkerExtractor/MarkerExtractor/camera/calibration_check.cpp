// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/calibration_check.h"

#include "checks/settings_check.h"

namespace kestrune {

namespace {

std::string sizeText(int rows, int columns) {
    return std::to_string(rows) + " x " + std::to_string(columns);
}

bool isOfType(const cv::Mat& matrix, int type) {
    return matrix.dims == 2 && matrix.type() == type;
}

}  // namespace

std::string shapeText(const cv::Mat& matrix) {
    return "is " + sizeText(matrix.rows, matrix.cols) + " of type " + cv::typeToString(matrix.type());
}

void requireData(const cv::Mat& matrix, const std::string& name) {
    if (matrix.data != nullptr || matrix.total() == 0) return;
    refuseSetting(name, "is " + sizeText(matrix.rows, matrix.cols) + " without data");
}

void requireDistortion(const cv::Mat& coefficients, const std::string& name) {
    requireData(coefficients, name);
    if (coefficients.channels() == 1) return;
    refuseSetting(name, "has " + std::to_string(coefficients.channels()) + " channels; one is needed");
}

void requireMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (isOfType(matrix, CV_64FC1) && matrix.rows == rows && matrix.cols == columns) return;
    refuseSetting(name, shapeText(matrix) + "; " + sizeText(rows, columns) + " of CV_64FC1 is needed");
}

void requireLeastMatrix(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (isOfType(matrix, CV_64FC1) && matrix.rows >= rows && matrix.cols >= columns) return;
    requireMatrix(matrix, rows, columns, name);
}

void requireMatrixOfEitherPrecision(const cv::Mat& matrix, int rows, int columns, const std::string& name) {
    requireData(matrix, name);
    if (isOfType(matrix, CV_32FC1) && matrix.rows == rows && matrix.cols == columns) return;
    requireMatrix(matrix, rows, columns, name);
}

}  // namespace kestrune
