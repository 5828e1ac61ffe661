// SPDX-License-Identifier: Apache-2.0
//
// The tables of the operations.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <vector>

#include "dropped.h"
#include "explanation.h"
#include "markers.h"
#include "pair_explanation.h"
#include "stereo_exposure.h"

namespace kestrune::python {

namespace py = pybind11;

/// @param estimates  of the markers; null: they were not refined.
py::array markerTable(const std::vector<measure::Marker>& markers, const std::vector<MarkerEstimate>* estimates);

py::array estimateTable(const std::vector<MarkerEstimate>& estimates);
py::array candidateTable(const std::vector<measure::Candidate>& candidates);
py::array dropTable(const std::vector<measure::Dropped>& dropped);

/// With what the estimates tell where the exposure was refined, and how far a pair can be trusted where it was matched
/// by probability.
py::array pointTable(const measure::StereoResult& result);

py::array unmatchedTable(const std::vector<measure::UnmatchedMarker>& markers);

}  // namespace kestrune::python
