// SPDX-License-Identifier: Apache-2.0
//
// Cameras, rigs and records of any numbers for what measures markers, and what is promised of its estimates.
#pragma once

#include <kestrune/MarkerMetrology/discs.h>

#include <Eigen/Eigenvalues>
#include <cmath>
#include <string>

#include "fuzz_input.h"
#include "promises.h"

namespace kestrune::fuzz {

Corner drawnRecord(Input& input, const cv::Size& size);
Camera drawnCamera(Input& input);
RigMatrices drawnRig(Input& input);
MarkerEstimate drawnEstimate(Input& input);

/// @returns what the call has refused its input with; nothing where it answered. Any other end breaks a promise.
template <typename Call>
std::string refusalOf(const Call& call) {
    try {
        call();
    } catch (const cv::Exception& e) {
        require(e.code == cv::Error::StsBadArg && !e.err.empty(), "bad input is refused as such");
        return e.err;
    }
    return {};
}

template <typename Call>
bool isAnswered(const Call& call) {
    return refusalOf(call).empty();
}

void record(Record& to, const char* part, const MarkerEstimate& e);

template <int n>
void requireCovariance(const cv::Matx<double, n, n>& c) {
    Eigen::Matrix<double, n, n> correlation;
    for (int a = 0; a < n; ++a) {
        require(std::isfinite(c(a, a)) && c(a, a) > 0, "variances are above 0");
        for (int b = 0; b < n; ++b) {
            require(c(a, b) == c(b, a), "a covariance is symmetric");
            correlation(a, b) = c(a, b) / std::sqrt(c(a, a)) / std::sqrt(c(b, b));
        }
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, n, n>> solver(correlation, Eigen::EigenvaluesOnly);
    require(solver.eigenvalues()[0] > -1e-6, "a covariance is positive semi-definite");
}

/// Whether it has a place, half axes and an angle.
bool isEllipse(const MarkerEstimate& e);
/// A disc that was found is complete.
void checkDisc(const DiscEstimate& disc);

}  // namespace kestrune::fuzz
