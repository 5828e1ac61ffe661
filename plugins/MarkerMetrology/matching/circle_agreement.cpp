// SPDX-License-Identifier: Apache-2.0
#include "matching/circle_agreement.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <vector>

namespace kestrune::matching {
namespace {

using Matrix3 = Eigen::Matrix3d;
using Vector3 = Eigen::Vector3d;

constexpr int kMostSteps = 12;
// A step whose promise of chi-square is below this changes no decision.
constexpr double kEnough = 1e-3;
// Rays that are nearer to parallel than this meet at no distance that a rig could measure, radians.
constexpr double kLeastAngle = 1e-4;
// Both eyes see a disc at less than 86 degrees, tan(t / 2).
constexpr double kMostTilt = 0.93;
// Two ends nearer than this, in q, are one.
constexpr double kSameEnd = 1e-3;
// Without information of their own, normals are held by this: a spread of 0.5 in q, which is that of half a sphere.
constexpr double kSpread = 4;
// An end that explains less by this much of chi-square adds nothing.
constexpr double kMostBehind = 40;

Complex offsetOf(const Sightline& line, const Complex& q) {
    return line.shift * 2.0 * q / (1 - std::norm(q));
}

struct State {
    Complex q, own;  ///< left, right
    Vector3 residualLeft, residualRight;
    double logRadius, chiSquare;  ///< radius less the left distance
};

struct Pair {
    const Sightline& left;
    const Sightline& right;
    double g;

    /// Chi-square and the best radius for a normal. False where an eye cannot see that side.
    bool evaluate(const Complex& q, State& state) const {
        state.q = q;
        state.own = (q - g) / (1.0 + g * q);
        if (!(std::norm(q) < kMostTilt * kMostTilt && std::norm(state.own) < kMostTilt * kMostTilt)) return false;
        const double leftSine = left.logSine + left.cotangent * offsetOf(left, q).real();
        const double rightSine = right.logSine + right.cotangent * offsetOf(right, state.own).real();
        const Complex a = left.w + q * q, b = right.w + state.own * state.own;
        // Distances are as the sines of the opposite angles; what both share is left out.
        const double ofLeft = left.logRho + rightSine, ofRight = right.logRho + leftSine;
        const auto& CL = left.information;
        const auto& CR = right.information;
        const double pull = CL(0, 0) * ofLeft + CL(0, 1) * a.real() + CL(0, 2) * a.imag() + CR(0, 0) * ofRight +
                            CR(0, 1) * b.real() + CR(0, 2) * b.imag();
        state.logRadius = pull / (CL(0, 0) + CR(0, 0));
        state.residualLeft << ofLeft - state.logRadius, a.real(), a.imag();
        state.residualRight << ofRight - state.logRadius, b.real(), b.imag();
        state.chiSquare =
            state.residualLeft.dot(CL * state.residualLeft) + state.residualRight.dot(CR * state.residualRight);
        return true;
    }

    /// Normal equations in log r, Re q, Im q.
    void linearise(const State& state, Matrix3& H, Vector3& gradient) const {
        const auto rows = [](const Complex& c) {
            Matrix3 J;
            J << 1, 0, 0, 0, -2 * c.real(), 2 * c.imag(), 0, -2 * c.imag(), -2 * c.real();
            return J;
        };
        const Complex factor = (1 + g * g) / ((1.0 + g * state.q) * (1.0 + g * state.q));
        const Matrix3 JL = rows(state.q), JR = rows(state.own * factor);
        const Matrix3 CL = JL.transpose() * left.information, CR = JR.transpose() * right.information;
        H = CL * JL + CR * JR;
        gradient = CL * state.residualLeft + CR * state.residualRight;
    }

