// SPDX-License-Identifier: Apache-2.0
//
// Pairs by probability, as Python objects.
#pragma once

#include <pybind11/pybind11.h>

#include <optional>

#include "match_knowledge.h"
#include "stereo_result.h"

namespace kestrune::python {

namespace py = pybind11;

/// Of None, or (radii, radius tolerance, depths, sure, object) with the object as n by 5: x, y, z, radius, sigma.
///
/// @throws InputError  for numbers out of their ranges.
std::optional<measure::MatchKnowledge> knowledgeOf(const py::object& known);

/// (pairs, rivals, singles of both eyes, discs, objection, reason, repeat, None or (size, angle, rotation,
/// translation), (centre scale, shape scale))
py::tuple pythonMatch(const StereoMatch& match);

/// (ambiguous pairs, match), or None where the markers were matched otherwise.
py::object pythonTrust(const measure::StereoResult& result);

void defineMatching(py::module_& module);

}  // namespace kestrune::python
