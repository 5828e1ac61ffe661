// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// Pairs of markers from both eyes, each with the probability that it is right, and what stands against an exposure as
/// a whole. There is no tolerance to find: every cue counts by its own uncertainty.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "kestrune/MarkerMetrology/discs.h"
#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune/MarkerMetrology/rig.h"

namespace kestrune {

/// A marker whose place on its object is known, from earlier exposures or a drawing. The frame is the object's own.
struct KnownMarker {
    cv::Vec3d centre;   ///< unit of the rig
    double radius = 0;  ///< unit of the rig; 0: not known
    double sigma = 0;   ///< standard deviation of each coordinate, unit of the rig, above 0
};

/// What is known before the exposure. Nothing of it has to be.
struct MatchOptions {
    std::vector<double> radii;        ///< nominal ones, unit of the rig; empty: not known
    double radiusTolerance = 0.01;    ///< standard deviation of a marker's radius, as a share of the nominal one
    std::array<double, 2> depth{};    ///< nearest and farthest z of the left camera, unit of the rig; zeros: not known
    std::vector<KnownMarker> object;  ///< all or part of what may be seen; at least three are needed to be of use
    double sure = 0.999;              ///< least probability of a sure pair, above 0.5 and below 1
    /// Whether the estimates' covariances are scaled by what the pairs of this exposure show. Without it they are
    /// believed as they are.
    bool estimateSigmas = true;
};

/// How well the two markers of a pair agree. What could not be judged is NaN.
struct PairCues {
    double epipolar = 0;  ///< distance of the centres from their epipolar lines, px, signed; half of it in each eye
    double epipolarSigma = 0;  ///< its standard deviation, px
    double shape = 0;          ///< of the two circles in space, radius and normal: chi-square of 3 degrees of freedom
    // Logarithms of how much more likely each is for a pair than by chance, nats.
    double geometry = 0;  ///< of epipolar line and shape, and of how many markers one eye alone sees
    double radius = 0;    ///< against the nominal ones, and what the other pairs show
    double depth = 0;     ///< likewise
    double normal = 0;    ///< likewise
    double grey = 0;      ///< of levels and polarity
    double object = 0;    ///< of the known markers
};

/// Two markers that may be one.
struct PairChance {
    int left = -1;           ///< index into the left list
    int right = -1;          ///< index into the right list
    double probability = 0;  ///< over all assignments
};

/// What would tell rivals apart.
enum class Decider {
    nothing,        ///< there are no rivals that anything known to this library could tell apart
    nominalRadius,  ///< the rivals differ in radius
    depthRange,     ///< the rivals differ in depth
    anotherView,    ///< the rivals agree in both
};

/// A pair of the most probable assignment.
struct MatchedPair {
    int left = -1;                       ///< index into the left list
    int right = -1;                      ///< index into the right list
    double probability = 0;              ///< that both show one marker, over all assignments
    bool sure = false;                   ///< whether it can be used as it is
    DiscEstimate disc;                   ///< by `measureDisc`, with the sigmas that the exposure shows
    PairCues cues;                       ///< of the two markers
    std::vector<PairChance> rivals;      ///< other pairs of either marker, probable first; of a thousandth at least
    Decider decider = Decider::nothing;  ///< of a pair that is not sure
};

/// What is wrong with an exposure as a whole. Unless it is `none` or `rigMoved`, no pair is sure.
enum class MatchObjection {
    none,
    tooFew,          ///< an eye has fewer than three markers that could be used: nothing speaks for the rig
    nothingMatches,  ///< what agrees is no more than chance brings: two views of different things, or a foreign rig
    eyesExchanged,   ///< left and right are exchanged
    patternRepeats,  ///< a shifted or turned assignment is about as probable
    rigMoved,        ///< pairs are found with a corrected orientation of the cameras: see `MovedRig`
};

/// The name as the program shows it: "none", "too few", "nothing matches", "eyes exchanged", ...
KESTRUNE_API const char* nameOf(MatchObjection objection);
KESTRUNE_API const char* nameOf(Decider decider);  ///< "nothing", "nominal radius", "depth range", "another view"

/// A common pattern of the distances from the epipolar lines.
struct MovedRig {
    bool found = false;     ///< nothing else is set unless it is
    double size = 0;        ///< RMS of the pattern, px
    double angle = 0;       ///< between the relative orientations, degrees
    cv::Matx33d rotation;   ///< R and T of the corrected rig; the length of T is as before, since no picture tells it
    cv::Vec3d translation;  ///< unit of the rig
};

/// A matched exposure.
struct StereoMatch {
    std::vector<MatchedPair> pairs;                   ///< one to one, in ascending order of `left`
    std::vector<PairChance> rivals;                   ///< all other pairs of a probability of a thousandth or more
    std::array<std::vector<double>, 2> single;        ///< for each marker the probability that only its own eye sees it
    MatchObjection objection = MatchObjection::none;  ///< against the exposure as a whole
    std::string reason;  ///< what stands against the exposure and what would help, a sentence; empty for `none`
    double repeat = 0;   ///< of `patternRepeats`: by how much in space, unit of the rig; 0 where it is not known
    MovedRig moved;  ///< told also where it is too small to stand against anything; discs use it with `rigMoved` only
    double centreScale = 1;  ///< by which the centres' standard deviations were multiplied
    double shapeScale = 1;   ///< by which those of the half axes were
};

/// The most probable one-to-one assignment of the markers of both eyes, with the probability of each pair over all
/// assignments.
///
/// Cues: distance from the epipolar line; agreement of the two circles in space; visibility; nominal radii and a depth
/// range if there are some, otherwise what radii, depths and normals the other pairs of the exposure show; grey levels
/// and polarity of refined markers; a known object. How many markers one eye alone sees, and how many are none at all,
/// is estimated from the exposure.
///
/// The result is the same to the bit for any number of threads; the order of the lists changes nothing but order.
///
/// What no picture of two eyes can tell: whether two markers left over lie on one epipolar line by chance and agree in
/// all else, which counts with the probability that it has; and how a grid of one size lies whose rows run along the
/// baseline: shifted by a pitch it is the same scene at another scale, which is told as such and not decided.
///
/// @param left, right  in pixels without lens distortion (`undistorted`), refined or not (`plainEstimate`). Those whose
///                     numbers are not finite, or whose covariance is none, are in no pair; one that is given twice is
///                     in no sure one.
/// @param rig          as calibrated; distortion and uncertainty are read only for what they do to the centres.
/// @param options      see there.
/// @throws cv::Exception  `StsBadArg` for a rig that is none, and for options out of their ranges.
KESTRUNE_API StereoMatch matchMarkers(const std::vector<MarkerEstimate>& left, const std::vector<MarkerEstimate>& right,
                                      const RigMatrices& rig, const MatchOptions& options = {});

/// A marker as a path found it, with standard deviations from how its outline keeps to the ellipse.
///
/// @param corner  of any path, in pixels without lens distortion.
/// @returns an estimate whose status says that nothing was refined (`noOutline`). Without an ellipse its numbers are
/// NaN.
KESTRUNE_API MarkerEstimate plainEstimate(const Corner& corner);

}  // namespace kestrune
