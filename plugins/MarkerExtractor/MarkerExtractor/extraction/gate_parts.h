// SPDX-License-Identifier: Apache-2.0
//
// What the gates of the paths with ellipses share.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <opencv2/core.hpp>

#include "MarkerExtractor/extraction/ellipse_gates.h"

namespace kestrune {

/// Half axes a >= b, formed in single precision like the ellipse and then widened.
struct HalfAxes {
    explicit HalfAxes(const cv::RotatedRect& rect)
        : a(0.5f * std::max(rect.size.width, rect.size.height)),
          b(0.5f * std::min(rect.size.width, rect.size.height)) {}

    double eccentricity() const { return std::sqrt(a * a - b * b) / a; }

    double a, b;
};

template <std::size_t N>
void writeReason(char (&text)[N], const char* format, double value) {
    std::snprintf(text, N, format, value);
}

inline void refuse(GateVerdict& verdict, Gate gate, double measured) {
    verdict.refusedBy = gate;
    verdict.measured = measured;
}

}  // namespace kestrune
