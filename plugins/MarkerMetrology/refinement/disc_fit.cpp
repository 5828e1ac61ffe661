// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_fit.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>

#include "refinement/clipped_level.h"

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr int kMostEvaluations = 40;
// A step below this in units of its own uncertainty, squared: what it leaves is its square over the blur, a hundredth
// of the uncertainty.
constexpr double kSmallStep = 0.5;
// The blur is cut off at its reach, so that the cost jumps a little as a rim crosses pixels. Near the end a step is
// good as well if it leaves this share, or less, of what could be gained before it.
constexpr double kGoodStep = 0.25;
// The record's half axes are right to this share, or to a pixel: of no weight but where size, contrast and blur of a
// marker can be exchanged, since its blur is as large as it is.
constexpr double kSizeSigma = 0.25, kLeastSizeSigma = 1;
constexpr double kMostDamping = 1e6;
constexpr double kLeastScale = 1e-6;  // of the noise: an image without any

using Vector = Eigen::Matrix<double, kUnknowns, 1>;

/// The step that the first `count` unknowns want; false where the equations are not definite.
bool solve(const NormalEquations& equations, int count, double damping, Vector& step) {
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0, kUnknowns, kUnknowns> m =
        equations.matrix.topLeftCorner(count, count);
    m.diagonal() *= 1 + damping;
    const Eigen::LLT<decltype(m)> solver(m);
    if (solver.info() != Eigen::Success) return false;
    step.setZero();
    step.head(count) = solver.solve(equations.right.head(count));
    return step.allFinite();
}

int unknownsOf(int degree) {
    return kLight + termsOfDegree(degree);
}

/// Adds what is known of the light before: each term is 0 within its standard deviation.
void addPrior(const LightPrior& prior, double perPixel, const DiscModel& model, NormalEquations& equations) {
    for (int k = 0; k < termsOfDegree(prior.degree()); ++k) {
        const double sigma = k < termsOfDegree(1) ? prior.slope / perPixel : prior.curvature / (perPixel * perPixel);
        const double weight = 1 / (sigma * sigma), value = model.light[static_cast<std::size_t>(k)];
        equations.matrix(kLight + k, kLight + k) += weight;
        equations.right[kLight + k] -= weight * value;
        equations.cost += weight * value * value;
    }
}

/// Adds what the record says of the size.
void addSize(const SmoothEllipse& record, const DiscModel& model, NormalEquations& equations) {
    const double sigma = std::max(kLeastSizeSigma, kSizeSigma * record.s), weight = 1 / (sigma * sigma);
    const std::pair<Unknown, double> off[] = {
        {kS, record.s - model.ellipse.s}, {kE1, record.e1 - model.ellipse.e1}, {kE2, record.e2 - model.ellipse.e2}};
    for (const auto& [unknown, value] : off) {
        equations.matrix(unknown, unknown) += weight;
        equations.right[unknown] += weight * value;
        equations.cost += weight * value * value;
    }
}

/// The light's terms as the equations of a fit in even light have them, all other unknowns free.
LightEvidence lightEvidence(const NormalEquations& equations, double perPixel, double scale) {
    LightEvidence result;
    result.perPixel = perPixel;
    using Dynamic = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0, kUnknowns, kUnknowns>;
    for (const int degree : {2, 1}) {  // slopes without terms of degree two, which tell nearly nothing of them
        const int count = unknownsOf(degree);
        const Eigen::LLT<Dynamic> solver(Dynamic(equations.matrix.topLeftCorner(count, count)));
        if (solver.info() != Eigen::Success) return result;
        const Dynamic inverse = solver.solve(Dynamic::Identity(count, count));
        for (int k = 0; k < termsOfDegree(degree); ++k) {
            result.value[k] = inverse.row(kLight + k).dot(equations.right.head(count));
            result.variance[k] = scale * inverse(kLight + k, kLight + k);
        }
    }
    return result;
}

DiscModel moved(const DiscModel& from, const Vector& step) {
    DiscModel to = from;
    to.ellipse.x += step[kX], to.ellipse.y += step[kY], to.ellipse.s += step[kS];
    to.ellipse.e1 += step[kE1], to.ellipse.e2 += step[kE2];
    to.blur =
        std::clamp(from.blur + step[kBlur], std::max(kLeastBlur, from.blur / 2), std::min(kLargestBlur, from.blur * 2));
    to.inside += step[kIn], to.outside += step[kOut];
    for (int k = 0; k < kLightTerms; ++k) to.light[static_cast<std::size_t>(k)] += step[kLight + k];
    return to;
}

