// SPDX-License-Identifier: Apache-2.0
#include "matching/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "matching/spread.h"
#include "parallel/parallel_loop.h"

namespace kestrune::matching {
namespace {

constexpr double kOneDegree = 0.017453292519943295;
// Rivals below this are not told.
constexpr double kLeastChance = 1e-3;
// The pairs of an exposure that something stands against are not more probable than this.
constexpr double kMostDoubted = 0.5;
// Over scenes of all kinds two single markers look like a pair more often than densities tell, by this factor, since no
// model knows all ways in which markers come to look alike; that a marker belongs to another one is told nearly
// rightly. By `kestrune_matching`: 320,000 pairs of 16,000 scenes, in every class of probability.
constexpr double kSinglesMore = 100, kRivalsMore = 1.5;
// A pattern of the epipolar distances stands against an exposure from this on: a quarter of a pixel, which is more than
// a careful calibration leaves, and a fifth of what the markers scatter by.
constexpr double kMovedPixels = 0.25;
// Two rivals that differ by so many of their sigmas can be told apart by a nominal value.
constexpr double kApart = 4;
constexpr double kSomeShare = 0.25;               // of the markers
constexpr std::int64_t kMostOfOneDisc = 300'000;  // ns
constexpr double kNotKnown = std::numeric_limits<double>::quiet_NaN();
constexpr int kFewestMarkers = 3;
// Pairs that tell how good the told standard deviations are, and by how much those may be off.
constexpr double kLeastLikely = 0.4, kMostToldScale = 1e4;
constexpr double kAnyChiSquare = std::numeric_limits<double>::max();  // chi-square

Decider deciderOf(const CircleFit& fit, const CircleFit& rival, const MatchOptions& options) {
    const double radius = std::abs(fit.logRadius - rival.logRadius);
    const double depth = std::abs(fit.logDepth - rival.logDepth);
    const double sigma = std::hypot(std::hypot(fit.sigmaRadius, rival.sigmaRadius), options.radiusTolerance);
    if (options.radii.empty() && radius > kApart * sigma) return Decider::nominalRadius;
    const bool isDepthKnown = options.depth[1] > 0;
    if (!isDepthKnown && depth > kApart * std::hypot(fit.sigmaDepth, rival.sigmaDepth)) return Decider::depthRange;
    return Decider::anotherView;
}

PairCues cuesOf(const Attempt& attempt, int candidate) {
    const auto c = static_cast<std::size_t>(candidate);
    const Candidate& its = attempt.solver.candidates()[c];
    const Solution& solution = attempt.best();
    const Evidence& evidence = solution.evidence[c];
    const CircleFit& fit = attempt.solver.fitOf(c, solution);
    const auto pixels = [](const Sightline& line) { return std::sin(line.alpha) / line.pixel; };
    const double scale = 0.5 * (pixels(attempt.views.lines[0][static_cast<std::size_t>(its.left)]) +
                                pixels(attempt.views.lines[1][static_cast<std::size_t>(its.right)]));
    PairCues cues;
    cues.epipolar = scale * fit.epipolar;
    cues.epipolarSigma = scale * solution.scales.centre * fit.sigmaEpipolar;
    cues.shape = fit.chiSquare / (solution.scales.shape * solution.scales.shape);
    cues.radius = evidence.density.radius - evidence.chance.radius;
    cues.depth = evidence.density.depth - evidence.chance.depth;
    cues.normal = evidence.density.normal - evidence.chance.normal;
    cues.grey = evidence.grey;
    cues.object = evidence.object;
    cues.geometry = solution.logWeights[c] - cues.radius - cues.depth - cues.normal - cues.grey - cues.object;
    const bool hasLevels = std::isfinite(attempt.views.lines[0][static_cast<std::size_t>(its.left)].contrast) &&
                           std::isfinite(attempt.views.lines[1][static_cast<std::size_t>(its.right)].contrast);
    if (!hasLevels) cues.grey = kNotKnown;
    if (!attempt.solver.hasObject()) cues.object = kNotKnown;
    return cues;
}

/// @param logWeight  of the pair against both its markers being single: any assignment with the pair has such a one.
double calibrated(double p, double logWeight) {
    if (!(p > 0)) return 0;
    const double bothSingle = std::min(p * std::exp(-logWeight), 1 - p), rivals = 1 - p - bothSingle;
    return p / (p + kSinglesMore * bothSingle + kRivalsMore * rivals);
}

MarkerEstimate scaled(MarkerEstimate estimate, const Scales& scales) {
    const auto factor = [&](int k) { return k < 2 ? scales.centre : k < 5 ? scales.shape : 1; };
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) estimate.covariance(a, b) *= factor(a) * factor(b);
    return estimate;
}

class Report {
  public:
    Report(const MarkerLists& markers, const RigMatrices& told, const MatchOptions& options, const Attempts& attempts)
        : markers_(markers), options_(options), attempts_(attempts), attempt_(*attempts.best), rig_(told) {}

