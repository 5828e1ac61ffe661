// SPDX-License-Identifier: Apache-2.0
#include "rigs.h"

#include <algorithm>
#include <array>
#include <opencv2/calib3d.hpp>

namespace kestrune::bench {
namespace {

constexpr double kExactShare = 0.3;        ///< of the rigs: nothing but their shape
constexpr double kMisalignment = 1.5;      ///< degrees, standard deviation about each axis of an eye
constexpr double kPrincipalScatter = 30;   ///< px
constexpr double kLopsidedForward = 0.15;  ///< most by which an eye is nearer, as a share of the distance
constexpr double kLopsidedFocal = 1.2;     ///< most ratio of the focal lengths
constexpr double kLopsidedAim = 0.1;       ///< most by which an eye aims beside the target, as a share of the distance
constexpr double kOwnRoll = 12;            ///< degrees, most
constexpr double kPrincipalUncertainty = 2;  ///< of focal lengths and principal points, in rotations
constexpr double kLeastRoom = 250;           ///< px: a rig that shows less of the target aims straight at it instead

/// In a frame of the rig: x along the baseline, z towards the object.
struct Eye {
    cv::Vec3d centre, aim;
    double focal, roll = 0;
};

cv::Matx33d turn(const cv::Vec3d& vector) {
    cv::Matx33d rotation;
    cv::Rodrigues(vector, rotation);
    return rotation;
}

cv::Matx33d lookingAlong(const cv::Vec3d& direction) {
    const cv::Vec3d z = cv::normalize(direction), x = cv::normalize(cv::Vec3d(0, 1, 0).cross(z)), y = z.cross(x);
    return {x[0], x[1], x[2], y[0], y[1], y[2], z[0], z[1], z[2]};
}

std::array<Eye, 2> eyesOf(const SceneKind& kind, Draws& draws) {
    const double distance = kind.distance * kind.unit, half = distance * std::tan(kind.axesAngle * CV_PI / 360);
    std::array<Eye, 2> eyes;
    const double roll = draws.angle();
    for (std::size_t k = 0; k < 2; ++k) {
        Eye& eye = eyes[k];
        eye.centre = {k == 0 ? -half : half, 0, 0};
        eye.aim = {0, 0, distance};
        eye.focal = kind.focal;
        if (kind.rig == RigShape::lopsided) {
            eye.centre[1] += 0.5 * half * draws.uniform(-1, 1);
            eye.centre[2] += kLopsidedForward * distance * draws.uniform(-1, 1);
            eye.aim[0] += kLopsidedAim * distance * draws.uniform(-1, 1);
            eye.aim[1] += kLopsidedAim * distance * draws.uniform(-1, 1);
            if (k == 1) eye.focal *= draws.logUniform(1 / kLopsidedFocal, kLopsidedFocal);
        }
        if (kind.rig == RigShape::rolled) eye.roll = roll + draws.uniform(-1, 1) * kOwnRoll * CV_PI / 180;
        if (kind.rig == RigShape::parallel) eye.aim = eye.centre + cv::Vec3d(0, 0, distance);
    }
    return eyes;
}

scene::PinholeCamera cameraOf(const Eye& eye, cv::Size image, bool exact, Draws& draws) {
    scene::PinholeCamera camera;
    camera.size = image;
    const double scatter = exact ? 0 : 1;
    camera.intrinsic = {eye.focal * (1 + 5e-4 * scatter * draws.normal()),
                        0,
                        0.5 * (image.width - 1) + scatter * draws.normal(kPrincipalScatter),
                        0,
                        eye.focal,
                        0.5 * (image.height - 1) + scatter * draws.normal(kPrincipalScatter),
                        0,
                        0,
                        1};
    cv::Vec3d error;
    for (int k = 0; k < 3; ++k) error[k] = scatter * draws.normal(kMisalignment * CV_PI / 180);
    camera.rotation = turn(error) * turn({0, 0, eye.roll}) * lookingAlong(eye.aim - eye.centre);
    camera.translation = -(camera.rotation * eye.centre);
    return camera;
}

/// With the left camera as the world.
scene::Rig withLeftAsWorld(const std::array<scene::PinholeCamera, 2>& cameras) {
    scene::Rig rig{cameras[0], cameras[1]};
    rig.right.rotation = cameras[1].rotation * cameras[0].rotation.t();
    rig.right.translation = cameras[1].translation - rig.right.rotation * cameras[0].translation;
    rig.left.rotation = cv::Matx33d::eye();
    rig.left.translation = {};
    return rig;
}

cv::Matx33d frameOf(const cv::Vec3d& baseline, const cv::Vec3d& view) {
    const cv::Vec3d along = cv::normalize(baseline), away = cv::normalize(view - along * along.dot(view)),
                    down = away.cross(along);
    return {along[0], down[0], away[0], along[1], down[1], away[1], along[2], down[2], away[2]};
}

double roomAbout(const scene::Rig& rig, const cv::Vec3d& target) {
    double room = rig.left.size.width;
    for (const auto* camera : {&rig.left, &rig.right}) {
        const cv::Point2d p = scene::projectPoint(*camera, target);
        room = std::min({room, p.x, camera->size.width - 1 - p.x, p.y, camera->size.height - 1 - p.y});
    }
    return room;
}

TrueRig rigOf(const std::array<scene::PinholeCamera, 2>& cameras, const cv::Vec3d& target) {
    TrueRig result;
    result.cameras = withLeftAsWorld(cameras);
    result.target = cameras[0].rotation * target + cameras[0].translation;
    const cv::Vec3d right = -(result.cameras.right.rotation.t() * result.cameras.right.translation);
    result.frame = frameOf(right, result.target - 0.5 * right);
    result.room = roomAbout(result.cameras, result.target);
    return result;
}

}  // namespace

TrueRig makeRig(const SceneKind& kind, Draws& draws) {
    const bool exact = kind.trouble == Trouble::shifted || draws.chance(kExactShare);
    for (SceneKind wanted = kind;; wanted.rig = RigShape::symmetric) {
        const std::array<Eye, 2> eyes = eyesOf(wanted, draws);
        cv::Vec3d target(0, 0, kind.distance * kind.unit);
        if (wanted.rig == RigShape::parallel)
            for (int k = 0; k < 2; ++k) target[k] += 0.1 * target[2] * draws.uniform(-1, 1);
        const TrueRig rig =
            rigOf({cameraOf(eyes[0], kind.image, exact, draws), cameraOf(eyes[1], kind.image, exact, draws)}, target);
        if (rig.room >= kLeastRoom || wanted.rig == RigShape::symmetric) return rig;
    }
}

TrueRig turned(const TrueRig& rig, const cv::Vec3d& axis, double degrees) {
    TrueRig result = rig;
    const cv::Matx33d rotation = turn(axis * (degrees * CV_PI / 180));
    result.cameras.right.rotation = rotation * rig.cameras.right.rotation;
    result.cameras.right.translation = rotation * rig.cameras.right.translation;
    return result;
}

RigMatrices matricesOf(const scene::Rig& rig) {
    RigMatrices matrices;
    const std::array<const scene::PinholeCamera*, 2> eyes{&rig.left, &rig.right};
    for (std::size_t k = 0; k < 2; ++k) {
        matrices.cameras[k].matrix = cv::Mat(eyes[k]->intrinsic).clone();
        const auto& lens = eyes[k]->distortion;
        matrices.cameras[k].distortion = cv::Mat(1, static_cast<int>(lens.size()), CV_64F);
        std::copy(lens.begin(), lens.end(), matrices.cameras[k].distortion.ptr<double>());
        matrices.cameras[k].size = eyes[k]->size;
    }
    matrices.rotation = cv::Mat(rig.right.rotation).clone();
    matrices.translation = cv::Mat(rig.right.translation).clone();
    matrices.size = rig.left.size;
    return matrices;
}

RigMatrices calibrated(const scene::Rig& rig, double rotation, Draws& draws) {
    RigMatrices matrices = matricesOf(rig);
    const double pixels = kPrincipalUncertainty * rotation * rig.left.intrinsic(0, 0);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        matrices.uncertainty.cameras[eye].fill(pixels);
        cv::Mat1d k = matrices.cameras[eye].matrix;
        for (double* const number : {&k(0, 0), &k(1, 1), &k(0, 2), &k(1, 2)}) *number += draws.normal(pixels);
    }
    matrices.uncertainty.rotation.fill(rotation);
    const double length = rotation * cv::norm(rig.right.translation);
    matrices.uncertainty.translation.fill(length);
    cv::Vec3d vector;
    cv::Rodrigues(rig.right.rotation, vector);
    cv::Mat1d translation = matrices.translation;
    for (int k = 0; k < 3; ++k) {
        vector[k] += draws.normal(rotation);
        translation(k) += draws.normal(length);
    }
    cv::Rodrigues(vector, matrices.rotation);
    return matrices;
}

double epipolarDistance(const RigMatrices& rig, const cv::Point2d& left, const cv::Point2d& right) {
    const cv::Matx33d leftInverse = cv::Matx33d(rig.cameras[0].matrix).inv(),
                      rightInverse = cv::Matx33d(rig.cameras[1].matrix).inv(), rotation(rig.rotation);
    const cv::Vec3d t(rig.translation.ptr<double>());
    const cv::Matx33d cross(0, -t[2], t[1], t[2], 0, -t[0], -t[1], t[0], 0);
    const cv::Matx33d fundamental = rightInverse.t() * cross * rotation * leftInverse;
    const cv::Vec3d inLeft(left.x, left.y, 1), inRight(right.x, right.y, 1);
    const cv::Vec3d rightLine = fundamental * inLeft, leftLine = fundamental.t() * inRight;
    return 2 * inRight.dot(rightLine) / (std::hypot(rightLine[0], rightLine[1]) + std::hypot(leftLine[0], leftLine[1]));
}

}  // namespace kestrune::bench
