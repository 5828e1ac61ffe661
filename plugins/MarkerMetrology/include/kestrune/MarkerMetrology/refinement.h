// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// Markers at the limit of their pixels: least squares on the grey levels of the image they were found in, with the
/// uncertainty of what comes out. Pixel (0, 0) is the centre of the top left pixel, x the column, y the row.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kestrune/MarkerExtractor.h"
#include "kestrune/MarkerMetrology/rig.h"

namespace kestrune {

/// What became of a marker.
enum class RefinementStatus {
    refined,
    noOutline,       ///< the record has no ellipse to start from, or one that is not finite or below 1 px
    leavesImage,     ///< its rim is not wholly in the image
    touchesAnother,  ///< its rim runs into that of another marker of the list
    tooFaint,        ///< its contrast does not stand out of the noise
    notConverged,    ///< the fit came to no end, or ran away from its start
    notADisc,        ///< what is left of the grey levels after the fit is more than noise and an imperfect rim explain
};

/// The status as the program shows it: "refined", "no outline", "leaves the image", ...
KESTRUNE_API const char* nameOf(RefinementStatus status);

/// A marker with its uncertainty. One that was not refined has the ellipse of its record, no light, blur or levels
/// (NaN), and a covariance that covers what the paths are known to be off by.
struct MarkerEstimate {
    RefinementStatus status = RefinementStatus::noOutline;  ///< whether it was refined, or why not
    cv::Point2d centre;                                     ///< of the rim's ellipse, px
    double majorHalfAxis = 0;  ///< px; where a blurred step is half way up, in the limit of a sharp image
    double minorHalfAxis = 0;  ///< px
    double angle = 0;          ///< of the major axis, from x towards y, radians in [0, pi)
    double inside = 0;         ///< grey level of the marker at its centre; below `outside` for a dark one
    double outside = 0;        ///< grey level of its ground, in the light of the marker's centre
    double blur = 0;  ///< standard deviation of the Gaussian that blurs the rim, px; the pixel's square is not in it
    int lightDegree = 0;  ///< 0: even; 1, 2: the light varies by a polynomial of this degree
    double noise = 0;     ///< standard deviation of a pixel half way up the rim, grey levels
    double residual = 0;  ///< RMS of what is left about the rim, in units of the noise: 1 for an ideal disc
    int pixels = 0;       ///< that took part

    /// Of (x, y, s, e1, e2, inside, outside, blur), with s = (a + b) / 2 and (e1, e2) = (a - b) / 2 (cos 2t, sin 2t)
    /// for half axes a, b and angle t: these are smooth where a marker is round and its angle is not known at all.
    /// px and grey levels. All zero but the first five by five for a marker that was not refined.
    cv::Matx<double, 8, 8> covariance = cv::Matx<double, 8, 8>::zeros();

    /// Whether the fit is believed.
    bool isRefined() const { return status == RefinementStatus::refined; }
    cv::Matx22d centreCovariance() const { return covariance.get_minor<2, 2>(0, 0); }  ///< of x and y, px^2
    /// Of x, y, s, e1 and e2, px^2.
    cv::Matx<double, 5, 5> ellipseCovariance() const { return covariance.get_minor<5, 5>(0, 0); }
};

/// Standard deviations of half axes and angle.
struct AxisSigmas {
    double major;  ///< of the larger half axis, px
    double minor;  ///< of the smaller one, px
    double angle;  ///< radians
};

/// By the estimate's covariance. The angle's is at most pi / sqrt(12), that of no knowledge: a round marker has none.
KESTRUNE_API AxisSigmas axisSigmas(const MarkerEstimate& estimate);

/// How the records are to be read, and what the fit may use.
struct RefinementOptions {
    /// The eye's camera if the records are in pixels without lens distortion, as the paths deliver them unless
    /// `skipUndistort`; without it they are in those of the image.
    std::optional<Camera> camera;
    /// Size of the image in whose pixels the records are: that of the reduced one for the sub-pixel path with a
    /// `scale` above 1. Empty: that of the image.
    cv::Size recordSize{};
    int mostLightDegree = 2;  ///< 0 to 2: up to which degree the light may vary across a marker
};

/// Fits each marker to the grey levels of the image: an ellipse, blurred by a Gaussian and integrated over square
/// pixels, between two levels, in light that varies by a polynomial of degree 0, 1 or 2, whichever the data ask for.
/// Near a rim all is known but eleven numbers or so; several hundred pixels tell them. The uncertainty is that of
/// least squares (the inverse of the normal equations), with the noise of the exposure as its markers show it.
///
/// Markers that stand close to each other are fitted in each other's light, so that the list should be the whole list.
///
/// @param image    8 or 16 bits, grey or with three or four channels (BGR), as the markers were found in.
/// @param corners  of any path.
/// @param options  see there.
/// @returns an estimate for each marker, in their order, in the image's own pixels: with the lens's distortion.
/// @throws cv::Exception  `StsBadArg` for an empty image, another depth or number of channels, a degree beyond 0 to 2,
///         a negative size, and a camera that is none, before anything is done.
KESTRUNE_API std::vector<MarkerEstimate> refineMarkers(const cv::Mat& image, const std::vector<Corner>& corners,
                                                       const RefinementOptions& options = {});

/// The marker in pixels without lens distortion: the ellipse whose image through the lens comes nearest to the one that
/// was fitted, all along the rim, and the covariance through the Jacobian of that. Levels and blur stay.
///
/// Where the lens has folded, as polynomials do outside of the field they were fitted in, or a rim leaves what it
/// images, there is no such ellipse: it and the covariance are NaN then, and a refined marker is `notConverged`.
///
/// @throws cv::Exception  `StsBadArg` for a camera that is none.
KESTRUNE_API MarkerEstimate undistorted(const MarkerEstimate& estimate, const Camera& camera);

/// Puts a refined marker into its record: centre, ellipse, conic, contour, scatter, fit residual, eccentricity and area
/// (4 a b, on every path), so that every matcher works with it; nothing of one that was not refined. What else was
/// measured of the outline that was found (fit error, circularity, hull) stays.
///
/// @param corner    of any path; `conicValid` is set. The contour has as many points as before, 48 at least.
/// @param estimate  in the pixels that the matcher wants: of `undistorted` unless the images have none.
KESTRUNE_API void updateCorner(Corner& corner, const MarkerEstimate& estimate);

}  // namespace kestrune
