// SPDX-License-Identifier: Apache-2.0
//
/// @namespace kestrune
/// Finds small flat circular markers in the images of a calibrated camera pair. A host includes this one header,
/// `kestrune/MarkerExtractor.h`.
///
/// @par Failures
/// There are no error codes: an extraction returns false when it found nothing. `cv::Exception` and
/// `std::bad_alloc` pass through every call, and `std::system_error` through one with `CicrleConfigs::useThreads` whose
/// threads cannot be started; OpenCV built with TBB raises `std::runtime_error` where its own cannot. Settings that a
/// path cannot work with raise `cv::Exception` with code `cv::Error::StsBadArg` and a text that names the setting and
/// its value, before anything is written. The object can be used again after every exception. More on memory or threads
/// that run out stands in docs/threads.md.
///
/// @par Threads
/// One extractor serves one thread at a time, because the paths share its scratch storage; a copy shares the
/// calibration's pixels, owns its scratch storage, and is the way to a second thread. The same input gives the same
/// output, bit for bit, on every run and for any number of threads, on one kind of CPU: on another one OpenCV
/// and Eigen may round otherwise.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "kestrune/MarkerExtractor/calibration_records.h"
#include "kestrune/MarkerExtractor/export.h"
#include "kestrune/MarkerExtractor/records.h"
#include "kestrune/MarkerExtractor/stereo.h"
#include "kestrune/MarkerExtractor/version.h"

namespace kestrune {

struct Workspace;

/// Owns the working storage of an extractor's paths, whose contents mean nothing between calls. A copy begins without.
class WorkspaceOwner {
  public:
    WorkspaceOwner() noexcept = default;
    /// Without storage.
    WorkspaceOwner(const WorkspaceOwner& /*other*/) noexcept {}
    /// Keeps its own.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned
    WorkspaceOwner& operator=(const WorkspaceOwner& /*other*/) noexcept { return *this; }

    std::shared_ptr<Workspace> owned;  ///< the library's
};

/// The long-lived object: calibration of a camera pair, tables that are built once, and scratch storage.
///
/// A copy shares the pixels of the `cv::Mat` members with its source, so that the calibration must not be changed in
/// place through either; everything else is copied deeply.
class CircleMarkerExtractor {
  public:
    /// An object without calibration. `imageWidth` and `imageHeight` hold no value until the calibration intake ran.
    KESTRUNE_API CircleMarkerExtractor();
    /// A copy, as above: the way to a second thread.
    KESTRUNE_API CircleMarkerExtractor(const CircleMarkerExtractor& other);
    KESTRUNE_API ~CircleMarkerExtractor();
    /// Makes this a copy of `other`.
    KESTRUNE_API CircleMarkerExtractor& operator=(const CircleMarkerExtractor& other);

    /// The default path: bright round markers, one `Corner` each, in the order of first acceptance.
    ///
    /// @param image        `CV_8UC1` or `CV_8UC3` (BGR), not changed. An empty one gives false.
    /// @param corners      result, must be empty. Coordinates are pixels of `image` - with `useRadialContours` false
    ///                     and `scale` above 1 those of the reduced image, not multiplied up - undistorted unless
    ///                     `configs.skipUndistort`.
    /// @param cameraIndex  0: left matrices for the undistortion; any other value: right ones.
    /// @param configs      `useRadialContours` chooses between radial and sub-pixel contours. Read as well: `minArea`,
    ///                     `maxArea`, the circularity and hull gates, `maxEccentricity`, `minContourSize`, `aperture`,
    ///                     `sigma`, `scale`, `skipUndistort`, `markerName`; for sub-pixel contours `cannyLow`,
    ///                     `cannyHigh`, `useThreads`, `maxFitError`, `maxPointError`; for radial ones `thresholdC`,
    ///                     `refineAtFullSize`, `minRayRatio`, `contrast`, `maxFitResidual`.
    /// @return             whether a marker was found. `markerRects` is overwritten either way, `markerName` on
    ///                     success.
    /// @throws cv::Exception  for a setting or image that the path cannot work with, and from `cv::fitEllipse` or
    ///                     `cv::fitEllipseDirect` on a contour of fewer than five points that came past the area gate;
    ///                     in the latter case `corners` keeps what was accepted before and `markerRects` its old value.
    KESTRUNE_API bool CircleExtractSimple(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                          const CicrleConfigs& configs);

