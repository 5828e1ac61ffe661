// SPDX-License-Identifier: Apache-2.0
#include "refinement/marker_fit.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "refinement/clipped_level.h"
#include "refinement/pixel_steps.h"

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr int kMostRounds = 5;
constexpr double kLeastSlack = 0.5;
constexpr double kSlack = 0.7;          // px by which a rim may move within its window
constexpr double kFewestForNoise = 24;  // pixels that tell a variance
// Pixels of one level whose variance is so many times that of their steps are not of one level.
constexpr double kUneven = 2;
// Noise that is all light's grows as the level; so many times that is no noise.
constexpr double kMostShot = 2;
// Where more of a ground's pixels are at a limit of the image, what is left does not tell their noise.
constexpr double kMostClipped = 0.75;
constexpr double kNoiseChange = 1.2;  // factor of a weight from which a fit is made again
constexpr double kLeastRimShare = 0.45;
// Where the rim's mean squared residual is beyond this, in units of the noise, it is looked at whether something lies
// over it; no more than this many sectors may be hidden.
constexpr double kSuspicious = 1.5;
constexpr std::size_t kMostHidden = 12;
// The lens and real markers bend a rim by hundredths of a pixel; what lies over one moves it by more than this, px.
constexpr double kHiddenBy = 0.2;
constexpr int kMostVisible = 4;
// How far a fit may run from its start: the paths are off by less than a pixel, a half of small markers.
constexpr double kMostMove = 1.5, kMostMoveShare = 0.35;
// A contrast of so many of its own standard deviations is a marker.
constexpr double kLeastContrast = 6;
// Of a real marker's rim, RMS px by which it may be no ellipse: beyond, it is something else, or half hidden.
constexpr double kMostRimError = 0.35;
// A neighbour's blur may be taken away up to this far from its rim, in its own blurs.
constexpr double kClearance = 0.5;

/// Variance of pixels that should be of one level: where they are not, that of their steps.
double varianceOf(const FlatSums& sums, const std::vector<FlatRun>& runs) {
    const double variance = sums.variance(), bySteps = varianceBySteps(runs);
    return bySteps > 0 && variance > kUneven * std::max(bySteps, kRounding) ? bySteps : variance;
}

NoiseModel noiseOfGround(const MarkerWindow& window, const DiscModel& model, const cv::Vec2d& limits,
                         std::vector<ResidualSample>& samples) {
    samples.clear();
    const auto add = [&](const FlatSums& sums, const std::vector<FlatRun>& runs, double level) {
        if (!(sums.count >= kFewestForNoise)) return;
        const double clipped = countAtLimits(runs, limits) / sums.count;
        if (clipped > kMostClipped) return;
        const double variance = varianceOf(sums, runs), count = sums.count - 1 - kLightTerms;
        samples.push_back({level, clipped > 0 ? varianceBeforeClipping(variance, clipped) : variance, count});
    };
    add(window.inside(), window.insideRuns(), model.inside);
    add(window.outside(), window.outsideRuns(), model.outside);
    return noiseOf(samples);
}

/// With the rim's residuals, in five levels: for markers so small that their middle is all blur. They may be more than
/// the ground's variance as far as light explains it.
NoiseModel noiseOfRim(const MarkerWindow& window, const FittedMarker& fitted, const DiscFit& fit,
                      const cv::Vec2d& limits, std::vector<ResidualSample>& samples) {
    constexpr int kLevels = 5;
    const DiscModel& model = fitted.outcome.model;
    const NoiseModel ground = noiseOfGround(window, model, limits, samples);
    const bool isBlind = fit.rim().isClipped() && samples.empty();
    std::array<ResidualSample, kLevels> levels{};
    for (int i = 0; i < window.rimCount(); ++i) {
        const double level = static_cast<double>(fit.rim().levels()[i]);
        const double m = (level - model.outside) / model.contrast();
        // Beyond a limit there is less noise, or none.
        if (fit.rim().isClipped() && (level <= limits[0] || level >= limits[1])) continue;
        ResidualSample& sample = levels[static_cast<std::size_t>(std::clamp(m * kLevels, 0.0, kLevels - 1.0))];
        const double residual = static_cast<double>(fit.rim().residuals()[i]);
        sample.count += 1, sample.level += level, sample.variance += residual * residual * fitted.noise.variance(level);
    }
    for (ResidualSample& sample : levels) {
        if (sample.count < 4) continue;
        sample.level /= sample.count, sample.variance /= sample.count;
        // The unknowns of the rim have taken their share of the residuals.
        const double free = sample.count * (1 - static_cast<double>(kLight) / window.rimCount());
        const double most = isBlind ? sample.variance * sample.count / free
                                    : kMostShot * ground.variance(model.outside) *
                                          std::max(1.0, sample.level / std::max(1.0, model.outside));
        samples.push_back({sample.level, std::min(most, sample.variance * sample.count / free), free});
    }
    return noiseOf(samples);
}