    std::optional<State> descend(const Complex& start) const {
        State state, trial;
        if (!evaluate(start, state)) return std::nullopt;
        double damping = 0;
        for (int step = 0; step < kMostSteps; ++step) {
            Matrix3 H;
            Vector3 gradient;
            linearise(state, H, gradient);
            for (int k = 1; k < 3; ++k) H(k, k) += kSpread + damping * H(k, k);
            const Vector3 move = H.llt().solve(gradient);
            if (move.dot(gradient) < kEnough) break;
            if (evaluate(state.q + Complex(move[1], move[2]), trial) && trial.chiSquare < state.chiSquare) {
                state = trial;
                damping *= 0.1;
            } else {
                damping = std::max(10 * damping, 0.1);
            }
        }
        return state;
    }
};

/// Nothing where the rays through the disc's centre do not meet.
std::optional<CircleFit> fitOf(const Pair& pair, const State& state, double baseline) {
    const Sightline &left = pair.left, &right = pair.right;
    CircleFit fit;
    fit.q = state.q;
    fit.normal = normalOf(left, state.q);
    fit.chiSquare = state.chiSquare;
    const auto cosine = [](const Complex& q) { return (1 - std::norm(q)) / (1 + std::norm(q)); };
    fit.facing = 0.5 * (cosine(state.q) + cosine(state.own));

    Matrix3 H;
    Vector3 gradient;
    pair.linearise(state, H, gradient);
    H(1, 1) += kSpread;
    H(2, 2) += kSpread;
    const Eigen::LLT<Matrix3> solver(H);
    const Matrix3 covariance = solver.solve(Matrix3::Identity());
    // A step of q is a turn by twice of it over 1 + |q|^2.
    const double turn = 2 / (1 + std::norm(state.q));
    fit.sigmaNormal = turn * std::sqrt(0.5 * (covariance(1, 1) + covariance(2, 2)));
    fit.logVolume = 2 * std::log(turn) - solver.matrixLLT().diagonal().array().log().sum() -
                    0.5 * (left.logDeterminant + right.logDeterminant) - 1.5 * std::log(2 * std::numbers::pi);

    const Complex ofLeft = offsetOf(left, state.q), ofRight = offsetOf(right, state.own);
    const double alphaLeft = left.alpha - ofLeft.real(), alphaRight = right.alpha - ofRight.real();
    const double gamma = alphaRight - alphaLeft;
    if (!(gamma > kLeastAngle && std::sin(gamma) > 0 && std::sin(alphaRight) > 0)) return std::nullopt;
    const double distance = std::log(baseline / std::sin(gamma));  // of both eyes but for the sines
    fit.logRadius = state.logRadius + distance;
    fit.logDepth = distance + std::log(std::sin(alphaRight) * left.forward);
    fit.depthByAlpha = std::abs(1 / std::tan(gamma) - 1 / std::tan(alphaRight));
    const double byBoth = 1 / std::tan(gamma);
    fit.sigmaDepth =
        std::hypot(left.sigmaAlpha * (byBoth + left.cotangent), right.sigmaAlpha * (byBoth - right.cotangent));
    fit.sigmaRadius = std::sqrt(covariance(0, 0) + fit.sigmaDepth * fit.sigmaDepth);
    fit.epipolar = right.phi + ofRight.imag() / std::sin(right.alpha) - left.phi - ofLeft.imag() / std::sin(left.alpha);
    fit.sigmaEpipolar = std::hypot(left.sigmaPhi, right.sigmaPhi);
    return fit;
}

/// Between each normal of an eye and that of the other which is nearest to it: two to four of them.
std::vector<Complex> startsOf(const Pair& pair) {
    const double g = pair.g;
    const auto fromRight = [g](const Complex& q) { return (q + g) / (1.0 - g * q); };
    const std::array<Complex, 2> left = {pair.left.q, -pair.left.q},
                                 right = {fromRight(pair.right.q), fromRight(-pair.right.q)};
    const auto nearest = [](const Complex& q, const std::array<Complex, 2>& others) {
        return std::norm(others[0] - q) <= std::norm(others[1] - q) ? others[0] : others[1];
    };
    std::vector<Complex> starts;
    const auto add = [&](const Complex& start) {
        if (std::find(starts.begin(), starts.end(), start) == starts.end()) starts.push_back(start);
    };
    for (const Complex& q : left) add(0.5 * (q + nearest(q, right)));
    for (const Complex& q : right) add(0.5 * (nearest(q, left) + q));
    return starts;
}

}  // namespace

Agreement agreementOf(const Sightline& left, const Sightline& right, double baseline, double most) {
    Agreement result;
    const double gamma = right.alpha - left.alpha;
    if (!(gamma > kLeastAngle)) return result;
    const Pair pair{left, right, std::tan(0.5 * gamma)};
    std::array<State, 4> ends;
    int count = 0;
    for (const Complex& start : startsOf(pair)) {
        const std::optional<State> end = pair.descend(start);
        if (!end || !(end->chiSquare <= most)) continue;
        const auto known = [&](const State& other) { return std::norm(other.q - end->q) < kSameEnd * kSameEnd; };
        if (std::any_of(ends.begin(), ends.begin() + count, known)) continue;
        ends[static_cast<std::size_t>(count++)] = *end;
    }
    std::stable_sort(ends.begin(), ends.begin() + count,
                     [](const State& a, const State& b) { return a.chiSquare < b.chiSquare; });
    for (int k = 0; k < std::min(count, 2); ++k) {
        const auto i = static_cast<std::size_t>(k);
        if (ends[i].chiSquare > ends[0].chiSquare + kMostBehind) break;
        if (const std::optional<CircleFit> fit = fitOf(pair, ends[i], baseline))
            result.fits[static_cast<std::size_t>(result.count++)] = *fit;
    }
    return result;
}

}  // namespace kestrune::matching
