// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kestrune {

/// A point or direction in space, in the unit of the host's poses.
template <typename T>
struct Point3_ {
    T x, y, z;
};

/// Where a camera stands: values 0 to 8 are the rotation A from world to camera coordinates row by row, values 9 to 11
/// the camera's position c in the world. A world point X has camera coordinates A (X - c).
template <typename T>
struct Pose_ {
    T values[12];
};

/// A camera: fx, fy, cx, cy in pixels, then the distortion coefficients k1, k2, p1, p2, k3 in OpenCV's order, then one
/// value that is not read. The two numbers are the host's: two focal lengths, two coordinates of the principal point.
template <typename T, int FocalLengths, int PrincipalPoint>
struct Camera_ {
    T values[10];
};

}  // namespace kestrune