    StereoMatch make() {
        setMotion();
        setObjection();
        useMovedRig();
        if (options_.estimateSigmas) scales_ = toldScales();
        setPairs();
        setSingles();
        result_.centreScale = scales_.centre;
        result_.shapeScale = scales_.shape;
        return std::move(result_);
    }

  private:
    const Candidate& candidate(int c) const { return attempt_.solver.candidates()[static_cast<std::size_t>(c)]; }
    int number(std::size_t eye, int line) const { return attempt_.views.number[eye][static_cast<std::size_t>(line)]; }
    bool isDoubted() const {
        return result_.objection != MatchObjection::none && result_.objection != MatchObjection::rigMoved;
    }
    double probabilityOf(int c) const { return isDoubted() ? std::min(shareOf(c), kMostDoubted) : shareOf(c); }
    /// Of a pair of markers that are given more than once it is one of several.
    double shareOf(int c) const {
        const auto k = static_cast<std::size_t>(c);
        const double p = calibrated(attempt_.best().assignment.probability[k], attempt_.best().logWeights[k]);
        return p / static_cast<double>(numbers(0, candidate(c).left).size() * numbers(1, candidate(c).right).size());
    }
    /// Of a line's marker and its copies.
    std::vector<int> numbers(std::size_t eye, int line) const {
        std::vector<int> all = attempt_.views.copies[eye][static_cast<std::size_t>(line)];
        all.insert(all.begin(), number(eye, line));
        return all;
    }
    /// A candidate's pairs: more than one where a marker is given more than once.
    std::vector<PairChance> chancesOf(int c) const {
        std::vector<PairChance> all;
        for (const int left : numbers(0, candidate(c).left))
            for (const int right : numbers(1, candidate(c).right)) all.push_back({left, right, probabilityOf(c)});
        return all;
    }

    /// The pattern that was taken out, over the pairs that are left.
    void setMotion() {
        if (!attempts_.hasMoved || attempts_.isExchanged) return;
        const cv::Matx33d rotation = rotationOf(attempt_.frame), before(rig_.rotation);
        const cv::Vec3d translation = translationOf(attempt_.frame);
        const Views told = viewsOf(markers_, EpipolarFrame::of(rig_, before, translationOf(rig_)));
        std::array<std::vector<double>, 2> planes;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            planes[eye].assign(markers_[eye]->size(), 0.0);
            for (std::size_t i = 0; i < told.lines[eye].size(); ++i)
                planes[eye][static_cast<std::size_t>(told.number[eye][i])] = told.lines[eye][i].phi;
        }
        double sum = 0;
        int count = 0;
        for (const int c : attempt_.best().partner) {
            if (c < 0 || probabilityOf(c) < 0.5) continue;
            const Sightline& left = attempt_.views.lines[0][static_cast<std::size_t>(candidate(c).left)];
            const Sightline& right = attempt_.views.lines[1][static_cast<std::size_t>(candidate(c).right)];
            const double was = planes[1][static_cast<std::size_t>(number(1, candidate(c).right))] -
                               planes[0][static_cast<std::size_t>(number(0, candidate(c).left))];
            const double pattern = (was - (right.phi - left.phi)) * 0.5 *
                                   (std::sin(left.alpha) / left.pixel + std::sin(right.alpha) / right.pixel);
            sum += pattern * pattern;
            ++count;
        }
        MovedRig& moved = result_.moved;
        moved.found = true;
        moved.size = std::sqrt(sum / std::max(count, 1));
        moved.rotation = rotation;
        moved.translation = translation;
        moved.angle = turnBetween(EpipolarFrame::of(rig_, before, translationOf(rig_)), attempt_.frame) / kOneDegree;
    }

