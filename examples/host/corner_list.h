// SPDX-License-Identifier: Apache-2.0
//
// Markers as a table of centres, such as extract writes.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <string>
#include <vector>

namespace kestrune::host {

/// The markers of one image. Of each, `x` and `y` are set, and `matchIndex` holds its id: the column `id`, or without
/// one the number of its row from 0.
///
/// Read are the columns named x, y and id of a CSV with a header row; the others may hold anything. Empty lines are
/// skipped.
///
/// @throws InputError  with a line for each bad row, and for rows of more than one image (column `image`), since
/// markers
///                     are numbered and matched by image.
std::vector<Corner> readCorners(const std::string& file);

}  // namespace kestrune::host
