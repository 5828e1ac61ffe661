// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_fit.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>

#include "refinement/lanes.h"

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr int kMostEvaluations = 40;
// A step this small in units of its own uncertainty, squared: the next one would be far below it.
constexpr double kSmallStep = 5e-2;
// The blur is cut off at its reach, so that the cost jumps a little as a rim crosses pixels. Near the end a step is
// good as well if it leaves this share, or less, of what could be gained before it.
constexpr double kGoodStep = 0.25;
// The record's half axes are right to this share, or to a pixel: of no weight but where size, contrast and blur of a
// marker can be exchanged, since its blur is as large as it is.
constexpr double kSizeSigma = 0.25, kLeastSizeSigma = 1;
constexpr double kMostDamping = 1e6;
constexpr double kLeastScale = 1e-6;  // of the noise: an image without any

using Vector = Eigen::Matrix<double, kUnknowns, 1>;
using Matrix = Eigen::Matrix<double, kUnknowns, kUnknowns>;

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
    result.value.setZero(), result.variance.setZero();
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

/// At the least blur, a rim that wants to be sharper is as sharp as can be told.
void holdLeastBlur(const DiscModel& model, NormalEquations& equations) {
    if (model.blur > kLeastBlur || equations.right[kBlur] > 0) return;
    equations.matrix.row(kBlur).setZero();
    equations.matrix.col(kBlur).setZero();
    equations.matrix(kBlur, kBlur) = 1;
    equations.right[kBlur] = 0;
}

}  // namespace

void DiscFit::weigh(const MarkerWindow& window, const DiscModel& model, const NoiseModel& noise) {
    insideWeight_ = 1 / noise.variance(model.inside);
    outsideWeight_ = 1 / noise.variance(model.outside);
    const int count = window.rimCount();
    // The level of each pixel is that of its place in the first model; where none was evaluated, the middle's.
    for (int i = 0; i < count; ++i)
        weight_[static_cast<std::size_t>(i)] =
            static_cast<float>(1 / std::sqrt(noise.variance(level_[static_cast<std::size_t>(i)])));
}

void DiscFit::prepareRim(const MarkerWindow& window, const DiscModel& model) {
    const auto contrast = static_cast<float>(model.contrast()), outside = static_cast<float>(model.outside);
    std::array<float, kLightTerms> g;
    std::transform(model.light.begin(), model.light.end(), g.begin(), [](double v) { return static_cast<float>(v); });
    float m = 0;
    int y = -1, x = 0;
    for (const MarkerWindow::Run& run : window.runs()) {
        const DiscPixel* row = image_.row(run.y);
        if (run.y != y) m = 0, y = run.y, x = image_.box().x;
        for (; x < run.x; ++x) m += row[x - image_.box().x].step;
        if (run.first < 0) continue;
        for (int i = run.first; x < run.x + run.count; ++x, ++i) {
            const DiscPixel& pixel = row[x - image_.box().x];
            m += pixel.step;
            const auto at = static_cast<std::size_t>(i);
            const float u = window.u()[i], v = window.v()[i];
            const float light = 1 + (g[0] * u + g[1] * v) + (g[2] * (u * u) + g[3] * (u * v) + g[4] * (v * v));
            const float even = outside + contrast * m, level = light * even;
            float w = weight_[at];
            float residual = window.grey()[i] - others_[at] - level;
            // A pixel that is as bright (dark) as the image can hold may stand for any level beyond.
            if ((window.grey()[i] >= limits_[1] && residual < 0) || (window.grey()[i] <= limits_[0] && residual > 0))
                w = 0;
            level_[at] = level;
            residual_[at] = w * residual;
            const float lc = w * light * contrast, l = w * light, e = w * even;
            columns_[kX][at] = lc * pixel.x;
            columns_[kY][at] = lc * pixel.y;
            columns_[kS][at] = lc * pixel.s;
            columns_[kE1][at] = lc * pixel.e1;
            columns_[kE2][at] = lc * pixel.e2;
            columns_[kBlur][at] = lc * pixel.blur;
            columns_[kIn][at] = l * m;
            columns_[kOut][at] = l - l * m;
            columns_[kLight][at] = e * u;
            columns_[kLight + 1][at] = e * v;
            columns_[kLight + 2][at] = e * (u * u);
            columns_[kLight + 3][at] = e * (u * v);
            columns_[kLight + 4][at] = e * (v * v);
        }
    }
}