    /// The edge-based path: round markers bright or dark on their ground, measured on the ridge of the gradient.
    ///
    /// Fills `ellipse`, `fitResidual`, the conic, `scatter`, `contour` (pixels of the rim moved to sub-pixel places, by
    /// rows: a set, not a path), `x`, `y` and `id`; `area` and the measures of shape stay 0. A broad ring gives
    /// two markers, its outer and its inner edge, since they differ in polarity. Nested edges of one polarity give one:
    /// the better fit if they are alike to a third, else as a rule the inner one.
    ///
    /// @param image        `CV_8UC1` or `CV_8UC3` (BGR), not changed. An empty one gives false.
    /// @param corners      result, must be empty. Coordinates are pixels of `image`, whatever `scale`, undistorted
    ///                     unless `configs.skipUndistort`.
    /// @param cameraIndex  0: left matrices for the undistortion; any other value: right ones.
    /// @param configs      read are `scale`, `sigma`, `aperture`, `thresholdC`, `maxFitResidual`, `minDiameter`,
    ///                     `maxDiameter`, `minAxisRatio`, `nmsFactor`, `edgePercentile`, `skipUndistort`, `markerName`.
    /// @return             whether a marker was found. `markerRects` is overwritten either way, `markerName` on
    ///                     success.
    /// @throws cv::Exception  for a setting or image that the path cannot work with, and from the undistortion; nothing
    ///                     of the result is written then.
    KESTRUNE_API bool CircleExtractComplex(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                           const CicrleConfigs& configs);

    /// The cheapest path: threshold at 100 grey levels, outer contours, up to four optional gates, ellipse centres. It
    /// fills `x`, `y`, `area` and `eccentricity` only, touches no member, and may run on many threads on one object.
    ///
    /// @param image        `CV_8UC1`, not changed. An empty one gives false.
    /// @param corners      results are appended; what is there counts for the result.
    /// @param cameraIndex  not used.
    /// @param configs      read are the four switches `enable...Filter` and the bounds behind them.
    /// @return             whether `corners` holds anything at the end.
    /// @throws cv::Exception  from `cv::fitEllipse` on a contour of fewer than five points that came past the gates;
    ///                     `corners` keeps what was appended before.
    KESTRUNE_API bool extractMarkPointsFast(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                            const CicrleConfigs& configs);

    /// Markers from a plain edge map with fixed settings: Canny at 200 and 500, outer contours in whole pixels, gates
    /// of area, compactness, eccentricity and fit error. For images with strong edges: a marker must stand out by 120
    /// grey levels where its rim is sharp, by 170 with a point spread of 0.8 px and by 220 with one of 1.2 px; with 2
    /// px none is found. No reduction, undistortion or conic.
    ///
    /// @param image        `CV_8UC3` (BGR) or `CV_8UC4`, not changed. An empty one gives false, and so does a `CV_8UC1`
    ///                     one without markers.
    /// @param corners      results are appended, in px of `image`; what is there takes part in the test for repetitions
    ///                     and counts for the result. Filled are `x`, `y`, `contour`, `area`, `compactness`,
    ///                     `eccentricity` and `fitError`; `id` stays 0. A marker of the list is overwritten by one with
    ///                     smaller axes whose own smaller half axis reaches its centre, if the two centres differ; one
    ///                     with larger axes is dropped then.
    /// @param cameraIndex  not used.
    /// @param configs      read are `minArea`, `maxArea`, `maxEccentricity`, `maxFitError`, `maxPointError` and
    ///                     `markerName`.
    /// @return             whether `corners` holds anything at the end. `markerName` is overwritten if so.
    /// @throws cv::Exception  `cv::Error::StsBadArg` for any other type of image, before anything is written; from
    ///                     `cv::cvtColor` for a `CV_8UC1` image with markers, and from `cv::fitEllipse` on a contour of
    ///                     fewer than five points that came past area and compactness: `corners` keeps what was
    ///                     accepted before.
    KESTRUNE_API bool CircleExtractSimpleForHand(cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                                 const CicrleConfigs& configs);

