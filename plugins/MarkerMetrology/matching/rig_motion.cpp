// SPDX-License-Identifier: Apache-2.0
#include "matching/rig_motion.h"

#include <Eigen/Cholesky>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "matching/spread.h"

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;
using Vector5 = Eigen::Matrix<double, 5, 1>;
using Matrix5 = Eigen::Matrix<double, 5, 5>;

constexpr double kTurnDegree = 0.017453292519943295;
// What a camera turns by, and the baseline: this holds the directions that the images do not tell.
constexpr double kUsualTurn = 0.15 * kTurnDegree, kUsualBaseline = 0.03 * kTurnDegree;
// The search: turns about the baseline up to the first, about the view up to the second in so many steps each way.
constexpr double kMostPitch = 0.45 * kTurnDegree, kMostRoll = 0.3 * kTurnDegree;
constexpr int kRollSteps = 12;
// Two ellipses of one disc have radii that agree to so many sigmas, where sigmas may be told too small by two.
constexpr double kRadiusGate = 8;
// Of the distance from the epipolar plane, about the middle of a window: of the noise, and of what turns about the
// third axis do at the edges of the images, radians.
constexpr double kPlaneWindow = 4, kPlaneSlack = 2e-4;
constexpr int kRefinements = 6;
// Two windows that are so nearly as full, as a ratio, cannot be told apart.
constexpr double kSecondShare = 0.5;
constexpr double kLeastConvergence = 1e-4;  // of two rays that meet
constexpr double kLeastNoise = 0.3;         // of the told sigmas
constexpr double kOutlier = 4;              // sigmas

Vector3 planeByTurn(const Sightline& line) {
    const double x = line.axis.x(), y = line.axis.y(), z = line.axis.z(), across2 = y * y + z * z;
    return Vector3(-across2, x * y, x * z) / across2;
}

Vector5 rowOf(const Sightline& left, const Sightline& right) {
    const Vector3 ofRight = planeByTurn(right), ofLeft = planeByTurn(left);
    Vector5 row;
    row << ofRight, (ofRight - ofLeft).tail<2>();
    return row;
}

/// A distance of two epipolar planes as one from the lines in the images, px: the mean of both eyes.
double inPixels(const Sightline& left, const Sightline& right) {
    return 0.5 * (std::sin(left.alpha) / left.pixel + std::sin(right.alpha) / right.pixel);
}

struct Residual {
    Vector5 row;
    double value, sigma, pixels;  ///< radians, and px for a radian
};

Vector5 solvePattern(const std::vector<Residual>& residuals, const std::vector<char>& isUsed) {
    Matrix5 normal = Matrix5::Identity() / (kUsualTurn * kUsualTurn);
    normal.diagonal().tail<2>().array() = 1 / (kUsualBaseline * kUsualBaseline);
    Vector5 right = Vector5::Zero();
    for (std::size_t k = 0; k < residuals.size(); ++k) {
        if (!isUsed[k]) continue;
        const Residual& r = residuals[k];
        normal += r.row * r.row.transpose() / (r.sigma * r.sigma);
        right -= r.row * (r.value / (r.sigma * r.sigma));
    }
    return normal.ldlt().solve(right);
}

double scaleOf(const std::vector<Residual>& residuals, const Vector5& turns) {
    std::vector<double> sizes;
    sizes.reserve(residuals.size());
    for (const Residual& r : residuals) sizes.push_back(std::abs(r.value + r.row.dot(turns)) / r.sigma);
    return std::max(medianOf(std::move(sizes), 0) / kMedianOfNormal, kLeastNoise);
}

RigMotion fitPattern(const std::vector<Residual>& residuals) {
    RigMotion motion;
    if (residuals.size() < 6) return motion;
    std::vector<char> isUsed(residuals.size(), 1);
    for (int k = 0; k < kRefinements; ++k) {
        motion.turns = solvePattern(residuals, isUsed);
        const double most = kOutlier * scaleOf(residuals, motion.turns);
        for (std::size_t i = 0; i < residuals.size(); ++i)
            isUsed[i] = std::abs(residuals[i].value + residuals[i].row.dot(motion.turns)) <= most * residuals[i].sigma;
    }
    const double scale = scaleOf(residuals, motion.turns);
    double count = 0, left = 0;
    for (std::size_t i = 0; i < residuals.size(); ++i) {
        if (!isUsed[i]) continue;
        const Residual& r = residuals[i];
        const double pattern = r.row.dot(motion.turns), rest = r.value + pattern;
        motion.gained += (r.value * r.value - rest * rest) / (scale * scale * r.sigma * r.sigma);
        motion.size += pattern * pattern * r.pixels * r.pixels;
        left += rest * rest * r.pixels * r.pixels;
        ++count;
    }
    motion.size = std::sqrt(motion.size / std::max(count, 1.0));
    motion.sigma = std::sqrt(left / std::max(count, 1.0));
    return motion;
}

Residual residualOf(const Sightline& left, const Sightline& right, double epipolar) {
    return {rowOf(left, right), epipolar, std::hypot(left.sigmaPhi, right.sigmaPhi), inPixels(left, right)};
}

struct Loose {
    int left;
    double apart;  ///< of the planes, radians
    double byRoll;
    Residual residual;
};