    /// A pattern that does not stand against the exposure is told and not used: the calibration is believed.
    void useMovedRig() {
        if (result_.objection != MatchObjection::rigMoved) return;
        rig_.rotation = cv::Mat(result_.moved.rotation).clone();
        rig_.translation = cv::Mat(result_.moved.translation).clone();
    }

    static cv::Vec3d translationOf(const EpipolarFrame& frame) { return matching::translationOf(frame); }
    static cv::Vec3d translationOf(const RigMatrices& rig) {
        return {rig.translation.at<double>(0), rig.translation.at<double>(1), rig.translation.at<double>(2)};
    }

    void object(MatchObjection objection, std::string reason) {
        result_.objection = objection;
        result_.reason = std::move(reason);
    }

    void setObjection() {
        const Decision& decision = attempt_.decision;
        if (attempts_.isExchanged)
            object(MatchObjection::eyesExchanged,
                   "the markers of the left eye match as those of the right one, and "
                   "those of the right eye as those of the left: exchange the images");
        else if (attempt_.views.lines[0].empty() || attempt_.views.lines[1].empty() ||
                 std::min(attempt_.views.lines[0].size(), attempt_.views.lines[1].size()) < kFewestMarkers)
            object(MatchObjection::tooFew,
                   "an eye has fewer than three markers that could be used: nothing speaks for the calibration");
        else if (!attempt_.isPlausible())
            object(MatchObjection::nothingMatches, reasonOfNothing());
        else if (attempts_.isMotionAmbiguous)
            object(MatchObjection::patternRepeats,
                   "the cameras have turned since they were calibrated, and more than one turn brings the rows of the "
                   "pattern onto each other: calibrate anew");
        else if (decision.repeats)
            setRepeat();
        else if (result_.moved.found && result_.moved.size > kMovedPixels)
            object(MatchObjection::rigMoved,
                   fmt::format("the cameras have turned by {:.3f} degrees since they were calibrated: markers are "
                               "{:.2f} px off their epipolar lines in a common pattern; pairs and points are those of "
                               "the corrected rig",
                               result_.moved.angle, result_.moved.size));
    }

    std::string reasonOfNothing() const {
        const std::size_t lefts = attempt_.views.lines[0].size(), rights = attempt_.views.lines[1].size();
        if (attempt_.share() >= kSomeShare && attempt_.best().pairs >= kFewestMarkers)
            return fmt::format(
                "{:.0f} of {} and {} markers could be pairs, but they are {:.2f} px off their epipolar "
                "lines, {:.1f} times what their standard deviations explain: the calibration is not of "
                "these cameras, or the markers still have their lens distortion",
                attempt_.best().pairs, lefts, rights, attempt_.epipolarNoise(), attempt_.best().scales.centre);
        return fmt::format(
            "{:.0f} of {} and {} markers agree, which is no more than chance brings: the images show "
            "different things, or the calibration is not of these cameras",
            attempt_.best().pairs, lefts, rights);
    }

