// SPDX-License-Identifier: Apache-2.0
//
// A rendered exposure of circular markers with its ground truth: the problem instance that tests, benchmarks and the
// program kestrune-measure share.
//
// Frames. The world is the left camera's frame in millimetres, z away from the camera. A camera maps a world point X to
// R X + T and then through K and OpenCV's five distortion coefficients. Pixel (0, 0) is the centre of the top left
// pixel, and a pixel covers half a pixel to each side of its centre. "Undistorted pixels" are those of the same K
// without distortion: what `cv::undistortPoints` with P = K gives.
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune::scene {

struct PinholeCamera {
    cv::Matx33d intrinsic;                      ///< K, px
    std::array<double, 5> distortion{};         ///< k1, k2, p1, p2, k3
    cv::Matx33d rotation = cv::Matx33d::eye();  ///< world to camera
    cv::Vec3d translation;                      ///< world to camera, mm
    cv::Size size;                              ///< px
};

struct Rig {
    PinholeCamera left, right;  ///< left: rotation is the identity, translation zero
};

/// A flat disc in the world.
struct Disc {
    cv::Vec3d centre;  ///< mm
    cv::Vec3d normal;  ///< unit, towards the cameras (negative z for a disc that faces the left camera)
    double radius;     ///< mm
    double grey;       ///< brightness on the image, 0 to 255
};

/// Something that is not a marker: a filled polygon in pixels of one eye, drawn before the discs.
struct Patch {
    int eye;                           ///< 0 left, 1 right
    std::vector<cv::Point2d> outline;  ///< px, simple polygon
    double grey;
};

/// What an eye sees of a disc, in undistorted pixels unless said otherwise.
struct EllipseTruth {
    bool visible = false;  ///< in front of the camera, facing it, and wholly on the image with a margin
    cv::Point2d centre;    ///< centre of the ellipse
    /// Where the lens puts that centre. The lens bends the ellipse too: the centroid of its image lies up to 0.015 px
    /// from here for a marker of 40 px near the edge of the field of `makeVergedRig`, less by the square for smaller
    /// ones.
    cv::Point2d distortedCentre;
    cv::Point2d projectedCentre;    ///< projection of the disc's centre: not the ellipse's centre unless frontal
    double majorHalfAxis = 0;       ///< px
    double minorHalfAxis = 0;       ///< px
    double angle = 0;               ///< of the major axis to the x axis, radians in [0, pi)
    std::array<double, 6> conic{};  ///< A..F of A x^2 + B x y + C y^2 + D x + E y + F, -1 at the ellipse's centre
};

struct MarkerTruth {
    int id;  ///< index of the disc
    Disc disc;
    std::array<EllipseTruth, 2> eye;  ///< left, right
};

struct RenderOptions {
    double background = 40;   ///< grey level of what is no disc and no patch
    double blurSigma = 0.8;   ///< Gaussian point spread, px; 0: none
    double noiseSigma = 2.0;  ///< Gaussian noise before rounding to 8 bits, grey levels; 0: none
    std::uint64_t seed = 1;   ///< of the noise; the two eyes draw from different streams
    cv::Vec2d shade{};        ///< change of the light from one side to the other, across and down, as a share
};

struct Exposure {
    Rig rig;
    std::array<cv::Mat, 2> image;  ///< CV_8UC1, left and right
    std::vector<MarkerTruth> markers;
};

/// Exact image of a disc's rim: Q = H^-T diag(1, 1, -r^2) H^-1 with H = K [R u, R v, R c + T] and (u, v) an orthonormal
/// basis of the disc's plane.
EllipseTruth projectDisc(const PinholeCamera& camera, const Disc& disc);

/// Projection of a world point, through the lens, px; NaN for a point that is not in front of the camera.
cv::Point2d projectPoint(const PinholeCamera& camera, const cv::Vec3d& world);

/// Adds `weight` times the covered area of each pixel under the polygon to `accumulator` (`CV_32FC1`). Exact for a
/// simple polygon in any orientation, also where it leaves the image.
void addPolygonCoverage(cv::Mat& accumulator, const std::vector<cv::Point2d>& outline, float weight);

/// Renders both eyes by exact area sampling of the lens-distorted rims, then point spread, noise, and rounding. A disc
/// that turns its back to an eye is not drawn in it.
/// Where shapes overlap the later one covers the earlier in proportion to its area in the pixel.
Exposure render(const Rig& rig, const std::vector<Disc>& discs, const std::vector<Patch>& patches,
                const RenderOptions& options);

// ---- ready scenes ----

/// A verged pair with mild lens distortion that sees a field of about 300 mm at 900 mm.
Rig makeVergedRig(cv::Size imageSize);

/// Discs on a jittered grid that fills the left image of `rig`, tilted by up to `maxTiltDegrees`, whose images in the
/// left eye have about the radius asked for in pixels. Fewer than `count` where they would not fit without touching.
std::vector<Disc> makeScatteredDiscs(const Rig& rig, int count, double minRadiusPx, double maxRadiusPx,
                                     double maxTiltDegrees, double grey, std::uint64_t seed);

/// Discs of two sizes on a cylinder bent towards the cameras, all visible in both eyes.
std::vector<Disc> makeCurvedObject(const Rig& rig, int count, double smallRadiusMm, double largeRadiusMm, double grey,
                                   std::uint64_t seed);

/// Lines, specks, boxes and corners that are no markers, kept clear of the discs' images: `count` in each eye, or fewer
/// where the discs leave no room.
std::vector<Patch> makeClutter(const Rig& rig, const std::vector<Disc>& discs, int count, std::uint64_t seed);

// ---- validator ----

/// One detection against the truth.
struct DetectionMatch {
    int marker;     ///< index into the truth
    int detection;  ///< index into the detections
    double error;   ///< distance of the centres, px
};

struct DetectionScore {
    std::vector<DetectionMatch> matches;  ///< in ascending order of `marker`
    std::vector<int> missed;              ///< truth indices
    std::vector<int> falseOnes;           ///< detection indices
    double centreRms = 0;                 ///< px over the matches; 0 if there are none
    double centreMax = 0;                 ///< px
};

/// Assigns detections to visible markers, nearest pairs first, each used once, none farther than `maxDistance` px.
///
/// @param undistorted  compare with `EllipseTruth::centre`; otherwise with `distortedCentre`.
DetectionScore scoreDetections(const std::vector<MarkerTruth>& truth, int eye,
                               const std::vector<cv::Point2d>& detections, bool undistorted, double maxDistance);

}  // namespace kestrune::scene
