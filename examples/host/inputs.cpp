// SPDX-License-Identifier: Apache-2.0
#include "inputs.h"

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

namespace kestrune::host {

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

std::string plainText(const std::exception& error) {
    const auto* fromOpenCv = dynamic_cast<const cv::Exception*>(&error);
    return fromOpenCv != nullptr ? fromOpenCv->err : error.what();
}

std::string plainText(const std::exception& error, const std::string& file) {
    if (dynamic_cast<const InputError*>(&error) != nullptr) return error.what();  // which may name another file
    return file + ": " + plainText(error);
}

}  // namespace kestrune::host
