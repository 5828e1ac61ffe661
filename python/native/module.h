// SPDX-License-Identifier: Apache-2.0
//
// The parts of the extension. A new operation is a method in extractor.cpp, a result class in kestrune/results.py, a
// method of kestrune/extractor.py, and its lines in kestrune/_native.pyi.
#pragma once

#include <pybind11/pybind11.h>

#include <vector>

#include "kestrune/MarkerExtractor.h"
#include "native/held.h"

namespace kestrune::python {

void defineSettings(pybind11::module_& module);
void defineRig(pybind11::module_& module);
void defineCorners(pybind11::module_& module);
void defineEstimates(pybind11::module_& module);
void defineExtractor(pybind11::module_& module);

/// A sequence of records in Python; what was not set is 0.
pybind11::object pythonCorners(std::vector<Corner> corners);

/// Those of such a sequence. @throws InputError  for anything else.
SharedCorners cornersIn(const pybind11::object& sequence);

}  // namespace kestrune::python
