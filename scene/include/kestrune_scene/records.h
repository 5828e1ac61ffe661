// SPDX-License-Identifier: Apache-2.0
//
// A rig and its discs as the records that the library takes. Who includes this links the library, too.
#pragma once

#include <algorithm>
#include <opencv2/calib3d.hpp>
#include <vector>

#include "kestrune/MarkerExtractor.h"
#include "kestrune_scene/scene.h"

namespace kestrune::scene {

/// Orientation, and place in the world.
inline Pose_<double> poseOf(const PinholeCamera& camera) {
    const cv::Vec3d position = -(camera.rotation.t() * camera.translation);
    Pose_<double> pose{};
    std::copy_n(camera.rotation.val, 9, pose.values);
    std::copy_n(position.val, 3, pose.values + 9);
    return pose;
}

/// Focal lengths, principal point and lens.
inline Camera_<double, 2, 2> cameraOf(const PinholeCamera& camera) {
    const cv::Matx33d& k = camera.intrinsic;
    Camera_<double, 2, 2> result{{k(0, 0), k(1, 1), k(0, 2), k(1, 2)}};
    std::copy_n(camera.distortion.begin(), 5, result.values + 4);
    return result;
}

/// An extractor that knows the rig, wherever in the host's world its left camera is.
inline CircleMarkerExtractor calibrated(const Rig& rig) {
    CircleMarkerExtractor extractor;
    extractor.transform_kestruneData2cvMat({poseOf(rig.left), poseOf(rig.right)},
                                           {cameraOf(rig.left), cameraOf(rig.right)}, rig.left.size.width,
                                           rig.left.size.height, cv::CALIB_ZERO_DISPARITY);
    return extractor;
}

/// The rectified cameras as cameras of their own: what a host sees that works in rectified images.
inline Rig rectifiedRig(const CircleMarkerExtractor& e, const Rig& rig) {
    const auto rectified = [](const PinholeCamera& camera, const cv::Mat& projection, const cv::Mat& rectification) {
        const cv::Matx33d turn(rectification), intrinsic(projection.colRange(0, 3).clone().ptr<double>());
        return PinholeCamera{intrinsic, {}, turn * camera.rotation, turn * camera.translation, camera.size};
    };
    return {rectified(rig.left, e.leftProjection, e.leftRectification),
            rectified(rig.right, e.rightProjection, e.rightRectification)};
}

/// Both eyes' corners of the discs that both see, in one order.
struct ExactCorners {
    std::vector<Corner> left, right;
    std::vector<Disc> seen;
};

/// Exact corners, conics included, of the discs that lie before both cameras, also where their image ends: rectified
/// centres may lie beside the image.
inline ExactCorners exactCorners(const Rig& rig, const std::vector<Disc>& discs) {
    ExactCorners result;
    for (const Disc& disc : discs) {
        const EllipseTruth truth[2] = {projectDisc(rig.left, disc), projectDisc(rig.right, disc)};
        if (!(truth[0].minorHalfAxis > 0 && truth[1].minorHalfAxis > 0)) continue;
        result.seen.push_back(disc);
        for (int eye = 0; eye < 2; ++eye) {
            Corner& corner = (eye == 0 ? result.left : result.right).emplace_back();
            corner.x = truth[eye].centre.x, corner.y = truth[eye].centre.y;
            corner.conic = truth[eye].conic, corner.conicValid = true;
        }
    }
    return result;
}

}  // namespace kestrune::scene
