// SPDX-License-Identifier: Apache-2.0
#include "inputs.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

namespace kestrune::host {
namespace {

// The lengths of a distortion vector that OpenCV's camera model knows.
constexpr std::array kDistortionLengths = {4, 5, 8, 12, 14};

cv::Mat readMatrix(const std::string& file, const cv::FileNode& node, const std::string& name) {
    cv::Mat matrix;
    if (node.isMap()) node >> matrix;
    if (matrix.empty()) throw InputError(file, fmt::format("field '{}' is missing or is no matrix", name));
    matrix.convertTo(matrix, CV_64F);
    if (!cv::checkRange(matrix))
        throw InputError(file, fmt::format("field '{}' holds a value that is not finite", name));
    return matrix;
}

Camera readCamera(const std::string& file, const cv::FileNode& root, int eye) {
    const std::string matrixName = fmt::format("M{}", eye + 1);
    const std::string distortionName = fmt::format("D{}", eye + 1);
    Camera camera{readMatrix(file, root[matrixName], matrixName),
                  readMatrix(file, root[distortionName], distortionName)};
    if (camera.matrix.size() != cv::Size(3, 3)) {
        throw InputError(file, fmt::format("field '{}' is {} by {}, not 3 by 3", matrixName, camera.matrix.rows,
                                           camera.matrix.cols));
    }
    if (camera.matrix.at<double>(0, 0) <= 0 || camera.matrix.at<double>(1, 1) <= 0) {
        throw InputError(file, fmt::format("field '{}': focal lengths {} and {} must be above 0", matrixName,
                                           camera.matrix.at<double>(0, 0), camera.matrix.at<double>(1, 1)));
    }
    const int length = static_cast<int>(camera.distortion.total());
    const bool vector = camera.distortion.rows == 1 || camera.distortion.cols == 1;
    if (!vector || std::ranges::find(kDistortionLengths, length) == kDistortionLengths.end()) {
        throw InputError(file, fmt::format("field '{}' is {} by {}, not a vector of 4, 5, 8, 12 or 14", distortionName,
                                           camera.distortion.rows, camera.distortion.cols));
    }
    return camera;
}

}  // namespace

std::string readText(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    if (!stream || text.view().empty()) throw InputError(file, "cannot be read, or is empty");
    return text.str();
}

cv::FileStorage parseYaml(const std::string& file, const std::string& text) {
    try {
        cv::FileStorage storage(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
        if (storage.root().isMap()) return storage;
    } catch (const cv::Exception& error) {
        // The parser puts the line and what it stumbled over into the name of the function that failed.
        const auto place = error.func.find('(');
        if (error.code == cv::Error::StsParseError && place != std::string::npos) {
            throw InputError(file, "is no readable YAML: line " + error.func.substr(place));
        }
    }
    throw InputError(file, "holds no named fields (the first line must be %YAML:1.0, the second ---)");
}

cv::Mat readImage(const std::string& file, bool invert) {
    cv::Mat image;
    try {
        image = cv::imread(file, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR | cv::IMREAD_IGNORE_ORIENTATION);
    } catch (const cv::Exception& error) {
        throw InputError(file, plainText(error));
    }
    if (image.empty()) throw InputError(file, "cannot be read as an image");
    if (invert) cv::bitwise_not(image, image);
    return image;
}

Calibration loadCalibration(const std::string& file, int eye) {
    const cv::FileStorage storage = parseYaml(file, readText(file));
    const cv::FileNode root = storage.root();
    Calibration calibration;
    for (int i : {0, 1}) {
        const bool there = !root[fmt::format("M{}", i + 1)].empty() || !root[fmt::format("D{}", i + 1)].empty();
        if (there || i == eye) calibration[static_cast<std::size_t>(i)] = readCamera(file, root, i);
    }
    return calibration;
}

void writeCalibration(const std::string& file, const Calibration& calibration) {
    cv::FileStorage storage(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    for (std::size_t i = 0; i < calibration.size(); ++i) {
        storage << fmt::format("M{}", i + 1) << calibration[i].matrix;
        storage << fmt::format("D{}", i + 1) << calibration[i].distortion;
    }
    std::ofstream stream(file, std::ios::binary);
    stream << storage.releaseAndGetString();
    if (!stream.flush()) throw InputError(file, "cannot be written");
}

std::string plainText(const std::exception& error) {
    const auto* fromOpenCv = dynamic_cast<const cv::Exception*>(&error);
    return fromOpenCv != nullptr ? fromOpenCv->err : error.what();
}

}  // namespace kestrune::host