    /// Places markers in space by a depth image: depth is interpolated between the four pixels about each centre, and
    /// the centre, as it stands, goes back through the pinhole. Touches no member.
    ///
    /// @param corners       replaced by the markers with a depth, in the same order: `position` set (camera frame, z
    ///                      away from the camera, unit of `depth`, single precision), `matched` true, `id` their
    ///                      number. Dropped are markers with a pixel of depth 0 or no pixel among their four, such as
    ///                      those at column or row 0 or with a centre that is not finite.
    /// @param depth         `CV_32FC1`, z of each pixel, 0 where there is none; not changed. Any other value, finite or
    ///                      not, counts as a depth.
    /// @param cameraMatrix  3 by 3, `CV_64FC1`, of which fx, fy, cx and cy are read, in pixels of `depth`. The centres
    ///                      should be in the same pixels, free of distortion.
    /// @throws cv::Exception `cv::Error::StsBadArg`, naming the argument, for a `depth` or `cameraMatrix` of another
    ///                      type or size, with nothing written. Without corners nothing is looked at.
    KESTRUNE_API void DetectFeaturePointsAndInterpolate_binocular(std::vector<Corner>& corners, cv::Mat& depth,
                                                                  const cv::Mat& cameraMatrix);

    /// Removes the lens distortion from `x`, `y` and `contour` of each record, in place; the result is in pixels of the
    /// same camera. Touches no member. Nothing marks a record as corrected: a second call corrects a second time.
    ///
    /// @param corners       changed in place.
    /// @param cameraMatrix  3 by 3, as `cv::undistortPoints` takes it.
    /// @param distCoeffs    as `cv::undistortPoints` takes it, of one channel; may be empty.
    /// @throws cv::Exception  for a matrix without data or a `distCoeffs` of several channels, before anything is
    ///                      written, and from `cv::undistortPoints`; records before the offender stay corrected.
    KESTRUNE_API void UndistortCorners(std::vector<Corner>& corners, const cv::Mat& cameraMatrix,
                                       const cv::Mat& distCoeffs);

    /// Carries markers into the rectified image: `x`, `y` and `contour` through `cv::undistortPoints`; where
    /// `conicValid`, also the conic through `homography`, and then `ellipse`, `x` and `y` are those of the mapped
    /// conic, in single precision. `conic` itself stays that of the unrectified image. Touches no member.
    ///
    /// @param source         undistorted px (or distorted ones, with `distCoeffs`).
    /// @param target         result, replaced; may be the same list as `source`.
    /// @param cameraMatrix   3 by 3.
    /// @param distCoeffs     as `cv::undistortPoints` takes it, of one channel; empty for points that are free of
    ///                       distortion.
    /// @param rectification  3 by 3: R1 or R2 of `cv::stereoRectify`.
    /// @param projection     3 by 4: P1 or P2.
    /// @param homography     3 by 3, `CV_64F`: undistorted to rectified px. A singular one maps conics to nothing.
    ///                       Without a conic among `source` it only has to be a square matrix.
    /// @throws cv::Exception from `cv::undistortPoints`, with `target` partly written, and for a `homography` of wrong
    ///                       size or type, a matrix without data or a `distCoeffs` of several channels, before anything
    ///                       is written.
    KESTRUNE_API void StereoRectifyCorners(const std::vector<Corner>& source, std::vector<Corner>& target,
                                           const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs,
                                           const cv::Mat& rectification, const cv::Mat& projection,
                                           const cv::Mat& homography);