bool differs(const NoiseModel& a, const NoiseModel& b, const DiscModel& model) {
    const double inside = a.variance(model.inside) / b.variance(model.inside);
    const double outside = a.variance(model.outside) / b.variance(model.outside);
    return std::max(inside, outside) / std::min(inside, outside) > kNoiseChange;
}

/// Light of the neighbours at the window's rim pixels, grey levels; false where there is none.
bool lightOfOthers(const std::vector<KnownNeighbour>& neighbours, const DiscModel& own, FitScratch& scratch) {
    scratch.known.others.assign(static_cast<std::size_t>(scratch.window.rimCount()), 0.0F);
    bool any = false;
    for (const KnownNeighbour& other : neighbours) {
        if (!other.model || other.gap > kReach * (totalBlur(own.blur) + totalBlur(other.model->blur)) + kSlack)
            continue;
        any = true;
        const SmoothEllipse& e = other.model->ellipse;
        const double reach = kReach * totalBlur(other.model->blur) + 3;
        const cv::Point2d half = e.halfSize() + cv::Point2d(reach, reach);
        const cv::Point from(static_cast<int>(e.x - half.x) - 1, static_cast<int>(e.y - half.y) - 1);
        const cv::Point to(static_cast<int>(e.x + half.x) + 2, static_cast<int>(e.y + half.y) + 2);
        scratch.other.reset({from, to});
        if (!scratch.other.add(e, other.model->blur)) continue;
        const auto contrast = static_cast<float>(other.model->contrast());
        const bool around = surrounds(e, own.ellipse);
        const cv::Rect& box = scratch.other.box();
        for (const MarkerWindow::Run& run : scratch.window.runs()) {
            if (run.first < 0) continue;
            const bool crosses = run.y >= box.y && run.y < box.br().y;
            float m = 0;
            int x = box.x;
            for (int i = 0; i < run.count; ++i) {
                if (crosses)
                    for (; x < box.br().x && x <= run.x + i; ++x) m += scratch.other.row(run.y)[x - box.x].step;
                scratch.known.others[static_cast<std::size_t>(run.first) + static_cast<std::size_t>(i)] +=
                    contrast * (around ? m - 1 : m);
            }
        }
    }
    return any;
}

void listNeighbours(const std::vector<KnownNeighbour>& known, std::vector<Neighbour>& list) {
    list.clear();
    for (const KnownNeighbour& other : known) {
        // Half of the way between the rims, as long as the other's blur is not known.
        const double half = std::clamp(other.gap / 2, 0.5, 3.0);
        if (other.model) {
            const double blur = totalBlur(other.model->blur);
            list.push_back({other.model->ellipse, kClearance * blur, kReach * blur});
        } else {
            list.push_back({other.ellipse, half, half});
        }
    }
}

/// Whether the contrast stands out of the noise, by the pixels of the rim alone.
bool isFaint(const DiscModel& model, const NoiseModel& noise) {
    const double c = model.contrast(), variance = noise.variance((model.inside + model.outside) / 2);
    return c * c * model.ellipse.perimeter() * totalBlur(model.blur) < kLeastContrast * kLeastContrast * variance;
}

