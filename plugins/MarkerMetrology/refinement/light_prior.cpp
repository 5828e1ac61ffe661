// SPDX-License-Identifier: Apache-2.0
#include "refinement/light_prior.h"

#include <algorithm>
#include <cmath>

namespace kestrune::refinement {
namespace {

// Excess of squared terms over their variances, in standard deviations of that excess, from which a light is believed.
constexpr double kLightSignificance = 3;
constexpr int kSpreadings = 4;

struct Term {
    double square, variance;
    bool operator<(const Term& other) const {
        return square != other.square ? square < other.square : variance < other.variance;
    }
};

/// Standard deviation of what the terms estimate, 0 where it is not significant.
double spread(std::vector<Term>& terms) {
    if (terms.empty()) return 0;
    std::sort(terms.begin(), terms.end());  // sums in an order of their own
    double excess = 0;
    for (const Term& term : terms) excess += term.square / term.variance - 1;
    if (excess < kLightSignificance * std::sqrt(2.0 * static_cast<double>(terms.size()))) return 0;
    double result = 0;
    for (int i = 0; i < kSpreadings; ++i) {
        double sum = 0, weights = 0;
        for (const Term& term : terms) {
            const double weight = 1 / ((term.variance + result) * (term.variance + result));
            sum += weight * (term.square - term.variance);
            weights += weight;
        }
        result = std::max(0.0, sum / weights);
    }
    return std::sqrt(result);
}

}  // namespace

LightPrior lightOfExposure(const std::vector<LightEvidence>& evidence, int mostDegree) {
    std::vector<Term> slopes, curvatures;
    for (const LightEvidence& e : evidence) {
        for (int k = 0; k < kLightTerms; ++k) {
            const double scale = k < termsOfDegree(1) ? e.perPixel : e.perPixel * e.perPixel;
            const Term term{e.value[k] * e.value[k] * scale * scale, e.variance[k] * scale * scale};
            if (term.variance > 0 && std::isfinite(term.square + term.variance))
                (k < termsOfDegree(1) ? slopes : curvatures).push_back(term);
        }
    }
    LightPrior result;
    if (mostDegree >= 1) result.slope = spread(slopes);
    if (mostDegree >= 2) result.curvature = spread(curvatures);
    // Curved light has slopes away from its top.
    if (result.curvature > 0 && result.slope == 0) result.curvature = 0;
    return result;
}

}  // namespace kestrune::refinement