void hold(Unknown unknown, NormalEquations& equations) {
    equations.matrix.row(unknown).setZero();
    equations.matrix.col(unknown).setZero();
    equations.matrix(unknown, unknown) = 1;
    equations.right[unknown] = 0;
}

/// At the least blur, a rim that wants to be sharper is as sharp as can be told.
void holdLeastBlur(const DiscModel& model, NormalEquations& equations) {
    if (!(model.blur > kLeastBlur || equations.right[kBlur] > 0)) hold(kBlur, equations);
}

/// The same for levels that run away from an image that cuts them off.
void holdFarLevels(const DiscModel& model, const cv::Vec2d& limits, NormalEquations& equations) {
    for (const auto& [unknown, level] : {std::pair(kIn, model.inside), std::pair(kOut, model.outside)})
        if (isFarBeyond(level, limits) && (level > limits[1]) == (equations.right[unknown] > 0))
            hold(unknown, equations);
}

void boundLevels(const cv::Vec2d& limits, DiscModel& model) {
    const double most = kMostBeyond * (limits[1] - limits[0]);
    for (double* level : {&model.inside, &model.outside})
        *level = std::clamp(*level, limits[0] - most, limits[1] + most);
}

}  // namespace

void DiscFit::weigh(const DiscModel& model, const NoiseModel& noise) {
    insideWeight_ = 1 / noise.variance(model.inside);
    outsideWeight_ = 1 / noise.variance(model.outside);
    rim_.weigh(model, noise);
}

void DiscFit::addFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                      NormalEquations& equations) const {
    if (!(sums.count > 0)) return;
    if (rim_.isClipped()) return addClippedFlat(sums, level, unknown, model, equations);
    equations.told += sums.count;
    const double weight = unknown == kIn ? insideWeight_ : outsideWeight_, l = model.*level;
    LightTerms light = LightTerms::Ones();
    for (int k = 0; k < kLightTerms; ++k) light[1 + k] = model.light[static_cast<std::size_t>(k)];
    const LightTerms lit = sums.terms * light, left = sums.grey - l * lit;
    equations.matrix(unknown, unknown) += weight * light.dot(lit);
    equations.right[unknown] += weight * light.dot(left);
    for (int k = 0; k < kLightTerms; ++k) {
        equations.matrix(kLight + k, unknown) += weight * l * lit[1 + k];
        equations.right[kLight + k] += weight * l * left[1 + k];
        for (int j = 0; j <= k; ++j)
            equations.matrix(kLight + k, kLight + j) += weight * l * l * sums.terms(1 + k, 1 + j);
    }
    equations.cost += weight * (sums.greySquared - 2 * l * light.dot(sums.grey) + l * l * light.dot(lit));
}

/// Their mean, as the image cuts it off: all of them are taken for pixels of the same light.
void DiscFit::addClippedFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                             NormalEquations& equations) const {
    const double weight = unknown == kIn ? insideWeight_ : outsideWeight_, l = model.*level;
    const LightTerms terms = sums.terms.col(0) / sums.count;
    double light = 1;
    for (int k = 0; k < kLightTerms; ++k) light += model.light[static_cast<std::size_t>(k)] * terms[1 + k];
    const ClippedLevel clipped = clippedLevel(l * light, sigmaBeforeRounding(1 / weight), limits_);
    Vector derivative = Vector::Zero();
    derivative[unknown] = clipped.slope * light;
    for (int k = 0; k < kLightTerms; ++k) derivative[kLight + k] = clipped.slope * l * terms[1 + k];
    const double left = sums.level() - clipped.mean, all = weight * sums.count;
    equations.matrix += all * derivative * derivative.transpose();
    equations.right += all * left * derivative;
    equations.told += clipped.variance * sums.count;
    equations.cost += weight * (sums.greySquared - clipped.mean * (2 * sums.grey[0] - clipped.mean * sums.count));
}

bool DiscFit::draw(const MarkerWindow& window, const DiscModel& model) {
    if (!model.ellipse.isFinite() || !(model.ellipse.minorHalfAxis() > kThinnestRim)) return false;
    image_.reset(window.rimBox());
    if (!image_.add(model.ellipse, model.blur)) return false;
    rim_.draw(window, image_);
    return true;
}

