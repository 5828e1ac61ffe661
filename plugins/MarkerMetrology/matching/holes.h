// SPDX-License-Identifier: Apache-2.0
//
// Markers that the other eye should have seen and did not. An assignment that is shifted by a row or column loses
// markers at the ends, which tells nothing, for fields of view end; but where markers are missing here and there, it
// needs more of them to be missing than the right one does.
#pragma once

#include <array>

#include "matching/exposure_solver.h"

namespace kestrune::matching {

/// Of the markers of each eye: how many the other one sees, and how many it misses although it sees some all around.
struct Holes {
    std::array<double, 2> seen{}, missing{};

    /// Log probability of these numbers for an unknown share of missing ones, nats.
    double logEvidence() const;
};

Holes holesOf(const Views& views, const ExposureSolver& solver, const Solution& solution);

}  // namespace kestrune::matching