    void setRepeat() {
        const Solution &best = attempt_.best(), &rival = attempt_.decision.rival;
        std::vector<int> bestOfRight(attempt_.views.lines[1].size(), -1);
        for (const int c : best.partner)
            if (c >= 0) bestOfRight[static_cast<std::size_t>(candidate(c).right)] = c;
        std::vector<double> steps, radii, depths;
        for (std::size_t i = 0; i < best.partner.size() && i < rival.partner.size(); ++i) {
            const int own = best.partner[i], other = rival.partner[i];
            if (own < 0 || other < 0 || own == other) continue;
            const int there = bestOfRight[static_cast<std::size_t>(candidate(other).right)];
            if (there >= 0)
                steps.push_back((attempt_.placeOf(candidate(own)) - attempt_.placeOf(candidate(there))).norm());
            const CircleFit &a = candidate(own).agreement.fits[0], &b = candidate(other).agreement.fits[0];
            radii.push_back(std::abs(a.logRadius - b.logRadius));
            depths.push_back(std::abs(std::exp(a.logDepth) - std::exp(b.logDepth)));
        }
        result_.repeat = medianOf(steps, 0);
        const double radius = medianOf(radii, 0), depth = medianOf(depths, 0);
        std::string help;
        if (options_.radii.empty() && radius > 2 * options_.radiusTolerance)
            help = fmt::format("the radii to {:.2g} %", 100 * radius / 3);
        if (options_.depth[1] == 0 && depth > 0)
            help += fmt::format("{}the depth to {:.4g}", help.empty() ? "" : " or ", depth / 2);
        const std::string what = result_.repeat > 0 ? fmt::format("the pattern repeats every {:.4g}", result_.repeat)
                                                    : "the pattern can be matched in two ways";
        object(MatchObjection::patternRepeats,
               help.empty() ? what + ": another view would tell" : fmt::format("{}: give {}", what, help));
    }

    /// By how much the standard deviations that the markers came with are off. Those that pairs are judged by are never
    /// below a least one, which is more than well measured markers have, so their scales are others.
    Scales toldScales() const {
        ScaleSample sample;
        for (const int c : attempt_.best().partner) {
            if (c < 0 || probabilityOf(c) < kLeastLikely) continue;
            const auto left = sightlineOf((*markers_[0])[at(number(0, candidate(c).left))], attempt_.frame, 0);
            const auto right = sightlineOf((*markers_[1])[at(number(1, candidate(c).right))], attempt_.frame, 1);
            if (!left || !right) continue;
            const Agreement agreement = agreementOf(*left, *right, attempt_.frame.baseline, kAnyChiSquare);
            if (agreement.count > 0) sample.add(agreement.fits[0], probabilityOf(c));
        }
        return sample.isEmpty() ? Scales{} : sample.scales(1 / kMostToldScale, kMostToldScale);
    }

    static std::size_t at(int index) { return static_cast<std::size_t>(index); }

    /// The discs of the most probable assignment, with the sigmas that the exposure shows.
    void measureDiscs() {
        const Solution& best = attempt_.best();
        discs_.resize(best.partner.size());
        forEachInParallel(static_cast<int>(best.partner.size()), kMostOfOneDisc, [&](int i) {
            const int c = best.partner[static_cast<std::size_t>(i)];
            if (c < 0) return;
            const auto left = static_cast<std::size_t>(number(0, candidate(c).left));
            const auto right = static_cast<std::size_t>(number(1, candidate(c).right));
            discs_[static_cast<std::size_t>(i)] =
                measureDisc({scaled((*markers_[0])[left], scales_), scaled((*markers_[1])[right], scales_)}, rig_);
        });
    }

