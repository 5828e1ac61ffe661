// SPDX-License-Identifier: Apache-2.0
#include "refinement/flat_moments.h"

#include <Eigen/Cholesky>
#include <algorithm>

#include "refinement/lanes.h"

namespace kestrune::refinement {
namespace {

constexpr int kTerms = 1 + kLightTerms;
// Powers of u and v in each term.
constexpr std::array<int, kTerms> kU = {0, 1, 0, 2, 1, 0}, kV = {0, 0, 1, 0, 1, 2};

/// Sum of i^k for i = 1 .. n, k = 0 .. 4; as polynomials they give the right differences for n below 0, too.
std::array<double, 5> powerSums(double n) {
    const double n1 = n * (n + 1), odd = 2 * n + 1;
    return {n, n1 / 2, n1 * odd / 6, n1 * n1 / 4, n1 * odd * (3 * n * n + 3 * n - 1) / 30};
}

/// Sums of I, i I, i^2 I and I^2 of a run, I less the reference.
KESTRUNE_BOTH void momentsBoth(const float* grey, int count, float reference, float* result) {
    Lanes s0{}, s1{}, s2{}, squares{}, at = {0, 1, 2, 3, 4, 5, 6, 7};
    for (int i = 0; i < count; i += kLanes, at += static_cast<float>(kLanes)) {
        Lanes value;
        load(grey + i, value);
        value -= reference;
        if (i + kLanes > count) value = at < static_cast<float>(count) ? value : Lanes{};
        s0 += value;
        s1 += value * at;
        s2 += value * at * at;
        squares += value * value;
    }
    result[0] = sum(s0), result[1] = sum(s1), result[2] = sum(s2), result[3] = sum(squares);
}
void momentsAny(const float* grey, int count, float reference, float* result) {
    momentsBoth(grey, count, reference, result);
}
KESTRUNE_WIDE void momentsWide(const float* grey, int count, float reference, float* result) {
    momentsBoth(grey, count, reference, result);
}

}  // namespace

double FlatSums::variance() const {
    const Eigen::LDLT<Eigen::Matrix<double, 6, 6>> solver(terms);
    const double left = greySquared - grey.dot(solver.solve(grey));
    return std::max(left, 0.0) / (count - kTerms);
}

void FlatMoments::reset(const LightFrame& frame, double reference) {
    *this = FlatMoments();
    frame_ = frame;
    reference_ = reference;
}

void FlatMoments::add(int x, int y, int count, const float* grey) {
    const double X = x - frame_.x, Y = y - frame_.y;
    const auto from = powerSums(X - 1), to = powerSums(X + count - 1);
    double py = 1;
    for (std::size_t j = 0; j < 5; ++j, py *= Y)
        for (std::size_t i = 0; i + j < 5; ++i) powers_[i][j] += (to[i] - from[i]) * py;

    std::array<float, 4> moments;
    (hasWideLanes() ? momentsWide : momentsAny)(grey, count, static_cast<float>(reference_), moments.data());
    const double i0 = moments[0], i1 = moments[1], i2 = moments[2];
    const double ix = i1 + X * i0;
    const double ixx = i2 + 2 * X * i1 + X * X * i0;
    const std::array<double, 6> part = {i0, ix, Y * i0, ixx, Y * ix, Y * Y * i0};
    for (std::size_t k = 0; k < part.size(); ++k) grey_[k] += part[k];
    greySquared_ += moments[3];
}

FlatSums FlatMoments::sums() const {
    FlatSums result;
    result.count = powers_[0][0];
    std::array<double, 5> scale{};
    scale[0] = 1;
    for (std::size_t i = 1; i < 5; ++i) scale[i] = scale[i - 1] * frame_.perPixel;
    const auto at = [](int i) { return static_cast<std::size_t>(i); };
    for (int a = 0; a < kTerms; ++a) {
        for (int b = 0; b < kTerms; ++b) {
            const int u = kU[at(a)] + kU[at(b)], v = kV[at(a)] + kV[at(b)];
            result.terms(a, b) = powers_[at(u)][at(v)] * scale[at(u + v)];
        }
        result.grey[a] = grey_[at(a)] * scale[at(kU[at(a)] + kV[at(a)])];
    }
    // Back from the reference: I = reference + difference.
    result.greySquared = greySquared_ + reference_ * (2 * result.grey[0] + reference_ * result.count);
    result.grey += reference_ * result.terms.col(0);
    return result;
}

}  // namespace kestrune::refinement