void DiscFit::addRim(NormalEquations& equations) const {
    const int count = static_cast<int>(residual_.size());
    const auto dot = [count](const float* a, const float* b) {
        Lanes first{}, second{};
        for (int i = 0; i < count; i += 2 * kLanes) {
            first += load(a + i) * load(b + i);
            second += load(a + i + kLanes) * load(b + i + kLanes);
        }
        return static_cast<double>(sum(first + second));
    };
    for (int a = 0; a < kUnknowns; ++a) {
        for (int b = 0; b <= a; ++b) equations.matrix(a, b) = dot(columns_[a].data(), columns_[b].data());
        equations.right[a] = dot(columns_[a].data(), residual_.data());
    }
    equations.rimCost = dot(residual_.data(), residual_.data());
    equations.cost = equations.rimCost;
}

void DiscFit::addFlat(const FlatSums& sums, double DiscModel::*level, Unknown unknown, const DiscModel& model,
                      NormalEquations& equations) const {
    if (!(sums.count > 0)) return;
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

bool DiscFit::evaluate(const MarkerWindow& window, const DiscModel& model, NormalEquations& equations) {
    if (!model.ellipse.isFinite() || !(model.ellipse.minorHalfAxis() > 0.5)) return false;
    image_.reset(window.box());
    if (!image_.add(model.ellipse, model.blur)) return false;
    prepareRim(window, model);
    addRim(equations);
    addFlat(window.inside(), &DiscModel::inside, kIn, model, equations);
    addFlat(window.outside(), &DiscModel::outside, kOut, model, equations);
    equations.matrix.triangularView<Eigen::StrictlyUpper>() = equations.matrix.transpose();
    return std::isfinite(equations.cost);
}

void DiscFit::begin(const MarkerWindow& window, const Knowledge& known) {
    const auto size = static_cast<std::size_t>((window.rimCount() + 2 * kLanes - 1) / (2 * kLanes) * (2 * kLanes));
    for (auto& column : columns_) column.assign(size, 0.0F);
    residual_.assign(size, 0.0F);
    level_.assign(size, 0.0F);
    others_ = known.others;
    others_.resize(size, 0.0F);
    limits_ = known.limits;
    weight_.assign(size, 1.0F);
    insideWeight_ = outsideWeight_ = 1;
}

bool DiscFit::look(const MarkerWindow& window, const DiscModel& model, const Knowledge& known) {
    NormalEquations equations;
    begin(window, known);
    if (!evaluate(window, model, equations)) return false;
    weigh(window, model, known.noise);
    return evaluate(window, model, equations);
}

DiscFit::Outcome DiscFit::fit(const MarkerWindow& window, const SmoothEllipse& record, const DiscModel& start,
                              const Knowledge& known) {
    begin(window, known);
    const double perPixel = window.frame().perPixel;
    const int unknowns = unknownsOf(known.light.degree());
    const int free =
        std::max(1, window.rimCount() + static_cast<int>(window.inside().count + window.outside().count) - unknowns);
    struct Point {
        DiscModel model;
        NormalEquations equations;
        Vector step;
        bool definite = false;
        double gain = 0;  // of the cost by the step, to first order
    };
    const auto look = [&](Point& point) {
        if (!evaluate(window, point.model, point.equations)) return false;
        addPrior(known.light, perPixel, point.model, point.equations);
        addSize(record, point.model, point.equations);
        holdLeastBlur(point.model, point.equations);
        point.definite = solve(point.equations, unknowns, 0, point.step);
        point.gain = point.definite ? point.step.dot(point.equations.right) : 0;
        return true;
    };

    Outcome result{false, start, {}, 0, {}};
    Point here, there;
    here.model = start;
    here.model.lightDegree = known.light.degree();
    if (!evaluate(window, here.model, here.equations)) return result;
    weigh(window, here.model, known.noise);
    if (!look(here)) return result;
    double damping = 0;
    for (result.evaluations = 1; result.evaluations < kMostEvaluations; ++result.evaluations) {
        const double scale = std::max(kLeastScale, (here.equations.cost - here.gain) / free);
        if (here.definite && here.gain < kSmallStep * scale) {
            if (known.light.degree() == 0) result.light = lightEvidence(here.equations, perPixel, scale);
            here.model = moved(here.model, here.step);
            result.converged = true;
            break;
        }
        Vector step;
        const bool solved = solve(here.equations, unknowns, damping, step);
        there.model = moved(here.model, step);
        const bool better = solved && look(there) &&
                            (there.equations.cost <= here.equations.cost ||
                             (damping == 0 && there.definite && there.gain < kGoodStep * here.gain));
        if (better) {
            std::swap(here, there);
            damping = damping < 1e-4 ? 0 : damping / 10;
        } else {
            damping = damping == 0 ? 1e-3 : damping * 10;
            if (damping > kMostDamping) break;
        }
    }
    result.model = here.model;
    result.equations = here.equations;
    return result;
}

}  // namespace kestrune::refinement
