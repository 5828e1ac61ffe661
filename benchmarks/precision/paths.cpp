// SPDX-License-Identifier: Apache-2.0
#include "detectors.h"

namespace kestrune::bench {

std::vector<Detector> pathDetectors() {
    return {};
}

std::vector<Detector> rivalDetectors() {
    return {};
}

}  // namespace kestrune::bench
