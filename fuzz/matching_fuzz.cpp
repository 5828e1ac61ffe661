// SPDX-License-Identifier: Apache-2.0
//
// The markers of a rendered exposure to pairs and points by each matcher, with a few markers and settings spoiled.
#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/conic_match.h"
#include "MarkerExtractor/stereo/rectified_match.h"
#include "fuzz_input.h"
#include "promises.h"
#include "reasons.h"

namespace kestrune::fuzz {
namespace {

using Pairs = std::vector<std::pair<int, int>>;
using Points = std::vector<Point3_<double>>;

enum Matcher { kByCentres, kByRowsAndSize, kByConics, kMatcherCount };

struct Call {
    Matcher matcher;
    std::vector<Corner> left, right;
    CicrleConfigs configs;
    cv::Mat rotation;  ///< handed to the matcher by rows and size
};

/// What a call fills or changes, with what an earlier one may have left there.
struct Results {
    std::vector<Corner> left, right;
    Pairs pairs{{7, 7}};
    Points points{{1, 2, 3}}, normals{{4, 5, 6}};
    std::vector<double> radii{8};
    PairVerdicts verdicts;

    Outcome fill(const Call& call, CircleMarkerExtractor& e) {
        const CicrleConfigs& c = call.configs;
        cv::Mat rotation = call.rotation;
        return outcomeOf([&] {
            if (call.matcher == kByCentres) {
                pairs = getStereoMarker3dPoints(left, right, e.leftTriangulation, e.leftIntrinsic, e.rightIntrinsic,
                                                e.fundamental, points);
            } else if (call.matcher == kByRowsAndSize) {
                pairs = getStereoRectifiedMarker3dPoints(
                    left, right, c.markerRadii, points, rotation, e.leftProjection, e.rightProjection,
                    c.maxRowDifference, c.minDepth, c.maxDepth, c.radiusScoreGate, c.looseSizeGate, c.sizeTolerance,
                    c.deviationFactor, c.plainRowGate, c.edgeLengthTolerance, c.edgeAngleTolerance);
            } else {
                matchConicCorners(left, right, pairs, points, normals, radii, e, c);
            }
        });
    }

    /// The same, and why.
    Outcome fillAsked(const Call& call, CircleMarkerExtractor& e) {
        if (call.matcher == kByCentres) return fill(call, e);
        const CicrleConfigs& c = call.configs;
        return outcomeOf([&] {
            if (call.matcher == kByRowsAndSize) {
                fillRectified(call.rotation, e, c);
            } else {
                fillDiscs(e, c);
            }
        });
    }

    void fillRectified(const cv::Mat& rotation, const CircleMarkerExtractor& e, const CicrleConfigs& c) {
        const RectifiedMatchSettings settings = rectifiedMatchSettings(c);
        std::vector<PlacedPair> matches;
        if (canMatchRectified(left, right, settings)) {
            const RectifiedRig rig = rectifiedRigOf(rotation, e.leftProjection, e.rightProjection);
            matches = matchRectified(left, right, rig, settings, &verdicts);
        }
        pairs.clear();
        for (const PlacedPair& m : matches) {
            pairs.emplace_back(m.left, m.right);
            points.push_back({m.point[0], m.point[1], m.point[2]});
        }
    }

    void fillDiscs(CircleMarkerExtractor& e, const CicrleConfigs& c) {
        requireConicCalibration(e, c.cornersRectified);
        const auto matches = matchDiscs(left, right, e, c.cornersRectified, conicMatchSettings(c), &verdicts);
        pairs.clear(), points.clear(), normals.clear(), radii.clear();
        for (const DiscMatch& m : matches) {
            pairs.emplace_back(m.left, m.right);
            points.push_back({m.point[0], m.point[1], m.point[2]});
            normals.push_back({m.normal[0], m.normal[1], m.normal[2]});
            radii.push_back(m.radius);
        }
    }

