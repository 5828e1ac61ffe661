// SPDX-License-Identifier: Apache-2.0
//
// What the refinement tells, as Python objects.
#pragma once

#include <pybind11/pybind11.h>

#include <vector>

#include "stereo_exposure.h"

namespace kestrune::python {

namespace py = pybind11;

py::list pythonEstimates(const std::vector<MarkerEstimate>& estimates);

/// (left, right, discs), each a list in step with the markers; empty where they were not refined.
py::tuple pythonPairEstimates(const std::vector<measure::StereoMarker>& markers);

}  // namespace kestrune::python
