// SPDX-License-Identifier: Apache-2.0
//
// OpenCV's lens in the units of the fits: from pixels without distortion to those of the image and back, with
// derivatives.
#pragma once

#include <array>
#include <opencv2/core.hpp>

#include "kestrune/MarkerMetrology/rig.h"
#include "kestrune_geometry/pinhole.h"

namespace kestrune {

/// A point behind the lens, and how it moves with the one before it: (xx, xy; yx, yy).
struct LensPoint {
    double x, y;
    double xx, xy, yx, yy;

    double determinant() const { return xx * yy - xy * yx; }
    /// The lens has not folded here: neighbours stay neighbours, and are not turned about.
    bool keepsOrder() const { return determinant() > 0 && xx + yy > 0; }
};

class LensModel {
  public:
    /// @param camera  one that `requireCamera` took.
    explicit LensModel(const Camera& camera);

    /// No coefficient is other than 0.
    bool isIdeal() const { return isIdeal_; }
    const geometry::Pinhole& pinhole() const { return pinhole_; }

    /// In units of the focal lengths: a ray (x, y, 1) to where an ideal camera would see what the lens makes of it.
    LensPoint distorted(double x, double y) const;

    /// The pixel of the image in which a pixel without distortion appears. The value only, and with derivatives.
    cv::Point2d distortedPixel(const cv::Point2d& pixel) const;
    LensPoint distortedWithDerivatives(const cv::Point2d& pixel) const;

    /// The way back from a pixel of the image. Not finite where the lens has folded, or nothing leads there.
    cv::Point2d undistortedPixel(const cv::Point2d& pixel) const;

    /// Whether all between the optical axis and this pixel without distortion is imaged in its order. Beyond a fold
    /// several rays meet in a pixel, and the coefficients describe no lens.
    bool isWithinFold(const cv::Point2d& pixel) const;

  private:
    LensPoint tilted(const LensPoint& p) const;

    geometry::Pinhole pinhole_;
    std::array<double, 14> k_{};  ///< k1, k2, p1, p2, k3, k4, k5, k6, s1 to s4, tilts
    cv::Matx33d tilt_ = cv::Matx33d::eye();
    bool isIdeal_ = true, isRational_ = false, isTilted_ = false;
};

}  // namespace kestrune