/// All pairs whose radii agree and whose planes are not too far apart.
std::vector<Loose> loosePairs(const Views& views) {
    std::vector<Loose> pairs;
    const auto &lefts = views.lines[0], &rights = views.lines[1];
    for (int i = 0; i < static_cast<int>(lefts.size()); ++i) {
        const Sightline& left = lefts[static_cast<std::size_t>(i)];
        const auto first = std::lower_bound(rights.begin(), rights.end(), left.phi - kMostPitch,
                                            [](const Sightline& line, double phi) { return line.phi < phi; });
        for (auto right = first; right != rights.end() && right->phi <= left.phi + kMostPitch; ++right) {
            if (!(right->alpha - left.alpha > kLeastConvergence)) continue;
            const double radii = left.logRho + right->logSine - right->logRho - left.logSine;
            if (!(std::abs(radii) <= kRadiusGate * std::hypot(left.sigmaRho, right->sigmaRho))) continue;
            const Residual residual = residualOf(left, *right, right->phi - left.phi);
            pairs.push_back({i, residual.value, residual.row[2], residual});
        }
    }
    return pairs;
}

/// Pairs between two planes' distances.
struct Window {
    double roll = 0, from = 0;
    std::size_t count = 0;  ///< left markers with a partner in it
    std::vector<std::size_t> pairs;
};

/// @param but  a window that this one may not touch; null: anywhere.
Window fullestWindow(const std::vector<Loose>& pairs, double roll, double width, std::size_t lefts, const Window* but) {
    std::vector<std::pair<double, std::size_t>> order(pairs.size());
    for (std::size_t k = 0; k < pairs.size(); ++k) order[k] = {pairs[k].apart + roll * pairs[k].byRoll, k};
    std::sort(order.begin(), order.end());
    std::vector<int> inWindow(lefts, 0);
    Window best;
    best.roll = roll;
    std::size_t count = 0, from = 0, bestFrom = 0, bestTo = 0;
    for (std::size_t to = 0; to < order.size(); ++to) {
        if (inWindow[static_cast<std::size_t>(pairs[order[to].second].left)]++ == 0) ++count;
        while (order[to].first - order[from].first > width)
            if (--inWindow[static_cast<std::size_t>(pairs[order[from++].second].left)] == 0) --count;
        if (count <= best.count) continue;
        if (but != nullptr && std::abs(order[from].first - but->from) < 2 * width) continue;
        best.count = count;
        best.from = order[from].first;
        bestFrom = from;
        bestTo = to;
    }
    for (std::size_t k = bestFrom; k <= bestTo && best.count > 0; ++k) best.pairs.push_back(order[k].second);
    return best;
}

}  // namespace

RigMotion motionOf(const Views& views, const ExposureSolver& solver, const Solution& solution) {
    std::vector<Residual> residuals;
    for (std::size_t c = 0; c < solver.candidates().size(); ++c) {
        if (solution.assignment.probability[c] < 0.5) continue;
        const Candidate& candidate = solver.candidates()[c];
        residuals.push_back(residualOf(views.lines[0][static_cast<std::size_t>(candidate.left)],
                                       views.lines[1][static_cast<std::size_t>(candidate.right)],
                                       solver.fitOf(c, solution).epipolar));
    }
    return fitPattern(residuals);
}

std::vector<RigMotion> searchMotions(const Views& views) {
    const std::vector<Loose> pairs = loosePairs(views);
    if (pairs.empty()) return {};
    double sigma = 0;
    for (const Loose& pair : pairs) sigma += pair.residual.sigma / static_cast<double>(pairs.size());
    const double width = 2 * (kPlaneWindow * sigma + kPlaneSlack);
    const std::size_t lefts = views.lines[0].size();
    Window best;
    for (int step = -kRollSteps; step <= kRollSteps; ++step) {
        const Window window = fullestWindow(pairs, kMostRoll * step / kRollSteps, width, lefts, nullptr);
        if (window.count > best.count) best = window;
    }
    const auto motionIn = [&](const Window& window) {
        std::vector<Residual> residuals;
        for (const std::size_t k : window.pairs) residuals.push_back(pairs[k].residual);
        return fitPattern(residuals);
    };
    std::vector<RigMotion> motions = {motionIn(best)};
    const Window second = fullestWindow(pairs, best.roll, width, lefts, &best);
    if (static_cast<double>(second.count) > kSecondShare * static_cast<double>(best.count))
        motions.push_back(motionIn(second));
    return motions;
}

double turnBetween(const EpipolarFrame& a, const EpipolarFrame& b) {
    const cv::Matx33d turn = rotationOf(b) * rotationOf(a).t();
    const cv::Vec3d twice(turn(2, 1) - turn(1, 2), turn(0, 2) - turn(2, 0), turn(1, 0) - turn(0, 1));
    return std::asin(std::min(1.0, 0.5 * cv::norm(twice)));
}

EpipolarFrame movedFrame(const EpipolarFrame& frame, const RigMotion& motion) {
    const auto turn = [](const Vector3& by) -> Eigen::Matrix3d {
        const double angle = by.norm();
        return angle > 0 ? Eigen::AngleAxisd(angle, by / angle).toRotationMatrix() : Eigen::Matrix3d::Identity();
    };
    const Eigen::Matrix3d both = turn(Vector3(0, motion.turns[3], motion.turns[4]));
    EpipolarFrame moved = frame;
    moved.toFrame[0] = both * frame.toFrame[0];
    moved.toFrame[1] = both * turn(motion.turns.head<3>()) * frame.toFrame[1];
    moved.fromLeft = moved.toFrame[0];
    return moved;
}

cv::Matx33d rotationOf(const EpipolarFrame& frame) {
    const Eigen::Matrix3d turn = frame.toFrame[1].transpose() * frame.toFrame[0];
    cv::Matx33d result;
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column) result(row, column) = turn(row, column);
    return result;
}

cv::Vec3d translationOf(const EpipolarFrame& frame) {
    const Vector3 shift = -frame.baseline * frame.toFrame[1].transpose().col(0);
    return {shift.x(), shift.y(), shift.z()};
}

}  // namespace kestrune::matching
