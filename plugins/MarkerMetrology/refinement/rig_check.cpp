// SPDX-License-Identifier: Apache-2.0
#include "refinement/rig_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace kestrune {
namespace {

constexpr std::array kLensLengths = {4, 5, 8, 12, 14};
// As for a calibration file: rounded to six digits, a rotation is this far from an orthonormal one.
constexpr double kMostOffRotation = 1e-5;

[[noreturn]] void refuseField(const char* owner, const char* field, const std::string& complaint) {
    throw cv::Exception(cv::Error::StsBadArg, fmt::format("{}{}: {}", owner, field, complaint), "kestrune::requireRig",
                        "rig_check.cpp", __LINE__);
}

bool isVector(const cv::Mat& matrix) {
    return matrix.dims == 2 && std::min(matrix.rows, matrix.cols) == 1;
}

void requireNumbers(const cv::Mat& matrix, const char* owner, const char* field) {
    if (matrix.data == nullptr) refuseField(owner, field, "is a matrix without data");
    if (matrix.dims > 2 || matrix.type() != CV_64FC1)
        refuseField(owner, field,
                    fmt::format("type {}, {} dimensions; a matrix of CV_64FC1 is needed",
                                cv::typeToString(matrix.type()), matrix.dims));
    for (int row = 0; row < matrix.rows; ++row)
        for (int column = 0; column < matrix.cols; ++column)
            if (!std::isfinite(matrix.at<double>(row, column)))
                refuseField(owner, field, "holds a value that is no finite number");
}

template <std::size_t count>
void requireSigmas(const std::array<double, count>& sigmas, const std::string& field) {
    for (const double sigma : sigmas)
        if (!(sigma >= 0 && std::isfinite(sigma)))
            refuseField("uncertainty.", field.c_str(), fmt::format("{} is no standard deviation", sigma));
}

void requireSize(const cv::Mat& matrix, int rows, int columns, const char* owner, const char* field) {
    if (matrix.empty() || matrix.size() != cv::Size(columns, rows))
        refuseField(owner, field, fmt::format("is {} by {}, not {} by {}", matrix.rows, matrix.cols, rows, columns));
    requireNumbers(matrix, owner, field);
}

}  // namespace

void requireCamera(const Camera& camera, const char* name) {
    requireSize(camera.matrix, 3, 3, name, ".matrix");
    const auto at = [&](int row, int column) { return camera.matrix.at<double>(row, column); };
    for (const double focal : {at(0, 0), at(1, 1)})
        if (!(focal > 0)) refuseField(name, ".matrix", fmt::format("focal length {} must be above 0", focal));
    if (at(0, 1) != 0 || at(1, 0) != 0 || at(2, 0) != 0 || at(2, 1) != 0 || at(2, 2) != 1)
        refuseField(name, ".matrix", "has a skew, or a last row other than 0 0 1");
    const cv::Mat& lens = camera.distortion;
    if (lens.empty()) return;
    const auto count = static_cast<int>(lens.total());
    if (!isVector(lens) || std::ranges::find(kLensLengths, count) == kLensLengths.end())
        refuseField(name, ".distortion",
                    fmt::format("is {} by {}, not a list of 4, 5, 8, 12 or 14", lens.rows, lens.cols));
    requireNumbers(lens, name, ".distortion");
}

void requireRig(const RigMatrices& rig) {
    requireCamera(rig.cameras[0], "cameras[0]");
    requireCamera(rig.cameras[1], "cameras[1]");
    requireSize(rig.rotation, 3, 3, "", "rotation");
    cv::Matx33d turn;
    for (int k = 0; k < 9; ++k) turn.val[k] = rig.rotation.at<double>(k / 3, k % 3);
    const double off = cv::norm(turn * turn.t() - cv::Matx33d::eye(), cv::NORM_INF);
    if (off > kMostOffRotation || cv::determinant(turn) < 0)
        refuseField("", "rotation",
                    fmt::format("is no rotation: times its transpose it is {:.2g} off the identity, and its "
                                "determinant is {:.2g}",
                                off, cv::determinant(turn)));
    if (rig.translation.total() != 3 || !isVector(rig.translation))
        refuseField("", "translation",
                    fmt::format("is {} by {}, not 3 by 1 or 1 by 3", rig.translation.rows, rig.translation.cols));
    requireNumbers(rig.translation, "", "translation");
    if (cv::norm(rig.translation) == 0) refuseField("", "translation", "both cameras stand in one place");
    const RigUncertainty& u = rig.uncertainty;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        requireSigmas(u.cameras[eye], fmt::format("cameras[{}]", eye));
        requireSigmas(u.distortions[eye], fmt::format("distortions[{}]", eye));
    }
    requireSigmas(u.rotation, "rotation");
    requireSigmas(u.translation, "translation");
}

}  // namespace kestrune
