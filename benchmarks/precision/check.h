// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kestrune::bench {

/// Prints the images and bounds beside closed forms and plain sums over points. @returns whether all agree.
bool checkPictures();

}  // namespace kestrune::bench
