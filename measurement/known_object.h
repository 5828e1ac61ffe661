// SPDX-License-Identifier: Apache-2.0
//
// An object whose markers are known, as a table.
#pragma once

#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>

namespace kestrune::measure {

/// The markers of a CSV with a header row: columns x, y, z (or X, Y, Z), sigma, and perhaps radius. In place of sigma
/// there may be sigmaX, sigmaY and sigmaZ, of which the largest counts, so that the table of a stereo measurement will
/// do. Other columns may hold anything; a radius that is empty or 0 is not known.
///
/// @throws InputError  with a line for each bad row; for a file with fewer than three markers, which tell nothing.
std::vector<KnownMarker> readKnownObject(const std::string& file);

}  // namespace kestrune::measure
