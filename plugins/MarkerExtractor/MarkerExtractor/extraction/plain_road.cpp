// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/plain_road.h"

namespace kestrune {

std::atomic<bool> takePlainRoad{false};

}  // namespace kestrune