/// Why the outcome is not to be believed.
RefinementStatus judge(const FittedMarker& fitted, const SmoothEllipse& start, const cv::Vec2d& limits) {
    const DiscModel& model = fitted.outcome.model;
    const double moved = std::hypot(model.ellipse.x - start.x, model.ellipse.y - start.y);
    const double most = std::max(kMostMove, kMostMoveShare * start.minorHalfAxis());
    if (!(moved <= most && model.ellipse.minorHalfAxis() > kThinnestRim)) return RefinementStatus::notConverged;
    const double variance = fitted.noise.variance((model.inside + model.outside) / 2);
    const double length = model.ellipse.perimeter(), blur = totalBlur(model.blur);
    if (isFaint(model, fitted.noise)) return RefinementStatus::tooFaint;
    // A rim that is off by d px RMS leaves c^2 d^2 length / (2 sqrt(pi) blur).
    const double excess = (fitted.outcome.equations.rimCost - fitted.outcome.equations.rimTold) * variance;
    const double rimError =
        std::sqrt(std::max(0.0, excess) * 2 * std::sqrt(std::numbers::pi) * blur / length) / std::abs(model.contrast());
    if (!(rimError <= kMostRimError)) return RefinementStatus::notADisc;
    return isFarBeyond(model.inside, limits) || isFarBeyond(model.outside, limits) ? RefinementStatus::notConverged
                                                                                   : RefinementStatus::refined;
}

/// The rim must be wholly on the image; one of no size is none.
bool isOnImage(const SmoothEllipse& ellipse, const cv::Size& size) {
    if (!(ellipse.minorHalfAxis() > 0)) return false;
    const cv::Point2d half = ellipse.halfSize();
    return ellipse.x - half.x >= 0 && ellipse.x + half.x <= size.width - 1 && ellipse.y - half.y >= 0 &&
           ellipse.y + half.y <= size.height - 1;
}

/// The fit of one marker in an image, with its windows.
class MarkerFit {
  public:
    MarkerFit(const cv::Mat& image, const SmoothEllipse& start, const std::vector<KnownNeighbour>& neighbours,
              const LightPrior& light, FitScratch& scratch)
        : image_(image), start_(start), neighbours_(neighbours), scratch_(scratch) {
        scratch.known.limits = {0, image.depth() == CV_8U ? 255.0 : 65535.0};
        scratch.known.light = light;
        listNeighbours(neighbours, scratch.neighbours);
    }

    FittedMarker run(const FittedMarker* before) {
        FittedMarker result;
        if (!isOnImage(start_, image_.size())) {
            result.status = RefinementStatus::leavesImage;
            return result;
        }
        const std::optional<DiscModel> guess =
            before ? before->outcome.model : firstGuess(image_, start_, scratch_.neighbours, scratch_.window);
        if (!guess) {
            result.status = RefinementStatus::tooFaint;
            return result;
        }
        result = follow(*guess, before ? before->hidden : Sectors(), !before);
        return isSuspicious(result) ? fitVisible(*guess, result) : result;
    }

  private:
    /// Fits, and takes the window anew where the rim has left it.
    ///
    /// @param isTaken  the window is that of the first guess.
    FittedMarker follow(DiscModel model, const Sectors& hidden, bool isTaken = false) {
        FittedMarker result;
        result.hidden = hidden;
        result.status = RefinementStatus::notConverged;
        MarkerWindow& window = scratch_.window;
        DiscFit::Knowledge& known = scratch_.known;
        bool knowsNoise = false;
        for (int round = 0; round < kMostRounds; ++round) {
            const double reach = takeWindow(model, hidden, isTaken && round == 0);
            if (window.rimShare() < kLeastRimShare) {
                result.status = neighbours_.empty() && hidden.none() ? RefinementStatus::leavesImage
                                                                     : RefinementStatus::touchesAnother;
                return result;
            }
            if (!knowsNoise) result.noise = noiseOfGround(window, model, known.limits, scratch_.samples);
            if (round == 0 && isFaint(model, result.noise)) {
                result.status = RefinementStatus::tooFaint;
                return result;
            }
            known.noise = result.noise;
            result.outcome = scratch_.fit.fit(window, start_, model, known);
            result.pixels = window.rimCount() + static_cast<int>(window.inside().count + window.outside().count);
            const DiscModel& now = result.outcome.model;
            const bool fits = distance(now.ellipse, model.ellipse) < kSlack && kReach * totalBlur(now.blur) < reach;
            model = now;
            if (!isOnImage(model.ellipse, image_.size())) {  // the last step of a fit may lead anywhere
                result.outcome.converged = false;
                return result;
            }
            if (!fits || !result.outcome.converged) continue;
            // Middle and ground are both cut off: the rim alone has noise, and it is needed to know what is cut off
            // there.
            const bool isBlind = scratch_.fit.rim().isClipped() && scratch_.samples.empty();
            if (!knowsNoise && (isBlind || std::min(window.inside().count, window.outside().count) < kFewestForNoise)) {
                knowsNoise = true;
                const NoiseModel better = noiseOfRim(window, result, scratch_.fit, known.limits, scratch_.samples);
                if (isBlind || differs(better, result.noise, model)) {
                    result.noise = better;
                    continue;
                }
            }
            result.status = judge(result, start_, known.limits);
            return result;
        }
        return result;
    }

