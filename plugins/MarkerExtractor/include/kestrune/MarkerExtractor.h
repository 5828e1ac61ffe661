// SPDX-License-Identifier: Apache-2.0
//
// The one header that a host includes: finds small flat circular markers in the images of a calibrated camera pair.
//
// Failures. There are no error codes: an extraction returns false when it found nothing. `cv::Exception` and
// `std::bad_alloc` pass through every call. Settings that a path cannot work with raise `cv::Exception` with code
// `cv::Error::StsBadArg` and a text that names the setting and its value, before anything is written.
//
// Threads. One extractor serves one thread at a time, because the paths share its scratch storage; a copy shares the
// calibration's pixels, owns its scratch storage, and is the way to a second thread. The same input gives the same
// output, bit for bit, on every run and for any number of OpenMP threads.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "kestrune/MarkerExtractor/export.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// The long-lived object: calibration of a camera pair, tables that are built once, and scratch storage.
///
/// A copy shares the pixels of the `cv::Mat` members with its source, so that the calibration must not be changed in
/// place through either; everything else is copied deeply.
class CircleMarkerExtractor {
  public:
    /// An object without calibration. `imageWidth` and `imageHeight` hold no value until the calibration intake ran.
    KESTRUNE_API CircleMarkerExtractor();
    KESTRUNE_API CircleMarkerExtractor(const CircleMarkerExtractor& other);
    KESTRUNE_API ~CircleMarkerExtractor();
    KESTRUNE_API CircleMarkerExtractor& operator=(const CircleMarkerExtractor& other);

    /// The default path: bright round markers, one `Corner` each, in the order of first acceptance.
    ///
    /// @param image        `CV_8UC1` or `CV_8UC3` (BGR), not changed. An empty one gives false.
    /// @param corners      result, must be empty. Coordinates are pixels of `image` - with `useRadialContours` false
    /// and
    ///                     `scale` above 1 those of the reduced image, not multiplied up - undistorted unless
    ///                     `configs.skipUndistort`.
    /// @param cameraIndex  0: left matrices for the undistortion; any other value: right ones.
    /// @param configs      `useRadialContours` chooses between radial and sub-pixel contours. Read as well: `minArea`,
    ///                     `maxArea`, the circularity and hull gates, `maxEccentricity`, `minContourSize`, `aperture`,
    ///                     `sigma`, `scale`, `skipUndistort`, `markerName`; for sub-pixel contours `cannyLow`,
    ///                     `cannyHigh`, `useThreads`, `maxFitError`, `maxPointError`; for radial ones `thresholdC`,
    ///                     `refineAtFullSize`, `minRayRatio`, `contrast`, `maxFitResidual`.
    /// @return             whether a marker was found. `markerRects` is overwritten either way, `markerName` on
    /// success.
    /// @throws cv::Exception  for a setting or image that the path cannot work with, and from `cv::fitEllipse` or
    ///                     `cv::fitEllipseDirect` on a contour of fewer than five points that came past the area gate;
    ///                     in the latter case `corners` keeps what was accepted before and `markerRects` its old value.
    KESTRUNE_API bool CircleExtractSimple(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
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

    /// Removes the lens distortion from `x`, `y` and `contour` of each record, in place; the result is in pixels of the
    /// same camera. Touches no member. Nothing marks a record as corrected: a second call corrects a second time.
    ///
    /// @param cameraMatrix  3 by 3, as `cv::undistortPoints` takes it.
    /// @param distCoeffs    as `cv::undistortPoints` takes it; may be empty.
    /// @throws cv::Exception  from `cv::undistortPoints`; records before the offender stay corrected.
    KESTRUNE_API void UndistortCorners(std::vector<Corner>& corners, const cv::Mat& cameraMatrix,
                                       const cv::Mat& distCoeffs);

    std::string markerName;  ///< `CicrleConfigs::markerName` of the last successful extraction
    std::string spareName;   ///< carried, not used

    // Calibration. `CV_64F`, except for the maps. A point X in left camera coordinates is R X + T in right ones.
    cv::Mat rotation;                                  ///< R
    cv::Mat translation;                               ///< T
    cv::Mat fundamental;                               ///< fundamental matrix
    cv::Mat leftIntrinsic, rightIntrinsic;             ///< 3 by 3 camera matrices
    cv::Mat leftDistortion, rightDistortion;           ///< distortion coefficients in OpenCV's order
    cv::Mat leftProjection, rightProjection;           ///< P1, P2 of `cv::stereoRectify`
    cv::Mat leftRectification, rightRectification;     ///< R1, R2 of `cv::stereoRectify`
    cv::Mat disparityToDepth;                          ///< Q of `cv::stereoRectify`
    cv::Mat leftTriangulation, rightTriangulation;     ///< 3 by 4
    cv::Mat leftMapX, leftMapY, rightMapX, rightMapY;  ///< rectifying maps, `CV_32FC1`
    cv::Mat leftHomography, rightHomography;           ///< rectifying homographies
    Eigen::MatrixXd triangulationA, triangulationB, triangulationC, triangulationD;

    std::vector<cv::RotatedRect> markerRects;  ///< ellipses of the last extraction, in the order of its result
    std::int32_t imageWidth, imageHeight;      ///< px; not set before the calibration intake

    // Scratch storage: sized on entry of each call, its contents mean nothing between calls.
    std::vector<uchar> scratchBlurFull;
    std::vector<uchar> scratchEdgeMask;
    std::vector<uchar> scratchBinary;
    std::vector<std::int32_t> scratchLabels;
    std::vector<float> scratchFloatA, scratchFloatB;  ///< carried, not used
    std::vector<cv::Point2f> rayDirections;           ///< 72 unit vectors (cos, sin), built by the first radial call
    std::vector<cv::Point2f> probeDirections;         ///< 24 unit vectors, built by the first radial call
    std::vector<std::uint16_t> scratchBlur16;
    std::vector<float> scratchGrad, scratchDx, scratchDy;
    std::vector<uchar> scratchGray;     ///< grey image of a colour input
    std::vector<uchar> scratchWorking;  ///< reduced image
};

/// The front door: extracts the markers of one eye and writes one warning line on standard output if there are none.
///
/// @param image        as for the path that is taken: `CircleMarkerExtractor::CircleExtractSimple`.
/// @param extractor    its `markerRects` and `markerName` change.
/// @param corners      result, must be empty.
/// @param cameraIndex  0 is the left eye, any other value the right one.
/// @return             whether a marker was found.
KESTRUNE_API bool ExtractCircleMarker(const cv::Mat& image, CircleMarkerExtractor& extractor,
                                      std::vector<Corner>& corners, int cameraIndex, const CicrleConfigs& configs);

}  // namespace kestrune
