// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kestrune {

/// A point or direction in space, in the unit of the host's poses.
template <typename T>
struct Point3_ {
    T x;  ///< along the first axis
    T y;  ///< along the second
    T z;  ///< along the third
};

/// Where a camera stands. A world point X has camera coordinates A (X - c).
template <typename T>
struct Pose_ {
    /// 0 to 8: the rotation A from world to camera coordinates, row by row; 9 to 11: the camera's position c in the
    /// world.
    T values[12];
};

/// A camera's intrinsics. The two numbers are the host's: two focal lengths, two coordinates of the principal point.
template <typename T, int FocalLengths, int PrincipalPoint>
struct Camera_ {
    /// fx, fy, cx, cy, px; then the distortion coefficients k1, k2, p1, p2, k3 in OpenCV's order; then one not read.
    T values[10];
};

}  // namespace kestrune
