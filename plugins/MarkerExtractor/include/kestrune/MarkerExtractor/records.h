// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <cstring>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

// Set by the library's CMake target and pkg-config file: whether the Eigen that it was built with allocates by malloc.
#if defined(KESTRUNE_EIGEN_MALLOC_ALREADY_ALIGNED)
static_assert(
    (EIGEN_MALLOC_ALREADY_ALIGNED != 0) == (KESTRUNE_EIGEN_MALLOC_ALREADY_ALIGNED != 0),
    "Eigen takes another allocator here than in kestrune_MarkerExtractor, and matrices of a Corner cross between "
    "the two: build both with the same vector switches (-mavx, -march=native) and sanitizers");
#endif

namespace kestrune {

/// Element of the auxiliary lists of a `Corner`. The library carries the lists in copies and gives them no meaning.
struct AuxRecord {
    std::int32_t values[3];  ///< the host's
};

/// One marker: a candidate while it is judged, a result afterwards.
///
/// Image coordinates are pixels with x the column and y the row; the centre of the top left pixel is (0, 0). Lengths
/// and areas are in pixels and square pixels, angles of `cv::RotatedRect` in degrees. Fields that say "not set" hold no
/// value until the operation named has run; default construction does not allocate.
struct Corner {
    std::int32_t id = 0;      ///< running number in its list; always 0 from the hand and fast paths
    double x;                 ///< centre, column, px; not set by construction
    double y;                 ///< centre, row, px; not set by construction
    cv::RotatedRect ellipse;  ///< fitted ellipse with full axes; only where `conicValid`
    double fitResidual = 0;   ///< root mean square of the conic's value over the contour; only where `conicValid`
    bool conicValid = false;  ///< `conic` and `scatter` are filled: radial contours and the edge-based path

    /// A, B, C, D, E, F of A x^2 + B x y + C y^2 + D x + E y + F = 0 in pixels, scaled so that the value at the
    /// ellipse's centre is -1. Not set unless `conicValid`.
    std::array<double, 6> conic;

    /// 6 by 6 matrix M^T M; row i of M is (x^2, x y, y^2, x, y, 1) of contour point i. Empty unless `conicValid`.
    Eigen::MatrixXd scatter;

    double markerRadius;  ///< radius of the disc in space, host unit; not set by construction
    Eigen::Vector3d normal = Eigen::Vector3d::Zero();    ///< unit normal of the disc
    Eigen::Vector3d position = Eigen::Vector3d::Zero();  ///< centre of the disc in space, host unit
    std::vector<cv::Point2f> contour;                    ///< contour points, px: along the contour, from the
                                                         ///< edge-based path by rows

    std::vector<AuxRecord> auxListA;  ///< carried, not used
    std::vector<AuxRecord> auxListB;  ///< carried, not used
    std::int32_t matchIndex = -1;     ///< carried, not used
    bool flagA = false;               ///< carried, not used
    bool matched = false;             ///< the marker has a point in space or stands in a stereo pair
    bool flagB = false;               ///< carried, not used
    bool flagC = false;               ///< carried, not used
    double auxMetricA = 0;            ///< carried, not used
    double auxMetricB = 0;            ///< carried, not used

    /// While the gates run: the contour's area. In a result of `CircleExtractSimple` or `CircleExtractSimpleForHand`:
    /// the product of the two full axes (4 a b, not pi a b). In a result of `extractMarkPointsFast`: the contour's
    /// zero-order moment.
    double area = 0;
    double compactness = 0;   ///< perimeter^2 / area; hand path only
    double fitError = 0;      ///< root mean square distance of the contour from the ellipse, px
    double eccentricity = 0;  ///< sqrt(a^2 - b^2) / a of the half axes a >= b
    double convexRatio = 0;   ///< contour area over area of its convex hull
    double circularity = 0;   ///< 4 pi area / perimeter^2

    // Why a candidate was refused, as text. They live and die with the candidate: no result carries them.
    char areaText[100];          ///< "area:%.2f"
    char ratioText[100];         ///< "ratio:%.2f"
    char spareTextA[100];        ///< never written
    char fitText[100];           ///< "fit_error:%.2f" or "fit_residual:%.2f"
    char spareTextB[100];        ///< never written
    char eccentricityText[100];  ///< "eccentricity:%.2f"

