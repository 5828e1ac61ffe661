// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/calib3d.hpp>
#include <random>

#include "support/ellipses.h"

namespace kestrune::test {

/// Two cameras of 3000 px, the right one at a place and turned, in the frame of the left one.
inline scene::Rig rigOf(const cv::Vec3d& turn, const cv::Vec3d& place, double focalRatio = 1) {
    scene::Rig rig;
    rig.left.size = rig.right.size = {2448, 2048};
    rig.left.intrinsic = {3000, 0, 1223.5, 0, 3000, 1023.5, 0, 0, 1};
    rig.right.intrinsic = {3000 * focalRatio, 0, 1223.5, 0, 3000 * focalRatio, 1023.5, 0, 0, 1};
    cv::Rodrigues(turn, rig.right.rotation);
    rig.right.translation = -(rig.right.rotation * place);
    return rig;
}

/// The rig with its right camera turned about its own centre, by degrees about its axes.
inline scene::Rig turned(scene::Rig rig, const cv::Vec3d& degrees) {
    cv::Matx33d turn;
    cv::Rodrigues(degrees * (CV_PI / 180), turn);
    rig.right.rotation = turn * rig.right.rotation, rig.right.translation = turn * rig.right.translation;
    return rig;
}

/// Draws of what is measured of an ellipse: each of its five numbers is off by `sigma`, and told to be.
class Measured {
  public:
    explicit Measured(double sigma, unsigned seed = 1) : sigma_(sigma), random_(seed) {}

    MarkerEstimate operator()(const scene::PinholeCamera& camera, const scene::Disc& disc, double told = 0) {
        Five numbers = numbersOf(ellipseOf(projectDisc(camera, disc)));
        for (double& number : numbers.val) number += sigma_ * normal_(random_);
        MarkerEstimate estimate = estimateOf(ellipseOf(numbers), std::pow(told > 0 ? told : sigma_, 2) * Covariance::eye());
        estimate.inside = disc.grey, estimate.outside = 40;
        return estimate;
    }
    std::mt19937& random() { return random_; }

  private:
    double sigma_;
    std::mt19937 random_;
    std::normal_distribution<double> normal_;
};

}  // namespace kestrune::test
