// SPDX-License-Identifier: Apache-2.0
//
// Markers as a table of centres, such as extract writes.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <optional>
#include <string>
#include <vector>

#include "pixels.h"

namespace kestrune::measure {

struct CornerList {
    std::vector<Corner> corners;
    Pixels pixels;  ///< of `x` and `y`
};

/// The markers of one image. Of each, `x` and `y` are set, and `matchIndex` holds its id: the column `id`, or without
/// one the number of its row from 0.
///
/// Read are the columns named x, y, id, image and pixels of a CSV with a header row; the others may hold anything.
/// Empty lines are skipped.
///
/// @param pixels  what the coordinates are, where the table does not say it; where it does, it must say the same.
/// @throws InputError  with a line for each bad row, for rows of more than one image, since markers are numbered and
///                     matched by image, and where nothing or more than one thing is said about the pixels.
CornerList readCorners(const std::string& file, std::optional<Pixels> pixels);

}  // namespace kestrune::measure