    /// How far the image of a circle's centre lies from the centre of the circle's image, after Ahn, for one fitted
    /// ellipse and one known position; for the host alone, no other operation calls it or applies it. Touches no
    /// member.
    ///
    /// Read docs/eccentricity.md first: the cone is that of the ellipse moved to the principal point, its mixed
    /// coefficient is not halved, and the eigenvectors are laid out by rows, all three kept on purpose. The result is
    /// not the true displacement, and for most discs rounding decides between two values.
    ///
    /// Formula: S. J. Ahn, H.-J. Warnecke, R. Kotowski, "Systematic geometric image measurement errors of circular
    /// object targets: mathematical formulation and correction", Photogrammetric Record 16 (93), 1999.
    ///
    /// @param image      receives the normal of the circle's plane as red text "x,y,z" with six decimals, 150 px left
    ///                   of the ellipse's centre and 20 px below it, clipped to the image. An empty one, or a centre
    ///                   that is not finite, receives nothing.
    /// @param position   centre of the circle: row or column of three `CV_64FC1`, in a camera frame that looks along
    ///                   -z, with x right and y down as in the image: (X, Y, -Z) for what is the point (X, Y, Z) to
    ///                   every other operation.
    /// @param ellipse    full axes and angle in degrees, undistorted px; `center` only places the text.
    /// @param eccentricityX, eccentricityY  components, unit of `principalDistance`: across and in the plane that holds
    ///                   the normal and the optical axis, not along the image's columns and rows.
    /// @param eccentricityNorm  length of the two. All three are NaN, and so is the text, for numbers that are not
    ///                   finite, an ellipse without width or height, or `principalDistance` 0; all three are NaN for a
    ///                   normal along the optical axis, as any circular `ellipse` gives it.
    /// @param principalDistance  px.
    /// @param circleRadius       unit of `position`.
    /// @throws cv::Exception for a `position` of wrong shape or type or an `image` of more than two dimensions, with
    ///                   nothing written, and from `cv::putText`, with the three results written.
    KESTRUNE_API void correctedEccentricityAhn(cv::Mat& image, cv::Mat& position, cv::RotatedRect& ellipse,
                                               double& eccentricityX, double& eccentricityY, double& eccentricityNorm,
                                               double principalDistance, double circleRadius);

    /// The same with a principal distance of 1 and a radius of 1: for an ellipse in units of the principal distance, a
    /// `position` in units of the circle's radius, and results in units of the principal distance.
    KESTRUNE_API void correctedEccentricityAhn(cv::Mat& image, cv::Mat& position, cv::RotatedRect& ellipse,
                                               double& eccentricityX, double& eccentricityY, double& eccentricityNorm);

    /// The calibration intake: fills every calibration member from the host's poses and cameras. Call it once, before
    /// any extraction with undistortion and any stereo operation, and not while one runs. A later call replaces it all,
    /// but for `triangulationA` .. `triangulationD`, which the first stereo call decides for the object's life.
    ///
    /// @param poses         [0] left, [1] right; more are ignored.
    /// @param cameras       [0] left, [1] right; more are ignored.
    /// @param width,height  image size, px.
    /// @param rectifyFlags  `flags` of `cv::stereoRectify`.
    /// @throws std::out_of_range "invalid vector subscript" for fewer than two cameras, with nothing changed, and for
    ///         fewer than two poses, with the intrinsic and distortion members replaced.
    /// @throws cv::Exception for a size below 1 or a value that is not finite, with nothing changed, and from OpenCV,
    ///         as for two cameras in one place; members set before that keep their new values.
    KESTRUNE_API void transform_kestruneData2cvMat(const std::vector<Pose_<double>>& poses,
                                                   const std::vector<Camera_<double, 2, 2>>& cameras, int width,
                                                   int height, int rectifyFlags);

    /// Fundamental matrix K2^-T [-T]x R K1^-1, not normalised: x'^T F x = 0 for pixels x (left) and x' (right).
    ///
    /// @param R,T    a point X in left camera coordinates is R X + T in right ones. 3 by 3; three elements.
    /// @param K1,K2  3 by 3 camera matrices, left and right.
    /// @param F      result, 3 by 3 `CV_64F`, with pixels of its own.
    /// @throws cv::Exception for a matrix of wrong size or type (`CV_64F` is needed).
    KESTRUNE_API void CalcFoundationMat(cv::Mat& R, cv::Mat& T, cv::Mat& K1, cv::Mat& K2, cv::Mat& F);

