// SPDX-License-Identifier: Apache-2.0
//
// Marks of markers that were refined, or could not be.
#pragma once

#include <kestrune/MarkerMetrology.h>

#include <string>
#include <vector>

#include "overlay.h"

namespace kestrune::measure {

/// Gives each mark the error ellipse of its estimate, or shows that it has none.
void addError(Mark& mark, const MarkerEstimate& estimate);

/// The scale at which the error ellipses of these marks are seen within them; 0 where there are none.
double errorScaleOf(const std::vector<Mark>& marks);

/// "   error ellipses x 500", for a title; nothing for 0.
std::string errorCaption(double scale);

}  // namespace kestrune::measure
