// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrune_scene/records.h"

namespace kestrune::test {

using scene::calibrated, scene::cameraOf, scene::exactCorners, scene::ExactCorners, scene::poseOf, scene::rectifiedRig;

}  // namespace kestrune::test
