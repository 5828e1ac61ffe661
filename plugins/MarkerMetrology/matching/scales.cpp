// SPDX-License-Identifier: Apache-2.0
#include "matching/scales.h"

#include <algorithm>
#include <cmath>

#include "matching/spread.h"

namespace kestrune::matching {
namespace {

constexpr double kScalePseudo = 4;  // pairs that speak for the told sigmas

double weightedMedian(std::vector<std::pair<double, double>> values) {
    std::sort(values.begin(), values.end());
    double all = 0, sum = 0;
    for (const auto& [value, weight] : values) all += weight;
    for (const auto& [value, weight] : values) {
        sum += weight;
        if (sum >= 0.5 * all) return value;
    }
    return 0;
}

}  // namespace

void ScaleSample::add(const CircleFit& fit, double probability) {
    distances_.push_back({std::abs(fit.epipolar) / fit.sigmaEpipolar, probability});
    shapes_.push_back({fit.chiSquare, probability});
    count_ += probability;
}

Scales ScaleSample::scales(double least, double most) const {
    const double ofCentre = weightedMedian(distances_) / kMedianOfNormal;
    const double ofShape = std::sqrt(weightedMedian(shapes_) / kMedianOfChi3);
    const double share = count_ / (count_ + kScalePseudo);
    return {std::exp(share * std::log(std::clamp(ofCentre, least, most))),
            std::exp(share * std::log(std::clamp(ofShape, least, most)))};
}

}  // namespace kestrune::matching
