// SPDX-License-Identifier: Apache-2.0
#include "stereo_quality.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "stereo_exposure.h"
#include "trusted_match.h"

namespace kestrune::measure {
namespace {

// Calibrated rows agree to 0.1 px and better, and a pair that is off by more than a few times what the others are has
// another reason than the noise of its centres.
constexpr double kDoubtfulRow = 0.25;
constexpr double kDoubtfulRatio = 6;

cv::Vec3d ray(const cv::Mat& camera, const cv::Point2d& pixel) {
    return cv::Matx33d(camera).inv() * cv::Vec3d(pixel.x, pixel.y, 1);
}

cv::Point2d project(const cv::Matx33d& camera, const cv::Vec3d& point) {
    const cv::Vec3d h = camera * point;
    return {h[0] / h[2], h[1] / h[2]};
}

cv::Matx33d cameraOf(const cv::Mat& projection) {
    return cv::Matx33d(cv::Mat(projection.colRange(0, 3).clone()));
}

}  // namespace

Residuals residualsOf(const CircleMarkerExtractor& rig, const CicrleConfigs& configs,
                      const std::array<cv::Point2d, 2>& pixel, const cv::Vec3d& point) {
    const cv::Matx33d rectification(rig.leftRectification);
    if (configs.cornersRectified) {
        const cv::Vec3d p = configs.outputRectified ? point : rectification * point;
        const cv::Vec4d h(p[0], p[1], p[2], 1);
        const cv::Vec3d left = cv::Matx34d(rig.leftProjection) * h, right = cv::Matx34d(rig.rightProjection) * h;
        return {pixel[0].y - pixel[1].y,
                {cv::norm(cv::Point2d(left[0] / left[2], left[1] / left[2]) - pixel[0]),
                 cv::norm(cv::Point2d(right[0] / right[2], right[1] / right[2]) - pixel[1])}};
    }
    const cv::Vec3d inLeft = configs.outputRectified ? rectification.t() * point : point;
    const cv::Vec3d inRight = cv::Matx33d(rig.rotation) * inLeft + cv::Vec3d(rig.translation);
    const cv::Point2d leftRow = project(cameraOf(rig.leftProjection) * rectification, ray(rig.leftIntrinsic, pixel[0]));
    const cv::Point2d rightRow =
        project(cameraOf(rig.rightProjection) * cv::Matx33d(rig.rightRectification), ray(rig.rightIntrinsic, pixel[1]));
    return {leftRow.y - rightRow.y,
            {cv::norm(project(cv::Matx33d(rig.leftIntrinsic), inLeft) - pixel[0]),
             cv::norm(project(cv::Matx33d(rig.rightIntrinsic), inRight) - pixel[1])}};
}

Residuals rootMeanSquares(const StereoResult& result) {
    Residuals sum{};
    for (const StereoMarker& m : result.markers) {
        sum.row += m.residuals.row * m.residuals.row;
        for (std::size_t eye = 0; eye < 2; ++eye) sum.eye[eye] += m.residuals.eye[eye] * m.residuals.eye[eye];
    }
    const auto n = static_cast<double>(result.markers.size());
    return {std::sqrt(sum.row / n), {std::sqrt(sum.eye[0] / n), std::sqrt(sum.eye[1] / n)}};
}

std::string objectionTo(const StereoResult& result, const CicrleConfigs& configs, double minShare) {
    const auto [left, right] = result.found;
    if (left == 0 && right == 0) return "no markers in either eye";
    if (left == 0 || right == 0) return fmt::format("no markers in the {} eye", left == 0 ? "left" : "right");
    if (result.trusted && result.trusted->match.objection != MatchObjection::none) return result.trusted->match.reason;
    const std::size_t poorer = std::min(left, right), pairs = result.markers.size();
    if (pairs > 0 && static_cast<double>(pairs) >= minShare * static_cast<double>(poorer)) return {};
    const std::string few =
        pairs > 0 ? fmt::format("{} of {} markers paired", pairs, poorer)
                  : fmt::format("no match among {} markers in the left and {} in the right eye", left, right);
    if (result.trusted) {
        const std::string ambiguous = ambiguityOf(result);
        return few + (ambiguous.empty() ? "" : "; " + ambiguous);
    }
    return fmt::format("{}; {}{}", few,
                       blamesTheRig(result) ? "eyes exchanged, or the calibration of another rig? " : "",
                       chiefObstacle(result, configs));
}

std::string doubtAbout(const StereoResult& result) {
    // It has weighed rows by how well the centres are known, and would have told of a pattern in them.
    if (result.trusted) return ambiguityOf(result);
    std::vector<double> rows;
    for (const StereoMarker& m : result.markers) rows.push_back(std::abs(m.residuals.row));
    if (rows.empty()) return {};
    std::ranges::sort(rows);
    const double median = rows[rows.size() / 2], rms = rootMeanSquares(result).row;
    const auto first = std::ranges::upper_bound(rows, std::max(kDoubtfulRow, kDoubtfulRatio * median));
    if (first != rows.end())
        return fmt::format(
            "{} of {} pairs lie {:.2f} to {:.2f} px off their rows, half of all within {:.3f}: wrong partners?",
            rows.end() - first, rows.size(), *first, rows.back(), median);
    if (rms > kDoubtfulRow)
        return fmt::format("rows disagree by {:.2f} px RMS: a calibration that does not hold, or wrong partners?", rms);
    return {};
}

}  // namespace kestrune::measure