    /// Replaces the rectified matrices. Nothing else is recomputed.
    ///
    /// @param matrices  left and right projection (3 by 4, whose first three columns become `leftIntrinsic` and
    ///          `rightIntrinsic`), left and right rectification (3 by 3).
    /// @return  false, with one warning on standard output, for fewer than four matrices or one of the first three of
    ///          wrong size; members before the offender keep their new values.
    /// @throws cv::Exception for a matrix without data, before anything is written.
    KESTRUNE_API bool SetStereorectifyParam(std::vector<cv::Mat> matrices);

    /// Fills `triangulationA`, `triangulationB` (3 by 3 camera matrices) and `triangulationC`, `triangulationD` (6 by 6
    /// maps of a conic's coefficients from the normalised plane to pixels) once in the object's life. The stereo core
    /// calls it.
    ///
    /// @param left,right  camera or projection matrices, `CV_64F`, of which fx, fy, cx and cy are read.
    /// @throws cv::Exception for a matrix that is too small or of another type.
    KESTRUNE_API void SetTriangulationIntrinsicMatrix(const cv::Mat& left, const cv::Mat& right);

    std::string markerName;  ///< `CicrleConfigs::markerName` of the last successful extraction
    std::string spareName;   ///< carried, not used

    // Calibration. `CV_64F`, except for the maps. A point X in left camera coordinates is R X + T in right ones.
    cv::Mat rotation;            ///< R
    cv::Mat translation;         ///< T
    cv::Mat fundamental;         ///< fundamental matrix
    cv::Mat leftIntrinsic;       ///< 3 by 3 camera matrix
    cv::Mat rightIntrinsic;      ///< 3 by 3 camera matrix
    cv::Mat leftDistortion;      ///< distortion coefficients in OpenCV's order
    cv::Mat rightDistortion;     ///< distortion coefficients in OpenCV's order
    cv::Mat leftProjection;      ///< P1 of `cv::stereoRectify`
    cv::Mat rightProjection;     ///< P2 of `cv::stereoRectify`
    cv::Mat leftRectification;   ///< R1 of `cv::stereoRectify`
    cv::Mat rightRectification;  ///< R2 of `cv::stereoRectify`
    cv::Mat disparityToDepth;    ///< Q of `cv::stereoRectify`
    cv::Mat leftTriangulation;   ///< 3 by 4
    cv::Mat rightTriangulation;  ///< 3 by 4
    cv::Mat leftMapX;            ///< rectifying map, `CV_32FC1`
    cv::Mat leftMapY;            ///< rectifying map, `CV_32FC1`
    cv::Mat rightMapX;           ///< rectifying map, `CV_32FC1`
    cv::Mat rightMapY;           ///< rectifying map, `CV_32FC1`
    cv::Mat leftHomography;      ///< rectifying homography
    cv::Mat rightHomography;     ///< rectifying homography

    Eigen::MatrixXd triangulationA;  ///< left camera matrix, by `SetTriangulationIntrinsicMatrix`
    Eigen::MatrixXd triangulationB;  ///< right camera matrix
    Eigen::MatrixXd triangulationC;  ///< map of a conic's coefficients from the normalised plane to left pixels
    Eigen::MatrixXd triangulationD;  ///< the same to right pixels

    std::vector<cv::RotatedRect> markerRects;  ///< ellipses of the last extraction, in the order of its result
    std::int32_t imageWidth;                   ///< px; not set before the calibration intake
    std::int32_t imageHeight;                  ///< px; not set before the calibration intake