    Record record() const {
        Record result;
        result.corners("left corners", left);
        result.corners("right corners", right);
        result.pairs("pairs", pairs);
        result.points("points", points);
        result.points("normals", normals);
        for (const double radius : radii) result.numbers("radii", radius);
        return result;
    }
};

void checkLists(const Call& call, const Results& r) {
    const std::size_t appended = call.matcher == kByRowsAndSize ? 1 : 0;
    const bool isKept = call.matcher == kByCentres && r.pairs.empty();
    require(r.points.size() == r.pairs.size() + appended || isKept, "a point for each pair");
    if (call.matcher == kByConics)
        require(r.normals.size() == r.pairs.size() && r.radii.size() == r.pairs.size(), "a disc for each pair");
    int lastLeft = -1;
    for (const auto& [i, j] : r.pairs) {
        require(i >= 0 && j >= 0 && static_cast<std::size_t>(i) < call.left.size() &&
                    static_cast<std::size_t>(j) < call.right.size(),
                "pairs are places in the lists");
        if (call.matcher == kByCentres) continue;
        require(i > lastLeft, "left ascending");
        lastLeft = i;
    }
}

/// Whether a matcher comes to look at pairs.
bool looksAtPairs(const Call& call) {
    if (call.left.empty() || call.right.empty() || call.matcher == kByCentres) return false;
    const std::vector<double>& radii = call.configs.markerRadii;
    return call.matcher == kByConics || std::any_of(radii.begin(), radii.end(), [](double r) { return r > 0; });
}

/// Numbers of which neither a product of three nor its inverse leaves the range of the type.
bool isPlain(double value) {
    const double size = std::abs(value);
    return size == 0 || (size > 1e-30 && size < 1e30);
}

bool arePlain(const std::vector<Corner>& corners) {
    return std::all_of(corners.begin(), corners.end(), [](const Corner& corner) {
        return std::all_of(corner.conic.begin(), corner.conic.end(), isPlain);
    });
}

bool arePlain(const CircleMarkerExtractor& e) {
    for (const Eigen::MatrixXd* camera : {&e.triangulationA, &e.triangulationB}) {
        if (!std::all_of(camera->data(), camera->data() + camera->size(), isPlain)) return false;
    }
    return true;
}

Record recordOf(const Call& call, const Circumstances& circumstances, CircleMarkerExtractor& e) {
    Results results;
    results.left = call.left, results.right = call.right;
    Record membersBefore, members, ending;
    const Record before = results.record();
    membersBefore.members(e);
    const Outcome outcome = circumstances.isAsked ? results.fillAsked(call, e) : results.fill(call, e);
    const Record after = results.record();
    members.members(e);
    ending.outcome(outcome);
    if (outcome.refused()) {
        requireSame(membersBefore, members, "a refused call changes no member");
        requireSame(before, after, "a refused call changes no result");
    }
    if (call.matcher != kByConics) requireSame(membersBefore, members, "members are only read");
    if (outcome.end == End::kNoEigen)
        require(!arePlain(call.left) || !arePlain(call.right) || !arePlain(e),
                "only a conic that is not finite throws");
    require(outcome.end != End::kOutOfRange && (call.matcher == kByConics || outcome.end != End::kNoEigen),
            "exceptions are those that are told");
    if (outcome.answered()) checkLists(call, results);
    if (outcome.answered() && circumstances.isAsked && looksAtPairs(call)) {
        checkVerdicts(results.verdicts, results.pairs, {call.left.size(), call.right.size()});
        addReasons(ending, results.verdicts);
    }
    return after + members + ending;
}

/// More candidates, other gates, and a constellation that gives no answer or none that agrees with itself.
void loosen(CicrleConfigs& c, Input& input) {
    constexpr double kTolerances[] = {0, 0.2, 0.05, 0.01};
    c.radiusScoreGate = input.flag(), c.looseSizeGate = input.flag(), c.plainRowGate = input.flag();
    c.edgeLengthTolerance = input.oneOf(kTolerances), c.edgeAngleTolerance = input.oneOf(kTolerances);
    if (input.flag()) c.maxRowDifference = 300, c.sizeTolerance = 5, c.minDepth = 0, c.maxDepth = 1e6;
}

void checkOne(Input& input) {
    const auto matcher = static_cast<Matcher>(input.whole(0, kMatcherCount - 1));
    const auto path = static_cast<Path>(matcher == kByConics ? input.whole(kRadial, kRims) : input.whole(0, kRims));
    const RenderedExposure& from = exposure(input.whole(0, kExposureCount - 1));
    const bool isSwapped = input.isOdd(), spoilsRotation = input.isOdd(), spoilsMembers = input.isOdd();
    const bool isRectified = matcher == kByRowsAndSize || from.isRectified;
    const Eyes& eyes = (isRectified ? from.rectified : from.found)[static_cast<std::size_t>(path)];
    Call call{matcher, eyes.left, eyes.right, goodConfigs(path), cv::Mat::eye(3, 3, CV_64F)};
    call.configs.cornersRectified = isRectified;
    if (isSwapped) call.left.swap(call.right);
    if (input.flag()) loosen(call.configs, input);
    call.configs = input.spoiled(call.configs, 6);
    if (spoilsRotation) call.rotation = input.spoiled(call.rotation);
    const CircleMarkerExtractor extractor = spoilsMembers ? input.spoiled(from.extractor, 2) : from.extractor;
    call.left = input.spoiled(call.left, 6);
    call.right = input.spoiled(call.right, 6);
    if (input.isOdd()) (input.flag() ? call.left : call.right).clear();
    if (input.isOdd()) call.configs.cornersRectified = !isRectified;

    requireSameUnderAll(extractor, [&](const Circumstances& circumstances, CircleMarkerExtractor& e) {
        return recordOf(call, circumstances, e);
    });
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
