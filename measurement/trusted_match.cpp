// SPDX-License-Identifier: Apache-2.0
#include "trusted_match.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>

namespace kestrune::measure {
namespace {

constexpr double kNotTold = std::numeric_limits<double>::quiet_NaN();

cv::Vec3d translationOf(const RigMatrices& rig) {
    return {rig.translation.at<double>(0), rig.translation.at<double>(1), rig.translation.at<double>(2)};
}

/// Where the rays of both eyes come nearest to each other: the point of a pair whose ellipses show no disc.
cv::Vec3d meetingPoint(const RigMatrices& rig, const std::array<cv::Point2d, 2>& pixel) {
    const cv::Matx33d rotation(rig.rotation);
    std::array<cv::Vec3d, 2> ray;
    for (std::size_t eye = 0; eye < 2; ++eye)
        ray[eye] = cv::Matx33d(rig.cameras[eye].matrix).inv() * cv::Vec3d(pixel[eye].x, pixel[eye].y, 1);
    ray[1] = rotation.t() * ray[1];
    const cv::Vec3d base = -(rotation.t() * translationOf(rig));
    cv::Vec2d along;
    cv::solve(cv::Matx22d(ray[0].dot(ray[0]), -ray[0].dot(ray[1]), -ray[0].dot(ray[1]), ray[1].dot(ray[1])),
              cv::Vec2d(ray[0].dot(base), -ray[1].dot(base)), along, cv::DECOMP_SVD);
    return (along[0] * ray[0] + base + along[1] * ray[1]) / 2;
}

/// From the centre of the ellipse in which an eye sees a disc to the image of the disc's centre.
cv::Point2d eccentricityOf(const DiscEstimate& disc, const RigMatrices& rig, std::size_t eye) {
    const cv::Matx33d turn = eye == 0 ? cv::Matx33d::eye() : cv::Matx33d(rig.rotation);
    cv::Vec3d centre = disc.centre, normal = turn * disc.normal;
    if (eye == 1) centre = turn * centre + translationOf(rig);
    const cv::Matx33d plane = cv::Matx33d::eye() - normal * normal.t();
    const cv::Matx33d camera(rig.cameras[eye].matrix);
    // The dual conic of the rim's image; its centre is in its last column.
    const cv::Matx33d dual = camera * (centre * centre.t() - disc.radius * disc.radius * plane) * camera.t();
    const cv::Vec3d image = camera * centre;
    return {image[0] / image[2] - dual(0, 2) / dual(2, 2), image[1] / image[2] - dual(1, 2) / dual(2, 2)};
}

/// Pairs of an exposure, as results show them.
class PairMaker {
  public:
    PairMaker(const RefinedEyes& eyes, const RigMatrices& rig, const cv::Matx33d& turn, bool refined)
        : eyes_(eyes), rig_(rig), turn_(turn), refined_(refined) {}

    /// @param disc  in the frame of the left camera.
    StereoMarker make(int left, int right, const DiscEstimate& disc, const PairTrust& trust) const {
        StereoMarker marker{};
        marker.number = {left, right};
        PairEstimate estimate{{}, turned(disc, turn_), refined_};
        for (std::size_t eye = 0; eye < 2; ++eye) {
            const auto k = static_cast<std::size_t>(marker.number[eye]);
            marker.pixel[eye] = {eyes_.corners[eye][k].x, eyes_.corners[eye][k].y};
            if (disc.found) marker.pixel[eye] += eccentricityOf(disc, rig_, eye);
            marker.rim[eye] = eyes_.rims[eye][k];
            estimate.eyes[eye] = eyes_.estimates[eye][k];
        }
        marker.point = disc.found ? estimate.disc.centre : turn_ * meetingPoint(rig_, marker.pixel);
        marker.normal = disc.found ? estimate.disc.normal : cv::Vec3d::all(kNotTold);
        marker.radius = disc.found ? disc.radius : kNotTold;
        marker.estimate = estimate;
        marker.trust = trust;
        return marker;
    }

    /// Of one that no disc was measured of yet.
    StereoMarker make(const PairChance& chance) const {
        const DiscEstimate disc = measureDisc({eyes_.estimates[0][static_cast<std::size_t>(chance.left)],
                                               eyes_.estimates[1][static_cast<std::size_t>(chance.right)]},
                                              rig_);
        PairTrust trust{chance.probability};
        for (const CueColumn& cue : cueColumns()) trust.cues.*cue.value = kNotTold;
        return make(chance.left, chance.right, disc, trust);
    }