    // Scratch storage: sized on entry of each call, its contents mean nothing between calls.
    std::vector<uchar> scratchBlurFull;        ///< radial: full image, smoothed
    std::vector<uchar> scratchEdgeMask;        ///< radial: threshold of the reduced image; edges: their mask
    std::vector<uchar> scratchBinary;          ///< radial: threshold of the full image; edges: of the reduced one
    std::vector<std::int32_t> scratchLabels;   ///< connected components of the reduced image
    std::vector<float> scratchFloatA;          ///< carried, not used
    std::vector<float> scratchFloatB;          ///< carried, not used
    std::vector<cv::Point2f> rayDirections;    ///< 72 unit vectors (cos, sin), built by the first radial call if empty
    std::vector<cv::Point2f> probeDirections;  ///< 24 unit vectors, built by the first radial call if empty
    std::vector<std::uint16_t> scratchBlur16;  ///< edges: smoothed image
    std::vector<float> scratchGrad;            ///< edges: length of the gradient
    std::vector<float> scratchDx;              ///< edges: the gradient's column part
    std::vector<float> scratchDy;              ///< edges: the gradient's row part
    std::vector<uchar> scratchGray;            ///< grey image of a colour input
    std::vector<uchar> scratchWorking;         ///< reduced image
    std::vector<std::uint16_t> scratchSmoothing;  ///< edges: a window with what its smoothing reaches
    WorkspaceOwner workspace;                     ///< storage that the library does not tell about
};

/// The front door: extracts the markers of one eye and writes one warning line on standard output if there are none.
///
/// @param image        as for the path that is taken: `CircleMarkerExtractor::CircleExtractComplex` with
///                     `configs.useComplexExtract`, else `CircleMarkerExtractor::CircleExtractSimple`.
/// @param extractor    its `markerRects` and `markerName` change.
/// @param corners      result, must be empty.
/// @param cameraIndex  0 is the left eye, any other value the right one.
/// @param configs      settings of the path that is taken.
/// @return             whether a marker was found.
KESTRUNE_API bool ExtractCircleMarker(const cv::Mat& image, CircleMarkerExtractor& extractor,
                                      std::vector<Corner>& corners, int cameraIndex, const CicrleConfigs& configs);

/// The stereo measurement: extracts the markers of both images of one exposure, matches them by geometry alone and
/// triangulates them.
///
/// With `configs.useComplexExtract` or `useRadialContours` the markers carry conics and are matched by the circles in
/// space that these imply; otherwise by rows, size and the shape of the whole constellation
/// (`getStereoRectifiedMarker3dPoints`).
///
/// @param leftImage, rightImage  the exposure, as `ExtractCircleMarker` takes them.
/// @param extractor   with the calibration intake done. Its scratch storage, `markerRects` and `markerName` change.
/// @param points      result: one point for each pair, in the unit of the poses, in the left camera frame, or with
///                    `configs.outputRectified` in the rectified left frame. Untouched where an eye shows no marker.
/// @param leftRects   result: ellipses of all markers of the left image, matched or not. May be the extractor's
///                    `markerRects`, and so may `rightRects`.
/// @param rightRects  result: the same of the right image.
/// @param configs     settings of the extraction and of the match.
/// @return            the pairs, left first, in ascending order of the left marker: copies of the extracted corners
///                    with `id` (the pair's number), `matched` and `position` set; on the conic branch also `normal`,
///                    `markerRadius`, and `x`, `y` moved to the projected centre of the disc. `position` is in the left
///                    camera frame unless `cornersRectified`, whatever `outputRectified` says.
///                    Empty, with a warning on standard output that tells why, if an eye shows no marker or the
///                    constellation gave no point; empty and silent if an image or a calibration member is missing, or
///                    if the conic branch matched nothing.
/// @throws cv::Exception for settings, images and lenses of either eye that cannot be worked with, and, where both
///                    eyes show markers, for calibration members, with no result and no member changed;
///                    std::runtime_error "Eigen decomposition failed." for a conic that is not finite.
KESTRUNE_API std::vector<std::pair<Corner, Corner>> getStereoMarker3dPoints(
    const cv::Mat& leftImage, const cv::Mat& rightImage, CircleMarkerExtractor& extractor,
    std::vector<Point3_<double>>& points, std::vector<cv::RotatedRect>& leftRects,
    std::vector<cv::RotatedRect>& rightRects, const CicrleConfigs& configs);

}  // namespace kestrune