    /// @returns the distance from the rim to which the blur is looked at, px.
    double takeWindow(const DiscModel& model, const Sectors& hidden, bool isTaken = false) {
        const double blur = kReach * totalBlur(model.blur);
        MarkerWindow& window = scratch_.window;
        if (!isTaken || hidden.any() || !window.serves(model.ellipse, blur + kLeastSlack, blur + 2 * kSlack)) {
            const double reach = blur + kSlack;
            window.take(image_, model.ellipse, reach, groundOf(model.ellipse, reach), scratch_.neighbours, hidden);
        }
        if (!lightOfOthers(neighbours_, model, scratch_)) scratch_.known.others.clear();
        return window.reach();
    }

    static bool isSuspicious(const FittedMarker& fitted) {
        return fitted.status == RefinementStatus::notADisc || fitted.status == RefinementStatus::notConverged ||
               (fitted.status == RefinementStatus::refined &&
                fitted.outcome.equations.rimCost > kSuspicious * fitted.outcome.equations.rimTold);
    }

    /// Leaves out what something lies over, as the first guess sees it and then as each fit of the rest does. A rim
    /// that differs from the fit in one part more than elsewhere is not believed.
    FittedMarker fitVisible(const DiscModel& guess, FittedMarker whole) {
        FittedMarker result = whole;
        Sectors now = hiddenAt(guess);
        for (int i = 0; i < kMostVisible && now.any() && now.count() <= kMostHidden; ++i) {
            result = follow(i == 0 ? guess : result.outcome.model, now);
            if (!result.outcome.converged) break;
            now = hiddenAt(result.outcome.model);
            // What the start's error has hidden comes back.
            const bool last = now == result.hidden || i + 1 == kMostVisible;
            if (last && result.status == RefinementStatus::refined && (now & ~result.hidden).none()) return result;
        }
        if (now.none() && result.outcome.converged) {
            result = follow(result.outcome.model, {});
            if (result.status == RefinementStatus::refined) whole = result;
        }
        if (whole.status == RefinementStatus::refined && hiddenAt(whole.outcome.model).any())
            whole.status = RefinementStatus::notADisc;
        return whole;
    }

    /// The sectors that do not look as the model does.
    Sectors hiddenAt(const DiscModel& model) {
        MarkerWindow& window = scratch_.window;
        takeWindow(model, {});
        scratch_.known.noise = noiseOfGround(window, model, scratch_.known.limits, scratch_.samples);
        if (!scratch_.fit.look(window, model, scratch_.known)) return Sectors();
        scratch_.sectors.assign(kSectors, {});
        for (const MarkerWindow::Run& run : window.runs())
            for (int i = 0; run.first >= 0 && i < run.count; ++i) {
                const double residual = static_cast<double>(scratch_.fit.rim().residuals()[run.first + i]);
                SectorResidual& sector =
                    scratch_.sectors[static_cast<std::size_t>(sectorOf(model.ellipse, run.x + i, run.y))];
                sector.sum += residual * residual, ++sector.count;
            }
        // A rim that is off by d px leaves c^2 d^2 / (2 sqrt(pi) blur) a pixel of its length, in all pixels across it.
        const double c = model.contrast(), reach = window.reach();
        const double variance = scratch_.known.noise.variance((model.inside + model.outside) / 2);
        const double across = 2 * std::sqrt(std::numbers::pi) * totalBlur(model.blur) * 2 * reach;
        return hiddenSectors(scratch_.sectors, c * c * kHiddenBy * kHiddenBy / (across * variance));
    }

    const cv::Mat& image_;
    const SmoothEllipse& start_;
    const std::vector<KnownNeighbour>& neighbours_;
    FitScratch& scratch_;
};

}  // namespace

FittedMarker fitMarker(const cv::Mat& image, const SmoothEllipse& start, const std::vector<KnownNeighbour>& neighbours,
                       const LightPrior& light, const FittedMarker* before, FitScratch& scratch) {
    return MarkerFit(image, start, neighbours, light, scratch).run(before);
}

}  // namespace kestrune::refinement
