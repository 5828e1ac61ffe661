// SPDX-License-Identifier: Apache-2.0
//
// Ellipses through the lens. A lens makes no ellipse of an ellipse; which one stands for its image is the one that a
// fit to the grey levels would give: the nearest in the sense of least squares of the normal distances, along the whole
// rim.
#pragma once

#include "kestrune/MarkerMetrology/rig.h"
#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune {

/// The ellipse that stands in the image for one in pixels without distortion; not finite where the lens has folded. One
/// of no size at all stands for a point.
///
/// @throws cv::Exception  `StsBadArg` for a camera that is none.
geometry::SmoothEllipse distortedEllipse(const geometry::SmoothEllipse& undistortedPx, const Camera& camera);

}  // namespace kestrune