    // User-provided, so that `Corner{}` does not clear the 600 bytes of text first.
    Corner() {}  // NOLINT(modernize-use-equals-default)

    // Copies carry the fields that are not set along with the rest, as bytes; the compiler need not point that out in
    // every host that keeps corners in a vector.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    /// Copies every field.
    Corner(const Corner&) = default;
    /// Copies every field.
    Corner& operator=(const Corner&) = default;

    /// Takes `scatter` and the lists over and leaves those of `other` empty; copies the rest.
    Corner(Corner&& other) = default;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

    /// Swaps `scatter`, `normal` and `position` with `other`, takes its lists over, copies the rest.
    Corner& operator=(Corner&& other) noexcept;

    ~Corner() = default;
};

inline Corner& Corner::operator=(Corner&& other) noexcept {
    if (this == &other) return *this;
    id = other.id;
    x = other.x;
    y = other.y;
    ellipse = other.ellipse;
    fitResidual = other.fitResidual;
    conicValid = other.conicValid;
    conic = other.conic;
    scatter.swap(other.scatter);
    markerRadius = other.markerRadius;
    normal.swap(other.normal);
    position.swap(other.position);
    contour = std::move(other.contour);
    auxListA = std::move(other.auxListA);
    auxListB = std::move(other.auxListB);
    matchIndex = other.matchIndex;
    flagA = other.flagA;
    matched = other.matched;
    flagB = other.flagB;
    flagC = other.flagC;
    auxMetricA = other.auxMetricA;
    auxMetricB = other.auxMetricB;
    area = other.area;
    compactness = other.compactness;
    fitError = other.fitError;
    eccentricity = other.eccentricity;
    convexRatio = other.convexRatio;
    circularity = other.circularity;
    std::memcpy(areaText, other.areaText, sizeof areaText);
    std::memcpy(ratioText, other.ratioText, sizeof ratioText);
    std::memcpy(spareTextA, other.spareTextA, sizeof spareTextA);
    std::memcpy(fitText, other.fitText, sizeof fitText);
    std::memcpy(spareTextB, other.spareTextB, sizeof spareTextB);
    std::memcpy(eccentricityText, other.eccentricityText, sizeof eccentricityText);
    return *this;
}

/// Settings of one call. The host fills every field that the chosen path reads: there are no defaults, and the library
/// only reads. The bounds of the simple, the hand and the fast path are compared as IEEE numbers, so one that is not a
/// number never refuses anything; on the edge-based path it refuses everything, or the call if it is a diameter. For
/// the stereo fields that is told where they are used.
///
/// "simple" is `CircleExtractSimple`, "hand" `CircleExtractSimpleForHand`, "fast" `extractMarkPointsFast`, "edge-based"
/// `CircleExtractComplex`; the other names are those of the operations that take the record.
struct CicrleConfigs {
    bool enableAreaFilter;         ///< fast: apply the area gate (simple and hand always do)
    double minArea;                ///< simple, hand, fast: least contour area, px^2, inclusive
    double maxArea;                ///< simple, hand (inclusive), fast (exclusive): largest contour area, px^2
    std::int32_t minContourSize;   ///< simple: least contour length in px (divided by `scale`), radial: least blob area
                                   ///< in px^2 of the reduced image (not divided)
    bool enableCircularityFilter;  ///< simple, fast: apply the circularity gate
    double minCircularity;         ///< least 4 pi area / perimeter^2, inclusive
    double maxCircularity;         ///< bound of the same from above, exclusive
    bool enableConvexityFilter;    ///< simple, fast: apply the hull gate
    double maxConvexRatio;         ///< largest contour area over hull area, inclusive
    double minConvexRatio;         ///< least contour area over hull area, inclusive
    bool enableEccentricityFilter;  ///< fast: apply the eccentricity gate (simple and hand always do)
    double maxEccentricity;         ///< simple, hand, fast: largest sqrt(a^2 - b^2) / a, inclusive
    double maxFitError;             ///< hand; simple, sub-pixel contours: largest RMS distance from the ellipse, px ...
    double maxPointError;           ///< ... which a sub-pixel contour may exceed if no point is farther away than this
    std::string markerName;         ///< simple, hand, edge-based: copied to the extractor on success
    std::int32_t cannyLow;          ///< sub-pixel contours: hysteresis thresholds, grey levels ...
    std::int32_t cannyHigh;         ///< ... of the step that an edge has; above 362 nothing passes
    std::int32_t aperture;          ///< simple: side of the Gaussian kernel, odd, 1 or more; radial contours: also the
                                    ///< block of the adaptive threshold, 3 or more; edge-based: that block only
    double sigma;                   ///< simple: Gaussian sigma, px; sub-pixel contours need more than 1/6; edge-based:
                                    ///< smoothing before the gradient, px of the full image
    std::int32_t scale;             ///< simple: integer reduction of the image, 1 or more; edge-based: of the search
                                    ///< for blobs only
    std::vector<double> markerRadii;  ///< stereo: nominal radii of the markers, host unit
    bool skipUndistort;               ///< simple, edge-based: fit in the image as it is; needs no calibration
    bool cornersRectified;            ///< stereo: the corners are in rectified pixels already
    bool outputRectified;             ///< stereo: leave the points in the rectified left frame
    bool useThreads;                  ///< sub-pixel contours: one strip of columns for each hardware thread;
                                      ///< std::system_error leaves a call that cannot start them
    bool radiusScoreGate;             ///< stereo, handed to the rectified matcher
    bool looseSizeGate;               ///< stereo, handed to the rectified matcher
    bool plainRowGate;                ///< stereo, handed to the rectified matcher
    bool useComplexExtract;           ///< front door: take the edge-based path
    double maxRowDifference;          ///< stereo: row band, px
    double minDepth;                  ///< stereo: nearest depth, host unit
    double maxDepth;                  ///< stereo: farthest depth, host unit
    double sizeTolerance;             ///< stereo: relative tolerance of the size in space
    std::int32_t deviationFactor;     ///< stereo: handed to the rectified matcher
    double edgeLengthTolerance;       ///< stereo: handed to the constellation consensus
    double edgeAngleTolerance;        ///< stereo: handed to the constellation consensus
    float minRadiusRatio;             ///< stereo: least ratio of the smaller to the larger radius of a candidate
    bool useRadialContours;           ///< simple: radial contours and the direct fit instead of sub-pixel contours
    std::int32_t thresholdC;          ///< radial contours, edge-based: constant of the adaptive threshold, grey levels;
                                      ///< negative values ask for pixels that much brighter than their surroundings. A
                                      ///< dark marker is found by the bright ring that this leaves around it
    bool refineAtFullSize;  ///< radial contours: detect each blob again at full size (if `scale` is not 1). For
                            ///< strong markers: noise tears faint large ones there, and centres that are wrong
                            ///< by pixels pass every gate
    float minRayRatio;      ///< radial contours: least share of rays that bear an edge, above 0 up to 1
    std::int32_t contrast;  ///< radial contours: least grey-level contrast of a blob to the ring around it
    float maxFitResidual;   ///< radial contours, edge-based: largest `Corner::fitResidual`; edge-based: five
                            ///< times this before the points are refined

    /// Edge-based: least diameter, px. The product of a marker's axes must be four times its square, so that a round
    /// marker passes from twice this on. The box of a blob must reach it in pixels of the reduced image. Cut off to
    /// whole pixels for the search.
    float minDiameter;
    /// Edge-based: largest diameter, px. A whole rim has too many pixels from about 0.78 of this on; four times this,
    /// in pixels of the reduced image, is the largest area of a blob: a marker's disc or ring after the threshold.
    float maxDiameter;
    float minAxisRatio;  ///< edge-based: least shorter over longer side
    float nmsFactor;     ///< edge-based: factor on the neighbours in the non-maximum suppression; below 1 it is softer
    float edgePercentile;  ///< edge-based: share of a window's pixels, below 1, whose gradient is under the upper
                           ///< threshold of an edge; the lower threshold is half of that gradient
};

}  // namespace kestrune