void DiscFit::evaluate(const MarkerWindow& window, const DiscModel& model, int unknowns, NormalEquations& equations) {
    rim_.fillColumns(model, unknowns);
    equations = NormalEquations();
    for (int a = 0; a < unknowns; ++a) {
        for (int b = 0; b <= a; ++b) equations.matrix(a, b) = rim_.product(a, b);
        equations.right[a] = rim_.residualProduct(a);
    }
    equations.rimCost = equations.cost = rim_.residualSquares();
    equations.rimTold = equations.told = rim_.told();
    addFlat(window.inside(), &DiscModel::inside, kIn, model, equations);
    addFlat(window.outside(), &DiscModel::outside, kOut, model, equations);
    equations.matrix.triangularView<Eigen::StrictlyUpper>() = equations.matrix.transpose();
}

NormalEquations DiscFit::allEquations(const MarkerWindow& window, const DiscModel& model) {
    NormalEquations equations;
    evaluate(window, model, kUnknowns, equations);
    holdLeastBlur(model, equations);
    return equations;
}

bool DiscFit::look(const MarkerWindow& window, const DiscModel& model, const Knowledge& known) {
    limits_ = known.limits;
    rim_.take(window, known.others, known.limits);
    if (!draw(window, model)) return false;
    weigh(model, known.noise);
    rim_.fillColumns(model, kLight);
    return true;
}

namespace {

/// A place on the way of a fit.
struct Point {
    DiscModel model;
    NormalEquations equations;
    Vector step = Vector::Zero();
    bool definite = false;
    double gain = 0;  // of the cost by the step, to first order
};

void solveForStep(int unknowns, Point& point) {
    point.definite = solve(point.equations, unknowns, 0, point.step);
    point.gain = point.definite ? point.step.dot(point.equations.right) : 0;
}

bool isBetter(const Point& there, const Point& here, double damping) {
    return there.equations.cost <= here.equations.cost ||
           (damping == 0 && there.definite && there.gain < kGoodStep * here.gain);
}

double nextDamping(double damping, bool isTaken) {
    if (isTaken) return damping < 1e-4 ? 0 : damping / 10;
    return damping == 0 ? 1e-3 : damping * 10;
}

}  // namespace

bool DiscFit::evaluateAll(const MarkerWindow& window, const SmoothEllipse& record, const Knowledge& known,
                          const DiscModel& model, NormalEquations& equations) {
    evaluate(window, model, unknownsOf(known.light.degree()), equations);
    if (!std::isfinite(equations.cost)) return false;
    addPrior(known.light, window.frame().perPixel, model, equations);
    addSize(record, model, equations);
    holdLeastBlur(model, equations);
    if (rim_.isClipped()) holdFarLevels(model, limits_, equations);
    return true;
}

DiscFit::Outcome DiscFit::fit(const MarkerWindow& window, const SmoothEllipse& record, const DiscModel& start,
                              const Knowledge& known) {
    limits_ = known.limits;
    rim_.take(window, known.others, known.limits);
    const int unknowns = unknownsOf(known.light.degree());
    const auto step = [&](const DiscModel& from, const Vector& by) {
        DiscModel to = moved(from, by);
        if (rim_.isClipped()) boundLevels(limits_, to);
        return to;
    };
    const auto look = [&](Point& point) {
        if (!evaluateAll(window, record, known, point.model, point.equations)) return false;
        solveForStep(unknowns, point);
        return true;
    };

    Outcome result{false, start, {}, 0, {}};
    Point here, there;
    here.model = start;
    here.model.lightDegree = known.light.degree();
    if (!draw(window, here.model)) return result;
    weigh(here.model, known.noise);
    if (!look(here)) return result;
    bool isDrawn = true;  // what `here` says is what the columns hold
    double damping = 0;
    for (result.evaluations = 1; result.evaluations < kMostEvaluations; ++result.evaluations) {
        const double free = std::max(1.0, here.equations.told - unknowns);
        const double scale = std::max(kLeastScale, (here.equations.cost - here.gain) / free);
        if (here.definite && here.gain < kSmallStep * scale) {
            if (known.light.degree() == 0 && (isDrawn || draw(window, here.model)))
                result.light = lightEvidence(allEquations(window, here.model), window.frame().perPixel, scale);
            here.model = step(here.model, here.step);
            result.converged = true;
            break;
        }
        Vector wanted = Vector::Zero();
        const bool solved = solve(here.equations, unknowns, damping, wanted);
        there.model = step(here.model, wanted);
        isDrawn = solved && draw(window, there.model) && look(there) && isBetter(there, here, damping);
        if (isDrawn) std::swap(here, there);
        damping = nextDamping(damping, isDrawn);
        if (damping > kMostDamping) break;
    }
    result.model = here.model;
    result.equations = here.equations;
    return result;
}

}  // namespace kestrune::refinement