    void setPairs() {
        measureDiscs();
        const Solution& best = attempt_.best();
        std::vector<int> others;
        for (int c = 0; c < static_cast<int>(attempt_.solver.candidates().size()); ++c) {
            const bool isChosen = best.partner[static_cast<std::size_t>(candidate(c).left)] == c;
            if (!isChosen && probabilityOf(c) >= kLeastChance) others.push_back(c);
        }
        const auto addRivals = [this](int c, std::ptrdiff_t from) {
            const std::vector<PairChance> chances = chancesOf(c);
            result_.rivals.insert(result_.rivals.end(), chances.begin() + from, chances.end());
        };
        for (const int c : others) addRivals(c, 0);
        for (const int c : best.partner) {
            if (c < 0) continue;
            addPair(c, others);
            addRivals(c, 1);
        }
        const auto byNumber = [](const auto& a, const auto& b) {
            return std::make_pair(a.left, a.right) < std::make_pair(b.left, b.right);
        };
        std::sort(result_.pairs.begin(), result_.pairs.end(), byNumber);
        std::sort(result_.rivals.begin(), result_.rivals.end(), byNumber);
    }

    void addPair(int c, const std::vector<int>& others) {
        MatchedPair pair;
        pair.left = number(0, candidate(c).left);
        pair.right = number(1, candidate(c).right);
        pair.probability = probabilityOf(c);
        pair.disc = discs_[static_cast<std::size_t>(candidate(c).left)];
        const bool isExact = attempt_.best().assignment.isExact[static_cast<std::size_t>(c)];
        pair.sure = !isDoubted() && isExact && pair.probability >= options_.sure && pair.disc.found;
        pair.cues = cuesOf(attempt_, c);
        const std::vector<PairChance> own = chancesOf(c);
        pair.rivals.assign(own.begin() + 1, own.end());
        int strongest = -1;
        for (const int other : others) {
            if (candidate(other).left != candidate(c).left && candidate(other).right != candidate(c).right) continue;
            const std::vector<PairChance> its = chancesOf(other);
            pair.rivals.insert(pair.rivals.end(), its.begin(), its.end());
            if (strongest < 0 || probabilityOf(other) > probabilityOf(strongest)) strongest = other;
        }
        std::sort(pair.rivals.begin(), pair.rivals.end(), [](const PairChance& a, const PairChance& b) {
            return std::make_tuple(-a.probability, a.left, a.right) < std::make_tuple(-b.probability, b.left, b.right);
        });
        const std::vector<int>& rivals = attempt_.decision.rival.partner;
        if (!pair.sure && attempt_.decision.repeats && !rivals.empty()) {
            const int rival = rivals[static_cast<std::size_t>(candidate(c).left)];
            if (rival >= 0 && rival != c) strongest = rival;
        }
        if (!pair.sure && strongest >= 0)
            pair.decider = deciderOf(candidate(c).agreement.fits[0], candidate(strongest).agreement.fits[0], options_);
        result_.pairs.push_back(std::move(pair));
    }

    void setSingles() {
        for (std::size_t eye = 0; eye < 2; ++eye) result_.single[eye].assign(markers_[eye]->size(), 1.0);
        for (int c = 0; c < static_cast<int>(attempt_.solver.candidates().size()); ++c) {
            const auto takeOff = [&](double& single, std::size_t ways) {
                single = std::max(0.0, single - shareOf(c) * static_cast<double>(ways));
            };
            const std::vector<int> lefts = numbers(0, candidate(c).left), rights = numbers(1, candidate(c).right);
            for (const int left : lefts) takeOff(result_.single[0][static_cast<std::size_t>(left)], rights.size());
            for (const int right : rights) takeOff(result_.single[1][static_cast<std::size_t>(right)], lefts.size());
        }
    }

    const MarkerLists& markers_;
    const MatchOptions& options_;
    const Attempts& attempts_;
    const Attempt& attempt_;
    Scales scales_;                    ///< of the told standard deviations
    RigMatrices rig_;                  ///< the corrected one if it has moved
    std::vector<DiscEstimate> discs_;  ///< of each left line's pair
    StereoMatch result_;
};

}  // namespace

StereoMatch reportOf(const MarkerLists& markers, const RigMatrices& told, const MatchOptions& options,
                     const Attempts& attempts) {
    return Report(markers, told, options, attempts).make();
}

}  // namespace kestrune::matching
