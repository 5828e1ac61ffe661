// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/calib3d.hpp>

#include "kestrune/MarkerExtractor.h"
#include "kestrune_scene/scene.h"

namespace kestrune::test {

inline Pose_<double> poseOf(const scene::PinholeCamera& camera) {
    const cv::Vec3d position = -(camera.rotation.t() * camera.translation);
    Pose_<double> pose{};
    for (int k = 0; k < 9; ++k) pose.values[k] = camera.rotation.val[k];
    for (int k = 0; k < 3; ++k) pose.values[9 + k] = position[k];
    return pose;
}

inline Camera_<double, 2, 2> cameraOf(const scene::PinholeCamera& camera) {
    const cv::Matx33d& k = camera.intrinsic;
    Camera_<double, 2, 2> result{{k(0, 0), k(1, 1), k(0, 2), k(1, 2)}};
    for (std::size_t i = 0; i < 5; ++i) result.values[4 + i] = camera.distortion[i];
    return result;
}

/// The rig with its left camera moved to some place in the host's world, as a host would hand it over.
inline void calibrate(CircleMarkerExtractor& extractor, const scene::Rig& rig) {
    extractor.transform_kestruneData2cvMat({poseOf(rig.left), poseOf(rig.right)}, {cameraOf(rig.left), cameraOf(rig.right)}, rig.left.size.width,
                                           rig.left.size.height, cv::CALIB_ZERO_DISPARITY);
}

/// The rectified cameras as cameras of their own: what a host sees that works in rectified images.
inline scene::Rig rectifiedRig(const CircleMarkerExtractor& e, const scene::Rig& rig) {
    scene::Rig result = rig;
    const auto rectify = [](scene::PinholeCamera& camera, const cv::Mat& projection, const cv::Mat& rectification) {
        const cv::Matx33d turn(rectification);
        camera.intrinsic = cv::Matx33d(projection.colRange(0, 3).clone().ptr<double>());
        camera.distortion = {};
        camera.rotation = turn * camera.rotation;
        camera.translation = turn * camera.translation;
    };
    rectify(result.left, e.leftProjection, e.leftRectification);
    rectify(result.right, e.rightProjection, e.rightRectification);
    return result;
}

/// An upright pair whose right camera stands above the left one.
inline scene::Rig verticalRig() {
    scene::Rig rig = scene::makeVergedRig({1280, 1024});
    cv::Rodrigues(cv::Vec3d(0.21, 0.01, 0.02), rig.right.rotation);
    rig.right.translation = -(rig.right.rotation * cv::Vec3d(5, -200, 8));
    return rig;
}

/// Exact corners, conics included, of the discs that lie before both cameras, also where their image ends: rectified
/// centres may lie beside the image.
inline void exactCorners(const scene::Rig& rig, const std::vector<scene::Disc>& discs, std::vector<Corner>& left, std::vector<Corner>& right,
                         std::vector<scene::Disc>& seen) {
    for (const scene::Disc& disc : discs) {
        const scene::EllipseTruth truth[2] = {scene::projectDisc(rig.left, disc), scene::projectDisc(rig.right, disc)};
        if (!(truth[0].minorHalfAxis > 0 && truth[1].minorHalfAxis > 0)) continue;
        seen.push_back(disc);
        for (int eye = 0; eye < 2; ++eye) {
            Corner corner;
            corner.x = truth[eye].centre.x;
            corner.y = truth[eye].centre.y;
            corner.conic = truth[eye].conic;
            corner.conicValid = true;
            (eye == 0 ? left : right).push_back(corner);
        }
    }
}

}  // namespace kestrune::test