  private:
    const RefinedEyes& eyes_;
    const RigMatrices& rig_;
    cv::Matx33d turn_;
    bool refined_;
};

/// Markers of one eye that are in no sure pair. One that may be in another pair has its most probable one.
std::vector<UnmatchedMarker> unmatchedIn(const TrustedResult& trusted, std::size_t eye,
                                         const std::vector<StereoMarker>& sure,
                                         const std::vector<cv::RotatedRect>& rims) {
    std::map<int, PairChance> best;
    const auto add = [&](int left, int right, double probability) {
        PairChance& mine = best[eye == 0 ? left : right];
        if (probability > mine.probability) mine = {left, right, probability};
    };
    for (const MatchedPair& pair : trusted.match.pairs)
        if (!pair.sure) add(pair.left, pair.right, pair.probability);
    for (const PairChance& rival : trusted.match.rivals) add(rival.left, rival.right, rival.probability);
    std::vector<bool> paired(rims.size());
    for (const StereoMarker& marker : sure) paired[static_cast<std::size_t>(marker.number[eye])] = true;
    std::vector<UnmatchedMarker> unmatched;
    for (std::size_t k = 0; k < rims.size(); ++k) {
        if (paired[k]) continue;
        const auto found = best.find(static_cast<int>(k));
        const bool ambiguous = found != best.end();
        PairVerdict verdict{kNobody, kNobody, ambiguous ? PairGate::ambiguous : PairGate::none};
        const std::vector<double>& single = trusted.match.single[eye];
        verdict.measured = ambiguous ? found->second.probability : k < single.size() ? single[k] : kNotTold;
        const int partner = !ambiguous ? kNobody : eye == 0 ? found->second.right : found->second.left;
        unmatched.push_back({static_cast<int>(k), rims[k], verdict, partner, ambiguous ? "ambiguous" : "single"});
    }
    return unmatched;
}

/// The record of a marker in a sure pair, with its place as the matchers of the paths leave it.
Corner recordOf(Corner corner, const cv::Point2d& pixel, const DiscEstimate& disc, const cv::Vec3d& point) {
    corner.matched = true;
    corner.x = pixel.x;
    corner.y = pixel.y;
    corner.position = {point[0], point[1], point[2]};
    if (disc.found) {
        corner.position = {disc.centre[0], disc.centre[1], disc.centre[2]};
        corner.normal = {disc.normal[0], disc.normal[1], disc.normal[2]};
        corner.markerRadius = disc.radius;
    }
    return corner;
}

}  // namespace

std::vector<std::pair<Corner, Corner>> matchTrusted(StereoResult& result, RefinedEyes eyes, const RigMatrices& rig,
                                                    const MatchOptions& options, const cv::Matx33d& turn) {
    TrustedResult& trusted = result.trusted.emplace();
    trusted.match = matchMarkers(eyes.estimates[0], eyes.estimates[1], rig, options);
    RigMatrices seen = rig;
    if (trusted.match.objection == MatchObjection::rigMoved) {
        seen.rotation = cv::Mat(trusted.match.moved.rotation);
        seen.translation = cv::Mat(trusted.match.moved.translation);
    }
    const PairMaker maker(eyes, seen, turn, result.refined);
    std::vector<std::pair<Corner, Corner>> records;
    for (const MatchedPair& pair : trusted.match.pairs) {
        StereoMarker marker = maker.make(pair.left, pair.right, pair.disc, {pair.probability, pair.cues});
        if (pair.sure) {
            const auto place = [&](std::size_t eye, int k) {
                return recordOf(eyes.corners[eye][static_cast<std::size_t>(k)], marker.pixel[eye], pair.disc,
                                turn.t() * marker.point);
            };
            records.emplace_back(place(0, pair.left), place(1, pair.right));
            result.markers.push_back(std::move(marker));
            continue;
        }
        AmbiguousPair& ambiguous = trusted.ambiguous.emplace_back();
        ambiguous.marker = std::move(marker);
        ambiguous.decider = pair.decider;
        for (const PairChance& rival : pair.rivals) ambiguous.rivals.push_back(maker.make(rival));
    }
    for (std::size_t eye = 0; eye < 2; ++eye) {
        result.found[eye] = eyes.rims[eye].size();
        result.unmatched[eye] = unmatchedIn(trusted, eye, result.markers, eyes.rims[eye]);
    }
    result.estimates = std::move(eyes.estimates);
    return records;
}

std::string decidersOf(const StereoResult& result) {
    if (!result.trusted) return {};
    std::map<Decider, std::size_t> counts;
    for (const AmbiguousPair& pair : result.trusted->ambiguous) ++counts[pair.decider];
    std::string deciders;
    for (const Decider decider : {Decider::nominalRadius, Decider::depthRange, Decider::anotherView}) {
        if (counts[decider] == 0) continue;
        deciders += fmt::format("{} {} by {}", deciders.empty() ? "; would be told apart:" : ",", counts[decider],
                                nameOf(decider));
    }
    return deciders;
}

std::string ambiguityOf(const StereoResult& result) {
    if (!result.trusted || result.trusted->ambiguous.empty()) return {};
    const std::size_t count = result.trusted->ambiguous.size();
    return fmt::format("{} {} ambiguous and left out{}", count, count == 1 ? "pair is" : "pairs are",
                       decidersOf(result));
}

Rig movedRig(const Rig& calibration, const MovedRig& moved) {
    RigMatrices matrices = matricesOf(calibration);
    matrices.rotation = cv::Mat(moved.rotation);
    matrices.translation = cv::Mat(moved.translation);
    return rigOf(matrices, "corrected calibration");
}

const std::vector<CueColumn>& cueColumns() {
    using C = PairCues;
    static const std::vector<CueColumn> kColumns = {
        {"epipolar", &C::epipolar}, {"epipolarSigma", &C::epipolarSigma},
        {"shape", &C::shape},       {"geometryCue", &C::geometry},
        {"radiusCue", &C::radius},  {"depthCue", &C::depth},
        {"normalCue", &C::normal},  {"greyCue", &C::grey},
        {"objectCue", &C::object},
    };
    return kColumns;
}

}  // namespace kestrune::measure
