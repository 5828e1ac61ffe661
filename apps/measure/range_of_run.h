// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "grey_range.h"

namespace kestrune::measure {

/// The range for all images of a run, told to the user: the wanted one, or that of the data of all that have more than
/// 8 bits, which are read for it. None where there are no such images. What cannot be read is left to be told later.
///
/// @param stop  ends the search early.
std::optional<GreyRange> rangeOfRun(const std::vector<std::string>& images, const std::optional<GreyRange>& wanted,
                                    const std::atomic<bool>& stop);

}  // namespace kestrune::measure
